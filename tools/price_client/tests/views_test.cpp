#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

feed::ServerStatus Status(std::uint64_t session, feed::ServerState state) {
  return {session, state, feed::UtcTime(), 5, std::chrono::seconds(3723)};
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
  auto& one = snapshot.instances[0];
  one.status = StatusSnapshot{Status(7, feed::ServerState::kOpen), 2, false};
  one.notices.products.resize(5);
  one.notices.rfqs = 12;
  one.notices.news = 3;
  one.notices.lastNews = feed::News{{}, "Café prices up", ""};
  snapshot.client.isPaused = true;
  const auto lines = LinesOf(RenderFrame(snapshot, {200, 15}, false));
  ASSERT_EQ(lines.size(), 15U);
  EXPECT_THAT(lines[0], HasSubstr("01:02:05"));
  EXPECT_THAT(lines[0], HasSubstr("paused"));
  EXPECT_EQ(lines[1], "client alice-7 on host trader");
  EXPECT_THAT(lines[2], HasSubstr("ONE  up  segments 2/2"));
  EXPECT_EQ(lines[3], "  open 01:02:05  products 5  RFQs 12  news 3  Caf? prices up");
  EXPECT_THAT(lines[4], testing::MatchesRegex(" *SYM0 +99\\.50 +-0\\.50 +-0\\.50% +2000-01-31 +2"));
  EXPECT_THAT(lines[9], HasSubstr("TWO  up"));
  EXPECT_THAT(lines[10], HasSubstr("no status"));
  EXPECT_EQ(lines[14], "  27 more symbols; a taller window shows them");
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

TEST(Report, TellsWhatChangedAndNothingElse) {
  const auto before = MakeInstance("ONE", 1);
  auto now = before;
  now.totals.updates += 100;
  EXPECT_EQ(ChangeLines(before, now, 1), "");
  now.state = InstanceState::kBack;
  now.totals.restarts = 1;
  now.totals.gaps = 2;
  now.totals.missed = 37;
  now.totals.lost = 5;
  EXPECT_EQ(ChangeLines(before, now, 1),
            "     1.0s ONE is back\n"
            "     1.0s ONE server restarted\n"
            "     1.0s ONE gaps: 2 more, 37 updates missed\n"
            "     1.0s ONE lost: 5 more messages\n");
}

TEST(Report, TellsOfTheServersStatusAndEnd) {
  const auto instance = MakeInstance("ONE", 0);
  auto open = instance;
  open.status = StatusSnapshot{Status(7, feed::ServerState::kOpen), 0, false};
  EXPECT_EQ(ChangeLines(instance, open, 1), "     1.0s ONE server is open, up for 01:02:03, session 7\n");
  auto silent = open;
  silent.status->ageSeconds = 5.1;
  silent.status->isSilent = true;
  EXPECT_EQ(ChangeLines(open, silent, 1), "     1.0s ONE server is silent: no status for 5 s\n");
  EXPECT_EQ(ChangeLines(silent, silent, 1), "");
  EXPECT_EQ(ChangeLines(silent, open, 1), "     1.0s ONE server is heard again\n");
  auto killed = open;
  killed.state = InstanceState::kGone;
  EXPECT_EQ(ChangeLines(open, killed, 1), "     1.0s ONE is gone, ended without closing\n");
  EXPECT_EQ(ChangeLines(silent, killed, 1), "     1.0s ONE is gone, ended without closing\n");
  auto closed = killed;
  closed.status->last.state = feed::ServerState::kClosing;
  EXPECT_EQ(ChangeLines(open, closed, 1),
            "     1.0s ONE server is closing, up for 01:02:03, session 7\n"
            "     1.0s ONE is gone, closed in order\n");
}

TEST(Report, FiguresFitIntoAnAnswer) {
  const auto figures = ReportFigures(MakeSnapshot(2.5, {MakeInstance("ONE", 2), MakeInstance("TWO", 0)}));
  EXPECT_LE(figures.size(), feed::CommandAnswer::kMaxFigures);
  EXPECT_EQ(figures.at("elapsed_ms"), 2500);
  EXPECT_EQ(figures.at("instances_up"), 2);
  EXPECT_EQ(figures.at("updates"), 4);
  EXPECT_EQ(figures.at("latency_max_ns"), 1500);
}

TEST(Report, JsonHasTheTotalAndEveryInstance) {
  auto snapshot = MakeSnapshot(2.5, {MakeInstance("ONE", 2), MakeInstance("NONE", 0)});
  snapshot.instances[0].status = StatusSnapshot{Status(7, feed::ServerState::kClosing), 2, true};
  snapshot.instances[0].notices.lastNews = feed::News{{}, "Café", ""};
  const auto json = nlohmann::json::parse(SummaryJson(snapshot));
  EXPECT_EQ(json["seconds"], 2.5);
  EXPECT_EQ(json["total"]["updates"], 4);
  EXPECT_EQ(json["total"]["rate"], 3.0);
  EXPECT_EQ(json["total"]["latency_ns"]["max"], 1500);
  EXPECT_EQ(json["instances"][0]["instance"], "ONE");
  EXPECT_EQ(json["instances"][0]["symbols"][1]["price"], 99.5);
  EXPECT_EQ(json["instances"][0]["symbols"][1]["change"], -0.5);
  EXPECT_EQ(json["instances"][0]["status"]["state"], "closing");
  EXPECT_EQ(json["instances"][0]["status"]["silent"], true);
  EXPECT_EQ(json["instances"][0]["last_news"]["headline"], "Café");
  EXPECT_TRUE(json["instances"][1]["latency_ns"].is_null());
  EXPECT_TRUE(json["instances"][1]["status"].is_null());
  EXPECT_TRUE(json["instances"][1]["last_news"].is_null());
  EXPECT_EQ(json["client"]["id"], "alice-7");
}

TEST(Report, TablesHaveARowForEachInstanceAndFitATerminal) {
  auto snapshot = MakeSnapshot(2.5, {MakeInstance("ONE", 2), MakeInstance("A-LONGER-NAME", 0)});
  snapshot.instances[1].totals.updates = 1'000'000'000;
  std::istringstream table(SummaryTable(snapshot));
  std::vector<std::string> rows;
  for (std::string row; std::getline(table, row);) {
    rows.push_back(row);
  }
  ASSERT_EQ(rows.size(), 13U);
  for (const auto& row : rows) {
    EXPECT_LE(row.size(), 80U);
  }
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(rows[i].size(), rows[0].size());
  }
  EXPECT_THAT(rows[1], testing::MatchesRegex("ONE +up +4 +3\\.0 +0 +0 +0 +0"));
  EXPECT_THAT(rows[3], testing::StartsWith("total"));
  EXPECT_THAT(rows[6], testing::MatchesRegex("ONE +1\\.50 us +1\\.50 us .*"));
  EXPECT_THAT(rows[7], testing::MatchesRegex("A-LONGER-NAME +- +- +- +- +-"));
  EXPECT_THAT(rows[11], testing::MatchesRegex("ONE +no status +0 +0 +0"));
}

