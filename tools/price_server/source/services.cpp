#include "services.h"

#include "feed/request_for_quote.h"
#include "ps_common/connector/topic_names.h"

namespace price_server {
namespace {

// Symbols in turn, in quantities from one lot to ten.
feed::RequestForQuote MakeRequestForQuote(std::uint64_t id, const feed::PricesFile& file) {
  constexpr std::uint64_t kLot = 100;
  constexpr std::uint64_t kMaxLots = 10;
  feed::RequestForQuote request;
  request.id = id;
  request.time = feed::UtcNow();
  request.symbol = file.symbols[(id - 1) % file.symbols.size()];
  request.quantity = (1 + (id - 1) % kMaxLots) * kLot;
  return request;
}

}  // namespace

Services::Services(const Surroundings& surroundings, std::uint64_t session)
    : m_file(surroundings.file),
      m_newsWire(m_file),
      m_news(surroundings.ctx, ps_ns::TopicNames::CreateNewsBroadcastTopic(surroundings.options.instance)),
      m_requestsForQuotes(surroundings.ctx, ps_ns::TopicNames::CreateRFQ_BroadcastTopic(surroundings.options.instance)),
      m_products(surroundings.ctx, surroundings.options.instance, surroundings.catalogue, surroundings.loop),
      m_status(surroundings.ctx, surroundings.options.instance, session, surroundings.progress, surroundings.loop,
               surroundings.options.statusPeriod),
      m_requests(surroundings.ctx, surroundings.options.instance, surroundings.catalogue, m_status, surroundings.loop) {
  const auto& options = surroundings.options;
  if (options.hasConsole) {
    m_console.emplace(surroundings.ctx, surroundings.loop, session, options.commandTimeout, surroundings.output);
  }
  const auto every = [&](std::chrono::duration<double> period, void (Services::*publish)()) {
    if (period.count() > 0) {
      surroundings.loop.RunEvery(std::chrono::duration_cast<EventLoop::Clock::duration>(period),
                                 [this, publish] { (this->*publish)(); });
    }
  };
  every(options.newsPeriod, &Services::PublishNews);
  every(options.rfqPeriod, &Services::PublishRequestForQuote);
}

void Services::Close() {
  m_status.ChangeState(feed::ServerState::kClosing);
  if (m_console) {
    m_console->Close();
  }
}

void Services::PublishNews() {
  if (const auto news = m_newsWire.Next()) {
    m_news.Publish(feed::Encode(*news));
  }
}

void Services::PublishRequestForQuote() {
  m_requestsForQuotes.Publish(feed::Encode(MakeRequestForQuote(++m_lastRequestForQuote, m_file)));
}

}  // namespace price_server
