#include <gmock/gmock.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>

#include "hint.h"
#include "lines.h"
#include "live_view.h"
#include "rate_meter.h"
#include "summary_json.h"
#include "summary_table.h"

namespace price_client {
namespace {

using testing::AllOf;
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
  instance.recentLatency = latency;
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
  const auto lines = LinesOf(RenderFrame(snapshot, {200, 20}, false));
  ASSERT_EQ(lines.size(), 20U);
  EXPECT_THAT(lines[0], HasSubstr("01:02:05"));
  EXPECT_THAT(lines[2], HasSubstr("ONE  up"));
  EXPECT_THAT(lines[3], testing::MatchesRegex("  open 01:02:05 .* Caf\\? prices up"));
  EXPECT_THAT(lines[4], HasSubstr("10 s p50 1.50 us p99 1.50 us  all p50 1.50 us p99 "));
  EXPECT_THAT(lines[5], testing::MatchesRegex(" *symbol +price +change +change % +date +updates"));
  EXPECT_THAT(lines[6], testing::MatchesRegex(" *SYM0 +99\\.50 +-0\\.50 +-0\\.50 +2000-01-31 +2"));
  EXPECT_EQ(lines[5].rfind("change %") + 8, lines[6].find("-0.50", lines[6].find("-0.50") + 1) + 5);
  EXPECT_THAT(lines[11], HasSubstr("TWO  up"));
  EXPECT_THAT(lines[19], HasSubstr(" 26 more symbols"));
  EXPECT_THAT(RenderFrame(snapshot, {}, true), HasSubstr("\x1b[31m")) << "colours when asked";
}

TEST(LiveView, SaysWhatIsNotShownAndWhatToLookAtWhenNothingComes) {
  auto snapshot = MakeSnapshot(kSecondsBeforeHint, {MakeInstance("ONE", 1), MakeInstance("NONE", 0)});
  snapshot.client.directory = "/meet\x1b[2J";
  snapshot.instances[0].unreceivedSegments = {2, 5};
  snapshot.instances[0].totals.untracked = 1234;
  snapshot.instances[1].state = InstanceState::kNeverSeen;
  const auto frame = RenderFrame(snapshot, {200, 24}, false);
  EXPECT_THAT(frame, AllOf(HasSubstr("products of segments 2, 5 are not received"),
                           HasSubstr("1,234 updates of symbols beyond the first 1,024"),
                           HasSubstr("LBM_RUNTIME_DIR (here /meet [2J)")));
  snapshot.elapsedSeconds = 0;
  EXPECT_THAT(RenderFrame(snapshot, {200, 24}, false), Not(HasSubstr("no such server")));
}

TEST(LiveView, NeverLeavesTheScreen) {
  auto snapshot = MakeSnapshot(5, {MakeInstance("ONE", 5), MakeInstance("TWO", 30), MakeInstance("THREE", 1)});
  snapshot.instances[2].totals.updates = 0;
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
  now.unreceivedSegments = {1};
  now.totals.untracked = 3;
  const auto text = ChangeLines(before, now, 1);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 7);
  EXPECT_THAT(text, HasSubstr("     1.0s ONE gaps: 2 more, 37 updates missed\n"));
  EXPECT_THAT(text, HasSubstr("ONE 3 updates of symbols beyond the first 1,024 are counted, and not listed\n"));
  auto later = now;
  later.totals.untracked = 4;
  EXPECT_EQ(ChangeLines(now, later, 2), "");
}

TEST(Hint, FitsWhatIsKnownOfTheServer) {
  auto instance = MakeInstance("ONE", 0);
  ClientSnapshot client;
  EXPECT_THAT(HintFor(instance, client), HasSubstr("sends no prices"));
  instance.liveSegments = 1;
  EXPECT_THAT(HintFor(instance, client), HasSubstr("--segments"));
  instance.state = InstanceState::kGone;
  EXPECT_THAT(HintFor(instance, client), HasSubstr("ended"));
  instance.state = InstanceState::kNeverSeen;
  EXPECT_THAT(HintLines(MakeSnapshot(3, {instance, MakeInstance("TWO", 1)})),
              testing::MatchesRegex("     3.0s ONE nothing yet: no such server; [^\n]*\n"));
  client.isPaused = true;
  EXPECT_EQ(HintFor(instance, client), "");
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

TEST(Report, SaysNothingOfWhatIsNotThere) {
  auto snapshot = MakeSnapshot(2.5, {MakeInstance("ONE", 2), MakeInstance("NONE", 0)});
  snapshot.instances[0].status = StatusSnapshot{Status(feed::ServerState::kClosing), 2, true};
  snapshot.instances[0].status->last.session = (std::uint64_t{1} << 53) + 1;
  snapshot.instances[0].notices.lastRfq = feed::RequestForQuote{.id = ~std::uint64_t{0}};
  const auto json = nlohmann::json::parse(SummaryJson(snapshot));
  EXPECT_EQ(json["total"]["rate"], 3.0);
  EXPECT_EQ(json["instances"][0]["status"]["silent"], true);
  EXPECT_EQ(json["instances"][0]["symbols"][1]["change"], -0.5);
  EXPECT_EQ(json["instances"][0]["status"]["session"], "9007199254740993");
  EXPECT_EQ(json["instances"][0]["last_rfq"]["id"], "18446744073709551615");
  EXPECT_EQ(json["total"]["latency_10s_ns"]["p50"], 1500);
  for (const char* name : {"latency_ns", "latency_10s_ns", "status", "last_rfq", "last_news"}) {
    EXPECT_TRUE(json["instances"][1].at(name).is_null()) << name;
  }
}

TEST(Report, TablesFitATerminal) {
  auto snapshot = MakeSnapshot(25, {MakeInstance("ONE", 2), MakeInstance("A-LONGER-NAME", 0)});
  snapshot.instances[1].totals.updates = 1'000'000'000;
  std::istringstream table(SummaryTable(snapshot));
  for (std::string row; std::getline(table, row);) {
    EXPECT_LE(row.size(), 80U) << row;
  }
}

TEST(RateMeter, TellsTheLatencyOfTheLastTenSecondsFromThatSinceTheStart) {
  const auto start = RateMeter::Clock::time_point();
  RateMeter meter(start);
  auto instance = MakeInstance("ONE", 0);
  Snapshot snapshot;
  // A slow update at first, and a fast one every second.
  instance.totals.latency.Record(1'000'000);
  for (int second = 0; second <= 11; ++second) {
    instance.totals.latency.Record(10);
    snapshot = meter.Measure(MakeSnapshot(0, {instance}), start + std::chrono::seconds(second));
    if (second == 9) {
      EXPECT_EQ(snapshot.RecentLatency().Quantile(1), 1'000'000U);
    }
  }
  EXPECT_EQ(snapshot.RecentLatency().Count(), 10U);
  EXPECT_EQ(snapshot.RecentLatency().Max(), 10U);
  EXPECT_EQ(snapshot.Total().latency.Max(), 1'000'000U);
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
