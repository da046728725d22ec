#include "ps_common/connector/topic_names.h"

#include <lbm/lbm.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <stdexcept>
#include <utility>

namespace ps_ns {
namespace {

constexpr std::string_view kServerPrefix = "price_server";
constexpr std::string_view kClientCommandPrefix = "client_command";

constexpr std::string_view kSeparator = ".";
constexpr char kEscape = '%';

// A name is prefix, word and fields, separated by dots. The types of the fields decide how they are written and read.
template <typename... Fields>
struct Kind {
  std::string_view m_prefix;
  std::string_view m_word;
  std::string_view m_identities = {};  // what the fields of type std::string are, for error texts
};

constexpr Kind<ServerInstance> kClientRequest{kServerPrefix, "request"};
constexpr Kind<ServerInstance> kServerResponse{kServerPrefix, "response"};
constexpr Kind<ServerInstance, unsigned short> kSegment{kServerPrefix, "segment"};
constexpr Kind<ServerInstance> kProductResponse{kServerPrefix, "product"};
constexpr Kind<ServerInstance> kRfqBroadcast{kServerPrefix, "rfq"};
constexpr Kind<ServerInstance> kNewsBroadcast{kServerPrefix, "news"};
constexpr Kind<ServerInstance> kServerStatus{kServerPrefix, "status"};
constexpr Kind<ServerInstance> kCommand{kServerPrefix, "command"};
constexpr Kind<ServerInstance> kCommandResponse{kServerPrefix, "command_response"};
constexpr Kind<std::string> kClientHostCommand{kClientCommandPrefix, "host", "the host name"};
constexpr Kind<std::string> kClientIDCommand{kClientCommandPrefix, "id", "the client id"};
constexpr Kind<std::string, std::string> kClientCommandResponse{kClientCommandPrefix, "response",
                                                                "the host name or the client id"};

// ---- Writing ----

constexpr bool IsPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

void AppendText(std::string& name, const ServerInstance& serverInstance) { name += serverInstance.ToIdentifier(); }

void AppendText(std::string& name, unsigned short number) { name += std::to_string(number); }

void AppendText(std::string& name, const std::string& identity) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  for (const char c : identity) {
    if (IsPlain(c)) {
      name += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      name += kEscape;
      name += kDigits[byte >> 4];
      name += kDigits[byte & 0xF];
    }
  }
}

bool IsMissing(const std::string& identity) { return identity.empty(); }
template <typename Number>
bool IsMissing(const Number&) {
  return false;
}

template <typename... Fields>
std::string Write(const Kind<Fields...>& kind, const Fields&... fields) {
  std::string name(kind.m_prefix);
  name += kSeparator;
  name += kind.m_word;
  ((name += kSeparator, AppendText(name, fields)), ...);
  return name;
}

template <typename... Fields>
std::string Create(const Kind<Fields...>& kind, const Fields&... fields) {
  std::string name = Write(kind, fields...);
  if ((IsMissing(fields) || ...)) {
    throw std::invalid_argument("Failed to create topic name " + name + ": " + std::string(kind.m_identities) +
                                " is empty");
  }
  if (name.size() > LBM_TOPIC_NAME_MAX) {
    throw std::length_error("Failed to create topic name " + name + ": it has " + std::to_string(name.size()) +
                            " bytes of at most " + std::to_string(LBM_TOPIC_NAME_MAX) + "; shorten " +
                            std::string(kind.m_identities));
  }
  return name;
}

// ---- Reading ----

// Takes a name apart, field by field. Never fails: of a field that is not spelled as Write spells it something is read,
// and the name falls at the comparison in Parse.
class Reader {
 public:
  explicit Reader(std::string_view name) : m_rest(name) {}

  std::string_view NextText() {
    const std::string_view text = m_rest.substr(0, m_rest.find(kSeparator));
    m_rest.remove_prefix(std::min(text.size() + kSeparator.size(), m_rest.size()));
    return text;
  }

  template <typename Number>
  void ReadField(Number& number) {
    const std::string_view text = NextText();
    std::from_chars(text.data(), text.data() + text.size(), number);
  }

  void ReadField(ServerInstance& instance) {
    ReadField(instance.m_marketID);
    ReadField(instance.m_submarketID);
    ReadField(instance.m_nodeID);
    ReadField(instance.m_dummy1);
  }

  void ReadField(std::string& identity) {
    const std::string_view text = NextText();
    for (std::size_t i = 0; i < text.size(); ++i) {
      if (text[i] != kEscape) {
        identity += text[i];
        continue;
      }
      std::uint8_t byte = 0;
      const std::string_view digits = text.substr(i + 1, 2);
      std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
      identity += static_cast<char>(byte);
      i += digits.size();
    }
  }

