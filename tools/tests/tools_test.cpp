// The price server and the price client as their users run them.

#include <nlohmann/json.hpp>

#include "tools_fixture.h"

namespace tools_test {
namespace {

using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

const std::string kIndex = "--prices=" PRICES_DIRECTORY "/sp500-2000.csv";

using ToolsTest = ToolsFixture;

void WaitForUpdates(Process& client) {
  do {
    ASSERT_TRUE(client.WaitForOutput(" updates=")) << client.Output();
  } while (!testing::Matches(ContainsRegex(" updates=[1-9]"))(client.Output()));
}

TEST_F(ToolsTest, EveryUpdateArrivesAtAClientThatWasThereBefore) {
  Process client(Client({"--instance=1:1:1:TEST", "--segments=2", "--plain", "--strict"}), m_environment);
  Process server(Server({"--segments=2", kStocks, "--rate=5000", "--loop", "--count=2000", "--wait-for-client"}),
                 m_environment);
  EXPECT_EQ(server.Wait(), 0) << server.Errors();
  EXPECT_THAT(server.Output(), HasSubstr("sent 2000 updates in "));
  ASSERT_TRUE(client.WaitForOutput("is gone")) << client.Output();
  client.Signal(SIGINT);
  EXPECT_EQ(client.Wait(), 0) << client.Errors();
  EXPECT_THAT(client.Output(), ContainsRegex("TEST\\(1\\.1\\.1\\.0\\) +gone +2,000 +[0-9.]+ +0 +0 +0 +0\n"));
}

TEST_F(ToolsTest, OneClientServesSeveralInstancesAndReportsInJson) {
  Process stocks(Server({"--segments=2", kStocks, "--loop"}), m_environment);
  Process index(Server({"--segments=2", kIndex, "--symbol=SP500", "--loop"}, "2"), m_environment);
  Process client(Client({"--instance=1:1:1:STOCKS", "--instance=1:1:2", "--segments=2", "--count=1000", "--json"}),
                 m_environment);
  EXPECT_EQ(client.Wait(), 0) << client.Errors();
  const auto json = nlohmann::json::parse(client.Output());
  EXPECT_GE(json["total"]["updates"], 1000);
  EXPECT_EQ(json["total"]["gaps"], 0);
  EXPECT_EQ(json["instances"][0]["instance"], "STOCKS(1.1.1.0)");
  EXPECT_EQ(json["instances"][0]["state"], "up");
  EXPECT_EQ(json["instances"][0]["live_segments"], 2);
  EXPECT_EQ(json["instances"][0]["symbols"].size(), 5U);
  EXPECT_EQ(json["instances"][1]["symbols"][0]["symbol"], "SP500");
  EXPECT_GT(json["instances"][1]["latency_ns"]["p50"], 0);
}

TEST_F(ToolsTest, AKilledServerCanBeStartedAgainAndTheClientReportsTheGap) {
  const auto command = Server({kStocks, "--loop"});
  const auto config = Write("notify.xml", "<Config><General/><Logging lbmNotifications=\"yes\"/></Config>").string();
  Process client(
      {PRICE_CLIENT, "--config=" + config, "--instance=1:1:1:TEST", "--plain", "--strict", "--log-level=info"},
      m_environment);
  {
    Process first(command, m_environment);
    ASSERT_TRUE(client.WaitForOutput("TEST(1.1.1.0) is up")) << client.Output();
    ASSERT_TRUE(client.WaitForOutput("TEST(1.1.1.0) server is open")) << client.Output();
    // Who has received no price yet misses none.
    WaitForUpdates(client);
    first.Signal(SIGKILL);
    EXPECT_EQ(first.Wait(), 128 + SIGKILL);
  }
  ASSERT_TRUE(client.WaitForOutput("TEST(1.1.1.0) is gone, ended without closing")) << client.Output();
  Process second(command, m_environment);
  ASSERT_TRUE(client.WaitForOutput("TEST(1.1.1.0) is back")) << client.Output() << second.Errors();
  EXPECT_TRUE(client.WaitForOutput("gaps: 1 more, ")) << client.Output();
  EXPECT_THAT(client.Output(), HasSubstr("TEST(1.1.1.0) server restarted"));
  second.Signal(SIGINT);
  EXPECT_EQ(second.Wait(), 0);
  ASSERT_TRUE(client.WaitForOutput("TEST(1.1.1.0) is gone, closed in order")) << client.Output();
  client.Signal(SIGINT);
  EXPECT_EQ(client.Wait(), 1);
  EXPECT_THAT(client.Errors(), HasSubstr("gap in the updates of TEST(1.1.1.0)"));
  EXPECT_THAT(client.Errors(), ContainsRegex("context_src_notify topic=price_server.status.1.1.1.0 src=(.|\n)*"
                                             "receiver_src_notify_create src=(.|\n)*receiver_src_notify_delete src="));
}

TEST_F(ToolsTest, AServerThatHangsIsSilentAndHeardAgainWhenItGoesOn) {
  Process client(Client({"--instance=1:1:1:TEST", "--plain", "--max-silence=0.3"}), m_environment);
  Process server(Server({kStocks, "--loop", "--status-every=0.05"}), m_environment);
  ASSERT_TRUE(client.WaitForOutput("TEST(1.1.1.0) server is open")) << client.Output();
  server.Signal(SIGSTOP);
  EXPECT_TRUE(client.WaitForOutput("TEST(1.1.1.0) server is silent")) << client.Output();
  server.Signal(SIGCONT);
  EXPECT_TRUE(client.WaitForOutput("TEST(1.1.1.0) server is heard again")) << client.Output();
  EXPECT_THAT(client.Output(), Not(HasSubstr("is gone")));
}

TEST_F(ToolsTest, ASecondServerForTheSameInstanceIsRefused) {
  Process first(Server({kStocks, "--loop"}), m_environment);
  ASSERT_TRUE(first.WaitForOutput("560 prices of 5 symbols on 1 segments")) << first.Errors();
  Process second(Server({kIndex}), m_environment);
  EXPECT_EQ(second.Wait(), 1);
  EXPECT_THAT(second.Errors(), ContainsRegex("TEST\\(1\\.1\\.1\\.0\\) is already running \\(process [0-9]+\\)"));
  Process other(Server({kStocks, "--rate=0"}, "2"), m_environment);
  EXPECT_EQ(other.Wait(), 0) << other.Errors();
  first.Signal(SIGINT);
  EXPECT_EQ(first.Wait(), 0);
}

TEST_F(ToolsTest, EndInOrderOnEverySignalThatAsksForItAndGiveTheTerminalBack) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    Process server(Server({kStocks, "--loop", "--rate=0"}), m_environment);
    Process client(Client({"--instance=1:1:1"}), m_environment, Process::Terminal::kOutput);
    ASSERT_TRUE(client.WaitForOutput("AMZN")) << client.Output() << server.Errors();
    client.Signal(signal);
    EXPECT_EQ(client.Wait(), 0) << client.Errors();
    EXPECT_THAT(client.Output(), StartsWith("\x1b[?1049h\x1b[?25l"));
    const auto end = client.Output().find("\x1b[?25h\x1b[?1049l");
    ASSERT_NE(end, std::string::npos);
    EXPECT_THAT(client.Output().substr(end), ContainsRegex("\ntotal +[0-9,]+ "));
    server.Signal(signal);
    EXPECT_EQ(server.Wait(), 0) << server.Errors();
    EXPECT_THAT(server.Output(), ContainsRegex("sent [0-9]+ updates in .*\n$"));
  }
}

