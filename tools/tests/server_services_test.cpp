// What a running price server does beside sending prices.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>

#include "feed/client_request.h"
#include "feed/client_response.h"
#include "feed/command.h"
#include "feed/command_answer.h"
#include "feed/news.h"
#include "feed/request_for_quote.h"
#include "peer.h"
#include "process.h"
#include "ps_common/connector/topic_names.h"
#include "test_support/temporary_directory.h"

namespace tools_test {
namespace {

using ps_ns::TopicNames;
using testing::ContainsRegex;
using testing::HasSubstr;

using Arguments = std::vector<std::string>;

class ServerServicesTest : public testing::Test {
 protected:
  ServerServicesTest() { m_instance.m_marketID = m_instance.m_submarketID = m_instance.m_nodeID = 1; }

  static Arguments Server(const Arguments& more, const std::string& prices = PRICES_DIRECTORY "/stocks.csv") {
    Arguments command{PRICE_SERVER,   "--market=1", "--submarket=1",     "--node=1",
                      "--segments=2", "--loop",     "--prices=" + prices};
    command.insert(command.end(), more.begin(), more.end());
    return command;
  }
  static Arguments Client(const std::string& id) {
    constexpr const char* kConfig = "--config=" PRICE_CLIENT_CONFIG;
    return {PRICE_CLIENT,       kConfig, "--instance=1:1:1", "--segments=2", "--plain", "--host=box.example",
            "--client-id=" + id};
  }

  std::vector<feed::ClientResponse> Ask(Peer& peer, const std::string& bytes) const {
    std::vector<feed::ClientResponse> responses;
    peer.Request(TopicNames::CreateClientRequestTopic(m_instance), bytes, [&](std::string_view response) {
      responses.push_back(feed::DecodeClientResponse(response).value());
      return responses.back().isLast;
    });
    return responses;
  }
  feed::ClientResponse AskOne(Peer& peer, const std::string& bytes) const {
    const auto responses = Ask(peer, bytes);
    EXPECT_EQ(responses.size(), 1U) << bytes;
    return responses.empty() ? feed::ClientResponse() : responses[0];
  }

