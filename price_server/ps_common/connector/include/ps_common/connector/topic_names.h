// The names of all topics between price servers and price clients.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "ps_common/connector/server_instance.h"

#pragma GCC visibility push(default)

namespace ps_ns {

// What the name of a segment topic tells.
struct SegmentTopic {
  ServerInstance m_serverInstance;
  unsigned short m_segment = 0;
};

// What the name of a client's command-response topic tells.
struct ClientCommandResponseTopic {
  std::string m_hostname;
  std::string m_clientID;
};

// Builds and parses topic names. docs/topics.md lists them.
//
// A name is read back exactly: each Parse function gives what its Create function was given, and nothing for any text
// that its Create function does not make. A server instance keeps its four numbers; the market name is not part of a
// topic name and comes back empty.
//
// Host names and client ids may hold any bytes. Those other than letters, digits, '-' and '_' are written as '%' and
// two upper-case hexadecimal digits, so dots separate fields and nothing else. They are taken as they are: upper and
// lower case differ. Creating throws std::invalid_argument for an empty one, and std::length_error when the whole name
// would have more bytes than the messaging library takes.
//
// Threads: any.
class TopicNames {
 public:
  static std::string CreateClientRequestTopic(const ServerInstance& serverInstance);
  static std::string CreateServerResponseTopic(const ServerInstance& serverInstance);
  static std::string CreateSegmentTopic(const ServerInstance& serverInstance, unsigned short segment);
  static std::string CreateProductResponseTopic(const ServerInstance& serverInstance);
  static std::string CreateRFQ_BroadcastTopic(const ServerInstance& serverInstance);
  static std::string CreateNewsBroadcastTopic(const ServerInstance& serverInstance);
  static std::string CreateServerStatusTopic(const ServerInstance& serverInstance);
  static std::string CreateCommandTopic(const ServerInstance& serverInstance);
  static std::string CreateCommandResponseTopic(const ServerInstance& serverInstance);
  static std::string CreateClientHostCommandTopic(const std::string& hostname);
  static std::string CreateClientIDCommandTopic(const std::string& clientID);
  static std::string CreateClientCommandResponseTopic(const std::string& hostname, const std::string& clientID);

  static std::optional<ServerInstance> ParseClientRequestTopic(std::string_view topicName);
  static std::optional<ServerInstance> ParseServerResponseTopic(std::string_view topicName);
  static std::optional<SegmentTopic> ParseSegmentTopic(std::string_view topicName);
  static std::optional<ServerInstance> ParseProductResponseTopic(std::string_view topicName);
  static std::optional<ServerInstance> ParseRFQ_BroadcastTopic(std::string_view topicName);
  static std::optional<ServerInstance> ParseNewsBroadcastTopic(std::string_view topicName);
  static std::optional<ServerInstance> ParseServerStatusTopic(std::string_view topicName);
  static std::optional<ServerInstance> ParseCommandTopic(std::string_view topicName);
  static std::optional<ServerInstance> ParseCommandResponseTopic(std::string_view topicName);
  static std::optional<std::string> ParseClientHostCommandTopic(std::string_view topicName);
  static std::optional<std::string> ParseClientIDCommandTopic(std::string_view topicName);
  static std::optional<ClientCommandResponseTopic> ParseClientCommandResponseTopic(std::string_view topicName);

 protected:
  TopicNames() = default;
  ~TopicNames() = default;
};

}  // namespace ps_ns

#pragma GCC visibility pop
