#include "transport/host/peer.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <utility>
#include <vector>

#include "transport/fault.h"
#include "transport/instance.h"

namespace engine::transport::host {

namespace {

// Subscriptions of a peer beyond those to present publications, before the others are forgotten.
constexpr std::size_t kSubscriptionsKept = 64;

}  // namespace

std::string Peer::Description() const {
  if (!m_greeted) {
    return "a context that has not introduced itself";
  }
  return "context \"" + m_greeting.name + "\" (process " + std::to_string(m_greeting.process) + ", instance " +
         InstanceText(m_greeting.instance) + ")";
}

std::string Peer::Label() const {
  return m_greeting.name.empty() ? m_identity : m_greeting.name + " (" + m_identity + ")";
}

void Peer::Handle(Link::Arrival arrival, Listener& listener) {
  const Bytes frame = arrival.frame;
  if (!m_greeted) {
    return OnHello(frame);
  }
  switch (wire::TypeOf(frame)) {
    case wire::Type::kWant:
      return OnWant(frame);
    case wire::Type::kWantAll:
      return m_surroundings.publications.OfferAll(m_advertising);
    case wire::Type::kAdvertise:
      return OnAdvertise(frame, listener);
    case wire::Type::kWithdraw:
      return OnWithdrawn(wire::Decode<wire::Withdraw>(frame).source, listener);
    case wire::Type::kSubscribe:
      return OnSubscribe(wire::Decode<wire::Subscribe>(frame), listener);
    case wire::Type::kUnsubscribe:
      return OnUnsubscribe(wire::Decode<wire::Unsubscribe>(frame), listener);
    case wire::Type::kResponse:
      return OnResponse(frame, listener);
    case wire::Type::kParkingWord:
      return OnParkingWord(arrival.descriptor);
    case wire::Type::kRing:
      return OnRing(Pacing::kSource, arrival.descriptor);
    case wire::Type::kPacedRing:
      return OnRing(Pacing::kReceiver, arrival.descriptor);
    case wire::Type::kDoorbell:
      return;  // the arrival itself is the wake-up
    case wire::Type::kCredit:
      for (const auto& subscriber : m_subscribers) {
        if (subscriber) {
          TellWritable(m_surroundings.publications.Flush(*subscriber), listener);
        }
      }
      return;
    default:
      throw Fault("a frame has no known type");
  }
}

std::size_t Peer::ConsumeRings(Quota quota, Listener& listener) {
  std::size_t frames = 0;
  for (auto& inbound : m_inbound) {
    if (inbound) {
      frames += ConsumeRing(*inbound, quota, listener);
    }
  }
  return frames;
}

std::size_t Peer::ConsumeRing(InboundRing& inbound, Quota quota, Listener& listener) {
  RingConsumer<RingCursor>& ring = inbound.ring;
  inbound.stalled = false;
  std::size_t frames = 0;
  if (ring.Poll()) {
    const bool asks = inbound.pacing == Pacing::kReceiver && !quota.untaken && listener.MayRefuse();
    RingFrame frame;
    std::size_t bytes = 0;
    while (frames < quota.frames && bytes < quota.bytes && !m_surroundings.closed.load(std::memory_order_relaxed) &&
           ring.Next(frame)) {
      if (asks && !Takes(frame, listener)) {
        ring.PutBack();
        inbound.stalled = true;
        break;
      }
      ++frames;
      bytes += frame.content.size();
      OnDataFrame(inbound, frame, listener);
    }
  }
  if (ring.Release()) {
    std::atomic<std::uint32_t>& word = ring.GrantCredit();
    ::syscall(SYS_futex, &word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
    m_link->SendSignal(wire::Type::kCredit);
  }
  return frames;
}

bool Peer::RingsHaveWork() noexcept {
  return std::any_of(m_inbound.begin(), m_inbound.end(), [](auto& inbound) {
    return inbound && !inbound->stalled && (inbound->ring.Poll() || inbound->ring.CreditDue());
  });
}

void Peer::EndUnwatched(Listener& listener) {
  std::vector<std::uint32_t> unwatched;
  for (const auto& [id, source] : m_sources) {
    if (!m_surroundings.introductions.Watches(source->Topic())) {
      unwatched.push_back(id);
    }
  }
  for (const std::uint32_t id : unwatched) {
    OnWithdrawn(id, listener);
  }
}

void Peer::SetCalled(const std::string& name) {
  m_called = true;
  SetFileName(name);
}

bool Peer::OwnsName() const { return m_called || m_fileName.starts_with(std::to_string(m_process) + '-'); }

void Peer::SetFileName(const std::string& name) {
  m_fileName = name;
  if (OwnsName()) {
    m_place = Introductions::MakePlace(name);
  }
}

void Peer::End(Listener& listener) {
  m_ending = true;
  m_unanswered.clear();
  for (const auto& [id, subscription] : m_subscriptions) {
    subscription.publication->RemoveSubscriber(*m_link);
  }
  while (!m_sources.empty()) {
    OnWithdrawn(m_sources.begin()->first, listener);
  }
  while (!m_subscriptions.empty()) {
    EndSubscription(m_subscriptions.begin(), listener);
  }
}

void Peer::EndSubscription(Subscriptions::iterator place, Listener& listener) {
  auto& [publication, leftTold] = place->second;
  if (!publication->Withdrawn()) {
    if (!leftTold) {
      listener.OnSubscriberLeft(*publication, Name());
      leftTold = true;
    }
    TellWritable(*publication, listener);  // it may have been the one without space
  }
  m_subscriptions.erase(place);
}

void Peer::OpenRings(Listener& listener) {
  while (!m_unanswered.empty()) {
    const auto [source, token] = *m_unanswered.begin();
    if (const auto publication = m_surroundings.publications.Find(source)) {
      if (auto& subscriber = SubscriberTo(*publication); subscriber == nullptr) {
        subscriber = OpenRing(publication->Info().pacing);
      }
    }
    m_unanswered.erase(m_unanswered.begin());
    Answer(source, token, listener);
  }
}

std::shared_ptr<Subscriber> Peer::OpenRing(Pacing pacing) {
  RingMemory::Created created = RingMemory::Create(m_surroundings.ringBytes);
  if (m_statistics == nullptr) {
    m_statistics = std::make_shared<PeerStatistics>(m_surroundings.statistics, Label());
  }
  m_link->SendRing(pacing, std::move(created.memory));
  auto subscriber = std::make_shared<Subscriber>(m_link, m_identity, std::move(created.ring), m_parkingWord,
                                                 m_surroundings.publications.GetSampler(), m_statistics);
  m_surroundings.publications.AddSubscriber(subscriber);
  return subscriber;
}

// Tells the listener of space for the publications.
void Peer::TellWritable(const std::vector<std::uint32_t>& publications, Listener& listener) {
  for (const std::uint32_t id : publications) {
    const auto publication = m_surroundings.publications.Find(id);
    if (publication) {
      TellWritable(*publication, listener);
    }
  }
}

void Peer::TellWritable(HostPublication& publication, Listener& listener) {
  if (!publication.TakeBlocked()) {
    return;
  }
  try {
    listener.OnWritable(publication);
  } catch (...) {
    publication.GiveBackBlocked();
    throw;
  }
}

void Peer::OnHello(Bytes frame) {
  m_greeting = wire::DecodeHello(frame);
  m_identity = wire::IdentityOf(m_greeting);
  const std::string fileName = ContextFileName(m_greeting.process, m_greeting.instance);
  if (!m_fileName.empty() && m_fileName != fileName) {
    throw Fault("it answers for another context");
  }
  if (m_fileName.empty()) {
    SetFileName(fileName);
  }
  m_greeted = true;
}

void Peer::OnWant(Bytes frame) {
  std::vector<std::uint32_t> wanted;
  wire::DecodeTopics(frame, [&](std::uint32_t, std::string_view topic) {
    const auto publications = m_surroundings.publications.Of(std::string(topic));
    wanted.insert(wanted.end(), publications.begin(), publications.end());
  });
  m_surroundings.publications.Offer(m_advertising, wanted);
}

// A source may be advertised more than once: to whoever looks for it, and because somebody looks. What is no longer
// wanted may still be on its way.
void Peer::OnAdvertise(Bytes frame, Listener& listener) {
  wire::DecodeTopics(frame, [&](std::uint32_t id, std::string_view name) {
    const std::string topic(name);
    if (const auto known = m_sources.find(id); known != m_sources.end()) {
      if (known->second->Topic() != topic) {
        throw Fault("it advertised one source with two topics");
      }
      return;
    }
    if (m_surroundings.introductions.Watches(topic)) {
      auto source = std::make_shared<HostRemoteSource>(topic, wire::SourceSession(m_identity, id), id, m_link);
      m_sources.emplace(id, source);
      listener.OnSourceUp(source);
    }
  });
}

// Of a source that is not wanted it may not be known.
void Peer::OnWithdrawn(std::uint32_t id, Listener& listener) {
  if (const auto source = m_sources.find(id); source != m_sources.end()) {
    listener.OnSourceDown(source->second);
    m_sources.erase(source);
    m_lastSource = nullptr;
  }
}

void Peer::OnParkingWord(const zq::posix::Descriptor& memory) {
  if (m_parkingWord) {
    throw Fault("it passed two parking words");
  }
  m_parkingWord = std::make_shared<PeerParkingWord>(memory);
}

void Peer::OnRing(Pacing pacing, const zq::posix::Descriptor& memory) {
  std::optional<InboundRing>& inbound = m_inbound[static_cast<std::size_t>(pacing)];
  if (inbound) {
    throw Fault("it passed two rings");
  }
  inbound.emplace(memory, pacing);
}

void Peer::OnSubscribe(const wire::Subscribe& frame, Listener& listener) {
  if (!m_parkingWord) {
    throw Fault("it subscribed without a parking word");
  }
  const auto publication = m_surroundings.publications.Find(frame.source);
  if (publication == nullptr) {
    return;
  }
  if (SubscriberTo(*publication) == nullptr) {
    m_unanswered[frame.source] = frame.token;
  } else {
    Answer(frame.source, frame.token, listener);
  }
}

void Peer::Answer(std::uint32_t source, std::uint32_t token, Listener& listener) {
  // A publication that is not there was withdrawn while the subscription was on its way.
  const auto publication = m_surroundings.publications.Find(source);
  if (publication == nullptr) {
    return;
  }
  if (m_subscriptions.size() >= m_subscriptionsMax) {
    std::erase_if(m_subscriptions, [](const auto& entry) { return entry.second.publication->Withdrawn(); });
    m_subscriptionsMax = 2 * m_subscriptions.size() + kSubscriptionsKept;
  }
  const auto place = m_subscriptions.try_emplace(source, Subscription{publication, true}).first;
  if (publication->AddSubscriber(SubscriberTo(*publication), token)) {
    listener.OnSubscriberJoined(*publication, Name());
    place->second.leftTold = false;
  }
}

void Peer::OnUnsubscribe(const wire::Unsubscribe& frame, Listener& listener) {
  m_unanswered.erase(frame.source);
  if (const auto place = m_subscriptions.find(frame.source); place != m_subscriptions.end()) {
    place->second.publication->RemoveSubscriber(*m_link);
    EndSubscription(place, listener);
  }
}

void Peer::OnResponse(Bytes frame, Listener& listener) {
  const auto header = wire::Take<wire::ResponseHeader>(frame);
  m_responses.Add(header, frame, [&](Bytes response) { listener.OnResponse(header.request, m_identity, response); });
}

// Whether the listener takes the message, or the part of one, that the frame may be.
bool Peer::Takes(const RingFrame& frame, Listener& listener) {
  const auto type = static_cast<wire::Type>(frame.tag);
  if (type != wire::Type::kMessage && type != wire::Type::kFragment) {
    return true;
  }
  Bytes content = frame.content;
  HostRemoteSource* const source = FindSource(wire::Take<wire::MessageHeader>(content).source);
  return source == nullptr || !source->Active() || listener.Takes(*source);
}

void Peer::OnDataFrame(InboundRing& inbound, const RingFrame& frame, Listener& listener) {
  Bytes content = frame.content;
  switch (static_cast<wire::Type>(frame.tag)) {
    case wire::Type::kMessage: {
      const auto plain = wire::Take<wire::MessageHeader>(content);
      wire::FragmentHeader header;
      header.source = plain.source;
      header.sequence = plain.sequence;
      return OnMessage(inbound.pacing, header, content, listener);
    }
    case wire::Type::kFragment: {
      const auto header = wire::Take<wire::FragmentHeader>(content);
      return inbound.reassembly.Add(header, content,
                                    [&](Bytes message) { OnMessage(inbound.pacing, header, message, listener); });
    }
    case wire::Type::kSubscribed: {
      const auto answer = wire::Decode<wire::Subscribed>(content);
      if (HostRemoteSource* const source = FindSource(answer.source)) {
        source->Activate(answer.token, answer.nextSequence);
      }
      return;
    }
    case wire::Type::kLoss:
      return OnLoss(wire::Decode<wire::Loss>(content), listener);
    case wire::Type::kWithdrawn:
      return OnWithdrawn(wire::Decode<wire::Withdrawn>(content).source, listener);
    default:
      throw Fault("a frame in a ring has no known type");
  }
}

void Peer::OnMessage(Pacing pacing, const wire::FragmentHeader& header, Bytes payload, Listener& listener) {
  HostRemoteSource* const source = FindSource(header.source);
  if (source != nullptr && source->Active()) {
    SkipTo(*source, header.sequence, listener);
  }
  // Asked again, because the listener may have unsubscribed.
  if (source == nullptr || !source->Active()) {
    return;
  }
  source->Expect(header.sequence + 1);
  if (header.sent != 0) {
    m_surroundings.statistics->NoteDelivery(header.sent);
  }
  InboundMessage inbound;
  inbound.payload = payload;
  inbound.sequence = header.sequence;
  inbound.pacing = pacing;
  if ((header.flags & wire::kHasChannel) != 0) {
    inbound.channel = header.channel;
  }
  if (header.request != 0) {
    inbound.replyPath = std::make_shared<HostReplyPath>(m_link, header.request);
  }
  listener.OnMessage(*source, inbound);
}

void Peer::OnLoss(const wire::Loss& frame, Listener& listener) {
  HostRemoteSource* const source = FindSource(frame.source);
  if (source != nullptr && source->Active()) {
    SkipTo(*source, frame.first + frame.count, listener);
  }
}

// Messages before the sequence number will not come. Sequence numbers wrap, hence the comparison by difference.
void Peer::SkipTo(HostRemoteSource& source, std::uint32_t sequence, Listener& listener) {
  const std::uint32_t first = source.Expected();
  const std::uint32_t count = sequence - first;
  if (static_cast<std::int32_t>(count) < 0) {
    throw Fault("the sequence numbers of a source went back");
  }
  if (count != 0) {
    source.Expect(sequence);
    listener.OnLoss(source, first, count);
  }
}

// Null when it was withdrawn: messages of a subscription that had ended before may follow that.
HostRemoteSource* Peer::FindSource(std::uint32_t id) {
  if (m_lastSource == nullptr || id != m_lastId) {
    const auto found = m_sources.find(id);
    if (found == m_sources.end()) {
      return nullptr;
    }
    m_lastId = id;
    m_lastSource = found->second.get();
  }
  return m_lastSource;
}

}  // namespace engine::transport::host
