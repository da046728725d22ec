// What a running price server does beside sending prices.

#include <algorithm>
#include <optional>

#include "feed/client_response.h"
#include "feed/command.h"
#include "feed/command_answer.h"
#include "feed/news.h"
#include "feed/request_for_quote.h"
#include "peer.h"
#include "ps_common/connector/topic_names.h"
#include "tools_fixture.h"

namespace tools_test {
namespace {

using ps_ns::TopicNames;
using testing::Contains;
using testing::ContainsRegex;
using testing::Field;
using testing::HasSubstr;
using testing::Ne;

class ServerServicesTest : public ToolsFixture {
 protected:
  Process StartServer(const Arguments& more, const std::string& prices = kStocks) const {
    return {Server(Command({"--segments=2", "--loop", prices}, more)), m_environment};
  }
  Process StartClient(const std::string& id) const {
    return {Client({"--instance=1:1:1", "--segments=2", "--plain", "--host=box.example", "--client-id=" + id}),
            m_environment};
  }

  static std::vector<feed::ClientResponse> Ask(Peer& peer, const std::string& bytes) {
    std::vector<feed::ClientResponse> responses;
    peer.Request(TopicNames::CreateClientRequestTopic(kInstance), bytes, [&](std::string_view response) {
      responses.push_back(feed::DecodeClientResponse(response).value());
      return responses.back().isLast;
    });
    return responses;
  }
  static feed::ClientResponse AskOne(Peer& peer, const std::string& bytes) {
    const auto responses = Ask(peer, bytes);
    EXPECT_EQ(responses.size(), 1U) << bytes;
    return responses.empty() ? feed::ClientResponse() : responses[0];
  }
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
  Process server = StartServer({"--news-every=0.01", "--rfq-every=0.01", "--status-every=0.01"});
  Peer peer(m_runtime.Path());
  const auto products =
      Listen<feed::ProductInfo>(peer, TopicNames::CreateProductResponseTopic(kInstance), feed::DecodeProductInfo);
  const auto statuses =
      Listen<feed::ServerStatus>(peer, TopicNames::CreateServerStatusTopic(kInstance), feed::DecodeServerStatus);
  const auto news = Listen<feed::News>(peer, TopicNames::CreateNewsBroadcastTopic(kInstance), feed::DecodeNews);
  const auto rfqs =
      Listen<feed::RequestForQuote>(peer, TopicNames::CreateRFQ_BroadcastTopic(kInstance), feed::DecodeRequestForQuote);
  ASSERT_TRUE(peer.WaitUntil([&] {
    return products->size() >= 5 && statuses->size() >= 3 && statuses->back().updatesSent > 0 && news->size() >= 2 &&
           rfqs->size() >= 6;
  })) << server.Errors();

  // Who begins to listen in the middle of a round hears another product first.
  const auto amazon = std::find_if(products->begin(), products->end(),
                                   [](const feed::ProductInfo& product) { return product.symbol.View() == "AMZN"; });
  ASSERT_NE(amazon, products->end());
  EXPECT_EQ(amazon->segment, 1);
  EXPECT_EQ(amazon->prices, 123U);
  for (std::size_t i = 1; i < rfqs->size(); ++i) {
    EXPECT_EQ(rfqs->at(i).id, rfqs->at(i - 1).id + 1);
  }

  // Somebody else who comes later.
  const auto before = products->size();
  Peer late(m_runtime.Path());
  const auto again =
      Listen<feed::ProductInfo>(late, TopicNames::CreateProductResponseTopic(kInstance), feed::DecodeProductInfo);
  EXPECT_TRUE(late.WaitUntil([&] { return again->size() >= 5; }));
  EXPECT_TRUE(peer.WaitUntil([&] { return products->size() >= before + 5; }));
  EXPECT_THAT(*again, Contains(Field(&feed::ProductInfo::lastPrice, Ne(std::nullopt))));

  server.Signal(SIGINT);
  EXPECT_EQ(server.Wait(), 0) << server.Errors();
  ASSERT_TRUE(peer.WaitUntil([&] { return statuses->back().state == feed::ServerState::kClosing; }));
  EXPECT_THAT(server.Output(), HasSubstr(std::to_string(statuses->back().updatesSent) + " updates in "));
}

TEST_F(ServerServicesTest, EveryRequestIsAnswered) {
  std::string prices = "symbol,date,price\n";
  for (int i = 0; i < 250; ++i) {
    prices += 'S' + std::to_string(i) + ",2000-01-03,1\n";
  }
  Process server = StartServer({}, "--prices=" + Write("many.csv", prices).string());
  Peer peer(m_runtime.Path());
  // One that is no request, before the others.
  ASSERT_TRUE(peer.Send(TopicNames::CreateClientRequestTopic(kInstance), "data"));

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
  Process server = StartServer({"--console", "--command-timeout=60"});
  server.Write("client alice report\n");
  Process alice = StartClient("alice");
  ASSERT_TRUE(server.WaitForOutput("#1 to client alice: sent\n#1 from alice on box.example: ok; ")) << server.Output();

  Process bob = StartClient("bob");
  ASSERT_TRUE(bob.WaitForOutput(" is up")) << bob.Output();
  server.Write("client bob dance\nhost\nhelp\n");
  ASSERT_TRUE(server.WaitForOutput("#2 from bob on box.example: unknown command \"dance\"")) << server.Output();
  // The first such command may go out before both listen to it.
  const auto bothHaveAnswered = [&] {
    return testing::Matches(AllOf(ContainsRegex("#([3-9]|[0-9]{2,}) from alice on box.example: ok; .* updates="),
                                  ContainsRegex("#([3-9]|[0-9]{2,}) from bob on box.example: ok; ")))(server.Output());
  };
  for (int number = 3; !bothHaveAnswered(); ++number) {
    server.Write("host box.example report\n");
    ASSERT_TRUE(server.WaitForOutput('#' + std::to_string(number) + " from ")) << server.Output();
  }
  server.Write("client bob quit");
  server.CloseInput();
  EXPECT_EQ(bob.Wait(), 0);
  server.Signal(SIGINT);
  EXPECT_EQ(server.Wait(), 0);
  EXPECT_THAT(server.Output(), HasSubstr("\nhost <hostname> <command> "));
  EXPECT_THAT(server.Errors(), HasSubstr("bad line \"host\": hostname or command missing; \"help\" shows"));
}

TEST_F(ServerServicesTest, AClientIsHeardThoughNothingSubscribesToIt) {
  Process server = StartServer({"--console"});
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
  Process server = StartServer({"--console", "--command-timeout=1"});
  server.Write("client alice report\n");
  ASSERT_TRUE(server.WaitForOutput("#1 to client alice: not sent, nobody listened for 1 s\n")) << server.Errors();
  {
    Process alice = StartClient("alice");
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
  Process alice = StartClient("alice");
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
