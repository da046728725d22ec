#include "transport/host/publications.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "transport/gather.h"

namespace engine::transport::host {

HostPublication::HostPublication(std::uint32_t id, std::string session, PublicationInfo info, std::string key,
                                 std::uint32_t firstSequence, Publishing& publishing)
    : Publication(id, std::move(session)),
      m_info(std::move(info)),
      m_key(std::move(key)),
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

bool HostPublication::HasSubscriber(std::string_view identity) const {
  const std::lock_guard lock(m_mutex);
  return std::any_of(m_subscribers.begin(), m_subscribers.end(),
                     [&](const auto& subscriber) { return subscriber->Identity() == identity; });
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

bool HostPublication::RemoveSubscriber(const Link& link) noexcept {
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

std::vector<std::shared_ptr<Subscriber>> HostPublication::Withdraw() noexcept {
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

std::shared_ptr<HostPublication> PublicationRegistry::Advertise(const PublicationInfo& info, std::string key) {
  if (info.topic.size() > kNameMax) {
    throw std::invalid_argument("the topic \"" + info.topic.substr(0, 64) + "...\" has " +
                                std::to_string(info.topic.size()) + " bytes; at most " + std::to_string(kNameMax) +
                                " are possible");
  }
  const std::lock_guard lock(m_mutex);
  const std::uint32_t id = ++m_lastId;
  auto publication = std::make_shared<HostPublication>(id, wire::SourceSession(m_identity, id), info, std::move(key),
                                                       m_firstSequence, m_publishing);
  const auto place = m_publications.emplace(id, Advertised{publication}).first;
  try {
    m_byTopic[info.topic].push_back(id);
  } catch (...) {
    m_publications.erase(place);
    if (const auto ofTopic = m_byTopic.find(info.topic); ofTopic != m_byTopic.end() && ofTopic->second.empty()) {
      m_byTopic.erase(ofTopic);
    }
    throw;
  }
  return publication;
}

bool PublicationRegistry::Withdraw(HostPublication& publication) noexcept {
  Links told;
  {
    // First, so that no advertisement can follow the withdrawal on a link.
    const std::lock_guard lock(m_mutex);
    const auto found = m_publications.find(publication.Id());
    if (found != m_publications.end()) {
      told = std::move(found->second.told);
      m_publications.erase(found);
      const auto ofTopic = m_byTopic.find(publication.Info().topic);
      std::erase(ofTopic->second, publication.Id());
      if (ofTopic->second.empty()) {
        m_byTopic.erase(ofTopic);
      }
    } else {
      return false;
    }
  }
  const auto subscribers = publication.Withdraw();
  wire::Withdraw frame;
  frame.source = publication.Id();
  for (const auto& link : told) {
    if (std::none_of(subscribers.begin(), subscribers.end(),
                     [&](const auto& subscriber) { return subscriber->GetLink() == link; })) {
      link->SendControl(wire::BytesOf(frame));
    }
  }
  return true;
}

void PublicationRegistry::WithdrawAll() {
  HostPublications publications;
  {
    const std::lock_guard lock(m_mutex);
    for (const auto& [id, advertised] : m_publications) {
      publications.push_back(advertised.publication);
    }
  }
  for (const auto& publication : publications) {
    Withdraw(*publication);
  }
}

std::shared_ptr<HostPublication> PublicationRegistry::Find(std::uint32_t id) const {
  const std::lock_guard lock(m_mutex);
  const auto found = m_publications.find(id);
  return found == m_publications.end() ? nullptr : found->second.publication;
}

std::vector<std::uint32_t> PublicationRegistry::Of(const std::string& topic) const {
  const std::lock_guard lock(m_mutex);
  const auto found = m_byTopic.find(topic);
  return found == m_byTopic.end() ? std::vector<std::uint32_t>() : found->second;
}

std::vector<std::uint32_t> PublicationRegistry::All() const {
  const std::lock_guard lock(m_mutex);
  std::vector<std::uint32_t> ids;
  ids.reserve(m_publications.size());
  for (const auto& [id, advertised] : m_publications) {
    ids.push_back(id);
  }
  std::sort(ids.begin(), ids.end());  // in the order in which they came
  return ids;
}

void PublicationRegistry::Attach(const std::shared_ptr<Link>& link, Bytes hello) {
  const std::lock_guard lock(m_mutex);
  link->SendControl(hello);
  m_links.push_back(link);
}

void PublicationRegistry::Offer(const std::shared_ptr<Link>& link, std::span<const std::uint32_t> ids) {
  const auto send = [&](Bytes packet) { link->SendControl(packet); };
  wire::TopicBatch batch(wire::Type::kAdvertise);
  const std::lock_guard lock(m_mutex);
  if (std::find(m_links.begin(), m_links.end(), link) == m_links.end()) {
    return;  // nobody would forget it
  }
  for (const std::uint32_t id : ids) {
    const auto found = m_publications.find(id);
    if (found == m_publications.end()) {
      continue;  // withdrawn meanwhile
    }
    Links& told = found->second.told;
    if (std::find(told.begin(), told.end(), link) == told.end()) {
      told.push_back(link);
    }
    batch.Add(id, found->second.publication->Info().topic, send);
  }
  batch.Finish(send);
}

void PublicationRegistry::OfferAll(const std::shared_ptr<Link>& link) {
  {
    const std::lock_guard lock(m_mutex);
    const auto holds = [&](const Links& links) { return std::find(links.begin(), links.end(), link) != links.end(); };
    if (holds(m_links) && !holds(m_watchersOfAll)) {
      m_watchersOfAll.push_back(link);
    }
  }
  Offer(link, All());
}

void PublicationRegistry::OfferToWatchersOfAll(std::uint32_t id) {
  Links watchers;
  {
    const std::lock_guard lock(m_mutex);
    watchers = m_watchersOfAll;
  }
  for (const auto& link : watchers) {
    Offer(link, {&id, 1});
  }
}

void PublicationRegistry::Detach(const Link& link) noexcept {
  const auto isOf = [&](const std::shared_ptr<Link>& other) { return other.get() == &link; };
  {
    const std::lock_guard lock(m_mutex);
    std::erase_if(m_links, isOf);
    std::erase_if(m_watchersOfAll, isOf);
    for (auto& [id, advertised] : m_publications) {
      std::erase_if(advertised.told, isOf);
    }
  }
  const std::lock_guard lock(m_publishing.mutex);
  std::erase_if(m_subscribers, [&](const auto& subscriber) { return subscriber->GetLink().get() == &link; });
}

void PublicationRegistry::CloseLinks() noexcept {
  const std::lock_guard lock(m_mutex);
  for (const auto& link : m_links) {
    link->Close();
  }
}

PublicationRegistry::Links PublicationRegistry::Attached() const {
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

}  // namespace engine::transport::host
