// What a server instance has told besides prices and its status.
#pragma once

#include <cstdint>
#include <string_view>

#include "feed/client_response.h"
#include "snapshot.h"

namespace price_client {

// Takes the content of messages, any bytes whatever; what is not what its topic carries is counted as malformed.
class InstanceNotices {
 public:
  // Products that are kept; further ones are ignored.
  static constexpr std::size_t kMaxProducts = 1024;

  void TakeProduct(std::string_view bytes);
  void TakeRfq(std::string_view bytes);
  void TakeNews(std::string_view bytes);

  // Takes the products from a response; it may be one to another client.
  void TakeResponse(const feed::ClientResponse& response);

  void CountMalformed() { ++m_notices.malformed; }
  void CountLost(std::uint64_t messages) { m_notices.lost += messages; }

  const NoticesSnapshot& Read() const { return m_notices; }

 private:
  void Keep(const feed::ProductInfo& product);

  NoticesSnapshot m_notices;
};

}  // namespace price_client
