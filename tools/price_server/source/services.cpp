#include "services.h"

#include <utility>

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

Services::Services(const Surroundings& surroundings, std::uint64_t session, std::function<void()> onFailure)
    : m_loop(surroundings.loop),
      m_file(surroundings.file),
      m_newsWire(m_file),
      m_news(surroundings.ctx, ps_ns::TopicNames::CreateNewsBroadcastTopic(surroundings.options.instance)),
      m_requestsForQuotes(surroundings.ctx, ps_ns::TopicNames::CreateRFQ_BroadcastTopic(surroundings.options.instance)),
      m_products(surroundings.ctx, surroundings.options.instance, surroundings.catalogue, m_loop),
      m_status(surroundings.ctx, surroundings.options.instance, session, surroundings.progress, m_loop,
               surroundings.options.statusPeriod),
      m_requests(surroundings.ctx, surroundings.options.instance, surroundings.catalogue, m_status, m_loop) {
  const auto& options = surroundings.options;
  if (options.hasConsole) {
    m_console.emplace(surroundings.ctx, m_loop, session, options.commandTimeout, surroundings.output);
  }
  const auto every = [this](std::chrono::duration<double> period, void (Services::*publish)()) {
    if (period.count() == 0) {
      return;
    }
    m_loop.RunEvery(std::chrono::duration_cast<TaskLoop::Clock::duration>(period),
                    [this, publish] { (this->*publish)(); });
  };
  every(options.newsPeriod, &Services::PublishNews);
  every(options.rfqPeriod, &Services::PublishRequestForQuote);
  m_loop.Start(std::move(onFailure));
}

Services::~Services() { m_loop.Stop(); }

void Services::Close() {
  m_loop.Post([this] {
    m_status.ChangeState(feed::ServerState::kClosing);
    if (m_console) {
      m_console->Close();
    }
  });
  m_loop.Stop();
  m_loop.RethrowFailure();
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