 private:
  std::string_view m_rest;
};

// Value is made of the kind's fields.
template <typename Value, typename... Fields>
std::optional<Value> Parse(const Kind<Fields...>& kind, std::string_view topicName) {
  if (topicName.size() > LBM_TOPIC_NAME_MAX) {
    return std::nullopt;
  }
  Reader reader(topicName);
  reader.NextText();  // the prefix
  reader.NextText();  // the word
  const auto readFields = [&](Fields... fields) -> std::optional<Value> {
    (reader.ReadField(fields), ...);
    if ((IsMissing(fields) || ...) || Write(kind, fields...) != topicName) {
      return std::nullopt;
    }
    return Value{std::move(fields)...};
  };
  return readFields(Fields{}...);
}

}  // namespace

std::string TopicNames::CreateClientRequestTopic(const ServerInstance& serverInstance) {
  return Create(kClientRequest, serverInstance);
}

std::string TopicNames::CreateServerResponseTopic(const ServerInstance& serverInstance) {
  return Create(kServerResponse, serverInstance);
}

std::string TopicNames::CreateSegmentTopic(const ServerInstance& serverInstance, unsigned short segment) {
  return Create(kSegment, serverInstance, segment);
}

std::string TopicNames::CreateProductResponseTopic(const ServerInstance& serverInstance) {
  return Create(kProductResponse, serverInstance);
}

std::string TopicNames::CreateRFQ_BroadcastTopic(const ServerInstance& serverInstance) {
  return Create(kRfqBroadcast, serverInstance);
}

std::string TopicNames::CreateNewsBroadcastTopic(const ServerInstance& serverInstance) {
  return Create(kNewsBroadcast, serverInstance);
}

std::string TopicNames::CreateServerStatusTopic(const ServerInstance& serverInstance) {
  return Create(kServerStatus, serverInstance);
}

std::string TopicNames::CreateCommandTopic(const ServerInstance& serverInstance) {
  return Create(kCommand, serverInstance);
}

std::string TopicNames::CreateCommandResponseTopic(const ServerInstance& serverInstance) {
  return Create(kCommandResponse, serverInstance);
}

std::string TopicNames::CreateClientHostCommandTopic(const std::string& hostname) {
  return Create(kClientHostCommand, hostname);
}

std::string TopicNames::CreateClientIDCommandTopic(const std::string& clientID) {
  return Create(kClientIDCommand, clientID);
}

std::string TopicNames::CreateClientCommandResponseTopic(const std::string& hostname, const std::string& clientID) {
  return Create(kClientCommandResponse, hostname, clientID);
}

std::optional<ServerInstance> TopicNames::ParseClientRequestTopic(std::string_view topicName) {
  return Parse<ServerInstance>(kClientRequest, topicName);
}

std::optional<ServerInstance> TopicNames::ParseServerResponseTopic(std::string_view topicName) {
  return Parse<ServerInstance>(kServerResponse, topicName);
}

std::optional<SegmentTopic> TopicNames::ParseSegmentTopic(std::string_view topicName) {
  return Parse<SegmentTopic>(kSegment, topicName);
}

std::optional<ServerInstance> TopicNames::ParseProductResponseTopic(std::string_view topicName) {
  return Parse<ServerInstance>(kProductResponse, topicName);
}

std::optional<ServerInstance> TopicNames::ParseRFQ_BroadcastTopic(std::string_view topicName) {
  return Parse<ServerInstance>(kRfqBroadcast, topicName);
}

std::optional<ServerInstance> TopicNames::ParseNewsBroadcastTopic(std::string_view topicName) {
  return Parse<ServerInstance>(kNewsBroadcast, topicName);
}

std::optional<ServerInstance> TopicNames::ParseServerStatusTopic(std::string_view topicName) {
  return Parse<ServerInstance>(kServerStatus, topicName);
}

std::optional<ServerInstance> TopicNames::ParseCommandTopic(std::string_view topicName) {
  return Parse<ServerInstance>(kCommand, topicName);
}

std::optional<ServerInstance> TopicNames::ParseCommandResponseTopic(std::string_view topicName) {
  return Parse<ServerInstance>(kCommandResponse, topicName);
}

std::optional<std::string> TopicNames::ParseClientHostCommandTopic(std::string_view topicName) {
  return Parse<std::string>(kClientHostCommand, topicName);
}

std::optional<std::string> TopicNames::ParseClientIDCommandTopic(std::string_view topicName) {
  return Parse<std::string>(kClientIDCommand, topicName);
}

std::optional<ClientCommandResponseTopic> TopicNames::ParseClientCommandResponseTopic(std::string_view topicName) {
  return Parse<ClientCommandResponseTopic>(kClientCommandResponse, topicName);
}

}  // namespace ps_ns
