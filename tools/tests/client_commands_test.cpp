// Operators, operations tools and strangers, as a running price client meets them.

#include <nlohmann/json.hpp>

#include "feed/client_request.h"
#include "feed/client_response.h"
#include "feed/server_status.h"
#include "peer.h"
#include "ps_common/connector/topic_names.h"
#include "tools_fixture.h"

namespace tools_test {
namespace {

using ps_ns::TopicNames;
using testing::HasSubstr;

constexpr const char* kHost = "trader-7.example.com";
constexpr const char* kClientID = "alice";

class ClientCommandsTest : public ToolsFixture {
 protected:
  // form: of its output.
  explicit ClientCommandsTest(const char* form = "--plain")
      : m_client(Client({"--instance=1:1:1:TEST", "--host=" + std::string(kHost),
                         "--client-id=" + std::string(kClientID), form}),
                 m_environment) {}

  // Returns whether the client gets prices.
  bool WaitForUpdates() {
    return m_trader.WaitUntil([&] {
      ++m_commands;
      return m_trader.Command("report").figures.at("updates") > 0;
    });
  }

  Process m_client;
  Operator m_trader{m_runtime.Path(), kHost, kClientID};
  int m_commands = 0;
};

class ClientWithSummaryTest : public ClientCommandsTest {
 protected:
  ClientWithSummaryTest() : ClientCommandsTest("--json") {}
};

TEST_F(ClientCommandsTest, APausedClientTakesNoPricesAndMissesNoneWhenItResumes) {
  Process server(Server({kStocks, "--loop"}), m_environment);
  ASSERT_TRUE(WaitForUpdates()) << m_client.Output();

  EXPECT_EQ(m_trader.Command("pause").text, "paused");
  const auto paused = m_trader.Command("report").figures;
  EXPECT_EQ(paused.at("paused"), 1);
  ASSERT_TRUE(m_client.WaitForOutput("is paused") && m_client.WaitForOutput(" rate=0/s ")) << m_client.Output();
  EXPECT_EQ(m_trader.Command("pause").text, "was paused already");
  EXPECT_EQ(m_trader.Command("report").figures.at("updates"), paused.at("updates"));

  EXPECT_EQ(m_trader.CommandHost("resume").text, "resumed");
  feed::CommandAnswer::Figures resumed;
  EXPECT_TRUE(m_trader.WaitUntil([&] {
    resumed = m_trader.Command("report").figures;
    return resumed.at("updates") > paused.at("updates") && resumed.at("instances_up") == 1;
  }));
  EXPECT_EQ(resumed.at("gaps"), 0);
  EXPECT_EQ(resumed.at("restarts"), 0);
}

TEST_F(ClientCommandsTest, WhatCannotBeObeyedIsAnsweredAndCounted) {
  EXPECT_EQ(m_trader.Command("dance").result, "unknown command \"dance\"; known: report, pause, resume, quit");
  for (const char* bytes : {"", "report", "{}", "[1, 2, 3]", "\xff\xfe"}) {
    EXPECT_TRUE(m_trader.Send(bytes));
  }
  const auto answer = m_trader.Request(R"({"id": 1000, "command": 7})");
  EXPECT_EQ(answer.id, 1000U);
  EXPECT_EQ(answer.result, "not a command that can be read");
  const auto figures = m_trader.Command("report").figures;
  EXPECT_EQ(figures.at("malformed_commands"), 6);
  EXPECT_EQ(figures.at("commands"), 2);
}

TEST_F(ClientCommandsTest, AnswersAreThereForWhoeverListens) {
  std::map<std::uint64_t, feed::CommandAnswer> heard;
  m_trader.Receive(TopicNames::CreateClientCommandResponseTopic(kHost, kClientID), [&](const lbm::Message& message) {
    if (const auto answer = feed::DecodeCommandAnswer({message.Data(), message.Length()})) {
      heard[answer->id] = *answer;
    }
  });
  // Until the client knows who listens, nobody hears it.
  EXPECT_TRUE(m_trader.WaitUntil([&] { return m_trader.Command("report").id > 0 && !heard.empty(); }));
  EXPECT_TRUE(m_trader.Send(R"({"id": 1000, "command": "dance"})"));
  EXPECT_TRUE(m_trader.WaitUntil([&] { return heard.count(1000) > 0; }));
  EXPECT_THAT(heard[1000].result, HasSubstr("unknown command"));
  EXPECT_EQ(heard[1000].clientID, kClientID);
}

TEST_F(ClientWithSummaryTest, QuitEndsTheClientInOrder) {
  Process server(Server({kStocks, "--loop"}), m_environment);
  EXPECT_TRUE(WaitForUpdates());
  EXPECT_EQ(m_trader.Command("quit").result, "ok");
  EXPECT_EQ(m_client.Wait(), 0) << m_client.Errors();
  EXPECT_THAT(m_client.Errors(), HasSubstr("ended by a command"));
  EXPECT_EQ(nlohmann::json::parse(m_client.Output())["client"]["commands"], m_commands + 1);
}

TEST_F(ClientCommandsTest, AServerThatComesUpIsAskedForItsProductsUntilItAnswers) {
  Peer& server = m_trader;
  int requests = 0;
  server.Receive(TopicNames::CreateClientRequestTopic(kInstance), [&](const lbm::Message& message) {
    const auto request = feed::DecodeClientRequest({message.Data(), message.Length()});
    if (message.Type() != LBM_MSG_REQUEST || !request || ++requests == 1) {
      return;
    }
    feed::ClientResponse response;
    response.id = request->id;
    response.result = feed::kResultOk;
    response.products.resize(1);
    response.products[0].symbol = feed::Symbol::Parse("MSFT").value();
    response.products[0].firstDate = response.products[0].lastDate = feed::ParseDate("2000-01-31").value();
    message.GetResponse().Send(feed::Encode(response), LBM_SRC_FLUSH);
  });
  feed::ServerStatus status;
  status.session = 1;
  EXPECT_TRUE(server.Send(TopicNames::CreateServerStatusTopic(kInstance), feed::Encode(status)));
  EXPECT_TRUE(m_client.WaitForOutput("TEST(1.1.1.0) is up")) << m_client.Output();
  EXPECT_TRUE(server.WaitUntil([&] { return m_trader.Command("report").figures.at("products") == 1; }));
  EXPECT_GE(requests, 2);
}

TEST_F(ClientCommandsTest, GarbageOnTheTopicsOfAServerIsCountedAndNothingElse) {
  const std::string topics[] = {
      TopicNames::CreateSegmentTopic(kInstance, 0),      TopicNames::CreateServerStatusTopic(kInstance),
      TopicNames::CreateProductResponseTopic(kInstance), TopicNames::CreateRFQ_BroadcastTopic(kInstance),
      TopicNames::CreateNewsBroadcastTopic(kInstance),   TopicNames::CreateServerResponseTopic(kInstance),
  };
  const std::string hostile[] = {"", "{", R"({"id": 1})", std::string(1000, '['), std::string("\0\xff", 2)};
  for (const auto& topic : topics) {
    for (const auto& bytes : hostile) {
      ASSERT_TRUE(m_trader.Send(topic, bytes)) << topic;
    }
    ASSERT_TRUE(m_trader.Send(topic, std::string(100'000, 'x')));
  }
  feed::CommandAnswer::Figures figures;
  // What is too large to be any message is dropped, on the segment's topic it is malformed.
  EXPECT_TRUE(m_trader.WaitUntil([&] {
    figures = m_trader.Command("report").figures;
    return figures.at("malformed") >= 31 && figures.at("dropped") >= 5;
  }));
  EXPECT_EQ(figures.at("malformed"), 31);
  EXPECT_EQ(figures.at("dropped"), 5);
  EXPECT_EQ(figures.at("updates") + figures.at("rfqs") + figures.at("news") + figures.at("products"), 0);
  m_client.Signal(SIGINT);
  EXPECT_EQ(m_client.Wait(), 1) << m_client.Errors();
}

}  // namespace
}  // namespace tools_test
