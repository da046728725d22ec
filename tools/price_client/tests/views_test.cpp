#include <gmock/gmock.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>

#include "format.h"
#include "lines.h"
#include "live_view.h"
#include "operator_report.h"
#include "rate_meter.h"
#include "summary_json.h"
#include "summary_table.h"

namespace price_client {
namespace {

using testing::HasSubstr;
using testing::Not;

InstanceSnapshot MakeInstance(const std::string& name, std::size_t symbols) {
  InstanceSnapshot instance;
  instance.name = name;
  instance.state = InstanceState::kUp;
  instance.segments = instance.liveSegments = 2;
  LatencyHistogram latency;
  for (std::size_t i = 0; i < symbols; ++i) {
    instance.symbols.push_back({feed::Symbol::Parse("SYM" + std::to_string(i)).value(),
                                feed::ParseDate("2000-01-31").value(), feed::Price::Parse("99.5").value(),
                                feed::Price::Parse("100").value(), 2});
    latency.Record(1500);
  }
  instance.totals.updates = 2 * symbols;
  instance.totals.firstAt = 1'000'000'000;
  instance.totals.lastAt = 2'000'000'000;
  instance.totals.latency = latency;
  return instance;
}

Snapshot MakeSnapshot(double elapsedSeconds, std::vector<InstanceSnapshot> instances) {
  return {elapsedSeconds, {.id = "alice-7", .host = "trader"}, std::move(instances)};
}

feed::ServerStatus Status(feed::ServerState state) {
  return {7, state, feed::UtcTime(), 5, std::chrono::seconds(3723)};
}

// What a terminal of that size shows, without colours.
std::vector<std::string> LinesOf(std::string frame) {
  EXPECT_THAT(frame, testing::StartsWith("\x1b[H"));
  frame.erase(0, 3);
  std::vector<std::string> lines;
  std::istringstream stream(frame);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line.substr(0, line.find('\x1b')));
  }
  return lines;
}

TEST(LiveView, ShowsEveryInstanceAndAsManySymbolsAsFit) {
  auto snapshot = MakeSnapshot(3725, {MakeInstance("ONE", 5), MakeInstance("TWO", 30)});
  snapshot.instances[0].status = StatusSnapshot{Status(feed::ServerState::kOpen), 2, false};
  snapshot.instances[0].notices.lastNews = feed::News{{}, "Café prices up", ""};
  const auto lines = LinesOf(RenderFrame(snapshot, {200, 15}, false));
  ASSERT_EQ(lines.size(), 15U);
  EXPECT_THAT(lines[0], HasSubstr("01:02:05"));
  EXPECT_THAT(lines[2], HasSubstr("ONE  up"));
  EXPECT_THAT(lines[3], testing::MatchesRegex("  open 01:02:05 .* Caf\\? prices up"));
  EXPECT_THAT(lines[4], testing::MatchesRegex(" *SYM0 +99\\.50 +-0\\.50 +-0\\.50% +2000-01-31 +2"));
  EXPECT_THAT(lines[9], HasSubstr("TWO  up"));
  EXPECT_THAT(lines[14], HasSubstr(" 27 more symbols"));
}

TEST(LiveView, KeepsColumnsInPlaceWhateverTheSymbolsLength) {
  auto instance = MakeInstance("ONE", 2);
  instance.symbols[1].symbol = feed::Symbol::Parse("TWENTY-CHARACTERS-XX").value();
  const auto lines = LinesOf(RenderFrame(MakeSnapshot(1, {instance}), {}, false));
  EXPECT_EQ(lines[4].find("2000-01-31"), lines[5].find("2000-01-31"));
}

TEST(LiveView, NeverLeavesTheScreen) {
  const auto snapshot = MakeSnapshot(1, {MakeInstance("ONE", 5), MakeInstance("TWO", 30), MakeInstance("THREE", 1)});
  for (unsigned rows = 1; rows < 45; ++rows) {
    for (const unsigned columns : {1U, 10U, 300U}) {
      const auto lines = LinesOf(RenderFrame(snapshot, {columns, rows}, false));
      // After the last used row comes the rest of the screen, empty.
      ASSERT_LE(lines.size(), rows) << rows;
      for (const auto& line : lines) {
        ASSERT_LE(line.size(), columns);
      }
    }
  }
}

TEST(LiveView, ColoursOnlyWhenAsked) {
  const auto snapshot = MakeSnapshot(1, {MakeInstance("ONE", 1)});
  EXPECT_THAT(RenderFrame(snapshot, {}, true), HasSubstr("\x1b[31m"));
  EXPECT_THAT(RenderFrame(snapshot, {}, false), Not(testing::ContainsRegex("\x1b\\[[0-9]*m")));
}

