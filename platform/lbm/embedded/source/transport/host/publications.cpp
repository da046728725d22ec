#include "transport/host/publications.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "transport/gather.h"

namespace engine::transport::host {

HostPublication::HostPublication(std::uint32_t id, std::string session, PublicationInfo info,
                                 std::uint32_t firstSequence, Publishing& publishing)
    : Publication(id, std::move(session)),
      m_info(std::move(info)),
      m_counters((m_info.statistics != nullptr ? *m_info.statistics : m_uncounted).Serial()),
      m_mutex(publishing.mutex),
      m_sampler(publishing.sampler),
      m_nextSequence(firstSequence) {}

SendResult HostPublication::Publish(const OutboundMessage& message, const SendWait& wait,
                                    const std::atomic<bool>& closed) {
  wire::FragmentHeader header;
  header.source = Id();
  header.request = message.requestId;
  header.total = MessageSize(message.pieces);
  if (message.channel) {
    header.flags = wire::kHasChannel;
    header.channel = *message.channel;
  }
  for (bool waited = false;;) {
    std::shared_ptr<Subscriber> full;
    std::uint32_t granted = 0;
    {
      const std::lock_guard lock(m_mutex);
      if (closed) {
        return SendResult::kClosed;
      }
      if (m_info.pacing == Pacing::kReceiver && !EveryoneHasSpaceCached(header.total)) {
        full = FindFullRequestingCredit(header.total, granted);
      }
      if (full == nullptr) {
        header.sequence = m_nextSequence++;
        header.sent = m_sampler.TimeFor(header.source, header.sequence);
        m_counters.Add(source_field::kMessages);
        for (const auto& subscriber : m_subscribers) {
          subscriber->SendOrDrop(header, message.pieces);
        }
        return SendResult::kSent;
      }
      if (!std::exchange(waited, true)) {
        full->NoteWait();
      }
      if (!wait.GoesOn()) {
        if (!m_blocked.load()) {
          full->AddBlocked(Id());
          m_blocked.store(true);
        }
        return SendResult::kWouldBlock;
      }
    }
    full->WaitForCredit(granted);
  }
}

bool HostPublication::EveryoneHasSpaceCached(std::size_t bytes) const noexcept {
  return std::all_of(m_subscribers.begin(), m_subscribers.end(),
                     [&](const auto& subscriber) { return subscriber->HasSpaceCached(bytes); });
}

// A subscriber without space, of which credit was requested; granted is set as Subscriber::RequestCredit returned it.
// Null when all have space.
std::shared_ptr<Subscriber> HostPublication::FindFullRequestingCredit(std::size_t bytes, std::uint32_t& granted) const {
  std::shared_ptr<Subscriber> full = FindFull(bytes);
  // Looked at once more after the request: space made before it is granted to nobody.
  for (std::shared_ptr<Subscriber> asked; full != nullptr && full != asked; full = FindFull(bytes)) {
    granted = full->RequestCredit();
    asked = full;
  }
  return full;
}

std::shared_ptr<Subscriber> HostPublication::FindFull(std::size_t bytes) const {
  const auto found = std::find_if(m_subscribers.begin(), m_subscribers.end(),
                                  [&](const auto& subscriber) { return !subscriber->HasSpace(bytes); });
  return found == m_subscribers.end() ? nullptr : *found;
}

bool HostPublication::AddSubscriber(const std::shared_ptr<Subscriber>& subscriber, std::uint32_t token) {
  const std::lock_guard lock(m_mutex);
  if (m_withdrawn) {
    return false;
  }
  if (std::find(m_subscribers.begin(), m_subscribers.end(), subscriber) != m_subscribers.end()) {
    throw Fault("it subscribed twice to one source");
  }
  subscriber->Accept(Id(), token, m_nextSequence);
  m_subscribers.push_back(subscriber);
  return true;
}

bool HostPublication::RemoveSubscriber(const Link& link) {
  const std::lock_guard lock(m_mutex);
  const auto found = std::find_if(m_subscribers.begin(), m_subscribers.end(),
                                  [&](const auto& subscriber) { return subscriber->GetLink().get() == &link; });
  if (found == m_subscribers.end()) {
    return false;
  }
  (*found)->Forget(Id());
  m_subscribers.erase(found);
  return true;
}

std::vector<std::shared_ptr<Subscriber>> HostPublication::Withdraw() {
  const std::lock_guard lock(m_mutex);
  m_withdrawn = true;
  for (const auto& subscriber : m_subscribers) {
    subscriber->Withdraw(Id());
  }
  return std::exchange(m_subscribers, {});
}

bool HostPublication::Withdrawn() const {
  const std::lock_guard lock(m_mutex);
  return m_withdrawn;
}

std::shared_ptr<HostPublication> PublicationRegistry::Advertise(const PublicationInfo& info) {
  if (info.topic.size() > kNameMax) {
    throw std::invalid_argument("the topic \"" + info.topic.substr(0, 64) + "...\" has " +
                                std::to_string(info.topic.size()) + " bytes; at most " + std::to_string(kNameMax) +
                                " are possible");
  }
  const std::lock_guard lock(m_mutex);
  const std::uint32_t id = ++m_lastId;
  auto publication =
      std::make_shared<HostPublication>(id, wire::SourceSession(m_identity, id), info, m_firstSequence, m_publishing);
  m_publications.emplace(id, publication);
  wire::AdvertiseBatch batch;
  batch.Add(id, info.topic);
  SendToLinks(batch.Packet(), [](const Link&) { return true; });
  return publication;
}

void PublicationRegistry::Withdraw(HostPublication& publication) {
  // First, so that nothing of the publication can follow its withdrawal on a link.
  const auto subscribers = publication.Withdraw();
  const std::lock_guard lock(m_mutex);
  if (m_publications.erase(publication.Id()) != 0) {
    wire::Withdraw frame;
    frame.source = publication.Id();
    SendToLinks(wire::BytesOf(frame), [&](const Link& link) {
      return std::none_of(subscribers.begin(), subscribers.end(),
                          [&](const auto& subscriber) { return subscriber->GetLink().get() == &link; });
    });
  }
}

void PublicationRegistry::WithdrawAll() {
  HostPublications publications;
  {
    const std::lock_guard lock(m_mutex);
    for (const auto& [id, publication] : m_publications) {
      publications.push_back(publication);
    }
  }
  for (const auto& publication : publications) {
    Withdraw(*publication);
  }
}

std::shared_ptr<HostPublication> PublicationRegistry::Find(std::uint32_t id) const {
  const std::lock_guard lock(m_mutex);
  const auto found = m_publications.find(id);
  return found == m_publications.end() ? nullptr : found->second;
}

void PublicationRegistry::Attach(const std::shared_ptr<Link>& link, Bytes hello) {
  const std::lock_guard lock(m_mutex);
  link->SendControl(hello);
  if (link->Kind() != LinkKind::kSelfFinding) {
    wire::AdvertiseBatch batch;
    for (const auto& [id, publication] : m_publications) {
      if (!batch.Add(id, publication->Info().topic)) {
        link->SendControl(batch.Packet());
        batch.Clear();
        batch.Add(id, publication->Info().topic);
      }
    }
    if (!batch.Empty()) {
      link->SendControl(batch.Packet());
    }
  }
  m_links.push_back(link);
}

HostPublications PublicationRegistry::Detach(const Link& link) {
  HostPublications publications;
  {
    const std::lock_guard lock(m_mutex);
    std::erase_if(m_links, [&](const auto& attached) { return attached.get() == &link; });
    for (const auto& [id, publication] : m_publications) {
      publications.push_back(publication);
    }
  }
  std::erase_if(publications, [&](const auto& publication) { return !publication->RemoveSubscriber(link); });
  const std::lock_guard lock(m_publishing.mutex);
  std::erase_if(m_subscribers, [&](const auto& subscriber) { return subscriber->GetLink().get() == &link; });
  return publications;
}

std::vector<std::shared_ptr<Link>> PublicationRegistry::Links() const {
  const std::lock_guard lock(m_mutex);
  return m_links;
}

void PublicationRegistry::AddSubscriber(const std::shared_ptr<Subscriber>& subscriber) {
  const std::lock_guard lock(m_publishing.mutex);
  m_subscribers.push_back(subscriber);
}

std::vector<std::uint32_t> PublicationRegistry::Flush(Subscriber& subscriber) {
  const std::lock_guard lock(m_publishing.mutex);
  return subscriber.Flush() ? subscriber.TakeBlocked() : std::vector<std::uint32_t>();
}

bool PublicationRegistry::FlushAll() {
  const std::lock_guard lock(m_publishing.mutex);
  bool all = true;
  for (const auto& subscriber : m_subscribers) {
    const bool another = subscriber->GetLink()->Kind() == LinkKind::kPeer;
    all = (!another || !subscriber->CheckReachable() || subscriber->Flush()) && all;
  }
  return all;
}

template <typename Selects>
void PublicationRegistry::SendToLinks(Bytes frame, Selects selects) {
  for (const auto& link : m_links) {
    if (link->Kind() != LinkKind::kSelfFinding && selects(*link)) {
      link->SendControl(frame);
    }
  }
}

}  // namespace engine::transport::host
