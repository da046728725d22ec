#include "ps_common/connector/topic_names.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <lbm/lbm.h>

#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace ps_ns {
namespace {

using testing::HasSubstr;

using InstanceCreate = std::string (*)(const ServerInstance&);
using InstanceParse = std::optional<ServerInstance> (*)(std::string_view);

const std::vector<std::pair<InstanceCreate, InstanceParse>> kInstanceKinds{
    {TopicNames::CreateClientRequestTopic, TopicNames::ParseClientRequestTopic},
    {TopicNames::CreateServerResponseTopic, TopicNames::ParseServerResponseTopic},
    {TopicNames::CreateProductResponseTopic, TopicNames::ParseProductResponseTopic},
    {TopicNames::CreateRFQ_BroadcastTopic, TopicNames::ParseRFQ_BroadcastTopic},
    {TopicNames::CreateNewsBroadcastTopic, TopicNames::ParseNewsBroadcastTopic},
    {TopicNames::CreateServerStatusTopic, TopicNames::ParseServerStatusTopic},
    {TopicNames::CreateCommandTopic, TopicNames::ParseCommandTopic},
    {TopicNames::CreateCommandResponseTopic, TopicNames::ParseCommandResponseTopic},
};

// How many operations can read the name.
int CountReaders(const std::string& name) {
  int count = 0;
  for (const auto& [create, parse] : kInstanceKinds) {
    count += parse(name).has_value() ? 1 : 0;
  }
  count += TopicNames::ParseSegmentTopic(name).has_value() ? 1 : 0;
  count += TopicNames::ParseClientHostCommandTopic(name).has_value() ? 1 : 0;
  count += TopicNames::ParseClientIDCommandTopic(name).has_value() ? 1 : 0;
  count += TopicNames::ParseClientCommandResponseTopic(name).has_value() ? 1 : 0;
  return count;
}

std::vector<ServerInstance> InstancesWithExtremesAndRandomOnes() {
  std::vector<ServerInstance> instances{{0, 0, 0, 0, {}},
                                        {1, 2, 3, 0, "a market. with % and dots"},
                                        {-1, -1, -1, 0xFFFF, {}},
                                        {INT16_MIN, INT16_MAX, INT16_MIN, 0x8000, {}}};
  std::mt19937 random(20);
  std::uniform_int_distribution<int> number(INT16_MIN, INT16_MAX);
  for (int i = 0; i < 1000; ++i) {
    instances.push_back({static_cast<MarketID_t>(number(random)),
                         static_cast<SubmarketID_t>(number(random)),
                         static_cast<NodeID_t>(number(random)),
                         static_cast<std::uint16_t>(number(random)),
                         {}});
  }
  return instances;
}

std::vector<std::string> NastyAndRandomIdentities() {
  std::vector<std::string> identities{
      "trader-7",     "trader-7.example.com", ".",    "..",    "%",       "%2E", "%%25",
      "a%00b",        std::string(1, '\0'),   " ",    "-0",    "1.2.3.0", "*",   "\xC3\xBC",
      "\xFF\x80\x7F", "a/b\\c\"d'\n",         "host", "UPPER", "response"};
  std::mt19937 random(20);
  std::uniform_int_distribution<std::size_t> length(1, 30);
  std::uniform_int_distribution<int> byte(0, 255);
  for (int i = 0; i < 1000; ++i) {
    std::string& identity = identities.emplace_back(length(random), ' ');
    for (char& c : identity) {
      c = static_cast<char>(byte(random));
    }
  }
  return identities;
}

TEST(TopicNames, InstancesSurviveAndOnlyTheirOwnKindReadsThem) {
  for (const ServerInstance& instance : InstancesWithExtremesAndRandomOnes()) {
    for (const auto& [create, parse] : kInstanceKinds) {
      const std::string name = create(instance);
      EXPECT_EQ(parse(name), instance) << name;
      EXPECT_EQ(CountReaders(name), 1) << name;
    }
    const auto segmentNumber = static_cast<unsigned short>(instance.GetKey());
    const std::string name = TopicNames::CreateSegmentTopic(instance, segmentNumber);
    const auto segment = TopicNames::ParseSegmentTopic(name);
    ASSERT_TRUE(segment) << name;
    EXPECT_EQ(segment->m_serverInstance, instance) << name;
    EXPECT_EQ(segment->m_segment, segmentNumber) << name;
    EXPECT_EQ(CountReaders(name), 1) << name;
  }
}

TEST(TopicNames, IdentitiesSurviveAndOnlyTheirOwnKindReadsThem) {
  const std::vector<std::string> identities = NastyAndRandomIdentities();
  for (std::size_t i = 0; i < identities.size(); ++i) {
    const std::string& hostname = identities[i];
    const std::string& clientID = identities[(i + 1) % identities.size()];

    const std::string byHost = TopicNames::CreateClientHostCommandTopic(hostname);
    EXPECT_EQ(TopicNames::ParseClientHostCommandTopic(byHost), hostname) << byHost;
    const std::string byID = TopicNames::CreateClientIDCommandTopic(clientID);
    EXPECT_EQ(TopicNames::ParseClientIDCommandTopic(byID), clientID) << byID;
    const std::string response = TopicNames::CreateClientCommandResponseTopic(hostname, clientID);
    const auto parsed = TopicNames::ParseClientCommandResponseTopic(response);
    ASSERT_TRUE(parsed) << response;
    EXPECT_EQ(parsed->m_hostname, hostname) << response;
    EXPECT_EQ(parsed->m_clientID, clientID) << response;

    for (const std::string& name : {byHost, byID, response}) {
      EXPECT_EQ(CountReaders(name), 1) << name;
      for (const char c : name) {
        EXPECT_TRUE(c > ' ' && c < '\x7F') << name;
      }
    }
  }
}

TEST(TopicNames, TextsThatCreateDoesNotMakeAreRefused) {
  const std::vector<std::string> refused{
      "",
      ".",
      "price_server",
      "price_server.",
      "price_server.status",
      "price_server.status.",
      "price_server.status.1.2.3",
      "price_server.status.1.2.3.",
      "price_server.status.1.2.3.0.",
      "price_server.status.1.2.3.0.7",
      "price_server.status.1..3.0",
      ".price_server.status.1.2.3.0",
      " price_server.status.1.2.3.0",
      "price_server.status.1.2.3.0 ",
      std::string("price_server.status.1.2.3.0\0", 28),
      "price_server.status.01.2.3.0",
      "price_server.status.-0.2.3.0",
      "price_server.status.+1.2.3.0",
      "price_server.status. 1.2.3.0",
      "price_server.status.0x1.2.3.0",
      "price_server.status.1e1.2.3.0",
      "price_server.status.-.2.3.0",
      "price_server.status.--1.2.3.0",
      "price_server.status.32768.2.3.0",
      "price_server.status.-32769.2.3.0",
      "price_server.status.99999999999999999999.2.3.0",
      "price_server.status.1.2.3.-1",
      "price_server.status.1.2.3.65536",
      "price_server.statuses.1.2.3.0",
      "price_server_status.1.2.3.0",
      "Price_server.status.1.2.3.0",
      "client_command.status.1.2.3.0",
      "price_server.segment.1.2.3.0",
      "price_server.segment.1.2.3.0.-1",
      "price_server.segment.1.2.3.0.65536",
      "price_server.segment.1.2.3.0.07",
      "client_command.host",
      "client_command.host.",
      "client_command.host.a.b",
      "client_command.host.a b",
      "client_command.host.a*",
      "client_command.host.\xC3\xBC",
      "client_command.host.%",
      "client_command.host.%2",
      "client_command.host.%2e",  // digits are upper case
      "client_command.host.%41",  // an 'A' stands for itself
      "client_command.host.%-1",
      "client_command.host.%0x41",
      "client_command.host.%G0",
      "client_command.host.%2E%",
      "price_server.host.a",
      "client_command.response.a",
      "client_command.response..a",
      "client_command.response.a.",
      "client_command.response.a.b.c",
      "client_command.host." + std::string(LBM_TOPIC_NAME_MAX, 'a'),
      "client_command.host." + std::string(200, ' '),
  };
  for (const std::string& name : refused) {
    EXPECT_EQ(CountReaders(name), 0) << name;
  }
}

TEST(TopicNames, DamagedNamesAreNotReadAsSomethingElse) {
  std::mt19937 random(20);
  const std::string alphabet = "0123456789.-+%AEaz_ ";
  const std::vector<std::string> names{TopicNames::CreateSegmentTopic({10, -20, 30, 40, {}}, 5),
                                       TopicNames::CreateClientCommandResponseTopic("a.b", "c%d")};
  for (int i = 0; i < 20000; ++i) {
    std::string name = names[random() % names.size()];
    name[random() % name.size()] = alphabet[random() % alphabet.size()];
    if (random() % 2 == 0) {
      name.erase(random() % name.size(), 1);
    }
    if (const auto segment = TopicNames::ParseSegmentTopic(name)) {
      EXPECT_EQ(TopicNames::CreateSegmentTopic(segment->m_serverInstance, segment->m_segment), name);
    }
    if (const auto response = TopicNames::ParseClientCommandResponseTopic(name)) {
      EXPECT_EQ(TopicNames::CreateClientCommandResponseTopic(response->m_hostname, response->m_clientID), name);
    }
  }
}

template <typename Error>
std::string ErrorText(const std::function<std::string()>& create) {
  try {
    return "no error but the name " + create();
  } catch (const Error& error) {
    return error.what();
  }
}

TEST(TopicNames, EmptyIdentitiesAreRefused) {
  EXPECT_THAT(ErrorText<std::invalid_argument>([] { return TopicNames::CreateClientHostCommandTopic(""); }),
              HasSubstr("the host name is empty"));
  EXPECT_THAT(ErrorText<std::invalid_argument>([] { return TopicNames::CreateClientIDCommandTopic(""); }),
              HasSubstr("the client id is empty"));
  EXPECT_THROW(TopicNames::CreateClientCommandResponseTopic("", "id"), std::invalid_argument);
  EXPECT_THROW(TopicNames::CreateClientCommandResponseTopic("host", ""), std::invalid_argument);
}

TEST(TopicNames, TheLongestPossibleNameIsMadeAndALongerOneSaysWhatToShorten) {
  const std::size_t room = LBM_TOPIC_NAME_MAX - TopicNames::CreateClientHostCommandTopic("x").size() + 1;
  const std::string longest(room, 'a');
  const std::string name = TopicNames::CreateClientHostCommandTopic(longest);
  EXPECT_EQ(name.size(), std::size_t{LBM_TOPIC_NAME_MAX});
  EXPECT_EQ(TopicNames::ParseClientHostCommandTopic(name), longest);

  EXPECT_THAT(ErrorText<std::length_error>([&] { return TopicNames::CreateClientHostCommandTopic(longest + 'a'); }),
              HasSubstr("it has 256 bytes of at most 255; shorten the host name"));
  // Escaping counts: the identity alone would fit.
  EXPECT_THAT(
      ErrorText<std::length_error>([] { return TopicNames::CreateClientIDCommandTopic(std::string(100, '.')); }),
      HasSubstr("shorten the client id"));
  EXPECT_THAT(ErrorText<std::length_error>([&] { return TopicNames::CreateClientCommandResponseTopic(longest, "id"); }),
              HasSubstr("shorten the host name or the client id"));
}

// The rows of the document's table, operation to example: | `Create...` | `example` | ...
std::map<std::string, std::string> DocumentedExamples() {
  std::map<std::string, std::string> examples;
  std::ifstream document(TOPICS_DOCUMENT);
  EXPECT_TRUE(document) << TOPICS_DOCUMENT;
  for (std::string line; std::getline(document, line);) {
    std::vector<std::string> quoted;
    for (std::size_t begin = line.find('`'); begin != std::string::npos; begin = line.find('`', begin)) {
      const std::size_t end = line.find('`', begin + 1);
      if (end == std::string::npos) {
        break;
      }
      quoted.push_back(line.substr(begin + 1, end - begin - 1));
      begin = end + 1;
    }
    if (line.rfind("| `Create", 0) == 0 && quoted.size() >= 2) {
      examples[quoted[0]] = quoted[1];
    }
  }
  return examples;
}

TEST(TopicNames, TheDocumentListsEveryOperationWithItsTrueName) {
  const ServerInstance instance{7, 1, 2, 0, {}};
  const std::string hostname = "trader-7.example.com";
  const std::string clientID = "alice";
  const std::map<std::string, std::string> expected{
      {"CreateClientRequestTopic", TopicNames::CreateClientRequestTopic(instance)},
      {"CreateServerResponseTopic", TopicNames::CreateServerResponseTopic(instance)},
      {"CreateSegmentTopic", TopicNames::CreateSegmentTopic(instance, 4)},
      {"CreateProductResponseTopic", TopicNames::CreateProductResponseTopic(instance)},
      {"CreateRFQ_BroadcastTopic", TopicNames::CreateRFQ_BroadcastTopic(instance)},
      {"CreateNewsBroadcastTopic", TopicNames::CreateNewsBroadcastTopic(instance)},
      {"CreateServerStatusTopic", TopicNames::CreateServerStatusTopic(instance)},
      {"CreateCommandTopic", TopicNames::CreateCommandTopic(instance)},
      {"CreateCommandResponseTopic", TopicNames::CreateCommandResponseTopic(instance)},
      {"CreateClientHostCommandTopic", TopicNames::CreateClientHostCommandTopic(hostname)},
      {"CreateClientIDCommandTopic", TopicNames::CreateClientIDCommandTopic(clientID)},
      {"CreateClientCommandResponseTopic", TopicNames::CreateClientCommandResponseTopic(hostname, clientID)},
  };
  EXPECT_EQ(DocumentedExamples(), expected);
}

}  // namespace
}  // namespace ps_ns
