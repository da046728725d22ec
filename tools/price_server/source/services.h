// What a price server does beside sending prices.
#pragma once

#include <cstdint>
#include <optional>

#include "cli/output.h"
#include "command_console.h"
#include "event_loop.h"
#include "feed/prices_file.h"
#include "lbm/context.h"
#include "news_wire.h"
#include "options.h"
#include "product_catalogue.h"
#include "product_publisher.h"
#include "progress.h"
#include "request_service.h"
#include "status_publisher.h"
#include "topic_publisher.h"

namespace price_server {

// Everything that the options ask for, on the loop.
//
// Threads: the loop's.
class Services {
 public:
  // What the services work with. All of it has to outlive them.
  struct Surroundings {
    const Options& options;
    const feed::PricesFile& file;
    const ProductCatalogue& catalogue;
    const Progress& progress;
    lbm::Context& ctx;
    EventLoop& loop;
    const cli::Output& output;
  };

  // session as in feed::PriceMessage. Throws lbm::LbmError.
  Services(const Surroundings& surroundings, std::uint64_t session);

  Services(const Services&) = delete;
  Services& operator=(const Services&) = delete;

  // Tells clients and operators that the server ends. The loop must not run afterwards.
  void Close();

 private:
  void PublishNews();
  void PublishRequestForQuote();

  const feed::PricesFile& m_file;
  NewsWire m_newsWire;
  TopicPublisher m_news;
  TopicPublisher m_requestsForQuotes;
  std::uint64_t m_lastRequestForQuote = 0;
  ProductPublisher m_products;
  StatusPublisher m_status;
  RequestService m_requests;
  std::optional<CommandConsole> m_console;
};

}  // namespace price_server