TEST(Lines, TellWhatChangedAndNothingElse) {
  auto before = MakeInstance("ONE", 1);
  before.status = StatusSnapshot{Status(feed::ServerState::kOpen), 0, false};
  auto now = before;
  now.totals.updates += 100;
  now.status->ageSeconds = 1;
  EXPECT_EQ(ChangeLines(before, now, 1), "");
  now.state = InstanceState::kBack;
  now.totals.restarts = 1;
  now.totals.gaps = 2;
  now.totals.missed = 37;
  now.totals.lost = 5;
  now.status->isSilent = true;
  const auto text = ChangeLines(before, now, 1);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 5);
  EXPECT_THAT(text, HasSubstr("     1.0s ONE gaps: 2 more, 37 updates missed\n"));
}

TEST(Lines, TellThatAServerClosedBeforeTheyTellThatItIsGone) {
  auto open = MakeInstance("ONE", 0);
  open.status = StatusSnapshot{Status(feed::ServerState::kOpen), 6, true};
  auto gone = open;
  gone.state = InstanceState::kGone;
  gone.status->isSilent = false;
  EXPECT_EQ(ChangeLines(open, gone, 1), "     1.0s ONE is gone, ended without closing\n");
  gone.status->last.state = feed::ServerState::kClosing;
  EXPECT_THAT(ChangeLines(open, gone, 1), testing::MatchesRegex(".* is closing, .*\n.* is gone, closed in order\n"));
}

TEST(Report, FiguresFitIntoAnAnswer) {
  const auto figures = ReportFigures(MakeSnapshot(2.5, {MakeInstance("ONE", 2), MakeInstance("TWO", 0)}));
  EXPECT_LE(figures.size(), feed::CommandAnswer::kMaxFigures);
  EXPECT_EQ(figures.at("updates"), 4);
  EXPECT_EQ(figures.at("latency_max_ns"), 1500);
}

TEST(Report, SaysNothingOfWhatIsNotThere) {
  auto snapshot = MakeSnapshot(2.5, {MakeInstance("ONE", 2), MakeInstance("NONE", 0)});
  snapshot.instances[0].status = StatusSnapshot{Status(feed::ServerState::kClosing), 2, true};
  const auto json = nlohmann::json::parse(SummaryJson(snapshot));
  EXPECT_EQ(json["total"]["rate"], 3.0);
  EXPECT_EQ(json["instances"][0]["status"]["silent"], true);
  EXPECT_EQ(json["instances"][0]["symbols"][1]["change"], -0.5);
  for (const char* name : {"latency_ns", "status", "last_rfq", "last_news"}) {
    EXPECT_TRUE(json["instances"][1].at(name).is_null()) << name;
  }
}

TEST(Report, TablesFitATerminal) {
  auto snapshot = MakeSnapshot(2.5, {MakeInstance("ONE", 2), MakeInstance("A-LONGER-NAME", 0)});
  snapshot.instances[1].totals.updates = 1'000'000'000;
  std::istringstream table(SummaryTable(snapshot));
  for (std::string row; std::getline(table, row);) {
    EXPECT_LE(row.size(), 80U) << row;
  }
}

TEST(Format, ChoosesUnitAndDigits) {
  EXPECT_EQ(FormatLatency(999), "999 ns");
  EXPECT_EQ(FormatLatency(9'996), "10.0 us");
  EXPECT_EQ(FormatLatency(999'400), "999 us");
  EXPECT_EQ(FormatLatency(999'600), "1.00 ms");
  EXPECT_EQ(FormatLatency(68'700'000'000), "68.7 s");
  EXPECT_EQ(FormatCount(999), "999");
  EXPECT_EQ(FormatCount(1'234'567), "1,234,567");
}

TEST(RateMeter, MeasuresOverTheLastSecond) {
  using namespace std::chrono_literals;
  const auto start = RateMeter::Clock::time_point();
  RateMeter meter(start);
  double rate = 0;
  for (std::uint64_t tick = 0; tick <= 40; ++tick) {
    auto instance = MakeInstance("ONE", 0);
    // 100 updates in each of the first 20 ticks of 50 ms, none afterwards.
    instance.totals.updates = 100 * std::min<std::uint64_t>(tick, 20);
    rate = meter.Measure(MakeSnapshot(0, {instance}), start + static_cast<int>(tick) * 50ms).instances[0].currentRate;
    if (tick == 20) {
      EXPECT_DOUBLE_EQ(rate, 2000);
    }
    if (tick == 30) {
      EXPECT_DOUBLE_EQ(rate, 1000);
    }
  }
  EXPECT_EQ(rate, 0);
}

}  // namespace
}  // namespace price_client
