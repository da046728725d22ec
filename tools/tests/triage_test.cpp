// The triage tool as operators run it, against price clients.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <nlohmann/json.hpp>

#include "process.h"
#include "test_support/temporary_directory.h"

namespace tools_test {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::MatchesRegex;

using Arguments = std::vector<std::string>;

class TriageToolTest : public testing::Test {
 protected:
  Environment EnvironmentAnd(Environment more) const {
    more.insert(more.begin(), {{"LBM_RUNTIME_DIR", m_runtime.Path().string()},
                               {"CHEF_ENVIRONMENT", "Test"},
                               {"DATA_CENTER", "here"},
                               {"DISABLE_LBM_TRIAGE_HANDLER", ""},
                               {"TRIAGE_HANDLER_USE_EVENT_QUEUE", ""},
                               {"LBM_TRIAGE_HANDLER_TOPIC_PREFIX", ""}});
    return more;
  }
  std::unique_ptr<Process> Client(const Environment& more = {}, Arguments arguments = {}) const {
    arguments.insert(arguments.begin(), {PRICE_CLIENT, "--config=" PRICE_CLIENT_CONFIG, "--instance=1:1:1", "--quiet"});
    return std::make_unique<Process>(arguments, EnvironmentAnd(more));
  }
  std::unique_ptr<Process> Triage(Arguments arguments, const Environment& more = {}) const {
    arguments.insert(arguments.begin(), TRIAGE);
    return std::make_unique<Process>(arguments, EnvironmentAnd(more));
  }
  // Waits for the tool's end with that code and gives its output.
  static std::string EndOf(Process& tool, int code) {
    EXPECT_EQ(tool.Wait(), code) << tool.Output() << tool.Errors();
    return tool.Output();
  }

