#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <nlohmann/json.hpp>
#include <random>

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

const UtcTime kTime = *ParseUtcTime("2026-02-28T23:59:59.007Z");
const ProductInfo kProduct{*Symbol::Parse("MSFT"),   65535, *ParseDate("2000-01-31"),
                           *ParseDate("2010-03-01"), 123,   Price::Parse("28.37")};
const ServerStatus kStatus{1'800'000'000'123'456'789, ServerState::kClosing, kTime, 42, std::chrono::seconds(61)};

// Bytes of one kind of message, and what decoding and encoding again makes of any bytes; empty when they are none.
struct Kind {
  const char* name;
  std::string bytes;
  std::function<std::string(std::string_view)> again;
};

template <class Decode, class Message>
Kind MakeKind(const char* name, const Message& message, Decode decode) {
  EXPECT_EQ(decode(Encode(message)), message) << Encode(message);
  return {name, Encode(message), [decode](std::string_view bytes) {
            const auto decoded = decode(bytes);
            return decoded ? Encode(*decoded) : std::string();
          }};
}

std::vector<Kind> Kinds() {
  auto quiet = kProduct;
  quiet.lastPrice.reset();
  return {
      MakeKind("product", kProduct, DecodeProductInfo),
      MakeKind("product without price", quiet, DecodeProductInfo),
      MakeKind("rfq", RequestForQuote{7, kTime, kProduct.symbol, 5000}, DecodeRequestForQuote),
      MakeKind("news", News{kTime, "\"Zürich\\\" ↑", "{[]}"}, DecodeNews),
      MakeKind("status", kStatus, DecodeServerStatus),
      MakeKind("request", ClientRequest{UINT64_MAX, std::string(kProductsRequest), kProduct.symbol},
               DecodeClientRequest),
      MakeKind("response", ClientResponse{1, std::string(kResultOk), false, {kProduct, quiet}, kStatus},
               DecodeClientResponse),
      MakeKind("command", Command{3, std::string(kReportCommand), {"all", ""}}, DecodeCommand),
      MakeKind(
          "answer",
          CommandAnswer{
              3, "alice", "box.example", std::string(kResultOk), "done", {{"gaps", INT64_MIN}, {"updates", INT64_MAX}}},
          DecodeCommandAnswer),
  };
}

TEST(JsonMessages, ArriveAsTheyWereSentAndTakeNoPartsOfOneAnother) {
  const auto kinds = Kinds();
  for (const auto& [name, bytes, again] : kinds) {
    EXPECT_EQ(again(bytes), bytes) << name;
    auto later = nlohmann::ordered_json::parse(bytes);
    later["field of a later version"] = {1, {{"a", nullptr}}};
    EXPECT_EQ(again(later.dump()), bytes) << name;
    for (std::size_t length = 0; length < bytes.size(); ++length) {
      EXPECT_EQ(again(std::string_view(bytes).substr(0, length)), "") << name << ' ' << length;
    }
  }
  EXPECT_EQ(kinds[0].bytes,
            R"({"symbol":"MSFT","segment":65535,"first_date":"2000-01-31","last_date":"2010-03-01","prices":123,)"
            R"("last_price":"28.37"})");
}

