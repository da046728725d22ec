#include "ps_common/connector/topic_names.h"

#include <gmock/gmock.h>
#include <lbm/lbm.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zq/posix/file.h"

namespace ps_ns {
namespace {

using namespace std::string_view_literals;
using testing::HasSubstr;
using testing::ThrowsMessage;

using InstanceCreate = std::string (*)(const ServerInstance&);
using InstanceParse = std::optional<ServerInstance> (*)(std::string_view);

struct InstanceKind {
  std::string operation;
  InstanceCreate create;
  InstanceParse parse;
};

const std::vector<InstanceKind> kInstanceKinds{
    {"CreateClientRequestTopic", TopicNames::CreateClientRequestTopic, TopicNames::ParseClientRequestTopic},
    {"CreateServerResponseTopic", TopicNames::CreateServerResponseTopic, TopicNames::ParseServerResponseTopic},
    {"CreateProductResponseTopic", TopicNames::CreateProductResponseTopic, TopicNames::ParseProductResponseTopic},
    {"CreateRFQ_BroadcastTopic", TopicNames::CreateRFQ_BroadcastTopic, TopicNames::ParseRFQ_BroadcastTopic},
    {"CreateNewsBroadcastTopic", TopicNames::CreateNewsBroadcastTopic, TopicNames::ParseNewsBroadcastTopic},
    {"CreateServerStatusTopic", TopicNames::CreateServerStatusTopic, TopicNames::ParseServerStatusTopic},
    {"CreateCommandTopic", TopicNames::CreateCommandTopic, TopicNames::ParseCommandTopic},
    {"CreateCommandResponseTopic", TopicNames::CreateCommandResponseTopic, TopicNames::ParseCommandResponseTopic},
};

TEST(TopicNames, InstancesSurvive) {
  for (const ServerInstance& instance : {ServerInstance{1, 2, 3, 0, "a market. with % and dots"},
                                         {-1, 0, -1, 0xFFFF, {}},
                                         {INT16_MIN, INT16_MAX, INT16_MIN, 0x8000, {}}}) {
    for (const auto& [operation, create, parse] : kInstanceKinds) {
      EXPECT_EQ(parse(create(instance)), instance) << operation;
    }
    for (const int number : {0, 65535}) {
      const auto segment =
          TopicNames::ParseSegmentTopic(TopicNames::CreateSegmentTopic(instance, static_cast<unsigned short>(number)));
      EXPECT_EQ(segment.value().m_serverInstance, instance);
      EXPECT_EQ(segment.value().m_segment, number);
    }
  }
}

TEST(TopicNames, IdentitiesSurvive) {
  std::vector<std::string> identities{"trader-7.example.com", ".", "%", "%2E", "a%00b", "host", "response", "1.2.3.0"};
  for (int byte = 0; byte < 256; ++byte) {
    identities.emplace_back(1, static_cast<char>(byte));
  }
  for (const std::string& identity : identities) {
    const std::string byHost = TopicNames::CreateClientHostCommandTopic(identity);
    EXPECT_EQ(TopicNames::ParseClientHostCommandTopic(byHost), identity) << byHost;
    EXPECT_TRUE(std::all_of(byHost.begin(), byHost.end(), [](char c) { return c > ' ' && c < '\x7F'; })) << byHost;
    const std::string byID = TopicNames::CreateClientIDCommandTopic(identity);
    EXPECT_EQ(TopicNames::ParseClientIDCommandTopic(byID), identity) << byID;
    const std::string response = TopicNames::CreateClientCommandResponseTopic(identity, "other");
    const auto parsed = TopicNames::ParseClientCommandResponseTopic(response).value();
    EXPECT_EQ(parsed.m_hostname, identity) << response;
    EXPECT_EQ(parsed.m_clientID, "other") << response;
  }
}

TEST(TopicNames, TextsThatCreateDoesNotMakeAreRefused) {
  const std::string_view server[] = {"",           ".1.2.3",       ".1.2.3.0.7",    ".1..3.0",      ".1.2.3.0\0"sv,
                                     ".01.2.3.0",  ".-0.2.3.0",    ".1e1.2.3.0",    ".32768.2.3.0", ".1.2.3.-1",
                                     "es.1.2.3.0", ".1.2.3.65536", "_other.1.2.3.0"};
  for (const std::string_view rest : server) {
    EXPECT_FALSE(TopicNames::ParseServerStatusTopic("price_server.status" + std::string(rest))) << rest;
  }
  const std::string longer(LBM_TOPIC_NAME_MAX, 'a');
  const std::string_view host[] = {"", "a.b", "a b", "%", "%2", "%2e", "%41", "%G0", longer};
  for (const std::string_view rest : host) {
    EXPECT_FALSE(TopicNames::ParseClientHostCommandTopic("client_command.host." + std::string(rest))) << rest;
  }
  EXPECT_FALSE(TopicNames::ParseSegmentTopic("price_server.segment.1.2.3.0"));
  EXPECT_FALSE(TopicNames::ParseSegmentTopic("price_server.segment.1.2.3.0.65536"));
  EXPECT_FALSE(TopicNames::ParseClientCommandResponseTopic("client_command.response..a"));
}

TEST(TopicNames, IdentitiesThatMakeNoNameAreRefusedWithAReason) {
  const std::size_t room = LBM_TOPIC_NAME_MAX - TopicNames::CreateClientHostCommandTopic("x").size() + 1;
  const std::string longest(room, 'a');
  EXPECT_EQ(TopicNames::ParseClientHostCommandTopic(TopicNames::CreateClientHostCommandTopic(longest)), longest);
  EXPECT_THAT([&] { TopicNames::CreateClientHostCommandTopic(longest + 'a'); },
              ThrowsMessage<std::length_error>(HasSubstr("it has 256 bytes of at most 255; shorten the host name")));
  EXPECT_THAT([] { TopicNames::CreateClientIDCommandTopic(std::string(100, '.')); },
              ThrowsMessage<std::length_error>(HasSubstr("shorten the client id")));
  EXPECT_THAT([&] { TopicNames::CreateClientCommandResponseTopic(longest, "id"); },
              ThrowsMessage<std::length_error>(HasSubstr("shorten the host name or the client id")));
  EXPECT_THAT([] { TopicNames::CreateClientHostCommandTopic(""); },
              ThrowsMessage<std::invalid_argument>(HasSubstr("the host name is empty")));
  EXPECT_THROW(TopicNames::CreateClientCommandResponseTopic("host", ""), std::invalid_argument);
}

TEST(TopicNames, TheDocumentListsEveryOperationWithItsTrueName) {
  const ServerInstance instance{7, 1, 2, 0, {}};
  const std::string hostname = "trader-7.example.com";
  std::string document = zq::posix::ReadFile(TOPICS_DOCUMENT, 1 << 20);
  std::vector<std::pair<std::string, std::string>> names{
      {"CreateSegmentTopic", TopicNames::CreateSegmentTopic(instance, 4)},
      {"CreateClientHostCommandTopic", TopicNames::CreateClientHostCommandTopic(hostname)},
      {"CreateClientIDCommandTopic", TopicNames::CreateClientIDCommandTopic("alice")},
      {"CreateClientCommandResponseTopic", TopicNames::CreateClientCommandResponseTopic(hostname, "alice")}};
  for (const auto& [operation, create, parse] : kInstanceKinds) {
    names.emplace_back(operation, create(instance));
  }
  for (const auto& [operation, name] : names) {
    EXPECT_THAT(document, HasSubstr("\n| `" + operation + "` | `" + name + "` | "));
  }
}

}  // namespace
}  // namespace ps_ns