  const test_support::TemporaryDirectory m_runtime;
};

TEST_F(TriageToolTest, ShowsWhoAnswersWithAndWithoutAnEventQueue) {
  const auto plain = Client();
  const auto queue = Client({{"TRIAGE_HANDLER_USE_EVENT_QUEUE", "1"}});
  const auto elsewhere = Client({{"DATA_CENTER", "there"}});
  const auto prefixed = Client({{"LBM_TRIAGE_HANDLER_TOPIC_PREFIX", "site."}});

  EXPECT_THAT(EndOf(*Triage({"test", "--expect=2"}), 0),
              MatchesRegex("process .*\n(host:[0-9]+\\.[0-9a-f]+ +TEST +HERE +success +[0-9.]+ ms\n){2}"
                           "2 answers to triage-.* on TRIAGE\\.ACTION\\.TEST\\.LBM\\.HERE in .*\n"));
  const auto all = nlohmann::json::parse(EndOf(*Triage({"test", "--all-data-centers", "--expect=3", "--json"}), 0));
  EXPECT_EQ(all["topic"], "TRIAGE.ACTION.TEST.LBM");
  EXPECT_EQ(all["answers"].size(), 3U);
  EXPECT_THAT(EndOf(*Triage({"test", "--data-center=THERE", "--expect=1"}), 0), HasSubstr("\n1 answer to "));
  EXPECT_THAT(EndOf(*Triage({"test", "--topic-prefix=site.", "--expect=1"}), 0), HasSubstr("\n1 answer to "));
}

TEST_F(TriageToolTest, SwitchesNaksAndTheClientSaysWhatBecameOfThem) {
  const auto client = Client();
  EXPECT_THAT(EndOf(*Triage({"nak-kill", "--context=order", "--disable", "--expect=1"}), 0),
              AllOf(HasSubstr(" success "), HasSubstr("is in the processes' logs")));
  EXPECT_THAT(EndOf(*Triage({"nak-kill", "--context=PRICE", "--enable", "--expect=1"}), 0), HasSubstr(" success "));
  EXPECT_THAT(EndOf(*Triage({"nak-kill", "--context=ALL", "--enable", "--expect=1"}), 0), HasSubstr(" success "));
  client->Signal(SIGINT);
  client->Wait();
  EXPECT_THAT(client->Errors(), ContainsRegex("Failed to disable NAKs(.|\n)*Failed to enable NAKs"));
}

TEST_F(TriageToolTest, SaysThatNobodyAnswersAndWhatToLookAt) {
  const auto named = Client({}, {"--context-name=named"});
  const auto disabled = Client({{"DISABLE_LBM_TRIAGE_HANDLER", "1"}});
  const auto tool = Triage({"test", "--timeout=1"});
  EXPECT_THAT(EndOf(*tool, 4), HasSubstr("0 answers to "));
  EXPECT_THAT(tool->Errors(), AllOf(HasSubstr("nobody listens on TRIAGE.ACTION.TEST.LBM.HERE"),
                                    HasSubstr("CHEF_ENVIRONMENT"), HasSubstr("DISABLE_LBM_TRIAGE_HANDLER")));
}

TEST_F(TriageToolTest, AStoppedClientDoesNotAnswerUntilItIsContinued) {
  const auto client = Client();
  EndOf(*Triage({"test", "--expect=1"}), 0);
  client->Signal(SIGSTOP);
  EndOf(*Triage({"test", "--timeout=0.5"}), 4);
  // It has sent its request, which nobody has taken in, or is about to.
  auto killed = Triage({"test", "--timeout=60"});
  killed->Signal(SIGKILL);
  EXPECT_EQ(killed->Wait(), 128 + SIGKILL);
  const auto waiting = Triage({"test", "--expect=1"});
  client->Signal(SIGCONT);
  EndOf(*waiting, 0);
  client->Signal(SIGINT);
  EXPECT_EQ(client->Wait(), 1) << "ended in order, without prices";
}

TEST_F(TriageToolTest, ToolsThatAskAtOnceAllGetTheirAnswersWhileProcessesComeAndGo) {
  const auto steady = Client();
  std::vector<std::unique_ptr<Process>> tools;
  for (int round = 0; round < 4; ++round) {
    const auto passing = Client({}, {"--seconds=0"});
    tools.push_back(Triage({"test", "--expect=1"}));
    tools.push_back(Triage({"nak-kill", "--context=zqnotify", "--enable", "--expect=1"}));
    passing->Wait();
    const auto killed = Client();
  }
  for (const auto& tool : tools) {
    EndOf(*tool, 0);
  }
  EndOf(*Triage({"test", "--expect=1"}), 0);
}

TEST_F(TriageToolTest, RefusesWhatItCannotAsk) {
  struct Case {
    Arguments arguments;
    const char* error;
  };
  const Case cases[] = {
      {{}, "subcommand"},
      {{"test", "--environment="}, "--environment"},
      {{"test", "--data-center", ""}, "--data-center"},
      {{"test", "--data-center=a", "--all-data-centers"}, "excludes"},
      {{"test", "--topic-prefix=" + std::string(250, 'x')}, "too long"},
      {{"test", "--timeout=nan"}, "--timeout"},
      {{"test", "--expect=0"}, "--expect"},
      {{"nak-kill", "--enable"}, "--context"},
      {{"nak-kill", "--context=PRICES", "--enable"}, "\"PRICES\" is none of ORDER|PRICE|ZQNOTIFY|ALL"},
      {{"nak-kill", "--context=PRICE"}, "--enable or --disable"},
      {{"nak-kill", "--context=PRICE", "--enable", "--disable"}, "excludes"},
  };
  for (const auto& [arguments, error] : cases) {
    const auto tool = Triage(arguments);
    EndOf(*tool, 2);
    EXPECT_THAT(tool->Errors(), HasSubstr(error));
  }
  const auto nowhere = Triage({"test"}, {{"CHEF_ENVIRONMENT", ""}});
  EndOf(*nowhere, 2);
  EXPECT_THAT(nowhere->Errors(), HasSubstr("CHEF_ENVIRONMENT"));
}

}  // namespace
}  // namespace tools_test