TEST(JsonMessages, OfHostileBytesAreNone) {
  std::vector<std::string> hostile{"",
                                   "null",
                                   "[]",
                                   "\"text\"",
                                   "1e999",
                                   "{\"id\":1e999}",
                                   std::string(100, '\0'),
                                   std::string(kMaxJsonMessageSize + 1, ' ')};
  for (const char* opening : {"[", "{\"id\":", "[{\"a\":"}) {
    std::string bomb;
    while (bomb.size() + std::strlen(opening) <= kMaxJsonMessageSize) {
      bomb += opening;
    }
    hostile.push_back(bomb);
  }
  std::mt19937 random(1);
  for (const auto& [name, bytes, again] : Kinds()) {
    for (const auto& text : hostile) {
      EXPECT_EQ(again(text), "") << name << ' ' << text.substr(0, 20);
    }
    const auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
    const auto withUnknown = [&bytes = bytes](const std::string& value) {
      return R"({"[[\"":"\\", "unknown":)" + value + ',' + bytes.substr(1);
    };
    EXPECT_EQ(again(withUnknown(nested(kMaxJsonMessageDepth - 1))), bytes) << name;
    EXPECT_EQ(again(withUnknown(nested(kMaxJsonMessageDepth))), "") << name;
    EXPECT_EQ(again(withUnknown(nested(kMaxJsonMessageSize / 2 - bytes.size()))), "") << name;
    // Whatever is accepted is a message that could have been sent.
    for (int i = 0; i < 500; ++i) {
      auto damaged = bytes;
      for (auto flips = 1 + random() % 3; flips > 0; --flips) {
        auto& byte = damaged[random() % damaged.size()];
        byte = static_cast<char>(static_cast<unsigned char>(byte) ^ (1U << random() % 8));
      }
      const auto accepted = again(damaged);
      if (!accepted.empty()) {
        ASSERT_EQ(again(accepted), accepted) << damaged;
      }
    }
  }
}

TEST(JsonMessages, WithAFieldOutOfRangeAreNone) {
  const auto kinds = Kinds();
  const struct {
    std::size_t kind;
    const char* field;
    nlohmann::json value;
  } cases[] = {
      {0, "symbol", "TWO WORDS"},
      {0, "segment", 65536},
      {0, "segment", -1},
      {0, "segment", 1.0},
      {0, "first_date", "2000-02-30"},
      {0, "last_price", nullptr},
      {0, "last_price", "-1"},
      {2, "time", "2026-02-29T00:00:00.000Z"},
      {2, "time", "2026-02-28T24:00:00.000Z"},
      {2, "time", "2026-02-28t00:00:00.000Z"},
      {2, "time", "2026-02-28T0/:00:00.000Z"},
      {3, "headline", "a\nb"},
      {3, "headline", "a\x1b[31m"},
      {3, "headline", "a\xc2\x9b"},
      {3, "headline", std::string(kMaxTextLength + 1, 'a')},
      {4, "state", "ajar"},
      {6, "last", 1},
      {6, "products",
       std::vector<nlohmann::json>(ClientResponse::kMaxProducts + 1, nlohmann::json::parse(kinds[0].bytes))},
      {7, "arguments", {"a", 1}},
      {7, "arguments", std::vector<std::string>(Command::kMaxArguments + 1)},
      {8, "figures", {{"a", 1.5}}},
      {8, "figures", {{"a", 9223372036854775808U}}},
  };
  for (const auto& [kind, field, value] : cases) {
    auto message = nlohmann::json::parse(kinds[kind].bytes);
    message[field] = value;
    EXPECT_EQ(kinds[kind].again(message.dump()), "") << field << ' ' << value;
  }
}

TEST(JsonMessages, MayHaveAnIDThoughTheyCannotBeRead) {
  EXPECT_EQ(DecodeCommand(R"({"id": 7, "command": 8})"), std::nullopt);
  EXPECT_EQ(DecodeMessageID(R"({"id": 7, "command": 8})"), 7);
  for (const char* bytes : {"", "7", "null", "[7]", R"(["id", 7])", R"("id")", R"({"ID": 7})", R"({"id": -7})",
                            R"({"id": "7"})", R"({"id": 7)", R"({"id": 18446744073709551616})"}) {
    EXPECT_EQ(DecodeMessageID(bytes), std::nullopt) << bytes;
  }
  EXPECT_EQ(DecodeMessageID(R"({"id": 7, "x": ")" + std::string(kMaxJsonMessageSize, 'x') + R"("})"), std::nullopt);
}

TEST(JsonMessages, MakeOneLineOfEveryText) {
  std::mt19937 random(2);
  for (int i = 0; i < 500; ++i) {
    std::string bytes(random() % (2 * kMaxTextLength), ' ');
    for (auto& byte : bytes) {
      byte = static_cast<char>(random() % (i % 2 == 0 ? 256 : 128));
    }
    const CommandAnswer answer{1, bytes, bytes, bytes, bytes, {{bytes, 1}}};
    const auto arrived = DecodeCommandAnswer(Encode(answer));
    ASSERT_TRUE(arrived.has_value());
    ASSERT_EQ(arrived->text, OneLine(bytes));
  }
  EXPECT_EQ(OneLine("a\tb\xc2\x9b"
                    "c\xff"
                    "d\u00e9"),
            "a b c\ufffdd\u00e9");
  std::string cut(kMaxTextLength - 1, 'a');
  EXPECT_EQ(OneLine(cut + "\u00e9"), cut);
  EXPECT_EQ(OneLine(cut + 'b' + 'c'), cut + 'b');
}

TEST(JsonMessages, FitTheirLimitWhateverTheyHold) {
  const std::string text(kMaxTextLength, '"');
  EXPECT_TRUE(DecodeCommand(Encode(Command{1, text, std::vector(Command::kMaxArguments, text)})));
  CommandAnswer answer{1, text, text, text, text, {}};
  for (auto name = text; answer.figures.size() < CommandAnswer::kMaxFigures;) {
    name[0] = static_cast<char>('a' + answer.figures.size());
    answer.figures[name] = INT64_MIN;
  }
  EXPECT_TRUE(DecodeCommandAnswer(Encode(answer)));
  EXPECT_TRUE(DecodeClientResponse(
      Encode(ClientResponse{1, text, true, std::vector(ClientResponse::kMaxProducts, kProduct), kStatus})));
}

}  // namespace
}  // namespace feed
