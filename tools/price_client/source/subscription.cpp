#include "subscription.h"

#include <string>
#include <utility>

#include "feed/client_response.h"
#include "feed/instance_text.h"
#include "feed/price_message.h"
#include "feed/server_status.h"

namespace price_client {
namespace {

std::string_view ContentOf(const lbm::Message& message) { return {message.Data(), message.Length()}; }

}  // namespace

Subscription::Subscription(ps_ns::LbmClientResourceMgr& manager, Mailbox& mailbox, std::size_t index,
                           const ps_ns::ServerInstance& instance, std::optional<unsigned short> segments,
                           Clock::duration maxSilence)
    : m_manager(manager),
      m_mailbox(mailbox),
      m_index(index),
      m_instance(instance),
      m_followsProducts(!segments),
      m_monitor(segments.value_or(feed::kMaxSegments)),
      m_life(maxSilence) {
  for (unsigned short segment = 0; segment < segments.value_or(1); ++segment) {
    m_segments.insert(segment);
  }
  m_prices.symbols.reserve(InstanceMonitor::kMaxSymbols);  // so that the dispatch thread takes no memory for it
  const auto post = [this](Mail::Kind kind) {
    return [this, kind](lbm::Message message) { Post(kind, std::move(message)); };
  };
  std::string topicName;
  m_receivers = {
      manager.CreateServerStatusReceiver(instance, post(Mail::Kind::kStatus)),
      manager.CreateClientProductInfoReceiver(instance, post(Mail::Kind::kProduct), topicName),
      manager.CreateClientRFQ_Receiver(instance, post(Mail::Kind::kRfq), topicName),
      manager.CreateClientNewsReceiver(instance, post(Mail::Kind::kNews), topicName),
      manager.CreateClientReceiver(instance, post(Mail::Kind::kResponse), topicName),
  };
  m_inquiry.emplace(*manager.GetContext(), manager.CreateClientRequestTopic(instance), post(Mail::Kind::kResponse));
}

void Subscription::StartPrices() {
  for (const auto segment : m_segments) {
    if (!m_priceReceivers.contains(segment)) {
      std::string topicName;
      auto receiver = m_manager.CreateClientDataReceiver(
          m_instance, segment, [this, segment](const lbm::Message& message) { TakePrice(segment, message); },
          topicName);
      m_priceReceivers.emplace(segment, std::move(receiver));
    }
  }
}

void Subscription::StopPrices() {
  m_priceReceivers.clear();
  m_monitor.Detach();
}

void Subscription::Close() {
  m_inquiry.reset();
  m_priceReceivers.clear();
  m_receivers.clear();
}

// ---- The dispatch thread ----

void Subscription::TakePrice(unsigned segment, const lbm::Message& message) noexcept {
  switch (message.Type()) {
    case LBM_MSG_DATA:
      if (m_monitor.OnData(segment, {message.Data(), message.Length()}, feed::RealTimeNanoseconds())) {
        Post(Mail::Kind::kPriceSourceCame, {});
      }
      break;
    case LBM_MSG_BOS:
      m_monitor.OnSessionBegin(segment);
      Post(Mail::Kind::kPriceSourceCame, {});
      break;
    case LBM_MSG_EOS:
      if (m_monitor.OnSessionEnd(segment)) {
        Post(Mail::Kind::kPriceSourceWent, {});
      }
      break;
    case LBM_MSG_UNRECOVERABLE_LOSS:
      m_monitor.OnLoss(1);
      break;
    case LBM_MSG_UNRECOVERABLE_LOSS_BURST:
      m_monitor.OnLoss(message.Length());
      break;
    default:
      break;
  }
}

void Subscription::Post(Mail::Kind kind, lbm::Message message) const noexcept {
  m_mailbox.Post({kind, m_index, std::move(message)});
}

// ---- The owner's thread ----

void Subscription::TakeIn(const Mail& mail, Clock::time_point now) {
  if (mail.kind == Mail::Kind::kPriceSourceCame) {
    return m_life.SourceCame(ServerLife::Topic::kPrices);
  }
  if (mail.kind == Mail::Kind::kPriceSourceWent) {
    return m_life.SourceWent(ServerLife::Topic::kPrices);
  }
  const bool isStatus = mail.kind == Mail::Kind::kStatus;
  switch (mail.message.Type()) {
    case LBM_MSG_DATA:
    case LBM_MSG_RESPONSE:
      if (isStatus) {
        return TakeStatus(mail.message, now);
      }
      if (mail.kind == Mail::Kind::kResponse) {
        return TakeResponse(mail.message);
      }
      return TakeNotice(mail.kind, ContentOf(mail.message));
    case LBM_MSG_BOS:
      if (isStatus) {
        m_life.SourceCame(ServerLife::Topic::kStatus);
      }
      return;
    case LBM_MSG_EOS:
      if (isStatus) {
        m_life.SourceWent(ServerLife::Topic::kStatus);
      }
      return;
    case LBM_MSG_UNRECOVERABLE_LOSS:
      return m_notices.CountLost(1);
    case LBM_MSG_UNRECOVERABLE_LOSS_BURST:
      return m_notices.CountLost(mail.message.Length());
    default:
      return;
  }
}

void Subscription::TakeStatus(const lbm::Message& message, Clock::time_point now) {
  const auto status = feed::DecodeServerStatus(ContentOf(message));
  if (!status || status->session == 0) {
    return m_notices.CountMalformed();
  }
  m_life.TakeStatus(*status, now);
}

void Subscription::TakeResponse(const lbm::Message& message) {
  const auto response = feed::DecodeClientResponse(ContentOf(message));
  if (!response) {
    return m_notices.CountMalformed();
  }
  m_notices.TakeResponse(*response);
  // Others come on the topic of the responses to all clients, where ids are of any client.
  if (message.Type() == LBM_MSG_RESPONSE) {
    m_inquiry->Take(*response);
  }
}

void Subscription::TakeNotice(Mail::Kind kind, std::string_view bytes) {
  if (kind == Mail::Kind::kProduct) {
    return m_notices.TakeProduct(bytes);
  }
  if (kind == Mail::Kind::kRfq) {
    return m_notices.TakeRfq(bytes);
  }
  m_notices.TakeNews(bytes);
}

bool Subscription::AddNamedSegments() {
  const auto before = m_segments.size();
  if (m_followsProducts) {
    for (const auto& product : m_notices.Read().products) {
      if (product.segment < feed::kMaxSegments) {
        m_segments.insert(product.segment);
      }
    }
  }
  return m_segments.size() > before;
}

void Subscription::Pursue(Clock::time_point now) {
  if (m_life.State() == InstanceState::kGone) {
    m_inquiry->End();
  } else if (m_life.Run() != m_runAskedFor) {
    m_runAskedFor = m_life.Run();
    m_inquiry->Begin(now);
  }
  m_inquiry->Pursue(now);
}

InstanceSnapshot Subscription::Read(Clock::time_point now) const {
  InstanceSnapshot snapshot{m_prices};
  snapshot.name = m_instance.ToString();
  snapshot.segments = static_cast<unsigned>(m_segments.size());
  snapshot.state = m_life.State();
  snapshot.status = m_life.Status(now);
  snapshot.notices = m_notices.Read();
  for (const auto& product : snapshot.notices.products) {
    if (!m_segments.contains(product.segment)) {
      snapshot.unreceivedSegments.insert(product.segment);
    }
  }
  snapshot.totals.malformed += snapshot.notices.malformed;
  snapshot.totals.lost += snapshot.notices.lost;
  return snapshot;
}

}  // namespace price_client
