// The log file beside others who move, delete and rotate it.
#include "backend/log_file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "test_support/temporary_directory.h"
#include "zq/posix/descriptor.h"
#include "zq/posix/file.h"

namespace zq::logging {
namespace {

using std::chrono::hours;
using std::chrono::system_clock;
using ::testing::AllOf;
using ::testing::HasSubstr;

namespace fs = std::filesystem;

constexpr std::size_t kLargest = std::size_t{1} << 20;

// Standard error goes to a file, so that a test can read it while it goes on.
class StandardErrorInFile {
 public:
  explicit StandardErrorInFile(const fs::path& path) : m_before(::dup(STDERR_FILENO)) {
    const zq::posix::Descriptor file(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600));
    ::dup2(file.Get(), STDERR_FILENO);
  }
  StandardErrorInFile(const StandardErrorInFile&) = delete;
  StandardErrorInFile& operator=(const StandardErrorInFile&) = delete;
  ~StandardErrorInFile() { ::dup2(m_before.Get(), STDERR_FILENO); }

 private:
  const zq::posix::Descriptor m_before;
};

class LogFileTest : public ::testing::Test {
 protected:
  LogFileTest() { m_options.file = m_directory.Path() / "log"; }

  std::string Text(const std::string& name) const {
    const auto path = m_directory.Path() / name;
    return fs::exists(path) ? zq::posix::ReadFile(path, kLargest) : "(none)";
  }

  std::size_t Size(const std::string& name) const { return fs::file_size(m_directory.Path() / name); }

  // Writes the line until condition holds: the file is looked at once a second. Returns how many times it did.
  static std::size_t WriteUntil(LogFile& file, std::string_view line, const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    std::size_t lines = 0;
    while (!condition() && std::chrono::steady_clock::now() < deadline) {
      file.Write(line, system_clock::now());
      ++lines;
    }
    EXPECT_TRUE(condition()) << "gave up after 20 s";
    return lines;
  }

  const test_support::TemporaryDirectory m_directory;
  BackendOptions m_options;
};

TEST_F(LogFileTest, AFileThatIsMovedOrDeletedIsOpenedAnewWithoutALossOfLines) {
  LogFile file;
  file.Configure(m_options);
  file.Write("one\n", system_clock::now());
  fs::rename(m_options.file, m_directory.Path() / "moved");
  const auto lines = WriteUntil(file, "two\n", [&] { return fs::exists(m_options.file); });
  EXPECT_EQ(Size("moved") + Size("log"), 4 * (1 + lines));
  EXPECT_EQ(Text("log"), "two\n");

  fs::remove(m_options.file);
  WriteUntil(file, "three\n", [&] { return fs::exists(m_options.file); });
  EXPECT_EQ(Text("log"), "three\n");
}

TEST_F(LogFileTest, LinesGoOnToTheMovedFileWhileItsPlaceCannotBeOpened) {
  const StandardErrorInFile standardError(m_directory.Path() / "stderr");
  const auto before = m_directory.Path() / "before";
  const auto after = m_directory.Path() / "after";
  fs::create_directory(before);
  m_options.file = before / "log";
  LogFile file;
  file.Configure(m_options);
  fs::rename(before, after);
  const auto lost = WriteUntil(file, "lost\n", [&] { return !Text("stderr").empty(); });
  file.Write("lost\n", system_clock::now());
  EXPECT_EQ(Size("after/log"), 5 * (lost + 1));
  EXPECT_THAT(Text("stderr"), AllOf(HasSubstr("cannot open log file"), HasSubstr("No such file or directory")));
  fs::rename(after, before);
  WriteUntil(file, "back\n", [&] { return Text("stderr").find("written again") != std::string::npos; });
}

TEST_F(LogFileTest, AFileThatCannotBeOpenedIsTriedAgain) {
  const StandardErrorInFile standardError(m_directory.Path() / "stderr");
  m_options.file = m_directory.Path() / "later" / "log";
  LogFile file;
  file.Configure(m_options);
  EXPECT_THAT(Text("stderr"), HasSubstr("No such file or directory"));
  file.Write("lost\n", system_clock::now());
  fs::create_directory(m_directory.Path() / "later");
  WriteUntil(file, "kept\n", [&] { return Text("stderr").find("written again") != std::string::npos; });
  EXPECT_EQ(Text("later/log"), "kept\n");
}

TEST_F(LogFileTest, RotationBySizeKeepsLinesWholeAndTheNewestFiles) {
  m_options.fileSizeMax = 10;
  m_options.filesKept = 2;
  {
    LogFile file;
    file.Configure(m_options);
    for (const char* line : {"1111\n", "2222\n", "3333\n", "longer than the limit\n", "4444\n"}) {
      file.Write(line, system_clock::now());
    }
    EXPECT_EQ(Text("log"), "4444\n");
    EXPECT_EQ(Text("log.1"), "longer than the limit\n");
    EXPECT_EQ(Text("log.2"), "3333\n");
    EXPECT_EQ(Text("log.3"), "(none)");
  }
  LogFile nextRun;
  nextRun.Configure(m_options);
  nextRun.Write("5555\n", system_clock::now());
  nextRun.Write("6666\n", system_clock::now());
  EXPECT_EQ(Text("log"), "6666\n");
  EXPECT_EQ(Text("log.1"), "4444\n5555\n");
}

TEST_F(LogFileTest, ADayEndsAtLocalMidnightAlsoWhenItHas25Hours) {
  ::setenv("TZ", "CST6CDT,M3.2.0,M11.1.0", 1);
  ::tzset();
  m_options.fileDaily = true;
  {
    LogFile file;
    file.Configure(m_options);
    std::tm midnight{};
    midnight.tm_year = 2026 - 1900;
    midnight.tm_mon = 10;
    midnight.tm_mday = 1;
    midnight.tm_isdst = -1;
    const auto sunday = system_clock::from_time_t(std::mktime(&midnight));
    file.Write("sunday\n", sunday);
    file.Write("sunday\n", sunday + hours(25) - std::chrono::microseconds(1));
    file.Write("monday\n", sunday + hours(25));
    file.Write("monday\n", sunday + hours(49) - std::chrono::microseconds(1));
    EXPECT_EQ(Text("log"), "monday\nmonday\n");
    EXPECT_EQ(Text("log.1"), "sunday\nsunday\n");
  }
  fs::last_write_time(m_options.file, fs::file_time_type::clock::now() - hours(24));
  LogFile nextRun;
  nextRun.Configure(m_options);
  nextRun.Write("today\n", system_clock::now());
  EXPECT_EQ(Text("log"), "today\n");
  EXPECT_EQ(Text("log.1"), "monday\nmonday\n");
  ::unsetenv("TZ");
  ::tzset();
}

TEST_F(LogFileTest, AFileThatCannotBeRotatedGoesOnAndIsReportedOnce) {
  const StandardErrorInFile standardError(m_directory.Path() / "stderr");
  m_options.fileSizeMax = 10;
  m_options.filesKept = 1;
  const auto obstacle = m_directory.Path() / "log.1";
  fs::create_directories(obstacle / "occupied");
  LogFile file;
  file.Configure(m_options);
  const auto lines = WriteUntil(file, "aaaa\n", [&] { return Size("log") > 100; });
  EXPECT_EQ(Size("log"), 5 * lines);
  EXPECT_THAT(Text("stderr"), AllOf(HasSubstr("cannot rotate log file"), HasSubstr("Is a directory")));
  fs::remove_all(obstacle);
  WriteUntil(file, "bbbb\n", [&] { return fs::exists(obstacle); });
  EXPECT_EQ(Text("log"), "bbbb\n");
  const std::string report = Text("stderr");
  EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), 2) << report;
  EXPECT_THAT(report, HasSubstr("is rotated again"));
}

