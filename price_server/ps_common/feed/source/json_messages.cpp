// The messages as JSON objects: a table for each, which names every field once.

#include <concepts>
#include <nlohmann/json.hpp>
#include <tuple>
#include <utility>

#include "feed/client_request.h"
#include "feed/client_response.h"
#include "feed/command.h"
#include "feed/command_answer.h"
#include "feed/news.h"
#include "feed/one_line.h"
#include "feed/product_info.h"
#include "feed/request_for_quote.h"
#include "feed/server_status.h"

namespace feed {
namespace {

// Keeps the fields in the order of the tables.
using Json = nlohmann::ordered_json;

// Takes any number of fields in a time that hardly grows faster than their number, which Json does not.
using ParsedJson = nlohmann::json;

template <class Message, class Value>
struct Field {
  const char* name;
  Value Message::*member;
  bool isRequired;
};

template <class Message, class Value>
constexpr Field<Message, Value> Required(const char* name, Value Message::*member) {
  return {name, member, true};
}

template <class Message, class Value>
constexpr Field<Message, Value> Optional(const char* name, Value Message::*member) {
  return {name, member, false};
}

constexpr auto FieldsOf(const ProductInfo*) {
  return std::tuple(Required("symbol", &ProductInfo::symbol), Required("segment", &ProductInfo::segment),
                    Required("first_date", &ProductInfo::firstDate), Required("last_date", &ProductInfo::lastDate),
                    Required("prices", &ProductInfo::prices), Optional("last_price", &ProductInfo::lastPrice));
}

constexpr auto FieldsOf(const RequestForQuote*) {
  return std::tuple(Required("id", &RequestForQuote::id), Required("time", &RequestForQuote::time),
                    Required("symbol", &RequestForQuote::symbol), Required("quantity", &RequestForQuote::quantity));
}

constexpr auto FieldsOf(const News*) {
  return std::tuple(Required("time", &News::time), Required("headline", &News::headline),
                    Optional("text", &News::text));
}

constexpr auto FieldsOf(const ServerStatus*) {
  return std::tuple(Required("session", &ServerStatus::session), Required("state", &ServerStatus::state),
                    Required("time", &ServerStatus::time), Required("updates_sent", &ServerStatus::updatesSent),
                    Required("uptime_seconds", &ServerStatus::uptime));
}

constexpr auto FieldsOf(const ClientRequest*) {
  return std::tuple(Required("id", &ClientRequest::id), Required("request", &ClientRequest::request),
                    Optional("symbol", &ClientRequest::symbol));
}

constexpr auto FieldsOf(const ClientResponse*) {
  return std::tuple(Required("id", &ClientResponse::id), Required("result", &ClientResponse::result),
                    Required("last", &ClientResponse::isLast), Optional("products", &ClientResponse::products),
                    Optional("status", &ClientResponse::status));
}

constexpr auto FieldsOf(const Command*) {
  return std::tuple(Required("id", &Command::id), Required("command", &Command::name),
                    Optional("arguments", &Command::arguments));
}

constexpr auto FieldsOf(const CommandAnswer*) {
  return std::tuple(Required("id", &CommandAnswer::id), Required("client_id", &CommandAnswer::clientID),
                    Required("host", &CommandAnswer::host), Required("result", &CommandAnswer::result),
                    Optional("text", &CommandAnswer::text), Optional("figures", &CommandAnswer::figures));
}

template <class T>
concept HasFields = requires(const T* message) {
  FieldsOf(message);
};

constexpr std::size_t MaxElements(const std::vector<ProductInfo>*) { return ClientResponse::kMaxProducts; }
constexpr std::size_t MaxElements(const std::vector<std::string>*) { return Command::kMaxArguments; }
constexpr std::size_t MaxElements(const CommandAnswer::Figures*) { return CommandAnswer::kMaxFigures; }

// ---- Values to JSON ----

template <std::integral T>
Json ToJson(T value) {
  return value;
}
Json ToJson(const std::string& text) { return OneLine(text); }
Json ToJson(const Symbol& symbol) { return symbol.View(); }
Json ToJson(Date date) { return ToString(date); }
Json ToJson(Price price) { return price.ToString(); }
Json ToJson(UtcTime time) { return ToString(time); }
Json ToJson(std::chrono::seconds time) { return time.count(); }
Json ToJson(ServerState state) { return ToString(state); }

Json ToJson(const CommandAnswer::Figures& figures) {
  auto object = Json::object();
  for (const auto& [name, figure] : figures) {
    object[OneLine(name)] = figure;
  }
  return object;
}

template <HasFields Message>
Json ToJson(const Message& message);

template <class T>
Json ToJson(const std::vector<T>& values) {
  auto array = Json::array();
  for (const auto& value : values) {
    array.push_back(ToJson(value));
  }
  return array;
}

template <class T>
bool IsAbsent(const T&) {
  return false;
}
template <class T>
bool IsAbsent(const std::optional<T>& value) {
  return !value;
}
template <class T>
Json ToJson(const std::optional<T>& value) {
  return ToJson(*value);
}

template <HasFields Message>
Json ToJson(const Message& message) {
  auto object = Json::object();
  const auto put = [&](const auto& field) {
    const auto& value = message.*field.member;
    if (!IsAbsent(value)) {
      object[field.name] = ToJson(value);
    }
  };
  std::apply([&](const auto&... fields) { (put(fields), ...); }, FieldsOf(&message));
  return object;
}

// ---- Values from JSON: each returns whether there was one ----

bool FromJson(const ParsedJson& json, bool& value) {
  if (!json.is_boolean()) {
    return false;
  }
  value = json.get<bool>();
  return true;
}

template <std::integral T>
bool FromJson(const ParsedJson& json, T& value) {
  const auto take = [&value](auto number) {
    value = static_cast<T>(number);
    return std::in_range<T>(number);
  };
  if (json.is_number_unsigned()) {
    return take(json.get<std::uint64_t>());
  }
  return json.is_number_integer() && take(json.get<std::int64_t>());
}

bool FromJson(const ParsedJson& json, std::string& text) {
  if (!json.is_string() || !IsOneLine(json.get_ref<const std::string&>())) {
    return false;
  }
  text = json.get<std::string>();
  return true;
}

template <class T, class Parse>
bool FromText(const ParsedJson& json, T& value, const Parse& parse) {
  const auto parsed = json.is_string() ? parse(json.get_ref<const std::string&>()) : std::nullopt;
  if (parsed) {
    value = *parsed;
  }
  return parsed.has_value();
}
bool FromJson(const ParsedJson& json, Symbol& symbol) { return FromText(json, symbol, Symbol::Parse); }
bool FromJson(const ParsedJson& json, Date& date) { return FromText(json, date, ParseDate); }
bool FromJson(const ParsedJson& json, Price& price) { return FromText(json, price, Price::Parse); }
bool FromJson(const ParsedJson& json, UtcTime& time) { return FromText(json, time, ParseUtcTime); }
bool FromJson(const ParsedJson& json, ServerState& state) {
  return FromText(json, state, [](std::string_view text) -> std::optional<ServerState> {
    for (const auto known : {ServerState::kOpen, ServerState::kClosing}) {
      if (text == ToString(known)) {
        return known;
      }
    }
    return std::nullopt;
  });
}

bool FromJson(const ParsedJson& json, std::chrono::seconds& time) {
  std::int64_t count = 0;
  if (!FromJson(json, count)) {
    return false;
  }
  time = std::chrono::seconds(count);
  return true;
}

bool FromJson(const ParsedJson& json, CommandAnswer::Figures& figures) {
  if (!json.is_object() || json.size() > MaxElements(&figures)) {
    return false;
  }
  for (const auto& [name, figure] : json.items()) {
    if (!IsOneLine(name) || !FromJson(figure, figures[name])) {
      return false;
    }
  }
  return true;
}

template <HasFields Message>
bool FromJson(const ParsedJson& json, Message& message);

template <class T>
bool FromJson(const ParsedJson& json, std::vector<T>& values) {
  if (!json.is_array() || json.size() > MaxElements(&values)) {
    return false;
  }
  for (const auto& element : json) {
    if (!FromJson(element, values.emplace_back())) {
      return false;
    }
  }
  return true;
}

template <class T>
bool FromJson(const ParsedJson& json, std::optional<T>& value) {
  return FromJson(json, value.emplace());
}

template <HasFields Message>
bool FromJson(const ParsedJson& json, Message& message) {
  if (!json.is_object()) {
    return false;
  }
  const auto take = [&](const auto& field) {
    const auto found = json.find(field.name);
    return found == json.end() ? !field.isRequired : FromJson(*found, message.*field.member);
  };
  return std::apply([&](const auto&... fields) { return (take(fields) && ...); }, FieldsOf(&message));
}

template <HasFields Message>
bool AreEqual(const Message& a, const Message& b) {
  return std::apply([&](const auto&... fields) { return ((a.*fields.member == b.*fields.member) && ...); },
                    FieldsOf(&a));
}

template <HasFields Message>
std::string EncodeMessage(const Message& message) {
  return ToJson(message).dump();
}

// Counts what is open in text that is JSON up to there; the rest is for the parser to refuse.
bool IsNestedTooDeeply(std::string_view bytes) {
  std::size_t depth = 0;
  bool isInString = false;
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    const char c = bytes[at];
    if (c == '"') {
      isInString = !isInString;
    } else if (isInString) {
      if (c == '\\') {
        ++at;
      }
    } else if (c == '[' || c == '{') {
      if (++depth > kMaxJsonMessageDepth) {
        return true;
      }
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return false;
}

// What is not JSON gives a value that is no object.
ParsedJson Parse(std::string_view bytes) {
  if (bytes.size() > kMaxJsonMessageSize || IsNestedTooDeeply(bytes)) {
    return {};
  }
  return ParsedJson::parse(bytes, nullptr, false);
}

template <HasFields Message>
std::optional<Message> DecodeMessage(std::string_view bytes) {
  std::optional<Message> message(std::in_place);
  if (!FromJson(Parse(bytes), *message)) {
    message.reset();
  }
  return message;
}

}  // namespace

std::optional<std::uint64_t> DecodeMessageID(std::string_view bytes) noexcept {
  std::uint64_t id = 0;
  const auto json = Parse(bytes);
  const auto found = json.find("id");
  return found != json.end() && FromJson(*found, id) ? std::optional(id) : std::nullopt;
}

std::string_view ToString(ServerState state) { return state == ServerState::kOpen ? "open" : "closing"; }

bool operator==(const ProductInfo& a, const ProductInfo& b) { return AreEqual(a, b); }
bool operator==(const RequestForQuote& a, const RequestForQuote& b) { return AreEqual(a, b); }
bool operator==(const News& a, const News& b) { return AreEqual(a, b); }
bool operator==(const ServerStatus& a, const ServerStatus& b) { return AreEqual(a, b); }
bool operator==(const ClientRequest& a, const ClientRequest& b) { return AreEqual(a, b); }
bool operator==(const ClientResponse& a, const ClientResponse& b) { return AreEqual(a, b); }
bool operator==(const Command& a, const Command& b) { return AreEqual(a, b); }
bool operator==(const CommandAnswer& a, const CommandAnswer& b) { return AreEqual(a, b); }

std::string Encode(const ProductInfo& message) { return EncodeMessage(message); }
std::string Encode(const RequestForQuote& message) { return EncodeMessage(message); }
std::string Encode(const News& message) { return EncodeMessage(message); }
std::string Encode(const ServerStatus& message) { return EncodeMessage(message); }
std::string Encode(const ClientRequest& message) { return EncodeMessage(message); }
std::string Encode(const ClientResponse& message) { return EncodeMessage(message); }
std::string Encode(const Command& message) { return EncodeMessage(message); }
std::string Encode(const CommandAnswer& message) { return EncodeMessage(message); }

std::optional<ProductInfo> DecodeProductInfo(std::string_view bytes) noexcept {
  return DecodeMessage<ProductInfo>(bytes);
}
std::optional<RequestForQuote> DecodeRequestForQuote(std::string_view bytes) noexcept {
  return DecodeMessage<RequestForQuote>(bytes);
}
std::optional<News> DecodeNews(std::string_view bytes) noexcept { return DecodeMessage<News>(bytes); }
std::optional<ServerStatus> DecodeServerStatus(std::string_view bytes) noexcept {
  return DecodeMessage<ServerStatus>(bytes);
}
std::optional<ClientRequest> DecodeClientRequest(std::string_view bytes) noexcept {
  return DecodeMessage<ClientRequest>(bytes);
}
std::optional<ClientResponse> DecodeClientResponse(std::string_view bytes) noexcept {
  return DecodeMessage<ClientResponse>(bytes);
}
std::optional<Command> DecodeCommand(std::string_view bytes) noexcept { return DecodeMessage<Command>(bytes); }
std::optional<CommandAnswer> DecodeCommandAnswer(std::string_view bytes) noexcept {
  return DecodeMessage<CommandAnswer>(bytes);
}

}  // namespace feed
