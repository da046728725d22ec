// Pages that no program of ours has written.
#include <gmock/gmock.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "call.h"
#include "processes.h"
#include "test_support/temporary_directory.h"
#include "zq/statistics/row.h"

namespace price_stat {
namespace {

const Kind kThings{"receiver",
                   "Rows.",
                   {"context", "handle", "topic"},
                   {{"messages", FieldType::kCounter, "", "Messages."},
                    {"busy_since", FieldType::kGauge, "nanoseconds", "A moment."},
                    {"longest", FieldType::kRecentMaximum, "nanoseconds", "The longest."},
                    {"latency", FieldType::kHistogram, "nanoseconds", "Latency."}}};

// The test's own process has a page; copies of it are damaged.
class HostilePage : public testing::Test {
 protected:
  HostilePage() {
    ::setenv("ZQ_STATISTICS_DIR", Own().c_str(), 1);
    std::filesystem::create_directory(m_directory.Path() / "copies");
    for (const char* const kind : {"receiver", "context", "engine_context", "dispatch_thread", "option", "source"}) {
      auto played = kThings;
      played.name = kind;
      m_rows.push_back(
          std::make_unique<zq::statistics::Row>(played, std::initializer_list<std::string_view>{"a", "0x1", "prices"}));
      m_rows.back()->Add(0, 7);
      m_rows.back()->RecordMaximum(2, 9, zq::statistics::Now());
      m_rows.back()->RecordInHistogram(3, 100, zq::statistics::Now());
    }
    std::ostringstream page;
    page << std::ifstream(zq::statistics::ListPages(Own()).at(0).path).rdbuf();
    m_page = page.str();
  }

  // A process makes its page once.
  static std::string Own() {
    static const test_support::TemporaryDirectory directory;
    return directory.Path();
  }

  void Write(const std::string& bytes) const {
    std::ofstream(m_directory.Path() / "copies" / "played.1.page", std::ios::binary) << bytes;
  }

  void RunAllCommands() const {
    const auto directory = "--directory=" + (m_directory.Path() / "copies").string();
    for (const auto& command : std::vector<std::vector<const char*>>{{"show"},
                                                                     {"show", "--json"},
                                                                     {"topics"},
                                                                     {"options"},
                                                                     {"threads", "--interval=0"},
                                                                     {"watch", "--count=1", "--interval=0.05"}}) {
      std::vector<const char*> arguments{"price_stat", directory.c_str()};
      arguments.insert(arguments.end(), command.begin(), command.end());
      const cli::Output output;
      Call call;
      ASSERT_TRUE(ParseCall(static_cast<int>(arguments.size()), arguments.data(), output, call));
      call.run(output);
    }
  }

  test_support::TemporaryDirectory m_directory;
  std::vector<std::unique_ptr<zq::statistics::Row>> m_rows;
  std::string m_page;
};

TEST_F(HostilePage, ThatIsScribbledOverCrashesNobody) {
  std::mt19937 random(4711);
  const auto used = zq::statistics::TakeSnapshot().bytes;
  for (int round = 0; round < 60; ++round) {
    auto page = m_page;
    for (int i = 0; i < 1 + round % 40; ++i) {
      // Half of the time where numbers decide what is read.
      const auto end = round % 2 == 0 ? std::size_t{2048} : std::size_t{used};
      page[random() % std::min(end, page.size())] = static_cast<char>(random());
    }
    Write(page);
    testing::internal::CaptureStdout();
    RunAllCommands();
    testing::internal::GetCapturedStdout();
  }
}

TEST_F(HostilePage, HasNoCallbackThatBeganInTheFuture) {
  const auto hourAhead = zq::statistics::Now() + 3'600'000'000'000;
  m_rows[1]->Set(1, static_cast<std::int64_t>(hourAhead));
  for (const auto& process : ReadProcesses(Own())) {
    EXPECT_EQ(State::kRunning, process.state);
  }
  m_rows[1]->Set(1, static_cast<std::int64_t>(zq::statistics::Now() - 5 * kHangNanoseconds));
  EXPECT_EQ(State::kInCallback, ReadProcesses(Own()).at(0).state);
}

}  // namespace
}  // namespace price_stat
