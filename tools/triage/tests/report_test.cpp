#include "report.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

namespace triage {
namespace {

using cli::ExitCode;
using testing::ContainsRegex;
using testing::HasSubstr;

const Answer kGood{
    .process = "host:1", .status = "success", .success = true, .roundTrip = std::chrono::microseconds(7)};
const Answer kBad{.process = "host:22", .status = "failure", .success = false, .roundTrip = std::chrono::seconds(1)};

struct Asked {
  Options options{.environment = "demo"};
  Question question{.topic = "TOPIC", .requestId = "id"};
  Outcome outcome;

  Report Of() const { return {options, question, outcome, std::chrono::milliseconds(100)}; }
};

TEST(TriageVerdict, TellsApartWhatWentWrong) {
  const struct {
    Outcome outcome;
    std::optional<std::size_t> expected;
    ExitCode code;
    const char* complaint;
  } cases[] = {
      {{.answers = {kGood}}, {}, ExitCode::kOk, ""},
      {{.answers = {kGood, kGood}}, 1, ExitCode::kOk, ""},
      {{.answers = {kGood}, .silentCount = 1}, 1, ExitCode::kOk, ""},
      {{.answers = {kGood}, .silentCount = 1, .silent = {"host:9"}},
       {},
       ExitCode::kUnsatisfied,
       "1 answer; 1 process got the request and did not answer: host:9"},
      {{.answers = {kGood}, .silentCount = 2},
       3,
       ExitCode::kUnsatisfied,
       "1 answer instead of 3; 2 processes got the request and did not answer: which ones is not known"},
      {{.answers = {kGood, kGood}}, 3, ExitCode::kUnsatisfied, "2 answers instead of 3"},
      {{.answers = {kGood, kBad}, .silentCount = 1}, 3, ExitCode::kRefused, "1 answer without success"},
      {{}, 3, ExitCode::kNoAnswer, "nobody listens on TOPIC"},
      {{.silentCount = 1, .silent = {"host:9"}}, {}, ExitCode::kNoAnswer, "one process listens on TOPIC: host:9"},
  };
  for (const auto& [outcome, expected, code, complaint] : cases) {
    Asked asked{.outcome = outcome};
    asked.options.expected = expected;
    const auto verdict = Judge(asked.Of());
    EXPECT_EQ(verdict.code, code) << complaint;
    EXPECT_THAT(verdict.complaint, HasSubstr(complaint));
    EXPECT_EQ(verdict.complaint.empty(), code == ExitCode::kOk) << verdict.complaint;
  }
}

TEST(TriageReport, SaysWhoAnsweredAndNothingThatIsNotKnown) {
  Asked asked{.outcome = {.answers = {kGood, kBad}, .late = 1}};
  EXPECT_THAT(Table(asked.Of()), ContainsRegex("host:22 +DEMO +\\? +failure +1000\\.000 ms\n"
                                               "2 answers to id on TOPIC in 0\\.1 s\n"
                                               "1 process began to listen too late to be asked; ask again\n$"));
  auto json = nlohmann::json::parse(Json(asked.Of()));
  EXPECT_EQ(json["answers"][0]["round_trip_ns"], 7000);
  EXPECT_EQ(json["answers"][1]["success"], false);
  EXPECT_TRUE(json["data_center"].is_null());
  EXPECT_EQ(json["exit_code"], 5);

  asked.options.dataCenter = "\xff dc";
  asked.options.nakKill = NakKill{};
  EXPECT_THAT(Table(asked.Of()), ContainsRegex("DEMO +\xff DC +success.*\n.*\n.*\nsuccess means that"));
  json = nlohmann::json::parse(Json(asked.Of()));
  EXPECT_EQ(json["request"], "nak-kill");
  EXPECT_EQ(json["answers"][0]["data_center"], "\xef\xbf\xbd DC");
}

}  // namespace
}  // namespace triage
