#include "report.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

namespace triage {
namespace {

using cli::ExitCode;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

const Answer kGood{.process = {"host:1.a", 1, "beta"},
                   .status = "success",
                   .success = true,
                   .roundTrip = std::chrono::microseconds(7)};
const Answer kBad{
    .process = {"host:22.b", 22, "alpha"}, .status = "failure", .success = false, .roundTrip = std::chrono::seconds(1)};

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
      {{.answers = {kGood}, .silentCount = 1, .silent = {{"host:9.c", 9, "gamma"}}},
       {},
       ExitCode::kUnsatisfied,
       "1 answer; 1 process got the request and did not answer: gamma 9"},
      {{.answers = {kGood}, .silentCount = 2},
       3,
       ExitCode::kUnsatisfied,
       "1 answer instead of 3; 2 processes got the request and did not answer: which ones is not known"},
      {{.answers = {kGood, kGood}}, 3, ExitCode::kUnsatisfied, "2 answers instead of 3"},
      {{.answers = {kGood, kBad}, .silentCount = 1}, 3, ExitCode::kRefused, "1 answer without success"},
      {{.answers = {kGood}, .silentCount = 1, .ended = {{"host:9.c", 9, "gamma"}}},
       {},
       ExitCode::kUnsatisfied,
       "1 process got the request and did not answer: gamma 9"},
      {{}, 3, ExitCode::kNoAnswer, "nobody listens on TOPIC"},
      {{.directory = "/meet"}, {}, ExitCode::kNoAnswer, "  topic TOPIC\n  directory /meet\n  CHEF_ENVIRONMENT"},
      {{.unasked = {{"host:9.c", 9, "gamma"}}}, {}, ExitCode::kNoAnswer, "1 process began to listen too late"},
      {{.silentCount = 1, .silent = {{"host:9.c", 9, "gamma"}}},
       {},
       ExitCode::kNoAnswer,
       "1 process got the request on TOPIC: gamma 9"},
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

TEST(TriageReport, HasARowForEachProcessWhateverBecameOfIt) {
  Asked asked{.outcome = {.answers = {kGood, kBad},
                          .silentCount = 2,
                          .silent = {{"named", 0, ""}},
                          .ended = {{"host:9.c", 9, "beta"}},
                          .unasked = {{"host:8.c", 8, "beta"}},
                          .elsewhere = {{"host:7.c", 7, "delta"}}}};
  EXPECT_THAT(Table(asked.Of()), MatchesRegex("program +process +status +round trip\n"
                                              "\\? +named +no answer +-\n"
                                              "alpha +22 +failure +1000\\.000 ms\n"
                                              "beta +1 +success +0\\.007 ms\n"
                                              "beta +8 +came too late +-\n"
                                              "beta +9 +ended, no answer +-\n"
                                              "delta +7 +does not listen +-\n"
                                              "2 answers to id on TOPIC in 0\\.1 s\n"
                                              "1 process began to listen too late to be asked; ask again\n"));
  const auto json = nlohmann::json::parse(Json(asked.Of()));
  EXPECT_EQ(json["processes"].size(), 6U);
  EXPECT_TRUE(json["processes"][0]["process"].is_null());
  EXPECT_EQ(json["processes"][1]["success"], false);
  EXPECT_EQ(json["processes"][2]["round_trip_ns"], 7000);
  EXPECT_EQ(json["processes"][2]["context"], "host:1.a");
  EXPECT_TRUE(json["data_center"].is_null());
  EXPECT_EQ(json["exit_code"], 5);
}

TEST(TriageReport, PrintsNoControlCharactersAndJsonThatIsUtf8) {
  Asked asked{.question = {.topic = "a\x1b[2Jb"}, .outcome = {.answers = {{.process = {"\xff\x1b", 0, "\x1b]0;x"}}}}};
  asked.options.dataCenter = "\xff dc";
  EXPECT_THAT(Table(asked.Of()), Not(HasSubstr("\x1b")));
  EXPECT_EQ(nlohmann::json::parse(Json(asked.Of()))["data_center"], "\xef\xbf\xbd DC");
}

TEST(TriageReport, ADryRunCountsWhoWouldBeAsked) {
  Asked asked{.outcome = {.unasked = {{"host:8.c", 8, "beta"}}}};
  asked.options.nakKill = NakKill{};
  asked.options.dryRun = true;
  EXPECT_THAT(Table(asked.Of()),
              ContainsRegex("would be asked +-\n1 process would be asked on TOPIC; nothing was sent"));
  EXPECT_EQ(Judge(asked.Of()).code, ExitCode::kOk);
  asked.options.expected = 2;
  EXPECT_EQ(Judge(asked.Of()).code, ExitCode::kUnsatisfied);
  asked.outcome.unasked.clear();
  EXPECT_EQ(Judge(asked.Of()).code, ExitCode::kNoAnswer);
}

}  // namespace
}  // namespace triage
