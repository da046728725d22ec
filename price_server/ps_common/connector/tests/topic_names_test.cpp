#include "ps_common/connector/topic_names.h"

#include <gmock/gmock.h>
#include <lbm/lbm.h>

#include <algorithm>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
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

// How many operations can read the name.
int CountReaders(const std::string& name) {
  int count = 0;
  for (const auto& [operation, create, parse] : kInstanceKinds) {
    count += parse(name).has_value() ? 1 : 0;
  }
  count += TopicNames::ParseSegmentTopic(name).has_value() ? 1 : 0;
  count += TopicNames::ParseClientHostCommandTopic(name).has_value() ? 1 : 0;
  count += TopicNames::ParseClientIDCommandTopic(name).has_value() ? 1 : 0;
  count += TopicNames::ParseClientCommandResponseTopic(name).has_value() ? 1 : 0;
  return count;
}

TEST(TopicNames, InstancesSurviveAndOnlyTheirOwnKindReadsThem) {
  std::mt19937 random(20);
  const auto any = [&random] { return static_cast<std::int16_t>(random()); };
  std::vector<ServerInstance> instances{{1, 2, 3, 0, "a market. with % and dots"},
                                        {-1, 0, -1, 0xFFFF, {}},
                                        {INT16_MIN, INT16_MAX, INT16_MIN, 0x8000, {}}};
  for (int i = 0; i < 100; ++i) {
    instances.push_back({any(), any(), any(), static_cast<std::uint16_t>(any()), {}});
  }
  for (const ServerInstance& instance : instances) {
    for (const auto& [operation, create, parse] : kInstanceKinds) {
      const std::string name = create(instance);
      EXPECT_EQ(parse(name), instance) << name;
      EXPECT_EQ(CountReaders(name), 1) << name;
    }
    const auto number = static_cast<unsigned short>(any());
    const std::string name = TopicNames::CreateSegmentTopic(instance, number);
    const auto segment = TopicNames::ParseSegmentTopic(name).value();
    EXPECT_EQ(segment.m_serverInstance, instance) << name;
    EXPECT_EQ(segment.m_segment, number) << name;
    EXPECT_EQ(CountReaders(name), 1) << name;
  }
}

TEST(TopicNames, IdentitiesSurviveAndOnlyTheirOwnKindReadsThem) {
  std::vector<std::string> identities{"trader-7.example.com", ".", "%", "%2E", "a%00b", "host", "response", "1.2.3.0"};
  for (int byte = 0; byte < 256; ++byte) {
    identities.emplace_back(1, static_cast<char>(byte));
  }
  for (std::size_t i = 0; i < identities.size(); ++i) {
    const std::string& hostname = identities[i];
    const std::string& clientID = identities[(i + 1) % identities.size()];
    const std::string byHost = TopicNames::CreateClientHostCommandTopic(hostname);
    EXPECT_EQ(TopicNames::ParseClientHostCommandTopic(byHost), hostname) << byHost;
    const std::string byID = TopicNames::CreateClientIDCommandTopic(hostname);
    EXPECT_EQ(TopicNames::ParseClientIDCommandTopic(byID), hostname) << byID;
    const std::string response = TopicNames::CreateClientCommandResponseTopic(hostname, clientID);
    const auto parsed = TopicNames::ParseClientCommandResponseTopic(response).value();
    EXPECT_EQ(std::tie(parsed.m_hostname, parsed.m_clientID), std::tie(hostname, clientID)) << response;
    for (const std::string& name : {byHost, byID, response}) {
      EXPECT_EQ(CountReaders(name), 1) << name;
      EXPECT_TRUE(std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c < '\x7F'; })) << name;
    }
  }
}

TEST(TopicNames, TextsThatCreateDoesNotMakeAreRefused) {
  const std::string_view server[] = {"",           ".1.2.3",       ".1.2.3.0.7",    ".1..3.0",      ".1.2.3.0\0"sv,
                                     ".01.2.3.0",  ".-0.2.3.0",    ".1e1.2.3.0",    ".32768.2.3.0", ".1.2.3.-1",
                                     "es.1.2.3.0", ".1.2.3.65536", "_other.1.2.3.0"};
  for (const std::string_view rest : server) {
    EXPECT_EQ(CountReaders("price_server.status" + std::string(rest)), 0) << rest;
  }
  const std::string longer(LBM_TOPIC_NAME_MAX, 'a');
  const std::string_view host[] = {"", "a.b", "a b", "%", "%2", "%2e", "%41", "%G0", longer};
  for (const std::string_view rest : host) {
    EXPECT_EQ(CountReaders("client_command.host." + std::string(rest)), 0) << rest;
  }
  for (const char* name : {"", "price_server.segment.1.2.3.0", "price_server.segment.1.2.3.0.65536",
                           "client_command.status.1.2.3.0", "price_server.host.a", "client_command.response..a"}) {
    EXPECT_EQ(CountReaders(name), 0) << name;
  }
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
