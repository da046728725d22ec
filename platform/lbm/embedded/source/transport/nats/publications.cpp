#include "transport/nats/publications.h"

#include <algorithm>
#include <bit>
#include <stdexcept>
#include <utility>

#include "transport/gather.h"
#include "transport/instance.h"

namespace engine::transport::nats {

namespace {

constexpr std::size_t kFragmentMax = std::size_t{256} << 10;  // bytes of a large message in one NATS message
constexpr std::size_t kOverhead = sizeof(wire::Prologue) + sizeof(wire::Data) + sizeof(wire::Frame) + 16;
constexpr std::size_t kAliveProgressMax = 1'000;  // in one message

// Repetitions come after 1, 2, 4, 8 and each further so many intervals.
constexpr std::int64_t kRepeatedTicks = 16;

std::size_t FrameSize(const OutboundMessage& message) {
  return sizeof(wire::Frame) + (message.requestId != 0 ? sizeof(message.requestId) : 0) +
         (message.channel ? sizeof(*message.channel) : 0);
}

}  // namespace

bool IsRepetitionDue(std::int64_t ticks) {
  return ticks % kRepeatedTicks == 0 ||
         (ticks < kRepeatedTicks && std::has_single_bit(static_cast<std::uint64_t>(ticks)));
}

std::int64_t SilentTicksMax(const NatsSettings& settings) {
  return std::max<std::int64_t>(settings.peerTimeout / settings.announcementInterval, 1);
}

PublicationTable::PublicationTable(const NatsSettings& settings, const Subjects& subjects, std::uint64_t instance,
                                   const std::string& identity, Outbox& outbox, zq::posix::Event& arrived)
    : m_settings(settings),
      m_subjects(subjects),
      m_instance(instance),
      m_identity(identity),
      m_outbox(outbox),
      m_arrived(arrived),
      m_silentTicksMax(SilentTicksMax(settings)) {}

std::shared_ptr<NatsPublication> PublicationTable::Advertise(const PublicationInfo& info, std::uint32_t id) {
  m_outbox.Prepare();
  const Outbox::Lock lock = m_outbox.Acquire();
  m_lastId = id != 0 ? id : m_lastId + 1;
  auto publication =
      std::make_shared<NatsPublication>(m_lastId, m_identity + ':' + std::to_string(m_lastId), info,
                                        m_subjects.Data(info.topic, m_instance, m_lastId), m_settings.firstSequence);
  if (publication->subject->size() > kSubjectMax) {
    throw std::invalid_argument("the topic \"" + info.topic.substr(0, 64) +
                                "...\" is too long: as a NATS subject it has " +
                                std::to_string(publication->subject->size()) + " bytes; at most " +
                                std::to_string(kSubjectMax) + " are possible");
  }
  m_publications.emplace(m_lastId, publication);
  return publication;
}

void PublicationTable::Announce(NatsPublication& publication) {
  Outbox::Lock lock = m_outbox.Acquire();
  PutAnnouncement(publication, m_subjects.Source(publication.info.topic));
  m_outbox.Send(std::move(lock));
}

void PublicationTable::PutAnnouncement(const NatsPublication& publication, std::string subject) {
  auto message = wire::Begin(wire::Kind::kAnnounce, m_instance);
  wire::AppendValue(message, wire::Announce{.place = m_settings.place,
                                            .source = publication.Id(),
                                            .identityLength = static_cast<std::uint16_t>(m_identity.size()),
                                            .topicLength = static_cast<std::uint16_t>(publication.info.topic.size())});
  wire::Append(message, m_identity);
  wire::Append(message, publication.info.topic);
  m_outbox.Put(std::move(subject), std::move(message));
}

void PublicationTable::PutProgress(wire::Kind kind, const NatsPublication& publication, std::string subject) {
  auto message = wire::Begin(kind, m_instance);
  wire::AppendValue(message, publication.GetProgress());
  m_outbox.Put(std::move(subject), std::move(message));
}

bool PublicationTable::Withdraw(NatsPublication& publication) {
  Outbox::Lock lock = m_outbox.Acquire();
  if (std::exchange(publication.withdrawn, true)) {
    return false;
  }
  if (publication.open != nullptr) {
    Outbox::Seal(*publication.open);
  }
  PutProgress(wire::Kind::kGone, publication, m_subjects.Source(publication.info.topic));
  publication.subscribers.clear();
  publication.wanted = false;
  m_publications.erase(publication.Id());
  m_outbox.Send(std::move(lock));
  return true;
}

std::vector<std::shared_ptr<NatsPublication>> PublicationTable::All() {
  const Outbox::Lock lock = m_outbox.Acquire();
  std::vector<std::shared_ptr<NatsPublication>> all;
  all.reserve(m_publications.size());
  for (const auto& [id, publication] : m_publications) {
    all.push_back(publication);
  }
  return all;
}

PublicationTable::Attempt PublicationTable::Try(NatsPublication& publication, const OutboundMessage& message,
                                                std::size_t& size) {
  if (m_outbox.Closed()) {
    return Attempt::kClosed;
  }
  size = MessageSize(message.pieces);
  if (publication.subscribers.empty()) {
    ++publication.next;
    CountSent(publication);
    return Attempt::kDone;
  }
  const bool hasRoom = HasRoomFor(publication, size);
  if (!hasRoom && publication.info.pacing == Pacing::kReceiver) {
    return Attempt::kNoRoom;
  }
  publication.quietTicks = 0;
  if (hasRoom) {
    AddMessage(publication, message, size);
  } else {
    CountDropped();
  }
  ++publication.next;
  CountSent(publication);
  return hasRoom ? Attempt::kAdded : Attempt::kDone;
}

void PublicationTable::CountSent(const NatsPublication& publication) noexcept {
  if (publication.info.statistics != nullptr) {
    publication.info.statistics->Serial().Add(source_field::kMessages);
  }
}

void PublicationTable::CountDropped() noexcept {
  m_outbox.Counters().Add(network_field::kDropped);
  m_settings.statistics->Counters().Add(context_field::kDropped);
}

SendResult PublicationTable::Conclude(Attempt attempt, Outbox::Lock lock) {
  if (attempt == Attempt::kAdded) {
    m_outbox.Send(std::move(lock));
  }
  return attempt == Attempt::kClosed ? SendResult::kClosed : SendResult::kSent;
}

bool PublicationTable::HasRoom(NatsPublication& publication, const OutboundMessage& message) {
  const Outbox::Lock lock = m_outbox.Acquire();
  if (publication.subscribers.empty() || HasRoomFor(publication, MessageSize(message.pieces))) {
    return true;
  }
  if (!publication.blocked) {
    m_settings.statistics->Counters().Add(context_field::kWaitsForRoom);
  }
  publication.blocked = true;
  m_someBlocked = true;
  return false;
}

bool PublicationTable::HasSubscriber(const NatsPublication& publication, std::string_view identity) {
  const Outbox::Lock lock = m_outbox.Acquire();
  return std::any_of(publication.subscribers.begin(), publication.subscribers.end(),
                     [&](const auto& subscriber) { return identity.ends_with(InstanceText(subscriber.first)); });
}

void PublicationTable::PublishRegardless(NatsPublication& publication, const OutboundMessage& message) {
  Outbox::Lock lock = m_outbox.Acquire();
  const std::size_t size = MessageSize(message.pieces);
  const bool hasRoom = publication.info.pacing == Pacing::kReceiver || HasRoomFor(publication, size);
  if (m_outbox.Closed() || publication.subscribers.empty()) {
    return;
  }
  publication.quietTicks = 0;
  if (hasRoom && m_outbox.Connected()) {
    AddMessage(publication, message, size);
  } else {
    CountDropped();
  }
  ++publication.next;
  m_outbox.Send(std::move(lock));
}

bool PublicationTable::HasRoomFor(const NatsPublication& publication, std::size_t size) const {
  if (!m_outbox.Connected() || !m_outbox.HasRoom(size)) {
    return false;
  }
  return publication.info.pacing == Pacing::kSource || publication.position == publication.slowest ||
         publication.position + size <= publication.slowest + m_settings.windowBytes;
}

std::size_t PublicationTable::FragmentMax() const noexcept {
  return std::min(kFragmentMax, m_outbox.MaxPayload() - kOverhead);
}

// Where the next frame of the size goes.
std::vector<std::byte>& PublicationTable::ParcelFor(NatsPublication& publication, std::size_t size) {
  if (publication.open != nullptr &&
      publication.open->bytes.size() + size > std::min(Outbox::kParcelBytes, m_outbox.MaxPayload())) {
    Outbox::Seal(*publication.open);
  }
  if (publication.open == nullptr) {
    std::vector<std::byte>& bytes = m_outbox.Open(publication.subject, &publication.open).bytes;
    wire::AppendValue(bytes, wire::Prologue{.kind = wire::Kind::kData, .instance = m_instance});
    wire::AppendValue(bytes, wire::Data{.position = publication.position,
                                        .source = publication.Id(),
                                        .audience = static_cast<std::uint32_t>(publication.subscribers.size())});
    m_outbox.Grew(bytes.size());
  }
  return publication.open->bytes;
}

void PublicationTable::AddMessage(NatsPublication& publication, const OutboundMessage& message, std::size_t size) {
  wire::Frame frame{.total = static_cast<std::uint32_t>(size), .sequence = publication.next};
  frame.flags = (message.requestId != 0 ? wire::kIsRequest : 0) | (message.channel ? wire::kHasChannel : 0);
  PieceCursor cursor(message.pieces);
  std::vector<iovec> fragment;
  std::size_t left = size;
  do {
    frame.size = static_cast<std::uint32_t>(std::min(left, FragmentMax()));
    const std::size_t frameSize = FrameSize(message) + frame.size;
    std::vector<std::byte>& bytes = ParcelFor(publication, frameSize);
    wire::AppendValue(bytes, frame);
    if (message.requestId != 0) {
      wire::AppendValue(bytes, message.requestId);
    }
    if (message.channel) {
      wire::AppendValue(bytes, *message.channel);
    }
    const std::size_t begin = bytes.size();
    bytes.resize(begin + frame.size);
    if (frame.size == size) {
      CopyPieces(message.pieces, bytes.data() + begin);
    } else {
      fragment.clear();
      cursor.Take(frame.size, message.pieces.size(), fragment);
      CopyPieces(fragment, bytes.data() + begin);
    }
    m_outbox.Grew(frameSize);
    publication.position += frameSize;
    left -= frame.size;
  } while (left > 0);
}

void PublicationTable::OnWant(std::uint64_t asker, std::uint32_t publication) {
  Outbox::Lock lock = m_outbox.Acquire();
  for (const auto& [id, one] : m_publications) {
    if (publication == 0 || publication == id) {
      PutAnnouncement(*one, m_subjects.Inbox(asker));
    }
  }
  m_outbox.Send(std::move(lock));
}

void PublicationTable::OnInterest(std::uint64_t instance, Bytes message) {
  const auto interest = wire::Take<wire::Interest>(message);
  const std::string_view name = wire::TakeText(message, interest.nameLength);
  Outbox::Lock lock = m_outbox.Acquire();
  for (std::uint32_t i = 0; i < interest.count; ++i) {
    OnSubscription(wire::Take<wire::Subscription>(message), instance, name);
  }
  m_outbox.Send(std::move(lock));
}

void PublicationTable::OnSubscription(const wire::Subscription& subscription, std::uint64_t instance,
                                      std::string_view name) {
  const auto found = m_publications.find(subscription.source);
  if (found == m_publications.end()) {
    if (subscription.token != 0) {
      auto message = wire::Begin(wire::Kind::kGone, m_instance);
      wire::AppendValue(message, wire::Progress{.source = subscription.source});
      m_outbox.Put(m_subjects.Inbox(instance), std::move(message));
    }
    return;
  }
  const auto publication = found->second;
  auto& subscribers = publication->subscribers;
  const auto known = subscribers.find(instance);
  if (known != subscribers.end() && known->second.token == subscription.token) {
    Subscriber& subscriber = known->second;
    subscriber.silentTicks = 0;
    if (subscription.accepted == 0) {
      PutAcceptance(*publication, instance, subscriber);  // the first one was lost on its way
      return;
    }
    const bool wasSlowest = subscriber.consumed == publication->slowest;
    subscriber.consumed = std::max(subscriber.consumed, std::min(subscription.position, publication->position));
    if (wasSlowest && publication->info.pacing == Pacing::kReceiver) {
      Credited(publication);
    }
    return;
  }
  if (known != subscribers.end()) {
    Leave(publication, known);
  }
  if (subscription.token != 0) {
    Join(publication, instance,
         {.token = subscription.token,
          .beginning = publication->GetProgress(),
          .consumed = publication->position,
          .name = std::string(name)});
  }
}

void PublicationTable::Join(const std::shared_ptr<NatsPublication>& publication, std::uint64_t instance,
                            Subscriber subscriber) {
  if (publication->open != nullptr) {
    Outbox::Seal(*publication->open);  // what it has begun with is not for the newcomer, what comes now is
  }
  PutAcceptance(*publication, instance, subscriber);
  Note(NewsKind::kJoined, publication, subscriber.name);
  if (publication->subscribers.empty()) {
    publication->slowest = publication->position;
  }
  publication->subscribers.emplace(instance, std::move(subscriber));
  publication->wanted = true;
}

void PublicationTable::PutAcceptance(const NatsPublication& publication, std::uint64_t instance,
                                     const Subscriber& subscriber) {
  const bool credits = publication.info.pacing == Pacing::kReceiver;
  auto message = wire::Begin(wire::Kind::kAccept, m_instance);
  wire::AppendValue(message, wire::Accept{.progress = subscriber.beginning,
                                          .token = subscriber.token,
                                          .creditBytes = static_cast<std::uint32_t>(
                                              credits ? std::max<std::size_t>(m_settings.windowBytes / 4, 1) : 0)});
  m_outbox.Put(m_subjects.Inbox(instance), std::move(message));
}

PublicationTable::Subscribers::iterator PublicationTable::Leave(const std::shared_ptr<NatsPublication>& publication,
                                                                Subscribers::iterator subscriber) {
  Note(NewsKind::kLeft, publication, std::move(subscriber->second.name));
  const auto next = publication->subscribers.erase(subscriber);
  publication->wanted = !publication->subscribers.empty();
  Credited(publication);
  return next;
}

// After a subscriber has consumed something, or left.
void PublicationTable::Credited(const std::shared_ptr<NatsPublication>& publication) {
  publication->slowest = publication->position;
  for (const auto& [instance, subscriber] : publication->subscribers) {
    publication->slowest = std::min(publication->slowest, subscriber.consumed);
  }
  WakeBlocked();
  m_outbox.NoteRoom();
}

void PublicationTable::WakeBlocked() {
  if (!m_someBlocked) {
    return;
  }
  m_someBlocked = false;
  for (const auto& [id, publication] : m_publications) {
    if (!publication->blocked) {
      continue;
    }
    if (publication->subscribers.empty() || HasRoomFor(*publication, 1)) {
      publication->blocked = false;
      Note(NewsKind::kWritable, publication, {});
    } else {
      m_someBlocked = true;
    }
  }
}

void PublicationTable::Note(NewsKind kind, const std::shared_ptr<NatsPublication>& publication, std::string name) {
  m_news.push_back({kind, publication, std::move(name)});
  m_arrived.Notify();
}

void PublicationTable::Connected() {
  Outbox::Lock lock = m_outbox.Acquire();
  for (const auto& [id, publication] : m_publications) {
    publication->announcedTicks = 0;
    publication->quietTicks = 0;
    PutAnnouncement(*publication, m_subjects.Source(publication->info.topic));
  }
  PutAlive();
  m_outbox.Send(std::move(lock));
}

void PublicationTable::Tick() {
  Outbox::Lock lock = m_outbox.Acquire();
  for (const auto& [id, publication] : m_publications) {
    ++publication->quietTicks;
    if (IsRepetitionDue(++publication->announcedTicks)) {
      PutAnnouncement(*publication, m_subjects.Source(publication->info.topic));
    }
    for (auto subscriber = publication->subscribers.begin(); subscriber != publication->subscribers.end();) {
      const bool silent = ++subscriber->second.silentTicks > m_silentTicksMax;
      subscriber = silent ? Leave(publication, subscriber) : std::next(subscriber);
    }
  }
  WakeBlocked();
  PutAlive();
  m_outbox.Send(std::move(lock));
}

void PublicationTable::Written() {
  const Outbox::Lock lock = m_outbox.Acquire();
  WakeBlocked();
}

// A sign of life, and how far those sources have come of which nothing was sent lately: what was lost last is noticed.
void PublicationTable::PutAlive() {
  if (m_publications.empty()) {
    return;
  }
  std::vector<wire::Progress> quiet;
  for (const auto& [id, publication] : m_publications) {
    if (!publication->subscribers.empty() && publication->quietTicks <= m_silentTicksMax + 1) {
      if (publication->open != nullptr) {
        Outbox::Seal(*publication->open);
      }
      quiet.push_back(publication->GetProgress());
    }
  }
  std::size_t said = 0;
  do {
    const std::size_t count = std::min(quiet.size() - said, kAliveProgressMax);
    auto message = wire::Begin(wire::Kind::kAlive, m_instance);
    wire::Append(message, std::as_bytes(std::span(quiet).subspan(said, count)));
    m_outbox.Put(m_subjects.Alive(m_instance), std::move(message));
    said += count;
  } while (said < quiet.size());
}

void PublicationTable::SayGoodbye() {
  Outbox::Lock lock = m_outbox.Acquire();
  m_outbox.Put(m_subjects.Alive(m_instance), wire::Begin(wire::Kind::kBye, m_instance));
  m_outbox.Send(std::move(lock));
}

bool PublicationTable::HasNews() {
  const Outbox::Lock lock = m_outbox.Acquire();
  return !m_news.empty();
}

std::size_t PublicationTable::Report(Listener& listener) {
  std::vector<News> news;
  {
    const Outbox::Lock lock = m_outbox.Acquire();
    news.swap(m_news);
  }
  for (const News& one : news) {
    {
      const Outbox::Lock lock = m_outbox.Acquire();
      if (one.publication->withdrawn) {
        continue;
      }
    }
    switch (one.kind) {
      case NewsKind::kJoined:
        listener.OnSubscriberJoined(*one.publication, one.name);
        break;
      case NewsKind::kLeft:
        listener.OnSubscriberLeft(*one.publication, one.name);
        break;
      case NewsKind::kWritable:
        listener.OnWritable(*one.publication);
        break;
    }
  }
  return news.size();
}

}  // namespace engine::transport::nats
