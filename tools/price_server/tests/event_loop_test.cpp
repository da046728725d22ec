#include "event_loop.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "lbm/attributes.h"
#include "line_reader.h"
#include "test_support/pipe.h"
#include "test_support/private_domain.h"
#include "zq/posix/descriptor.h"
#include "zq/posix/file.h"

namespace price_server {
namespace {

using namespace std::chrono_literals;
using zq::posix::Descriptor;

lbm::ContextAttributes Sequential() {
  ::setenv("DISABLE_LBM_TRIAGE_HANDLER", "in tests", 1);
  lbm::ContextAttributes attributes;
  attributes.SetString("operational_mode", "sequential");
  return attributes;
}

class EventLoopTest : public testing::Test {
 protected:
  const test_support::PrivateDomain m_domain;
  lbm::Context m_context{Sequential()};
  EventLoop m_loop{m_context};
};

TEST_F(EventLoopTest, RunsWhatWasPostedByTheEndAndNothingBeforeItsTime) {
  std::string ran;
  const auto now = EventLoop::Clock::now();
  m_loop.RunAt(now + 2ms, [&] {
    ran += 'c';
    m_loop.Post([&] { ran += 'd'; });
    m_loop.Post([&] {
      m_loop.Stop();
      m_loop.Post([&] { ran += '!'; });
    });
    m_loop.Post([&] { ran += 'e'; });
  });
  m_loop.RunAt(now + 1ms, [&] { ran += 'b'; });
  m_loop.RunAt(now + 1h, [&] { ran += '!'; });
  m_loop.Post([&] { ran += 'a'; });
  m_loop.Run();
  EXPECT_EQ(ran, "abcde");
}

TEST_F(EventLoopTest, EndsWhenAnotherThreadWantsItEvenBeforeItRuns) {
  std::jthread other;
  m_loop.Post([&] { other = std::jthread([&] { m_loop.Stop(); }); });
  m_loop.Run();
  EventLoop stopped(m_context);
  stopped.Stop();
  stopped.Run();
}

TEST_F(EventLoopTest, RepeatsATaskUntilItThrowsAndLetsThatThrough) {
  int runs = 0;
  m_loop.RunEvery(0s, [&] {
    if (++runs == 3) {
      throw std::runtime_error("third");
    }
  });
  EXPECT_THROW(m_loop.Run(), std::runtime_error);
  EXPECT_EQ(runs, 3);
}

// The lines of a descriptor to its end, each of which is given to onLine, too.
std::vector<std::string> ReadLines(lbm::Context& context, int descriptor, const LineReader::Handler& onLine) {
  std::vector<std::string> lines;
  EventLoop loop(context);
  LineReader reader(descriptor, [&](const std::string& line) {
    lines.push_back(line);
    onLine(line);
  });
  loop.WatchForInput(descriptor, [&] {
    if (reader.Read()) {
      return true;
    }
    loop.Stop();
    return false;
  });
  loop.Run();
  return lines;
}

TEST_F(EventLoopTest, ReadsLinesAsTheyCome) {
  auto [reader, writer] = test_support::MakePipe();
  zq::posix::WriteAll(writer.Get(), "one\n\ntw");
  const auto lines = ReadLines(m_context, reader.Get(), [&writer = writer](const std::string& line) {
    if (line.empty()) {
      zq::posix::WriteAll(writer.Get(), "o\nlast");
      writer = Descriptor();
    }
  });
  EXPECT_EQ(lines, (std::vector<std::string>{"one", "", "two", "last"}));
}

TEST_F(EventLoopTest, ReadsFilesThoughTheSystemDoesNotWatchThem) {
  const auto path = m_domain.Directory() / "lines";
  std::ofstream(path) << "first\n" << std::string(3 * LineReader::kMaxLength, 'a') << "\nlast\n";
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  const Descriptor nothing(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  const auto ignore = [](const std::string&) {};
  EXPECT_EQ(ReadLines(m_context, file.Get(), ignore),
            (std::vector<std::string>{"first", std::string(LineReader::kMaxLength, 'a'), "last"}));
  EXPECT_TRUE(ReadLines(m_context, nothing.Get(), ignore).empty());
}

}  // namespace
}  // namespace price_server
