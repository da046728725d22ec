#include "transport/host/publications.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "transport/host/pieces.h"

namespace engine::transport::host {

HostPublication::HostPublication(std::uint32_t id, PublicationInfo info, std::uint32_t firstSequence,
                                 PublishingMutex& mutex)
    : m_id(id), m_info(std::move(info)), m_mutex(mutex), m_nextSequence(firstSequence) {}

SendResult HostPublication::publish(const OutboundMessage& message, bool mayWait, const std::atomic<bool>& closed) {
  wire::FragmentHeader header;
  header.source = m_id;
  header.request = message.requestId;
  header.total = messageSize(message.pieces);
  if (message.channel) {
    header.flags = wire::kHasChannel;
    header.channel = *message.channel;
  }
  for (;;) {
    std::shared_ptr<DataSender> full;
    std::uint32_t told = 0;
    {
      const std::lock_guard lock(m_mutex);
      if (closed) {
        return SendResult::closed;
      }
      if (m_info.pacing == Pacing::receiver && !subscribersKnowOfRoom(header.total)) {
        full = askForRoom(header.total, told);
      }
      if (full == nullptr) {
        header.sequence = m_nextSequence++;
        for (const auto& subscriber : m_subscribers) {
          subscriber->sendOrDrop(header, message.pieces);
        }
        return SendResult::sent;
      }
      if (!mayWait) {
        if (!m_waiting.load()) {
          full->notifyOfRoom(m_id);
          m_waiting.store(true);
        }
        return SendResult::wouldBlock;
      }
    }
    full->awaitRoom(told);
  }
}

bool HostPublication::subscribersKnowOfRoom(std::size_t bytes) const noexcept {
  return std::all_of(m_subscribers.begin(), m_subscribers.end(),
                     [&](const auto& subscriber) { return subscriber->knowsOfRoom(bytes); });
}

// A subscriber without room, which was asked to tell of it; told: as DataSender::wantRoom() returned it. Null when all
// have room.
std::shared_ptr<DataSender> HostPublication::askForRoom(std::size_t bytes, std::uint32_t& told) const {
  std::shared_ptr<DataSender> full = fullSubscriber(bytes);
  // Looked at once more after the wish: it may have made room before, which it would not tell of.
  for (std::shared_ptr<DataSender> asked; full != nullptr && full != asked; full = fullSubscriber(bytes)) {
    told = full->wantRoom();
    asked = full;
  }
  return full;
}

std::shared_ptr<DataSender> HostPublication::fullSubscriber(std::size_t bytes) const {
  const auto found = std::find_if(m_subscribers.begin(), m_subscribers.end(),
                                  [&](const auto& subscriber) { return !subscriber->hasRoom(bytes); });
  return found == m_subscribers.end() ? nullptr : *found;
}

bool HostPublication::addSubscriber(const std::shared_ptr<DataSender>& sender, std::uint32_t token) {
  const std::lock_guard lock(m_mutex);
  if (m_withdrawn) {
    return false;
  }
  if (std::find(m_subscribers.begin(), m_subscribers.end(), sender) != m_subscribers.end()) {
    throw Fault("it subscribed twice to one source");
  }
  sender->subscribed(m_id, token, m_nextSequence);
  m_subscribers.push_back(sender);
  return true;
}

bool HostPublication::removeSubscriber(const Link& link) {
  const std::lock_guard lock(m_mutex);
  const auto found = std::find_if(m_subscribers.begin(), m_subscribers.end(),
                                  [&](const auto& subscriber) { return subscriber->link().get() == &link; });
  if (found == m_subscribers.end()) {
    return false;
  }
  (*found)->unsubscribed(m_id);
  m_subscribers.erase(found);
  return true;
}

std::vector<std::shared_ptr<DataSender>> HostPublication::withdraw() {
  const std::lock_guard lock(m_mutex);
  m_withdrawn = true;
  for (const auto& subscriber : m_subscribers) {
    subscriber->withdrawn(m_id);
  }
  return std::exchange(m_subscribers, {});
}

bool HostPublication::withdrawn() const {
  const std::lock_guard lock(m_mutex);
  return m_withdrawn;
}

std::shared_ptr<HostPublication> PublicationRegistry::advertise(const PublicationInfo& info) {
  for (const std::string* name : {&info.topic, &info.session}) {
    if (name->size() > wire::kNameMax) {
      throw std::runtime_error("the name \"" + name->substr(0, 64) + "...\" has " + std::to_string(name->size()) +
                               " bytes; at most " + std::to_string(wire::kNameMax) + " are possible");
    }
  }
  const std::lock_guard lock(m_mutex);
  auto publication = std::make_shared<HostPublication>(m_nextId++, info, m_firstSequence, m_publishing);
  m_publications.emplace(publication->id(), publication);
  wire::AdvertiseBatch batch;
  batch.add(publication->id(), info.topic, info.session);
  announce(batch.frame(), [](const Link&) { return true; });
  return publication;
}

void PublicationRegistry::withdraw(HostPublication& publication) {
  // First, so that nothing of the publication can follow its withdrawal on a link.
  const auto told = publication.withdraw();
  const std::lock_guard lock(m_mutex);
  if (m_publications.erase(publication.id()) != 0) {
    wire::Withdraw frame;
    frame.source = publication.id();
    announce(wire::bytesOf(frame), [&](const Link& link) {
      return std::none_of(told.begin(), told.end(), [&](const auto& sender) { return sender->link().get() == &link; });
    });
  }
}

void PublicationRegistry::withdrawAll() {
  HostPublications publications;
  {
    const std::lock_guard lock(m_mutex);
    for (const auto& [id, publication] : m_publications) {
      publications.push_back(publication);
    }
  }
  for (const auto& publication : publications) {
    withdraw(*publication);
  }
}

std::shared_ptr<HostPublication> PublicationRegistry::find(std::uint32_t id) const {
  const std::lock_guard lock(m_mutex);
  const auto found = m_publications.find(id);
  return found == m_publications.end() ? nullptr : found->second;
}

void PublicationRegistry::attach(const std::shared_ptr<Link>& link, wire::Bytes greeting) {
  const std::lock_guard lock(m_mutex);
  link->sendControl(greeting);
  if (link->kind() != LinkKind::selfFinding) {
    wire::AdvertiseBatch batch;
    for (const auto& [id, publication] : m_publications) {
      const PublicationInfo& info = publication->info();
      if (!batch.add(id, info.topic, info.session)) {
        link->sendControl(batch.frame());
        batch.clear();
        batch.add(id, info.topic, info.session);
      }
    }
    if (!batch.empty()) {
      link->sendControl(batch.frame());
    }
  }
  m_links.push_back(link);
}

HostPublications PublicationRegistry::detach(const Link& link) {
  HostPublications publications;
  {
    const std::lock_guard lock(m_mutex);
    std::erase_if(m_links, [&](const auto& attached) { return attached.get() == &link; });
    for (const auto& [id, publication] : m_publications) {
      publications.push_back(publication);
    }
  }
  std::erase_if(publications, [&](const auto& publication) { return !publication->removeSubscriber(link); });
  const std::lock_guard lock(m_publishing);
  std::erase_if(m_senders, [&](const auto& sender) { return sender->link().get() == &link; });
  return publications;
}

std::vector<std::shared_ptr<Link>> PublicationRegistry::links() const {
  const std::lock_guard lock(m_mutex);
  return m_links;
}

void PublicationRegistry::addSender(const std::shared_ptr<DataSender>& sender) {
  const std::lock_guard lock(m_publishing);
  m_senders.push_back(sender);
}

std::vector<std::uint32_t> PublicationRegistry::flush(DataSender& sender) {
  const std::lock_guard lock(m_publishing);
  return sender.flush() ? sender.takeWaiting() : std::vector<std::uint32_t>();
}

bool PublicationRegistry::flushSenders() {
  const std::lock_guard lock(m_publishing);
  bool all = true;
  for (const auto& sender : m_senders) {
    all = (sender->link()->kind() != LinkKind::peer || !sender->withinReach() || sender->flush()) && all;
  }
  return all;
}

template <typename Selects>
void PublicationRegistry::announce(wire::Bytes frame, Selects selects) {
  for (const auto& link : m_links) {
    if (link->kind() != LinkKind::selfFinding && selects(*link)) {
      link->sendControl(frame);
    }
  }
}

}  // namespace engine::transport::host
