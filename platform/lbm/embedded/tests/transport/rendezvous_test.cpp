#include "transport/host/link/runtime_directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "member.h"

namespace engine::transport::host {
namespace {

using testing::HasSubstr;

class RuntimeDirectory : public testing::Test {
 protected:
  // The text with which the directory is refused.
  std::string Refusal(const std::string& path, const std::string& domain = "test") const {
    try {
      OpenDomain(path, domain);
    } catch (const std::exception& error) {
      EXPECT_THAT(error.what(), HasSubstr("\"" + path.substr(0, path.find_last_not_of('/') + 1)));
      return error.what();
    }
    return "not refused";
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
  EXPECT_THAT(Refusal(open), HasSubstr("chmod go-w"));
  ASSERT_EQ(::chmod(open.c_str(), 0702), 0);
  EXPECT_THAT(Refusal(open), HasSubstr("chmod go-w"));

  const std::string own = m_scratch.Path() + "/own";
  const std::string link = m_scratch.Path() + "/link";
  OpenDomain(own, "test");
  std::filesystem::create_directory_symlink(own, link);
  EXPECT_THAT(Refusal(link), HasSubstr("symbolic link"));
  EXPECT_THAT(Refusal(link + "/"), HasSubstr("symbolic link"));
  std::filesystem::create_directory_symlink(own + "/test", own + "/linked");
  EXPECT_THAT(Refusal(own, "linked"), HasSubstr("symbolic link"));

  std::string foreign = "/";
  if (::geteuid() == 0) {
    foreign = m_scratch.Path() + "/foreign";
    ASSERT_EQ(::mkdir(foreign.c_str(), 0700), 0);
    ASSERT_EQ(::chown(foreign.c_str(), 12345, 12345), 0);
  }
  EXPECT_THAT(Refusal(foreign), HasSubstr("belongs to user"));
}

TEST_F(RuntimeDirectory, FaultsOfThePathSayWhatToDo) {
  const std::string file = m_scratch.Path() + "/file";
  ASSERT_TRUE(zq::posix::Descriptor(::open(file.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600)));
  EXPECT_THAT(Refusal(file), HasSubstr("not a directory"));
  EXPECT_THAT(Refusal(m_scratch.Path() + "/no/such"), HasSubstr("create the directories above it"));
  EXPECT_THAT(Refusal(m_scratch.Path() + "/" + std::string(300, 'x')), HasSubstr("shorten it"));
  for (const std::string domain : {"", ".", "..", "a/b", "/"}) {
    EXPECT_THROW(OpenDomain(m_scratch.Path(), domain), std::invalid_argument) << domain;
  }
  EXPECT_THROW(OpenDomain(m_scratch.Path(), std::string(256, 'x')), std::invalid_argument);
}

TEST_F(RuntimeDirectory, HasToBeWritable) {
  constexpr uid_t kSomebody = 12345;
  const uid_t user = ::geteuid();
  if (user == 0) {  // for whom every directory is writable
    ASSERT_EQ(::chown(m_scratch.Path().c_str(), kSomebody, kSomebody), 0);
    ASSERT_EQ(::seteuid(kSomebody), 0);
  }
  ASSERT_EQ(::chmod(m_scratch.Path().c_str(), 0500), 0);
  EXPECT_THAT(Refusal(m_scratch.Path()), HasSubstr("make it writable"));
  ASSERT_EQ(::chmod(m_scratch.Path().c_str(), 0700), 0);
  ASSERT_EQ(::seteuid(user), 0);
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
