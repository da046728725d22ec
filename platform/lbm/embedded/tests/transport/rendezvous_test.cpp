#include "transport/host/link/runtime_directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>

#include "member.h"
#include "transport/host/link/rendezvous.h"

namespace engine::transport::host {
namespace {

using testing::HasSubstr;

class RuntimeDirectory : public testing::Test {
 protected:
  // Refused with the path and this text.
  static void ExpectRefusal(const std::string& path, const char* text, const std::string& domain = "test") {
    const std::string named = "\"" + path.substr(0, path.find_last_not_of('/') + 1);
    EXPECT_THAT([&] { OpenDomain(path, domain); },
                testing::ThrowsMessage<std::exception>(AllOf(HasSubstr(named), HasSubstr(text))));
  }

  ScratchDirectory m_scratch;
};

TEST_F(RuntimeDirectory, IsCreatedForThisUserAlone) {
  const std::string path = m_scratch.Path() + "/run/";
  OpenDomain(path, "test");
  for (const char* each : {"run", "run/test"}) {
    struct stat status {};
    ASSERT_EQ(::stat((m_scratch.Path() + "/" + each).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U) << each;
  }
  OpenDomain(path, "test");
}

TEST_F(RuntimeDirectory, IsRefusedWhereOthersMightTamperWithIt) {
  const std::string open = m_scratch.Path() + "/open";
  ASSERT_EQ(::mkdir(open.c_str(), 0700), 0);
  ASSERT_EQ(::chmod(open.c_str(), 0770), 0);
  ExpectRefusal(open, "chmod go-w");
  ASSERT_EQ(::chmod(open.c_str(), 0702), 0);
  ExpectRefusal(open, "chmod go-w");

  const std::string own = m_scratch.Path() + "/own";
  const std::string link = m_scratch.Path() + "/link";
  OpenDomain(own, "test");
  std::filesystem::create_directory_symlink(own, link);
  ExpectRefusal(link, "symbolic link");
  ExpectRefusal(link + "/", "symbolic link");
  std::filesystem::create_directory_symlink(own + "/test", own + "/linked");
  ExpectRefusal(own, "symbolic link", "linked");

  std::string foreign = "/";
  if (::geteuid() == 0) {
    foreign = m_scratch.Path() + "/foreign";
    ASSERT_EQ(::mkdir(foreign.c_str(), 0700), 0);
    ASSERT_EQ(::chown(foreign.c_str(), 12345, 12345), 0);
  }
  ExpectRefusal(foreign, "belongs to user");
}

TEST_F(RuntimeDirectory, FaultsOfThePathSayWhatToDo) {
  const std::string file = m_scratch.Path() + "/file";
  ASSERT_TRUE(zq::posix::Descriptor(::open(file.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600)));
  ExpectRefusal(file, "not a directory");
  ExpectRefusal(m_scratch.Path() + "/no/such", "create the directories above it");
  ExpectRefusal(m_scratch.Path() + "/" + std::string(300, 'x'), "shorten it");
  for (const std::string domain : {"", ".", "..", "a/b", "/"}) {
    EXPECT_THROW(OpenDomain(m_scratch.Path(), domain), std::invalid_argument) << domain;
  }
  EXPECT_THROW(OpenDomain(m_scratch.Path(), std::string(256, 'x')), std::invalid_argument);
}

TEST_F(RuntimeDirectory, MayBeLongerThanASocketAddress) {
  HostSettings settings = SettingsIn(m_scratch);
  settings.runtimeDirectory += "/" + std::string(250, 'x');
  settings.domain = std::string(250, 'y');
  Member a(settings);
  Member b(settings);
  const auto publication = a.transport->Advertise({"T", Pacing::kSource});
  Settle({&a, &b});
  EXPECT_TRUE(b.Heard("up T"));
}

TEST_F(RuntimeDirectory, TakesNobodyForDeadWhereThereIsNoProc) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "takes the rights of the superuser";
  }
  const pid_t child = ::fork();
  if (child == 0) {
    Rendezvous living(m_scratch.Path(), "test", "1-a");
    living.Join();
    const Rendezvous caller(m_scratch.Path(), "test", "1-b");
    zq::posix::Descriptor socket;
    ASSERT_EQ(::chroot(m_scratch.Path().c_str()), 0);
    const auto namesProc = testing::ThrowsMessage<std::exception>(HasSubstr("mount /proc"));
    EXPECT_THAT([&] { caller.Connect("1-a", socket); }, namesProc);
    EXPECT_THAT([] { Rendezvous("/", "test", "1-c").Join(); }, namesProc);
    EXPECT_THAT(caller.Others(), testing::ElementsAre("1-a"));
    ::_exit(HasFailure() ? 1 : 0);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(RuntimeDirectory, WhoIsOutOfSightIsNotTakenForDead) {
  constexpr const char* kUnseen = "2000000000-a";  // no process has such a number here
  Rendezvous unseen(m_scratch.Path(), "test", kUnseen);
  unseen.Join();
  Rendezvous seen(m_scratch.Path(), "test", std::to_string(::getpid()) + "-b");
  seen.Join();
  EXPECT_THAT(seen.Others(), testing::ElementsAre(kUnseen));
}

TEST_F(RuntimeDirectory, ALinkInItIsNotFollowedToRemoveWhatTheDeadHaveLeft) {
  const std::string dead = std::to_string(INT32_MAX) + "-0";
  const std::filesystem::path domain = m_scratch.Path() + "/test";
  const std::filesystem::path elsewhere = m_scratch.Path() + "/elsewhere";
  const std::filesystem::path kept = elsewhere / "ab" / ("key." + dead);
  OpenDomain(m_scratch.Path(), "test");
  std::filesystem::create_directories(kept.parent_path());
  for (const auto& path : {kept, domain / (dead + ".socket")}) {
    std::ofstream(path) << "a file";
  }
  std::filesystem::create_directory_symlink(elsewhere, domain / "offers");
  const Member member(SettingsIn(m_scratch));
  EXPECT_FALSE(std::filesystem::exists(domain / (dead + ".socket")));
  EXPECT_TRUE(std::filesystem::exists(kept));
}

TEST_F(RuntimeDirectory, FollowsTheEnvironment) {
  const auto with = [](const char* own, const char* session) {
    ::setenv("LBM_RUNTIME_DIR", own, 1);
    ::setenv("XDG_RUNTIME_DIR", session, 1);
    return host::RuntimeDirectory();
  };
  EXPECT_EQ(with("/own", "/session"), "/own");
  EXPECT_EQ(with("", "/session"), "/session/lbm");
  EXPECT_EQ(with("", ""), "/tmp/lbm-" + std::to_string(::geteuid()));
}

}  // namespace
}  // namespace engine::transport::host