// Here and below two objects stand for two processes: each has the file open for itself.
TEST_F(LogFileTest, AFileThatSeveralProcessesWriteIsRotatedOnceADay) {
  m_options.fileDaily = true;
  const auto today = system_clock::now();
  LogFile one;
  LogFile other;
  one.Configure(m_options);
  other.Configure(m_options);
  one.Write("yesterday\n", today - hours(24));
  other.Write("yesterday\n", today - hours(24));
  one.Write("today\n", today);
  other.Write("today\n", today);
  EXPECT_EQ(Text("log"), "today\ntoday\n");
  EXPECT_EQ(Text("log.1"), "yesterday\nyesterday\n");
}

TEST_F(LogFileTest, SeveralProcessesRotateTheSameFileWithoutALossOfLines) {
  constexpr std::size_t kLines = 2000;
  static constexpr std::string_view kLine = "a line of 22 bytes...\n";
  m_options.fileSizeMax = 500;
  m_options.filesKept = 400;
  {
    std::vector<std::jthread> processes;
    processes.reserve(2);
    for (int process = 0; process < 2; ++process) {
      processes.emplace_back([this] {
        LogFile file;
        file.Configure(m_options);
        for (std::size_t i = 0; i < kLines; ++i) {
          file.Write(kLine, system_clock::now());
        }
      });
    }
  }
  std::size_t bytes = 0;
  for (const auto& entry : fs::directory_iterator(m_directory.Path())) {
    bytes += entry.file_size();
  }
  EXPECT_EQ(bytes, 2 * kLines * kLine.size());
}

TEST_F(LogFileTest, WhatIsNoRegularFileIsNeverRotated) {
  m_options.file = "/dev/null";
  m_options.fileSizeMax = 1;
  m_options.fileDaily = true;
  LogFile file;
  file.Configure(m_options);
  file.Write("one\n", system_clock::now());
  file.Write("two\n", system_clock::now() + hours(48));
  EXPECT_FALSE(fs::exists("/dev/null.1"));
}

}  // namespace
}  // namespace zq::logging
