#include "transport/host/publications.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace engine::transport::host {

HostPublication::HostPublication(std::uint32_t id, PublicationInfo info, std::uint32_t firstSequence)
    : m_id(id), m_info(std::move(info)), m_nextSequence(firstSequence) {}

SendResult HostPublication::publish(const OutboundMessage& message, bool mayWait, const std::atomic<bool>& closed) {
  wire::DataHeader header;
  header.source = m_id;
  header.request = message.requestId;
  header.total = messageSize(message.pieces);
  if (message.channel) {
    header.flags = wire::kHasChannel;
    header.channel = *message.channel;
  }
  for (;;) {
    std::shared_ptr<Link> full;
    {
      const std::lock_guard lock(m_mutex);
      if (closed) {
        return SendResult::wouldBlock;
      }
      if (m_info.pacing == Pacing::receiver) {
        const auto found = std::find_if(m_subscribers.begin(), m_subscribers.end(),
                                        [&](const auto& link) { return !link->hasRoom(header.total); });
        if (found != m_subscribers.end()) {
          full = *found;
        }
      }
      if (!full) {
        header.sequence = m_nextSequence++;
        for (const auto& link : m_subscribers) {
          if (m_info.pacing == Pacing::receiver) {
            link->sendMessage(header, message.pieces);
          } else {
            link->sendMessageOrDrop(header, message.pieces);
          }
        }
        return SendResult::sent;
      }
      if (!mayWait) {
        if (m_waiting.exchange(true) || full->notifyWhenIdle(m_id)) {
          return SendResult::wouldBlock;
        }
        m_waiting = false;
      }
    }
    if (mayWait) {
      full->awaitWritable();
    }
  }
}

bool HostPublication::addSubscriber(const std::shared_ptr<Link>& link, std::uint32_t token) {
  const std::lock_guard lock(m_mutex);
  if (m_withdrawn) {
    return false;
  }
  if (std::find(m_subscribers.begin(), m_subscribers.end(), link) != m_subscribers.end()) {
    throw wire::Fault("it subscribed twice to one source");
  }
  m_subscribers.push_back(link);
  wire::Subscribed answer;
  answer.source = m_id;
  answer.token = token;
  answer.nextSequence = m_nextSequence;
  link->sendControl(wire::bytesOf(answer));
  return true;
}

bool HostPublication::removeSubscriber(const Link& link) {
  const std::lock_guard lock(m_mutex);
  return std::erase_if(m_subscribers, [&](const auto& subscriber) { return subscriber.get() == &link; }) > 0;
}

void HostPublication::markWithdrawn() {
  const std::lock_guard lock(m_mutex);
  m_withdrawn = true;
  m_subscribers.clear();
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
  auto publication = std::make_shared<HostPublication>(m_nextId++, info, m_firstSequence);
  m_publications.emplace(publication->id(), publication);
  wire::AdvertiseBatch batch;
  batch.add(publication->id(), info.topic, info.session);
  announce(batch.frame());
  return publication;
}

void PublicationRegistry::withdraw(HostPublication& publication) {
  // First, so that nothing of the publication can follow its withdrawal on a link.
  publication.markWithdrawn();
  const std::lock_guard lock(m_mutex);
  if (m_publications.erase(publication.id()) != 0) {
    wire::Withdraw frame;
    frame.source = publication.id();
    announce(wire::bytesOf(frame));
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
  return publications;
}

std::vector<std::shared_ptr<Link>> PublicationRegistry::links() const {
  const std::lock_guard lock(m_mutex);
  return m_links;
}

void PublicationRegistry::announce(wire::Bytes frame) {
  for (const auto& link : m_links) {
    if (link->kind() != LinkKind::selfFinding) {
      link->sendControl(frame);
    }
  }
}

}  // namespace engine::transport::host
