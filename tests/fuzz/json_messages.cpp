// Messages between price servers and clients: any bytes are read or refused, and what is read is written and read back
// the same.
#include "feed/client_request.h"
#include "feed/client_response.h"
#include "feed/command.h"
#include "feed/command_answer.h"
#include "feed/news.h"
#include "feed/one_line.h"
#include "feed/price_message.h"
#include "feed/product_info.h"
#include "feed/request_for_quote.h"
#include "feed/server_status.h"
#include "harness/input.h"
#include "harness/oracle.h"

namespace fuzz {
namespace {

template <typename Decoded>
void RoundTrip(Decoded (*decode)(std::string_view) noexcept, const std::string& bytes) {
  if (const Decoded message = decode(bytes)) {
    const std::string again = feed::Encode(*message);
    Require(decode(again) == message, "a message survives being written");
  }
}

void Decode(Input& input) {
  const std::string bytes = input.ConsumeRemainingBytesAsString();
  RoundTrip(feed::DecodeClientRequest, bytes);
  RoundTrip(feed::DecodeClientResponse, bytes);
  RoundTrip(feed::DecodeCommand, bytes);
  RoundTrip(feed::DecodeCommandAnswer, bytes);
  RoundTrip(feed::DecodeNews, bytes);
  RoundTrip(feed::DecodeProductInfo, bytes);
  RoundTrip(feed::DecodeRequestForQuote, bytes);
  RoundTrip(feed::DecodeServerStatus, bytes);
  feed::DecodeMessageID(bytes);
  Require(feed::IsOneLine(feed::OneLine(bytes)), "one line is made of any bytes");
  if (const auto price = feed::DecodePriceMessage(bytes)) {
    const feed::EncodedPriceMessage again = feed::Encode(*price);
    Require(std::string_view(again.data(), again.size()) == bytes, "a price survives being written");
  }
}

}  // namespace
}  // namespace fuzz

FUZZ_WITH(fuzz::Decode)
