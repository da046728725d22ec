// The triage tool as operators run it, against price clients.

#include <nlohmann/json.hpp>

#include "tools_fixture.h"

namespace tools_test {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

// What a client prints once it has made its context.
const std::string kHasStarted = "takes commands";

class TriageToolTest : public ToolsFixture {
 protected:
  std::unique_ptr<Process> Start(const Arguments& command, const Environment& more,
                                 Process::Terminal terminal = Process::Terminal::kNone) const {
    Environment environment = m_environment;
    environment.insert(environment.end(), {{"CHEF_ENVIRONMENT", "Test"},
                                           {"DATA_CENTER", "here"},
                                           {"DISABLE_LBM_TRIAGE_HANDLER", ""},
                                           {"TRIAGE_HANDLER_USE_EVENT_QUEUE", ""},
                                           {"LBM_TRIAGE_HANDLER_TOPIC_PREFIX", ""}});
    environment.insert(environment.end(), more.begin(), more.end());
    return std::make_unique<Process>(command, environment, terminal);
  }
  std::unique_ptr<Process> StartClient(const Environment& more = {}, const Arguments& arguments = {}) const {
    return Start(Command(Client({"--instance=1:1:1", "--plain"}), arguments), more);
  }
  std::unique_ptr<Process> Triage(const Arguments& arguments, const Environment& more = {}) const {
    return Start(Command({TRIAGE}, arguments), more);
  }
  // Waits for the tool's end with that code and gives its output.
  static std::string EndOf(Process& tool, int code) {
    EXPECT_EQ(tool.Wait(), code) << tool.Output() << tool.Errors();
    return tool.Output();
  }
};

TEST_F(TriageToolTest, ShowsWhoAnswersWithAndWithoutAnEventQueue) {
  const auto plain = StartClient();
  const auto queue = StartClient({{"TRIAGE_HANDLER_USE_EVENT_QUEUE", "1"}});
  const auto elsewhere = StartClient({{"DATA_CENTER", "there"}});
  const auto prefixed = StartClient({{"LBM_TRIAGE_HANDLER_TOPIC_PREFIX", "site."}});
  ASSERT_TRUE(elsewhere->WaitForOutput(kHasStarted) && prefixed->WaitForOutput(kHasStarted));

  EXPECT_THAT(EndOf(*Triage({"test", "--expect=2", "--timeout=60"}), 0),
              MatchesRegex("program .*\n(price_client +[0-9]+ +(success +[0-9.]+ ms|does not listen +-)\n){4}"
                           "2 answers to triage-.* on TRIAGE\\.ACTION\\.TEST\\.LBM\\.HERE in .*\n"));
  const auto all =
      nlohmann::json::parse(EndOf(*Triage({"test", "--all-data-centers", "--expect=3", "--timeout=60", "--json"}), 0));
  EXPECT_EQ(all["topic"], "TRIAGE.ACTION.TEST.LBM");
  EXPECT_EQ(all["answers"], 3);
  EXPECT_EQ(all["processes"].size(), 4U);
  EXPECT_THAT(EndOf(*Triage({"test", "--data-center=THERE", "--expect=1", "--timeout=60"}), 0),
              HasSubstr("\n1 answer to "));
  EXPECT_THAT(EndOf(*Triage({"test", "--topic-prefix=site.", "--expect=1", "--timeout=60"}), 0),
              HasSubstr("\n1 answer to "));
}

TEST_F(TriageToolTest, SwitchesNaksAndTheClientSaysWhatBecameOfThem) {
  const auto client = StartClient();
  for (const Arguments& what : {Arguments{"--context=order", "--disable"}, {"--context=ALL", "--enable"}}) {
    EXPECT_THAT(EndOf(*Triage(Command({"nak-kill", "--expect=1", "--timeout=60"}, what)), 0),
                AllOf(HasSubstr(" success "), HasSubstr("is in the processes' logs")));
  }
  client->Signal(SIGINT);
  client->Wait();
  EXPECT_THAT(client->Errors(), ContainsRegex("Failed to disable NAKs(.|\n)*Failed to enable NAKs"));
}

TEST_F(TriageToolTest, SaysThatNobodyAnswersAndWhatToLookAt) {
  const auto named = StartClient({}, {"--context-name=named"});
  const auto disabled = StartClient({{"DISABLE_LBM_TRIAGE_HANDLER", "1"}});
  ASSERT_TRUE(named->WaitForOutput(kHasStarted) && disabled->WaitForOutput(kHasStarted));
  const auto tool = Triage({"test", "--timeout=1"});
  EXPECT_THAT(EndOf(*tool, 4), ContainsRegex("(price_client +[0-9]+ +does not listen +-\n){2}0 answers to "));
  EXPECT_THAT(tool->Errors(), AllOf(HasSubstr("nobody listens on TRIAGE.ACTION.TEST.LBM.HERE"),
                                    HasSubstr("directory " + m_runtime.Path().string() + "/default\n"),
                                    HasSubstr("CHEF_ENVIRONMENT=Test\n"), HasSubstr("DISABLE_LBM_TRIAGE_HANDLER")));
}

TEST_F(TriageToolTest, AStoppedClientDoesNotAnswerUntilItIsContinued) {
  const auto client = StartClient();
  EndOf(*Triage({"test", "--expect=1", "--timeout=60"}), 0);
  client->Signal(SIGSTOP);
  EXPECT_THAT(EndOf(*Triage({"test", "--timeout=0.5"}), 4),
              ContainsRegex("price_client +[0-9]+ +does not listen, stopped "));
  // It has sent its request, which nobody has taken in, or is about to.
  auto killed = Triage({"test", "--timeout=60"});
  killed->Signal(SIGKILL);
  EXPECT_EQ(killed->Wait(), 128 + SIGKILL);
  const auto waiting = Triage({"test", "--expect=1", "--timeout=60"});
  client->Signal(SIGCONT);
  EndOf(*waiting, 0);
  client->Signal(SIGINT);
  EXPECT_EQ(client->Wait(), 1) << "ended in order, without prices";
}

TEST_F(TriageToolTest, ADryRunSendsNothingAndAWholeEnvironmentIsAddressedOnRequestOnly) {
  const auto client = StartClient({}, {"--log-level=info"});
  const Arguments everywhere{"nak-kill",           "--context=ALL", "--disable",
                             "--all-data-centers", "--expect=1",    "--timeout=60"};
  EXPECT_THAT(EndOf(*Triage(Command(everywhere, {"--dry-run"})), 0), ContainsRegex("price_client .*would be asked"));
  EndOf(*Triage(everywhere), 2);
  client->Signal(SIGINT);
  client->Wait();
  EXPECT_THAT(client->Errors(), Not(HasSubstr("Received LBM request")));
  const auto other = StartClient();
  EXPECT_THAT(EndOf(*Triage(Command(everywhere, {"--yes"})), 0), HasSubstr(" success "));
  for (const auto& [reply, code] : {std::pair("\n", 2), std::pair("y\n", 0)}) {
    const auto asking = Start(Command({TRIAGE}, everywhere), {}, Process::Terminal::kAll);
    ASSERT_TRUE(asking->WaitForOutput("Disable NAKs of ALL in all data centres of TEST? [y/N] "));
    asking->Write(reply);
    EXPECT_THAT(EndOf(*asking, code), HasSubstr(code == 0 ? " success " : "nothing was sent"));
  }
}

TEST_F(TriageToolTest, RefusesWhatItCannotAsk) {
  const std::pair<Arguments, const char*> cases[] = {
      {{}, "subcommand"},
      {{"tset"}, "unknown: \"tset\""},
      {{"test", "twice"}, "unknown: \"twice\""},
      {{"test", "--environment="}, "--environment"},
      {{"test", "--data-center", ""}, "--data-center"},
      {{"test", "--data-center=a", "--all-data-centers"}, "excludes"},
      {{"test", "--topic-prefix=" + std::string(250, 'x')}, "too long"},
      {{"test", "--timeout=nan"}, "--timeout: \"nan\" is not a number from 0.1 to 100000000"},
      {{"test", "--timeout=0.05"}, "--timeout: \"0.05\" is not"},
      {{"test", "--expect=0", "--timeout=60"}, "--expect: \"0\" is not a whole number from 1 to 1000000"},
      {{"nak-kill", "--context=ALL", "--disable", "--all-data-centers"}, "all data centres of TEST: give --yes"},
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
