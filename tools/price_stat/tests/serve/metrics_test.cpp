#include <gmock/gmock.h>

#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "serve/open_metrics.h"

namespace price_stat {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr std::uint64_t kNow = 100'000'000'000;

const Kind kContext{"context",
                    "A context.",
                    {"context", "handle"},
                    {{"loops", FieldType::kCounter, "", "Rounds."},
                     {"callback_time", FieldType::kCounter, "nanoseconds", "In callbacks."},
                     {"bytes", FieldType::kCounter, "bytes", "Received."},
                     {"busy_since", FieldType::kGauge, "nanoseconds", "In a callback since."},
                     {"balance", FieldType::kGauge, "", "Of either sign."},
                     {"longest", FieldType::kRecentMaximum, "nanoseconds", "The longest."},
                     {"latency", FieldType::kHistogram, "nanoseconds", "On its way."}}};

// Latencies of 127 and 128 ns, on either side of a bound, and of a minute, beyond all.
Distribution SomeLatencies() {
  Distribution latencies{.count = 3, .sum = 60'000'000'255};
  for (const std::uint64_t latency : {127ULL, 128ULL, 60'000'000'000ULL}) {
    ++latencies.buckets[zq::statistics::BucketOf(latency)];
  }
  return latencies;
}

std::vector<Value> SomeValues() {
  std::vector<Value> values(kContext.fields.size());
  values[0].number = 7;
  values[1].number = 1'500'000'000;
  values[2].number = 64;
  values[3].number = kNow - 12'000'000'000;
  values[4].number = -3;
  values[5].number = 2'000'000;
  values[5].recentMaximum = 1'000;
  values[6].all = SomeLatencies();
  return values;
}

// A process whose page has rows of one kind.
Process ProcessWith(const Kind& kind, const std::vector<std::vector<std::string>>& rows,
                    const std::vector<Value>& values = SomeValues(), pid_t id = 42) {
  Process process{.path = "/x/p.42.page"};
  auto& snapshot = process.snapshot.emplace();
  snapshot.process = id;
  snapshot.program = "client";
  snapshot.takenMonotonic = kNow;
  snapshot.kinds.push_back(std::make_unique<const Kind>(kind));
  for (const auto& labels : rows) {
    snapshot.rows.push_back(
        {.kind = snapshot.kinds[0].get(), .labels = labels, .id = snapshot.rows.size() + 1, .values = values});
  }
  return process;
}

template <class... P>
std::string Text(P... processes) {
  std::vector<Process> list;
  (list.push_back(std::move(processes)), ...);
  return Metrics(list, MetricsFormat::kOpenMetrics);
}

// What makes scrapers reject a whole text: a line of no known form, a series twice, a metric's samples apart, no end.
void ExpectValid(const std::string& text) {
  const auto isSample =
      testing::MatchesRegex(R"([a-z][a-z0-9_]*(\{([a-z][a-z0-9_]*="([^"\\]|\\["\\n])*",?)*\})? [-+0-9.e]+)");
  const auto isComment = testing::MatchesRegex(R"(# (HELP|TYPE|UNIT) [a-z][a-z0-9_]*( [^\"]*)?)");
  std::istringstream lines(text);
  std::set<std::string> known;
  std::string last;
  for (std::string line; std::getline(lines, line); last = line) {
    if (line.starts_with("# HELP ")) {
      EXPECT_TRUE(known.insert(line.substr(0, line.find(' ', sizeof "# HELP"))).second) << "in two places: " << line;
    }
    if (line.starts_with('#')) {
      EXPECT_TRUE(line == "# EOF" || testing::Matches(isComment)(line)) << line;
    } else {
      EXPECT_THAT(line, isSample);
      EXPECT_TRUE(known.insert(line.substr(0, line.rfind(' '))).second) << "twice: " << line;
    }
  }
  EXPECT_EQ("# EOF", last);
}

TEST(Metrics, AreInBaseUnitsAndNamedAsTheStandardAsks) {
  const std::string text = Text(ProcessWith(kContext, {{"prices", "0x1"}}));
  ExpectValid(text);
  const std::string labels = R"({pid="42",program="client",context="prices"} )";
  for (const auto& sample : {"loops_total" + labels + "7", "callback_time_seconds_total" + labels + "1.5",
                             "bytes_total" + labels + "64", "busy_seconds" + labels + "12", "balance" + labels + "-3",
                             "longest_seconds" + labels + "0.002", "longest_recent_seconds" + labels + "1e-06"}) {
    EXPECT_THAT(text, HasSubstr("\nprice_connector_context_" + sample + "\n"));
  }
  EXPECT_THAT(text, HasSubstr("# TYPE price_connector_context_loops counter\n"));
  EXPECT_THAT(text, HasSubstr("# UNIT price_connector_context_callback_time_seconds seconds\n"));
}

TEST(Metrics, HistogramsCountEachValueBelowItsBoundsAndAllInTheEnd) {
  const std::string text = Text(ProcessWith(kContext, {{"prices", "0x1"}}));
  const std::string name = "price_connector_context_latency_seconds_";
  const std::string labels = R"({pid="42",program="client",context="prices")";
  EXPECT_THAT(text, HasSubstr(name + "bucket" + labels + ",le=\"1.27e-07\"} 1\n" + name + "bucket" + labels +
                              ",le=\"2.55e-07\"} 2\n"));
  EXPECT_THAT(text, HasSubstr(name + "bucket" + labels + ",le=\"+Inf\"} 3\n" + name + "count" + labels + "} 3\n" +
                              name + "sum" + labels + "} 60.000000255\n"));
}

TEST(Metrics, TellContextsApartByHandleOnlyWhereNamesDoNot) {
  const std::string text =
      Text(ProcessWith(kContext, {{"a", "0x1"}, {"a", "0x2"}, {"b", "0x3"}, {"c", "0x4"}, {"c", "0x4"}}));
  ExpectValid(text);
  for (const char* const labels : {R"(context="a",handle="0x1"})", R"(context="a",handle="0x2"})", R"(context="b"})",
                                   R"(context="c",row="4"})", R"(context="c",row="5"})"}) {
    EXPECT_THAT(text, HasSubstr(std::string("loops_total{pid=\"42\",program=\"client\",") + labels + " 7\n"));
  }
}

TEST(Metrics, ShowOfTheRowOtherOnlyWhatIsTrue) {
  auto process = ProcessWith(kContext, {{"other", "other"}});
  EXPECT_THAT(Text(ProcessWith(kContext, {{"other", "other"}})), Not(HasSubstr("context_loops")));
  process.snapshot->rowsInOther = 2;
  const std::string text = Text(std::move(process));
  EXPECT_THAT(text, HasSubstr("context_loops_total{"));
  EXPECT_THAT(text, Not(HasSubstr("context_balance")));
  EXPECT_THAT(text, Not(HasSubstr("context_latency")));
}

TEST(Metrics, OfTheDeadAndTheUnreadableAreOnlyTheirNumber) {
  auto dead = ProcessWith(kContext, {{"prices", "0x1"}});
  dead.state = State::kEnded;
  const std::string text = Text(std::move(dead), Process{.state = State::kUnreadable, .fault = "torn"});
  ExpectValid(text);
  EXPECT_THAT(text, Not(HasSubstr("prices")));
  EXPECT_THAT(text, HasSubstr("price_connector_pages{state=\"ended\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("price_connector_pages{state=\"unreadable\"} 1\n"));
}

TEST(Metrics, StayValidWhateverIsOnThePages) {
  const auto kind = [](std::string name, std::vector<std::string> labels, std::string field, FieldType type,
                       std::string unit) {
    return Kind{std::move(name),
                "Help \"with\" \\ and\nlines",
                std::move(labels),
                {{std::move(field), type, std::move(unit), "\n"}}};
  };
  const std::vector<Value> one{Value{.number = 1}};
  const std::vector<Value> future{Value{.number = static_cast<std::int64_t>(kNow) * 2}};
  const std::vector<Process> processes = [&] {
    std::vector<Process> list;
    list.push_back(ProcessWith(kind("k", {"x"}, "f", FieldType::kCounter, ""), {{"\"\\\n\xff\x01{}"}}, one, 1));
    list.push_back(ProcessWith(kind("k", {"x"}, "f", FieldType::kGauge, ""), {{"contradicts"}}, one, 2));
    list.push_back(ProcessWith(kind("k}{", {"x"}, "f", FieldType::kGauge, ""), {{""}}, one, 3));
    list.push_back(ProcessWith(kind("l", {"x", "x"}, "f", FieldType::kGauge, ""), {{"", ""}}, one, 4));
    list.push_back(ProcessWith(kind("m", {"pid"}, "f", FieldType::kGauge, ""), {{""}}, one, 5));
    list.push_back(ProcessWith(kind("n", {}, "f 1", FieldType::kGauge, ""), {{}}, one, 6));
    list.push_back(ProcessWith(kind("n", {}, "f", FieldType::kGauge, "B\n"), {{}}, one, 7));
    list.push_back(ProcessWith(kind("n", {}, "f_since", FieldType::kGauge, "nanoseconds"), {{}}, future, 8));
    // Another page that says that it is of process 1, and a kind that would repeat a metric of ours.
    list.push_back(ProcessWith(kind("k", {"x"}, "f", FieldType::kCounter, ""), {{"impostor"}}, one, 1));
    list.push_back(ProcessWith(kind("process", {}, "stopped", FieldType::kGauge, ""), {{}}, one, 9));
    list.push_back(ProcessWith(kind("n_f", {}, "seconds", FieldType::kGauge, ""), {{}}, one, 8'000));
    list.push_back(ProcessWith(kind("pages", {}, "x_bucket", FieldType::kGauge, ""), {{}}, one, 8'001));
    return list;
  }();
  for (const auto format : {MetricsFormat::kOpenMetrics, MetricsFormat::kText}) {
    const std::string text = Metrics(processes, format);
    ExpectValid(format == MetricsFormat::kText ? text + "# EOF\n" : text);
    EXPECT_THAT(text, HasSubstr("price_connector_n_f_seconds{pid=\"8\",program=\"client\"} 0\n"));
    EXPECT_THAT(text, Not(HasSubstr("impostor")));
    EXPECT_THAT(text, Not(HasSubstr("contradicts")));
    EXPECT_THAT(text, Not(HasSubstr("process_stopped{pid=\"9\",program=\"client\"} 1")));
    EXPECT_THAT(text, HasSubstr("price_connector_fields_left_out 10\n"));
  }
}

}  // namespace
}  // namespace price_stat
