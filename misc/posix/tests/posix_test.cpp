#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <string>
#include <system_error>
#include <thread>

#include "test_support/temporary_directory.h"
#include "zq/posix/descriptor.h"
#include "zq/posix/event.h"
#include "zq/posix/file.h"
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
