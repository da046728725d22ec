// The tool for statistics as its users run it.

#include <nlohmann/json.hpp>

#include "tools_fixture.h"

namespace tools_test {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class PriceStatTest : public ToolsFixture {
 protected:
  PriceStatTest() { m_environment.emplace_back("ZQ_STATISTICS_DIR", (m_runtime.Path() / "pages").string()); }

  std::unique_ptr<Process> Play(const Arguments& more = {"1", "2"}) const {
    auto process = std::make_unique<Process>(Command({PLAYED_PROCESS}, more), m_environment);
    EXPECT_TRUE(process->WaitForOutput("ready")) << process->Errors();
    return process;
  }

  static void Tell(Process& played, const std::string& command) {
    played.Write(command + '\n');
    ASSERT_TRUE(played.WaitForOutput("done"));
  }

  std::unique_ptr<Process> Start(const Arguments& more, Process::Terminal terminal = Process::Terminal::kNone) const {
    return std::make_unique<Process>(Command({PRICE_STAT}, more), m_environment, terminal);
  }

  // What it prints.
  std::string Run(const Arguments& more, int code = 0) const {
    const auto tool = Start(more);
    EXPECT_EQ(tool->Wait(), code) << tool->Errors();
    return tool->Output();
  }
};

TEST_F(PriceStatTest, SeesWhoHangsIsStoppedOrHasEnded) {
  const auto hung = Play();
  Tell(*hung, "hang 1");
  const auto busy = Play();
  Tell(*busy, "busy 12");
  const auto killed = Play();
  const auto stopped = Play();
  killed->Signal(SIGKILL);
  killed->Wait();
  stopped->Signal(SIGSTOP);
  std::ofstream(m_runtime.Path() / "pages" / "a\x1b[2Jb.1.page") << "no page";
  const auto list = Run({"list"});
  EXPECT_THAT(list, AllOf(ContainsRegex("prices.0 .*not looping for 1.[0-9] s"), HasSubstr("in a callback for 1"),
                          ContainsRegex("prices.0 .*stopped "), ContainsRegex("prices.0 .*ended ")));
  EXPECT_THAT(list, AllOf(ContainsRegex("a \\[2Jb +\\? .*unreadable"), Not(HasSubstr("\x1b"))));
  const auto json = nlohmann::json::parse(Run({"list", "--json"}));
  EXPECT_EQ(json["processes"].size(), 5U);
  EXPECT_THAT(json.dump(), HasSubstr("\"process\":null")) << "of the page that cannot be read";
  // Nobody publishes any more who has ended.
  const auto topics = nlohmann::json::parse(Run({"topics", "orders", "--json"}))["topics"];
  ASSERT_EQ(topics.size(), 1U);
  EXPECT_EQ(topics[0]["publishers"].size(), 3U);
}

TEST_F(PriceStatTest, ShowsNumbersRatesTopicsOptionsAndThreads) {
  const auto played = Play();
  Tell(*played, "receive 1234567");
  Tell(*played, "lose 3");
  const auto show = Run({"show", "played_process", "--kind=receiver"});
  EXPECT_THAT(show, AllOf(ContainsRegex("prices.0 +prices.0 +1,234,567 +79,012,288 +1 +3\n"),
                          Not(HasSubstr("would block")), ContainsRegex("^played_process [0-9]+  running")));
  EXPECT_THAT(Run({"topics", "prices.*"}), ContainsRegex("prices.1 +subscribes +played_process .*1,234,567"));
  EXPECT_THAT(Run({"options", "--changed"}),
              AllOf(HasSubstr("environment LBM_SPIN_TIME"), Not(HasSubstr("default\n"))));
  EXPECT_THAT(Run({"options", "--name=bad*"}), AllOf(HasSubstr("bad [31moption"), Not(HasSubstr("\x1b"))));
  EXPECT_THAT(Run({"threads", "--interval=0"}),
              ContainsRegex("played_process .*events of prices.0, not on CPU 0 as wanted"));
  EXPECT_EQ(Run({"show", "nobody"}, 1), "");

  for (const Arguments& selection : {Arguments{}, {"--kind=receiver", "--context=prices.0", "--interval=0.05"}}) {
    const auto json = Run(Command({"show", "--json"}, selection));
    EXPECT_EQ(selection.empty(), json.find("spin_time") != std::string::npos) << json;
    EXPECT_EQ(selection.empty(), json.find("per_second") == std::string::npos) << json;
    const auto before = Write("before.json", json);
    Tell(*played, "receive 100");
    EXPECT_THAT(Run({"diff", before.string()}),
                ContainsRegex("prices.0 prices.0 +messages +- +1,234,[56]67 .*[+]100 "));
  }
  EXPECT_EQ(Run({"diff", Write("other.json", "[1, 2]").string()}, 2), "");
}

TEST_F(PriceStatTest, WatchPrintsABlockOrADocumentForEachInterval) {
  const auto played = Play();
  const auto watch = Start({"watch", "--interval=0.05", "--json"});
  ASSERT_TRUE(watch->WaitForOutput("}\n"));
  Tell(*played, "receive 1000");
  while (!testing::Matches(ContainsRegex("messages_per_second\":[1-9]"))(watch->Output())) {
    ASSERT_TRUE(watch->WaitForOutput("}\n")) << watch->Output();
  }
  watch->Signal(SIGINT);
  EXPECT_EQ(watch->Wait(), 0) << watch->Errors();
  const auto blocks = Run({"watch", "--interval=0.05", "--count=2"});
  EXPECT_THAT(blocks, ContainsRegex("1 contexts of 1 process\n(.*\n)*1 contexts of 1 process\n"));
  EXPECT_THAT(blocks, Not(HasSubstr("\x1b")));
}

TEST_F(PriceStatTest, WatchKnowsAValueForEveryColumn) {
  const auto played = Play();
  for (const char* const view : {"contexts", "receivers", "sources", "peers"}) {
    const auto lines =
        nlohmann::json::parse(Run({"watch", "--interval=0.05", "--count=1", "--json", "--view", view}))["lines"];
    ASSERT_FALSE(lines.empty()) << view;
    for (const auto& [column, value] : lines[0]["values"].items()) {
      EXPECT_FALSE(value.is_null()) << view << ": " << column;
    }
  }
}

TEST_F(PriceStatTest, WatchObeysKeysAndGivesTheTerminalBack) {
  const auto played = Play();
  Process shell({"/bin/sh", "-c", PRICE_STAT " watch --interval=0.05; echo code=$?; stty -a"}, m_environment,
                Process::Terminal::kAll);
  ASSERT_TRUE(shell.WaitForOutput("prices.0")) << shell.Output();
  shell.Write("r");
  ASSERT_TRUE(shell.WaitForOutput("2 receivers of 1 process")) << shell.Output();
  shell.Write("p");
  ASSERT_TRUE(shell.WaitForOutput("paused")) << shell.Output();
  shell.Write("q");
  ASSERT_TRUE(shell.WaitForOutput("\x1b[?1049l")) << shell.Output();
  EXPECT_TRUE(shell.WaitForOutput("code=0")) << shell.Output();
  EXPECT_TRUE(shell.WaitForOutput(" icanon ")) << shell.Output();
  EXPECT_TRUE(shell.WaitForOutput(" echo ")) << shell.Output();
  EXPECT_EQ(shell.Wait(), 0);

  for (const int signal : {SIGTERM, SIGHUP, SIGABRT}) {
    const auto watch = Start({"watch"}, Process::Terminal::kOutput);
    ASSERT_TRUE(watch->WaitForOutput("prices.0")) << watch->Output();
    watch->Signal(signal);
    EXPECT_EQ(watch->Wait(), signal == SIGABRT ? 128 + SIGABRT : 0);
    EXPECT_THAT(watch->Output(), AllOf(StartsWith("\x1b[?1049h\x1b[?25l"), EndsWith("\x1b[?25h\x1b[?1049l")));
  }
}

TEST_F(PriceStatTest, HasNoPageItselfAndSaysWhatToLookAt) {
  const auto tool = Start({"list"});
  EXPECT_EQ(tool->Wait(), 1);
  EXPECT_THAT(tool->Errors(), HasSubstr("no such process has a page in " + (m_runtime.Path() / "pages").string()));
  EXPECT_FALSE(std::filesystem::exists(m_runtime.Path() / "pages"));
}

}  // namespace
}  // namespace tools_test