TEST(Format, ChoosesUnitAndDigits) {
  EXPECT_EQ(FormatLatency(999), "999 ns");
  EXPECT_EQ(FormatLatency(1000), "1.00 us");
  EXPECT_EQ(FormatLatency(9'996), "10.0 us");
  EXPECT_EQ(FormatLatency(999'400), "999 us");
  EXPECT_EQ(FormatLatency(999'600), "1.00 ms");
  EXPECT_EQ(FormatLatency(68'700'000'000), "68.7 s");
  EXPECT_EQ(FormatCount(0), "0");
  EXPECT_EQ(FormatCount(999), "999");
  EXPECT_EQ(FormatCount(1000), "1,000");
  EXPECT_EQ(FormatCount(1'234'567), "1,234,567");
}

TEST(RateMeter, MeasuresOverTheLastSecond) {
  using namespace std::chrono_literals;
  const auto start = RateMeter::Clock::time_point();
  RateMeter meter(start);
  double rate = 0;
  for (int tick = 0; tick <= 40; ++tick) {
    auto instance = MakeInstance("ONE", 0);
    // 100 updates in each of the first 20 ticks of 50 ms, none afterwards.
    instance.totals.updates = static_cast<std::uint64_t>(100 * std::min(tick, 20));
    rate = meter.Measure(MakeSnapshot(0, {instance}), start + tick * 50ms).instances[0].currentRate;
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
