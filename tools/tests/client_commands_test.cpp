// Operators, operations tools and strangers, as a running price client meets them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <nlohmann/json.hpp>

#include "feed/client_request.h"
#include "feed/client_response.h"
#include "feed/server_status.h"
#include "peer.h"
#include "process.h"
#include "ps_common/connector/topic_names.h"
#include "test_support/temporary_directory.h"

namespace tools_test {
namespace {

using ps_ns::TopicNames;
using testing::HasSubstr;

using Arguments = std::vector<std::string>;

constexpr const char* kPrices = "--prices=" PRICES_DIRECTORY "/stocks.csv";
constexpr const char* kConfig = "--config=" PRICE_CLIENT_CONFIG;
constexpr const char* kHost = "trader-7.example.com";
constexpr const char* kClientID = "alice";

class ClientCommandsTest : public testing::Test {
 protected:
  static Arguments Server() {
    return {PRICE_SERVER, "--market=1", "--submarket=1", "--node=1", "--market-name=TEST", kPrices, "--loop"};
  }
  static Arguments Client(const Arguments& more = {}) {
    Arguments command{PRICE_CLIENT, kConfig, "--instance=1:1:1:TEST", "--host=" + std::string(kHost),
                      "--client-id=" + std::string(kClientID)};
    command.insert(command.end(), more.begin(), more.end());
    return command;
  }

  static ps_ns::ServerInstance Instance() {
    ps_ns::ServerInstance instance;
    instance.m_marketID = instance.m_submarketID = instance.m_nodeID = 1;
    return instance;
  }