TEST_F(ToolsTest, TheTerminalComesBackWhenTheClientCrashes) {
  Process client(Client({"--instance=1:1:1:TEST"}), m_environment, Process::Terminal::kOutput);
  ASSERT_TRUE(client.WaitForOutput("never seen")) << client.Errors();
  client.Signal(SIGABRT);
  EXPECT_EQ(client.Wait(), 128 + SIGABRT);
  EXPECT_THAT(client.Output(), EndsWith("\x1b[?25h\x1b[?1049l"));
}

TEST_F(ToolsTest, AnInstanceThatDeliversNothingIsNotSuccess) {
  Process client(Client({"--instance=1:1:9:NONE", "--seconds=0.1", "--quiet"}), m_environment);
  EXPECT_EQ(client.Wait(), 1);
  EXPECT_THAT(client.Errors(), HasSubstr("nothing received from NONE(1.1.9.0): no such server; check its numbers, its "
                                         "user and LBM_RUNTIME_DIR (here " +
                                         m_runtime.Path().string() + "/default)"));
  EXPECT_THAT(client.Output(), HasSubstr("never seen"));
}

TEST_F(ToolsTest, ProductsOfSegmentsThatNobodyReceivesAreAWarningAndAFailureWhenStrict) {
  Process server(Server({"--segments=3", kStocks, "--loop"}), m_environment);
  for (const bool isStrict : {false, true}) {
    Process client({PRICE_CLIENT, "--instance=1:1:1", "--plain", isStrict ? "--strict" : "--plain"}, m_environment);
    ASSERT_TRUE(client.WaitForOutput(" 1.1.1.0 products of segments 1, 2 are not received")) << client.Output();
    WaitForUpdates(client);
    client.Signal(SIGINT);
    EXPECT_EQ(client.Wait(), isStrict ? 1 : 0) << client.Errors();
    EXPECT_THAT(client.Errors(), HasSubstr("products of segments 1, 2 are not received; --segments auto does"));
  }
}

