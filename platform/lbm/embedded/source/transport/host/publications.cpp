#include "transport/host/publications.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "transport/host/pieces.h"

namespace engine::transport::host {

HostPublication::HostPublication(std::uint32_t id, PublicationInfo info, std::uint32_t firstSequence,
                                 PublishingMutex& mutex)
    : m_id(id), m_info(std::move(info)), m_mutex(mutex), m_nextSequence(firstSequence) {}

SendResult HostPublication::Publish(const OutboundMessage& message, bool mayWait, const std::atomic<bool>& closed) {
  wire::FragmentHeader header;
  header.source = m_id;
  header.request = message.requestId;
  header.total = MessageSize(message.pieces);
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
        return SendResult::kClosed;
      }
      if (m_info.pacing == Pacing::kReceiver && !SubscribersKnowOfRoom(header.total)) {
        full = AskForRoom(header.total, told);
      }
      if (full == nullptr) {
        header.sequence = m_nextSequence++;
        for (const auto& subscriber : m_subscribers) {
          subscriber->SendOrDrop(header, message.pieces);
        }
        return SendResult::kSent;
      }
      if (!mayWait) {
        if (!m_waiting.load()) {
          full->NotifyOfRoom(m_id);
          m_waiting.store(true);
        }
        return SendResult::kWouldBlock;
      }
    }
    full->AwaitRoom(told);
  }
}

bool HostPublication::SubscribersKnowOfRoom(std::size_t bytes) const noexcept {
  return std::all_of(m_subscribers.begin(), m_subscribers.end(),
                     [&](const auto& subscriber) { return subscriber->KnowsOfRoom(bytes); });
}

// A subscriber without room, which was asked to tell of it; told: as DataSender::wantRoom() returned it. Null when all
// have room.
std::shared_ptr<DataSender> HostPublication::AskForRoom(std::size_t bytes, std::uint32_t& told) const {
  std::shared_ptr<DataSender> full = FullSubscriber(bytes);
  // Looked at once more after the wish: it may have made room before, which it would not tell of.
  for (std::shared_ptr<DataSender> asked; full != nullptr && full != asked; full = FullSubscriber(bytes)) {
    told = full->WantRoom();
    asked = full;
  }
  return full;
}

std::shared_ptr<DataSender> HostPublication::FullSubscriber(std::size_t bytes) const {
  const auto found = std::find_if(m_subscribers.begin(), m_subscribers.end(),
                                  [&](const auto& subscriber) { return !subscriber->HasRoom(bytes); });
  return found == m_subscribers.end() ? nullptr : *found;
}

bool HostPublication::AddSubscriber(const std::shared_ptr<DataSender>& sender, std::uint32_t token) {
  const std::lock_guard lock(m_mutex);
  if (m_withdrawn) {
    return false;
  }
  if (std::find(m_subscribers.begin(), m_subscribers.end(), sender) != m_subscribers.end()) {
    throw Fault("it subscribed twice to one source");
  }
  sender->Subscribed(m_id, token, m_nextSequence);
  m_subscribers.push_back(sender);
  return true;
}

bool HostPublication::RemoveSubscriber(const Link& link) {
  const std::lock_guard lock(m_mutex);
  const auto found = std::find_if(m_subscribers.begin(), m_subscribers.end(),
                                  [&](const auto& subscriber) { return subscriber->GetLink().get() == &link; });
  if (found == m_subscribers.end()) {
    return false;
  }
  (*found)->Unsubscribed(m_id);
  m_subscribers.erase(found);
  return true;
}

std::vector<std::shared_ptr<DataSender>> HostPublication::Withdraw() {
  const std::lock_guard lock(m_mutex);
  m_withdrawn = true;
  for (const auto& subscriber : m_subscribers) {
    subscriber->Withdrawn(m_id);
  }
  return std::exchange(m_subscribers, {});
}

bool HostPublication::Withdrawn() const {
  const std::lock_guard lock(m_mutex);
  return m_withdrawn;
}

std::shared_ptr<HostPublication> PublicationRegistry::Advertise(const PublicationInfo& info) {
  for (const std::string* name : {&info.topic, &info.session}) {
    if (name->size() > wire::kNameMax) {
      throw std::runtime_error("the name \"" + name->substr(0, 64) + "...\" has " + std::to_string(name->size()) +
                               " bytes; at most " + std::to_string(wire::kNameMax) + " are possible");
    }
  }
  const std::lock_guard lock(m_mutex);
  auto publication = std::make_shared<HostPublication>(m_nextId++, info, m_firstSequence, m_publishing);
  m_publications.emplace(publication->Id(), publication);
  wire::AdvertiseBatch batch;
  batch.Add(publication->Id(), info.topic, info.session);
  Announce(batch.Frame(), [](const Link&) { return true; });
  return publication;
}

void PublicationRegistry::Withdraw(HostPublication& publication) {
  // First, so that nothing of the publication can follow its withdrawal on a link.
  const auto told = publication.Withdraw();
  const std::lock_guard lock(m_mutex);
  if (m_publications.erase(publication.Id()) != 0) {
    wire::Withdraw frame;
    frame.source = publication.Id();
    Announce(wire::BytesOf(frame), [&](const Link& link) {
      return std::none_of(told.begin(), told.end(),
                          [&](const auto& sender) { return sender->GetLink().get() == &link; });
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

void PublicationRegistry::Attach(const std::shared_ptr<Link>& link, wire::Bytes greeting) {
  const std::lock_guard lock(m_mutex);
  link->SendControl(greeting);
  if (link->Kind() != LinkKind::kSelfFinding) {
    wire::AdvertiseBatch batch;
    for (const auto& [id, publication] : m_publications) {
      const PublicationInfo& info = publication->Info();
      if (!batch.Add(id, info.topic, info.session)) {
        link->SendControl(batch.Frame());
        batch.Clear();
        batch.Add(id, info.topic, info.session);
      }
    }
    if (!batch.Empty()) {
      link->SendControl(batch.Frame());
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
  const std::lock_guard lock(m_publishing);
  std::erase_if(m_senders, [&](const auto& sender) { return sender->GetLink().get() == &link; });
  return publications;
}

std::vector<std::shared_ptr<Link>> PublicationRegistry::Links() const {
  const std::lock_guard lock(m_mutex);
  return m_links;
}

void PublicationRegistry::AddSender(const std::shared_ptr<DataSender>& sender) {
  const std::lock_guard lock(m_publishing);
  m_senders.push_back(sender);
}

std::vector<std::uint32_t> PublicationRegistry::Flush(DataSender& sender) {
  const std::lock_guard lock(m_publishing);
  return sender.Flush() ? sender.TakeWaiting() : std::vector<std::uint32_t>();
}

bool PublicationRegistry::FlushSenders() {
  const std::lock_guard lock(m_publishing);
  bool all = true;
  for (const auto& sender : m_senders) {
    all = (sender->GetLink()->Kind() != LinkKind::kPeer || !sender->WithinReach() || sender->Flush()) && all;
  }
  return all;
}

template <typename Selects>
void PublicationRegistry::Announce(wire::Bytes frame, Selects selects) {
  for (const auto& link : m_links) {
    if (link->Kind() != LinkKind::kSelfFinding && selects(*link)) {
      link->SendControl(frame);
    }
  }
}

}  // namespace engine::transport::host