  test_support::TemporaryDirectory m_runtime;
  Environment m_environment{{"LBM_RUNTIME_DIR", m_runtime.Path().string()}};
};

TEST_F(ClientCommandsTest, APausedClientTakesNoPricesAndMissesNoneWhenItResumes) {
  Process server(Server(), m_environment);
  Process client(Client({"--plain"}), m_environment);
  ASSERT_TRUE(client.WaitForOutput("TEST(1.1.1.0) is up")) << client.Output();
  Operator trader(m_runtime.Path(), kHost, kClientID);

  EXPECT_EQ(trader.Command("pause").text, "paused");
  const auto paused = trader.Command("report").figures;
  EXPECT_EQ(paused.at("paused"), 1);
  EXPECT_GT(paused.at("updates"), 0);
  ASSERT_TRUE(client.WaitForOutput(" rate=0/s ")) << client.Output();
  EXPECT_EQ(trader.Command("pause").text, "was paused already");
  EXPECT_EQ(trader.Command("report").figures.at("updates"), paused.at("updates"));

  EXPECT_EQ(trader.CommandHost("resume").text, "resumed");
  feed::CommandAnswer::Figures resumed;
  EXPECT_TRUE(trader.AsPeer().WaitUntil([&] {
    resumed = trader.Command("report").figures;
    return resumed.at("updates") > paused.at("updates") && resumed.at("instances_up") == 1;
  }));
  EXPECT_EQ(resumed.at("gaps"), 0);
  EXPECT_EQ(resumed.at("restarts"), 0);
}

TEST_F(ClientCommandsTest, WhatCannotBeObeyedIsAnsweredAndCounted) {
  Process client(Client({"--json"}), m_environment);
  Operator trader(m_runtime.Path(), kHost, kClientID);
  EXPECT_EQ(trader.Command("dance").result, "unknown command \"dance\"; known: report, pause, resume, quit");
  for (const char* bytes : {"", "report", "{}", "[1, 2, 3]", "\xff\xfe"}) {
    EXPECT_TRUE(trader.Send(bytes));
  }
  const auto answer = trader.Request(R"({"id": 1000, "command": 7})");
  EXPECT_EQ(answer.id, 1000U);
  EXPECT_EQ(answer.result, "not a command that can be read");
  const auto figures = trader.Command("report").figures;
  EXPECT_EQ(figures.at("malformed_commands"), 6);
  EXPECT_EQ(figures.at("commands"), 2);
}

TEST_F(ClientCommandsTest, AnswersAreThereForWhoeverListens) {
  Process client(Client({"--json"}), m_environment);
  Operator trader(m_runtime.Path(), kHost, kClientID);
  std::map<std::uint64_t, feed::CommandAnswer> heard;
  trader.AsPeer().Receive(TopicNames::CreateClientCommandResponseTopic(kHost, kClientID),
                          [&](const lbm::Message& message) {
                            if (const auto answer = feed::DecodeCommandAnswer({message.Data(), message.Length()})) {
                              heard[answer->id] = *answer;
                            }
                          });
  // Until the client knows who listens, nobody hears it.
  EXPECT_TRUE(trader.AsPeer().WaitUntil([&] { return trader.Command("report").id > 0 && !heard.empty(); }));
  EXPECT_TRUE(trader.Send(R"({"id": 1000, "command": "dance"})"));
  EXPECT_TRUE(trader.AsPeer().WaitUntil([&] { return heard.count(1000) > 0; }));
  EXPECT_THAT(heard[1000].result, HasSubstr("unknown command"));
  EXPECT_EQ(heard[1000].clientID, kClientID);
}

TEST_F(ClientCommandsTest, QuitEndsTheClientInOrder) {
  Process server(Server(), m_environment);
  Process client(Client({"--json"}), m_environment);
  Operator trader(m_runtime.Path(), kHost, kClientID);
  int commands = 1;
  EXPECT_TRUE(trader.AsPeer().WaitUntil([&] {
    ++commands;
    return trader.Command("report").figures.at("updates") > 0;
  }));
  EXPECT_EQ(trader.Command("quit").result, "ok");
  EXPECT_EQ(client.Wait(), 0) << client.Errors();
  EXPECT_THAT(client.Errors(), HasSubstr("ended by a command"));
  EXPECT_EQ(nlohmann::json::parse(client.Output())["client"]["commands"], commands);
}

TEST_F(ClientCommandsTest, AServerThatComesUpIsAskedForItsProductsUntilItAnswers) {
  Process client(Client({"--plain"}), m_environment);
  Operator trader(m_runtime.Path(), kHost, kClientID);
  auto& server = trader.AsPeer();
  int requests = 0;
  server.Receive(TopicNames::CreateClientRequestTopic(Instance()), [&](const lbm::Message& message) {
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
  EXPECT_TRUE(server.Send(TopicNames::CreateServerStatusTopic(Instance()), feed::Encode(status)));
  EXPECT_TRUE(client.WaitForOutput("TEST(1.1.1.0) is up")) << client.Output();
  EXPECT_TRUE(server.WaitUntil([&] { return trader.Command("report").figures.at("products") == 1; }));
  EXPECT_EQ(requests, 2);
}

TEST_F(ClientCommandsTest, GarbageOnTheTopicsOfAServerIsCountedAndNothingElse) {
  Process client(Client({"--plain"}), m_environment);
  Operator trader(m_runtime.Path(), kHost, kClientID);
  const std::string topics[] = {
      TopicNames::CreateSegmentTopic(Instance(), 0),      TopicNames::CreateServerStatusTopic(Instance()),
      TopicNames::CreateProductResponseTopic(Instance()), TopicNames::CreateRFQ_BroadcastTopic(Instance()),
      TopicNames::CreateNewsBroadcastTopic(Instance()),   TopicNames::CreateServerResponseTopic(Instance()),
  };
  const std::string hostile[] = {"", "{", R"({"id": 1})", std::string(1000, '['), std::string("\0\xff", 2)};
  for (const auto& topic : topics) {
    for (const auto& bytes : hostile) {
      ASSERT_TRUE(trader.AsPeer().Send(topic, bytes)) << topic;
    }
    ASSERT_TRUE(trader.AsPeer().Send(topic, std::string(100'000, 'x')));
  }
  feed::CommandAnswer::Figures figures;
  // What is too large to be any message is dropped, on the segment's topic it is malformed.
  EXPECT_TRUE(trader.AsPeer().WaitUntil([&] {
    figures = trader.Command("report").figures;
    return figures.at("malformed") >= 31 && figures.at("dropped") >= 5;
  }));
  EXPECT_EQ(figures.at("malformed"), 31);
  EXPECT_EQ(figures.at("dropped"), 5);
  EXPECT_EQ(figures.at("updates") + figures.at("rfqs") + figures.at("news") + figures.at("products"), 0);
  client.Signal(SIGINT);
  EXPECT_EQ(client.Wait(), 1) << client.Errors();
}

}  // namespace
}  // namespace tools_test