TEST_F(ToolsTest, SegmentsThatProductsNameAreReceivedWhenAskedFor) {
  Process server(Server({"--segments=3", kStocks, "--loop"}), m_environment);
  Process client({PRICE_CLIENT, "--instance=1:1:1", "--segments=auto", "--strict", "--plain"}, m_environment);
  EXPECT_TRUE(client.WaitForOutput(" segments=3/3 ")) << client.Output();
  client.Signal(SIGINT);
  EXPECT_EQ(client.Wait(), 0) << client.Errors();
}

TEST_F(ToolsTest, WhatCannotBeUsedIsRefusedBeforeAnythingStarts) {
  const auto prices = "--prices=" + Write("bad.csv", "symbol,date,price\nA,2000-01-03,-1\n").string();
  const auto broken = Write("broken.xml", "<Config>\n<General>\n</Config>\n").string();
  const auto empty = Write("empty.xml", "<Config/>\n").string();
  const std::pair<Arguments, const char*> cases[] = {
      {Server({}), "--prices is required"},
      {Server({prices}), "bad.csv:2: bad price \"-1\""},
      {Server({kStocks + "x"}), "stocks.csvx: cannot read the prices file: No such file"},
      {Server({kStocks}, "32768"), "--node"},
      {Server({kStocks, "--rate=-1"}), "--rate: "},
      {Server({kStocks, "--seconds=nan"}), "--seconds: "},
      {Server({kStocks, "--status-every=0"}), "--status-every 0"},
      {Server({kStocks, "--log-level=loud"}), "--log-level: \"loud\""},
      {Server({kStocks, "--segments=0"}), "--segments: \"0\" is not a whole number from 1 to 1024"},
      {Client({"--instance=1:1:1", "--segments=all"}), "\"all\" is not a whole number from 1 to 1024, nor \"auto\""},
      {Client({}), "--instance is required"},
      {Client({"--instance=1:1"}), "bad server instance \"1:1\""},
      {Client({"--instance=1:1:1", "--instance=1:1:1:AGAIN"}), "\"1:1:1:AGAIN\" is given twice"},
      {{PRICE_CLIENT, "--instance=1:1:1", "--config=" + broken}, "broken.xml:3: "},
      {{PRICE_CLIENT, "--instance=1:1:1", "--config=" + empty}, "empty.xml: "},
      {{PRICE_CLIENT, "--instance=1:1:1", "--config=/absent.xml"}, "/absent.xml: "},
  };
  for (const auto& [command, error] : cases) {
    Process process(command, m_environment);
    EXPECT_EQ(process.Wait(), 2) << error;
    EXPECT_THAT(process.Errors(), HasSubstr(error));
    EXPECT_EQ(process.Output(), "");
  }
}

TEST_F(ToolsTest, AWrongLogLevelIsBlamedOnWhereItStands) {
  auto environment = m_environment;
  environment.emplace_back("ZQLOG_LEVEL", "silly");
  Process process({TRIAGE}, environment);
  EXPECT_EQ(process.Wait(), 2);
  EXPECT_THAT(process.Errors(), HasSubstr("triage: environment variable ZQLOG_LEVEL: \"silly\" is not"));

  Process overridden({TRIAGE, "--log-level=loud"}, environment);
  EXPECT_EQ(overridden.Wait(), 2);
  EXPECT_THAT(overridden.Errors(), HasSubstr("triage: --log-level: \"loud\" is not"));
}

TEST_F(ToolsTest, TroubleWithTheRuntimeDirectoryIsReported) {
  const Environment environment{{"LBM_RUNTIME_DIR", Write("file", "").string()}};
  for (const auto& command : {Server({kStocks}), Client({"--instance=1:1:1"})}) {
    Process process(command, environment);
    EXPECT_EQ(process.Wait(), 3);
    EXPECT_THAT(process.Errors(), HasSubstr("Failed to create LBM context: "));
  }
}

TEST_F(ToolsTest, OutputThatCannotBeWrittenIsAnError) {
  for (const auto& command : {Server({kStocks, "--rate=0"}), Server({kStocks, "--loop", "--quiet", "--console"}),
                              Client({"--instance=1:1:1", "--seconds=0"}), Client({"--help"})}) {
    std::string line;
    for (const auto& word : command) {
      line += '\'' + word + "' ";
    }
    Process process({"/bin/sh", "-c", "echo help | " + line + "> /dev/full"}, m_environment);
    EXPECT_EQ(process.Wait(), 3);
    EXPECT_THAT(process.Errors(), HasSubstr("cannot write to standard output: No space left on device"));
  }
}

}  // namespace
}  // namespace tools_test