  ps_ns::ServerInstance m_instance;
  test_support::TemporaryDirectory m_files;
  test_support::TemporaryDirectory m_runtime;
  Environment m_environment{{"LBM_RUNTIME_DIR", m_runtime.Path().string()}};
};

// The messages that come on the topic, decoded.
template <class Message, class Decode>
std::shared_ptr<std::vector<Message>> Listen(Peer& peer, const std::string& topic, const Decode& decode) {
  auto messages = std::make_shared<std::vector<Message>>();
  peer.Receive(topic, [messages, decode](const lbm::Message& message) {
    if (message.Type() != LBM_MSG_DATA) {
      return;
    }
    const auto decoded = decode({message.Data(), message.Length()});
    ASSERT_TRUE(decoded) << message.TopicName();
    messages->push_back(*decoded);
  });
  return messages;
}

TEST_F(ServerServicesTest, ProductsStatusNewsAndRequestsForQuotesReachWhoeverListens) {
  Process server(Server({"--news-every=0.01", "--rfq-every=0.01", "--status-every=0.01"}), m_environment);
  Peer peer(m_runtime.Path());
  const auto products =
      Listen<feed::ProductInfo>(peer, TopicNames::CreateProductResponseTopic(m_instance), feed::DecodeProductInfo);
  const auto statuses =
      Listen<feed::ServerStatus>(peer, TopicNames::CreateServerStatusTopic(m_instance), feed::DecodeServerStatus);
  const auto news = Listen<feed::News>(peer, TopicNames::CreateNewsBroadcastTopic(m_instance), feed::DecodeNews);
  const auto rfqs = Listen<feed::RequestForQuote>(peer, TopicNames::CreateRFQ_BroadcastTopic(m_instance),
                                                  feed::DecodeRequestForQuote);
  ASSERT_TRUE(peer.WaitUntil([&] {
    return products->size() >= 5 && statuses->size() >= 3 && news->size() >= 2 && rfqs->size() >= 6;
  })) << server.Errors();

  EXPECT_EQ(products->at(1).symbol.View(), "AMZN");
  EXPECT_EQ(products->at(1).segment, 1);
  EXPECT_EQ(products->at(1).prices, 123U);
  for (std::size_t i = 1; i < rfqs->size(); ++i) {
    EXPECT_EQ(rfqs->at(i).id, rfqs->at(i - 1).id + 1);
  }

  // Somebody else who comes later.
  const auto before = products->size();
  Peer late(m_runtime.Path());
  const auto again =
      Listen<feed::ProductInfo>(late, TopicNames::CreateProductResponseTopic(m_instance), feed::DecodeProductInfo);
  EXPECT_TRUE(late.WaitUntil([&] { return again->size() >= 5; }));
  EXPECT_TRUE(peer.WaitUntil([&] { return products->size() >= before + 5; }));
  EXPECT_TRUE(again->at(4).lastPrice.has_value());

  server.Signal(SIGINT);
  EXPECT_EQ(server.Wait(), 0) << server.Errors();
  ASSERT_TRUE(peer.WaitUntil([&] { return statuses->back().state == feed::ServerState::kClosing; }));
  EXPECT_THAT(server.Output(), HasSubstr(std::to_string(statuses->back().updatesSent) + " updates in "));
}

TEST_F(ServerServicesTest, EveryRequestIsAnswered) {
  const auto prices = m_files.Path() / "many.csv";
  {
    std::ofstream file(prices);
    file << "symbol,date,price\n";
    for (int i = 0; i < 250; ++i) {
      file << 'S' << i << ",2000-01-03," << i << '\n';
    }
  }
  Process server(Server({}, prices), m_environment);
  Peer peer(m_runtime.Path());
  // One that is no request, before the others.
  ASSERT_TRUE(peer.Send(TopicNames::CreateClientRequestTopic(m_instance), "data"));

  const auto all = Ask(peer, R"({"id": 7, "request": "products"})");
  ASSERT_EQ(all.size(), 3U);
  std::size_t count = 0;
  for (const auto& response : all) {
    EXPECT_EQ(response.id, 7U);
    EXPECT_EQ(response.result, "ok");
    for (const auto& product : response.products) {
      EXPECT_EQ(product.symbol.View().substr(1), std::to_string(count++));
    }
  }
  EXPECT_EQ(count, 250U);

  const auto one = AskOne(peer, R"({"id": 8, "request": "products", "symbol": "S249"})");
  ASSERT_EQ(one.products.size(), 1U);
  EXPECT_EQ(one.products[0].segment, 1);
  EXPECT_TRUE(AskOne(peer, R"({"id": 9, "request": "status"})").status.has_value());

  EXPECT_EQ(AskOne(peer, R"({"id": 1, "request": "products", "symbol": "?"})").result, "unknown symbol \"?\"");
  EXPECT_EQ(AskOne(peer, R"({"id": 1, "request": "dance"})").result, "unknown request \"dance\"");
  for (const auto& [bytes, id] : {std::pair("{", 0U), {"", 0U}, {R"({"id": 5, "request": []})", 5U}}) {
    const auto response = AskOne(peer, bytes);
    EXPECT_EQ(response.result, "not a request that can be read") << bytes;
    EXPECT_EQ(response.id, id);
  }
}

TEST_F(ServerServicesTest, TheConsoleShowsTheAnswersOfClientsThatNobodyListed) {
  Process server(Server({"--console"}), m_environment);
  server.Write("client alice report\n");
  Process alice(Client("alice"), m_environment);
  ASSERT_TRUE(server.WaitForOutput("#1 to client alice: sent\n#1 from alice on box.example: ok; ")) << server.Output();
  ASSERT_TRUE(server.WaitForOutput(" updates=")) << server.Output();

  Process bob(Client("bob"), m_environment);
  ASSERT_TRUE(bob.WaitForOutput(" is up")) << bob.Output();
  server.Write("client bob dance\nhost box.example report\nhost\nhelp\n");
  ASSERT_TRUE(server.WaitForOutput("#3 from bob on box.example: ok; ")) << server.Output();
  server.Write("client bob quit");
  server.CloseInput();
  ASSERT_TRUE(server.WaitForOutput("#4 from bob on box.example: ok")) << server.Output();
  EXPECT_EQ(bob.Wait(), 0);
  server.Signal(SIGINT);
  EXPECT_EQ(server.Wait(), 0);
  EXPECT_THAT(server.Output(), HasSubstr("#2 from bob on box.example: unknown command \"dance\""));
  EXPECT_THAT(server.Output(), HasSubstr("#3 from alice on box.example: ok; "));
  EXPECT_THAT(server.Output(), HasSubstr("\nhost <hostname> <command> "));
  EXPECT_THAT(server.Errors(), HasSubstr("bad line \"host\": hostname or command missing; \"help\" shows"));
}

TEST_F(ServerServicesTest, AClientIsHeardThoughNothingSubscribesToIt) {
  Process server(Server({"--console"}), m_environment);
  Peer client(m_runtime.Path());
  bool hasAnswered = false;
  client.Receive(TopicNames::CreateClientIDCommandTopic("carol"), [&](const lbm::Message& message) {
    const auto command = feed::DecodeCommand({message.Data(), message.Length()});
    if (message.Type() == LBM_MSG_REQUEST && command) {
      feed::CommandAnswer answer;
      answer.id = command->id;
      answer.clientID = "carol";
      answer.host = "box.example";
      answer.result = feed::kResultOk;
      answer.text = command->name;
      message.GetResponse().Send(feed::Encode(answer), LBM_SRC_FLUSH);
      hasAnswered = true;
    }
  });
  server.Write("client carol sing\n");
  ASSERT_TRUE(client.WaitUntil([&] { return hasAnswered; })) << server.Output();
  EXPECT_TRUE(server.WaitForOutput("#1 from carol on box.example: ok; sing\n")) << server.Output();
}

TEST_F(ServerServicesTest, CommandsToClientsThatDoNotHearOrAnswerAreSaidToBeSo) {
  Process server(Server({"--console", "--command-timeout=1"}), m_environment);
  server.Write("client alice report\n");
  ASSERT_TRUE(server.WaitForOutput("#1 to client alice: not sent, nobody listened for 1 s\n")) << server.Errors();
  {
    Process alice(Client("alice"), m_environment);
    ASSERT_TRUE(alice.WaitForOutput(" is up")) << alice.Output();
    server.Write("client alice report\n");
    ASSERT_TRUE(server.WaitForOutput("#2 from alice on box.example: ok")) << server.Output();
    alice.Signal(SIGSTOP);
    server.Write("client alice report\nclient alice pause\n");
    ASSERT_TRUE(server.WaitForOutput("#4 to client alice: no answer for 1 s\n")) << server.Output();
    alice.Signal(SIGCONT);
    ASSERT_TRUE(server.WaitForOutput("#3 from alice on box.example: ok")) << server.Output();
    alice.Signal(SIGKILL);
    alice.Wait();
  }
  Process alice(Client("alice"), m_environment);
  ASSERT_TRUE(alice.WaitForOutput(" is up")) << alice.Output();
  server.Write("client alice report\n");
  ASSERT_TRUE(server.WaitForOutput("#5 from alice on box.example: ok")) << server.Output();
  server.Write("client carol report\n#\nhelp\n");
  ASSERT_TRUE(server.WaitForOutput("Commands that clients know")) << server.Output();
  server.Signal(SIGTERM);
  EXPECT_EQ(server.Wait(), 0) << server.Errors();
  EXPECT_THAT(server.Output(), ContainsRegex("#6 to client carol: not sent, (the server ends|nobody listened)"));
}

}  // namespace
}  // namespace tools_test
