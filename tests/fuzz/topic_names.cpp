// Names of topics: every name that can be read is one that is made, and what is made is read back, by one reader only.
#include "ps_common/connector/topic_names.h"

#include <stdexcept>

#include "harness/input.h"
#include "harness/oracle.h"

namespace fuzz {
namespace {

using ps_ns::ServerInstance;
using ps_ns::TopicNames;

struct InstanceTopic {
  std::string (*create)(const ServerInstance&);
  std::optional<ServerInstance> (*parse)(std::string_view);
};
constexpr InstanceTopic kInstanceTopics[] = {
    {TopicNames::CreateClientRequestTopic, TopicNames::ParseClientRequestTopic},
    {TopicNames::CreateServerResponseTopic, TopicNames::ParseServerResponseTopic},
    {TopicNames::CreateProductResponseTopic, TopicNames::ParseProductResponseTopic},
    {TopicNames::CreateRFQ_BroadcastTopic, TopicNames::ParseRFQ_BroadcastTopic},
    {TopicNames::CreateNewsBroadcastTopic, TopicNames::ParseNewsBroadcastTopic},
    {TopicNames::CreateServerStatusTopic, TopicNames::ParseServerStatusTopic},
    {TopicNames::CreateCommandTopic, TopicNames::ParseCommandTopic},
    {TopicNames::CreateCommandResponseTopic, TopicNames::ParseCommandResponseTopic}};

// Reads the name every way. What is read makes the same name again.
int Readers(const std::string& name) {
  int readers = 0;
  const auto note = [&](const std::string& again) {
    Require(again == name, "what is read is what is made");
    ++readers;
  };
  for (const auto& [create, parse] : kInstanceTopics) {
    if (const auto instance = parse(name)) {
      note(create(*instance));
    }
  }
  if (const auto segment = TopicNames::ParseSegmentTopic(name)) {
    note(TopicNames::CreateSegmentTopic(segment->m_serverInstance, segment->m_segment));
  }
  if (const auto host = TopicNames::ParseClientHostCommandTopic(name)) {
    note(TopicNames::CreateClientHostCommandTopic(*host));
  }
  if (const auto client = TopicNames::ParseClientIDCommandTopic(name)) {
    note(TopicNames::CreateClientIDCommandTopic(*client));
  }
  if (const auto client = TopicNames::ParseClientCommandResponseTopic(name)) {
    note(TopicNames::CreateClientCommandResponseTopic(client->m_hostname, client->m_clientID));
  }
  return readers;
}

void CreateAndParse(Input& input) {
  const ServerInstance instance{input.ConsumeIntegral<std::int16_t>(),
                                input.ConsumeIntegral<std::int16_t>(),
                                input.ConsumeIntegral<std::int16_t>(),
                                input.ConsumeIntegral<std::uint16_t>(),
                                {}};
  Require(Readers(input.PickValueInArray(kInstanceTopics).create(instance)) == 1, "a topic has one reader");
  const std::string name = input.Text(300);
  const std::string other = input.Text(40);
  try {
    Require(Readers(TopicNames::CreateClientHostCommandTopic(name)) == 1, "a host's topic has one reader");
    Require(Readers(TopicNames::CreateClientCommandResponseTopic(name, other)) == 1, "a client's topic has one reader");
  } catch (const std::logic_error&) {  // empty or too long
  }
  Require(Readers(input.ConsumeRemainingBytesAsString()) <= 1, "no name has two readers");
}

}  // namespace
}  // namespace fuzz

FUZZ_WITH(fuzz::CreateAndParse)
