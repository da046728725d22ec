#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <fstream>
#include <string>
#include <system_error>
#include <thread>

#include "test_support/pipe.h"
#include "test_support/temporary_directory.h"
#include "zq/posix/descriptor.h"
#include "zq/posix/event.h"
#include "zq/posix/file.h"
#include "zq/posix/fork.h"
#include "zq/posix/signals.h"

namespace zq::posix {
namespace {

bool IsOpen(int descriptor) { return ::fcntl(descriptor, F_GETFD) != -1; }

TEST(Descriptor, IsClosedOnceByItsLastOwner) {
  Descriptor first = Checked(::open("/dev/null", O_RDONLY | O_CLOEXEC), "open");
  const int value = first.Get();
  Descriptor second(std::move(first));
  EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): what a moved-from descriptor is
  second = Descriptor(second.Release());
  EXPECT_TRUE(IsOpen(value));
  second = Descriptor();
  EXPECT_FALSE(IsOpen(value));
}

TEST(Descriptor, AFailedCallIsToldWithItsReason) {
  try {
    Checked(::open("/nowhere/at/all", O_RDONLY | O_CLOEXEC), "cannot open it");
    FAIL();
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
    EXPECT_STREQ(error.what(), "cannot open it: No such file or directory");
  }
}

TEST(Event, IsReadableFromNotifyToClear) {
  Event event;
  pollfd readable{event.GetDescriptor(), POLLIN, 0};
  EXPECT_EQ(::poll(&readable, 1, 0), 0);
  EXPECT_FALSE(event.Clear());
  event.Notify();
  event.Notify();
  EXPECT_EQ(::poll(&readable, 1, 0), 1);
  EXPECT_TRUE(event.Clear());
  EXPECT_EQ(::poll(&readable, 1, 0), 0);
}

class Files : public testing::Test {
 protected:
  std::string Path(const char* name) const { return (m_directory.Path() / name).string(); }
  std::string Made(const char* name, const std::string& contents) const {
    std::ofstream(Path(name)) << contents;
    return Path(name);
  }
  static std::errc ErrorOfReading(const std::string& path, std::size_t bytesMax) {
    try {
      ReadFile(path, bytesMax);
    } catch (const std::system_error& error) {
      EXPECT_EQ(std::string(error.what()).find(path), 0U) << error.what();
      return static_cast<std::errc>(error.code().value());
    }
    return {};
  }

 private:
  test_support::TemporaryDirectory m_directory;
};

TEST_F(Files, AreReadWholeUpToTheBound) {
  const std::string contents(100'000, 'x');
  const std::string path = Made("large", contents);
  EXPECT_EQ(ReadFile(path, contents.size()), contents);
  EXPECT_EQ(ErrorOfReading(path, contents.size() - 1), std::errc::file_too_large);
  EXPECT_EQ(ErrorOfReading(Path("absent"), 1), std::errc::no_such_file_or_directory);
  EXPECT_EQ(ErrorOfReading(Path("."), 1), std::errc::is_a_directory);

  const Descriptor file = Checked(::open(path.c_str(), O_RDONLY | O_CLOEXEC), "open");
  EXPECT_EQ(ReadBeginning(file.Get(), 3), "xxx");
  EXPECT_EQ(ReadBeginning(-1, 3), "");
}

TEST_F(Files, AFullPipeIsWaitedForAndAnAbsentReaderTold) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  Descriptor reader(ends[0]);
  Descriptor writer(ends[1]);
  const std::string bytes(1'000'000, 'y');  // more than a pipe holds
  std::string received;
  std::thread reading([&] {
    std::string chunk(4096, '\0');
    for (ssize_t count = 1; count != 0 && received.size() < bytes.size();) {
      pollfd readable{reader.Get(), POLLIN, 0};
      ::poll(&readable, 1, -1);
      count = ::read(reader.Get(), chunk.data(), chunk.size());
      received.append(chunk, 0, static_cast<std::size_t>(count > 0 ? count : 0));
    }
  });
  const WriteResult whole = WriteAll(writer.Get(), bytes);
  if (whole.error != 0) {
    writer = Descriptor();  // lets the reader end
  }
  reading.join();
  EXPECT_EQ(whole.error, 0);
  EXPECT_EQ(received, bytes);

  reader = Descriptor();
  ::signal(SIGPIPE, SIG_IGN);
  EXPECT_EQ(WriteAll(writer.Get(), "z").error, EPIPE);
}

TEST(Fork, AChildHasNothingThatIsUnsharedAndKeepsOutOfItsPlaces) {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const Descriptor other(ends[1]);
  Descriptor connection = OpenUnshared([&] { return ends[0]; });
  connection = Descriptor(std::move(connection));
  const Descriptor file = Checked(::memfd_create("test", MFD_CLOEXEC), "memfd_create");
  ASSERT_EQ(::ftruncate(file.Get(), 4096), 0);
  auto* const memory = static_cast<int*>(MapUnshared(4096, PROT_READ | PROT_WRITE, file.Get()));
  ASSERT_NE(memory, MAP_FAILED);
  *memory = 1;
  const unsigned generation = Generation();

  test_support::Pipe alive = test_support::MakePipe();
  const pid_t child = ::fork();
  if (child == 0) {
    alive.writer = {};
    const int expected = *memory == 0 && Generation() != generation && IsOpen(connection.Get()) ? 0 : 1;
    *memory = 2;
    char end = 0;
    ::_exit(::read(alive.reader.Get(), &end, 1) == 0 ? expected : 2);
  }
  connection = {};
  char end = 0;
  EXPECT_EQ(::read(other.Get(), &end, 1), 0) << "the child would have to end first";
  alive.writer = {};
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(*memory, 1);
  EXPECT_EQ(Generation(), generation);
  UnmapUnshared(memory, 4096);
}

TEST(Fork, AChildKeepsWhatStandsWhereSomethingUnsharedWas) {
  const int place = OpenUnshared([] { return ::open("/dev/null", O_RDWR | O_CLOEXEC); }).Get();
  const Descriptor shared = Checked(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, place), "fcntl");
  ASSERT_EQ(shared.Get(), place);
  struct stat before {};
  ASSERT_EQ(::fstat(place, &before), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    struct stat now {};
    ::_exit(::fstat(place, &now) == 0 && now.st_ino == before.st_ino && now.st_dev == before.st_dev ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST(SignalBlocker, KeepsSignalsFromThreadsThatStartMeanwhileAndFromNoOthers) {
  const auto blocks = [](int signal) {
    sigset_t mask;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return ::sigismember(&mask, signal) == 1;
  };
  std::thread started;
  {
    const SignalBlocker blocker;
    started = std::thread([&] {
      EXPECT_TRUE(blocks(SIGTERM));
      EXPECT_TRUE(blocks(SIGPIPE));
      EXPECT_FALSE(blocks(SIGSEGV));
    });
  }
  EXPECT_FALSE(blocks(SIGTERM));
  started.join();
}

}  // namespace
}  // namespace zq::posix
