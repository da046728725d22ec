#include "transport/host/peer.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <limits>
#include <utility>

#include "transport/host/pieces.h"

namespace engine::transport::host {

void HostRemoteSource::Subscribe() {
  const std::lock_guard lock(m_mutex);
  const auto link = m_link.lock();
  if (!link || m_wantedToken != 0) {
    return;
  }
  if (++m_lastToken == 0) {
    ++m_lastToken;
  }
  m_wantedToken = m_lastToken;
  wire::Subscribe frame;
  frame.source = m_id;
  frame.token = m_lastToken;
  link->PassWakeWord();
  link->SendControl(wire::BytesOf(frame));
}

void HostRemoteSource::Unsubscribe() {
  const std::lock_guard lock(m_mutex);
  const auto link = m_link.lock();
  if (m_wantedToken.exchange(0) == 0 || !link) {
    return;
  }
  wire::Unsubscribe frame;
  frame.source = m_id;
  link->SendControl(wire::BytesOf(frame));
}

void HostRemoteSource::Activate(std::uint32_t token, std::uint32_t nextSequence) {
  if (token == m_wantedToken) {
    m_activeToken = token;
    m_expected = nextSequence;
  }
}

SendResult HostReplyPath::Respond(std::span<const iovec> pieces, bool mayWait, const std::atomic<bool>& closed) {
  const std::size_t size = MessageSize(pieces);
  wire::ResponseHeader header;
  header.request = m_request;
  header.total = static_cast<std::uint32_t>(size);
  static_assert(wire::kMessageMax <= std::numeric_limits<decltype(header.total)>::max());
  for (;;) {
    if (closed) {
      return SendResult::kClosed;
    }
    const auto link = m_link.lock();
    if (!link || link->Broken()) {
      return SendResult::kPeerGone;
    }
    if (link->SendResponse(header, pieces)) {
      return SendResult::kSent;
    }
    if (!mayWait) {
      return SendResult::kWouldBlock;
    }
    link->AwaitWritable();
  }
}

std::string Peer::Description() const {
  if (!m_greeted) {
    return "a context that has not introduced itself";
  }
  return "context \"" + m_greeting.name + "\" (process " + std::to_string(m_greeting.process) + ", session " +
         wire::SessionText(m_greeting.session) + ")";
}

void Peer::Handle(Link::Arrival arrival, Listener& listener) {
  const wire::Bytes frame = arrival.frame;
  if (!m_greeted) {
    m_greeting = wire::DecodeHello(frame);
    m_identity = "host:" + std::to_string(m_greeting.process) + '.' + wire::SessionText(m_greeting.session);
    m_greeted = true;
    return;
  }
  switch (wire::TypeOf(frame)) {
    case wire::Type::kAdvertise:
      return Advertised(frame, listener);
    case wire::Type::kWithdraw:
      return Withdrawn(wire::Decode<wire::Withdraw>(frame).source, listener);
    case wire::Type::kSubscribe:
      return Subscribed(wire::Decode<wire::Subscribe>(frame), listener);
    case wire::Type::kUnsubscribe:
      return Unsubscribed(wire::Decode<wire::Unsubscribe>(frame), listener);
    case wire::Type::kResponse:
      return OnResponse(frame, listener);
    case wire::Type::kWakeWord:
      return WakeWordPassed(arrival.descriptor);
    case wire::Type::kRing:
      return RingPassed(arrival.descriptor);
    case wire::Type::kBell:
      return;
    case wire::Type::kRoom:
      if (m_sender) {
        TellWritable(m_surroundings.publications.Flush(*m_sender), listener);
      }
      return;
    default:
      throw Fault("a frame has no known type");
  }
}

std::size_t Peer::ReceiveData(std::size_t framesMax, Listener& listener) {
  if (!m_receiver) {
    return 0;
  }
  RingReader<RingCounter>& ring = m_receiver->ring;
  std::size_t frames = 0;
  if (ring.Look()) {
    RingFrame frame;
    while (frames < framesMax && !m_surroundings.closed.load(std::memory_order_relaxed) && ring.Next(frame)) {
      ++frames;
      HandleData(frame, listener);
    }
  }
  if (ring.Release()) {
    std::atomic<std::uint32_t>& word = ring.Told();
    ::syscall(SYS_futex, &word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
    m_link->SendSignal(wire::Type::kRoom);
  }
  return frames;
}

bool Peer::HasData() noexcept {
  try {
    return m_receiver && (m_receiver->ring.Look() || m_receiver->ring.ToldIsDue());
  } catch (const Fault&) {
    return true;  // receiveData() will find it as well
  }
}

void Peer::End(Listener& listener) {
  m_lastSource = nullptr;
  for (const auto& [id, source] : std::exchange(m_sources, {})) {
    listener.OnSourceDown(source);
  }
}

void Peer::TellWritable(const std::vector<std::uint32_t>& publications, Listener& listener) {
  for (const std::uint32_t id : publications) {
    const auto publication = m_surroundings.publications.Find(id);
    if (publication && publication->TakeWaiting()) {
      listener.OnWritable(*publication);
    }
  }
}

void Peer::Advertised(wire::Bytes frame, Listener& listener) {
  wire::DecodeAdvertise(frame, [&](std::uint32_t id, std::string_view topic, std::string_view session) {
    auto source = std::make_shared<HostRemoteSource>(std::string(topic), std::string(session), id, m_link);
    if (!m_sources.emplace(id, source).second) {
      throw Fault("it announced a source twice");
    }
    listener.OnSourceUp(source);
  });
}

void Peer::Withdrawn(std::uint32_t source, Listener& listener) {
  const auto node = m_sources.extract(source);
  if (!node) {
    throw Fault("it withdrew a source that it had not announced");
  }
  m_lastSource = nullptr;
  listener.OnSourceDown(node.mapped());
}

void Peer::WakeWordPassed(const zq::posix::Descriptor& memory) {
  if (m_wakeWord || m_sender) {
    throw Fault("it passed two wake words");
  }
  m_wakeWord.emplace(memory);
}

void Peer::RingPassed(const zq::posix::Descriptor& memory) {
  if (m_receiver) {
    throw Fault("it passed two rings");
  }
  m_receiver.emplace(memory);
}

void Peer::Subscribed(const wire::Subscribe& frame, Listener& listener) {
  if (m_sender) {
    return Answer(frame.source, frame.token, listener);
  }
  if (!m_wakeWord) {
    throw Fault("it subscribed without a wake word");
  }
  if (m_surroundings.publications.Find(frame.source)) {
    m_unanswered[frame.source] = frame.token;
  }
}

void Peer::OpenRing(Listener& listener) {
  RingMemory::Made made = RingMemory::Make(m_surroundings.ringBytes);
  m_link->PassRing(std::move(made.memory));
  m_sender = std::make_shared<DataSender>(m_link, std::move(made.ring), *std::exchange(m_wakeWord, std::nullopt));
  m_surroundings.publications.AddSender(m_sender);
  for (const auto& [source, token] : std::exchange(m_unanswered, {})) {
    Answer(source, token, listener);
  }
}

void Peer::Answer(std::uint32_t source, std::uint32_t token, Listener& listener) {
  // A publication that is not there was withdrawn while the subscription was on its way.
  const auto publication = m_surroundings.publications.Find(source);
  if (publication && publication->AddSubscriber(m_sender, token)) {
    listener.OnSubscriberJoined(*publication, Name());
  }
}

void Peer::Unsubscribed(const wire::Unsubscribe& frame, Listener& listener) {
  m_unanswered.erase(frame.source);
  const auto publication = m_surroundings.publications.Find(frame.source);
  if (!publication || !publication->RemoveSubscriber(*m_link)) {
    return;
  }
  listener.OnSubscriberLeft(*publication, Name());
  // It may have been the one without room.
  if (publication->TakeWaiting()) {
    listener.OnWritable(*publication);
  }
}

void Peer::OnResponse(wire::Bytes frame, Listener& listener) {
  const auto header = wire::Take<wire::ResponseHeader>(frame);
  m_responses.Add(header, frame,
                  [&](wire::Bytes message) { listener.OnResponse(header.request, m_identity, message); });
}

void Peer::HandleData(const RingFrame& frame, Listener& listener) {
  wire::Bytes content = frame.content;
  switch (static_cast<wire::Type>(frame.tag)) {
    case wire::Type::kMessage: {
      const auto plain = wire::Take<wire::MessageHeader>(content);
      wire::FragmentHeader header;
      header.source = plain.source;
      header.sequence = plain.sequence;
      return OnMessage(header, content, listener);
    }
    case wire::Type::kFragment: {
      const auto header = wire::Take<wire::FragmentHeader>(content);
      return m_receiver->reassembly.Add(header, content,
                                        [&](wire::Bytes whole) { OnMessage(header, whole, listener); });
    }
    case wire::Type::kSubscribed: {
      const auto answer = wire::Decode<wire::Subscribed>(content);
      if (HostRemoteSource* const source = FindSource(answer.source)) {
        source->Activate(answer.token, answer.nextSequence);
      }
      return;
    }
    case wire::Type::kLoss:
      return Lost(wire::Decode<wire::Loss>(content), listener);
    case wire::Type::kWithdrawn:
      return Withdrawn(wire::Decode<wire::Withdrawn>(content).source, listener);
    default:
      throw Fault("a frame in a ring has no known type");
  }
}

void Peer::OnMessage(const wire::FragmentHeader& header, wire::Bytes payload, Listener& listener) {
  HostRemoteSource* const source = FindSource(header.source);
  if (source != nullptr && source->Active()) {
    SkipTo(*source, header.sequence, listener);
  }
  // Asked again, because the listener may have unsubscribed.
  if (source == nullptr || !source->Active()) {
    return;
  }
  source->Expect(header.sequence + 1);
  InboundMessage inbound;
  inbound.payload = payload;
  inbound.sequence = header.sequence;
  if ((header.flags & wire::kHasChannel) != 0) {
    inbound.channel = header.channel;
  }
  if (header.request != 0) {
    inbound.replyPath = std::make_shared<HostReplyPath>(m_link, header.request);
  }
  listener.OnMessage(*source, inbound);
}

void Peer::Lost(const wire::Loss& frame, Listener& listener) {
  HostRemoteSource* const source = FindSource(frame.source);
  if (source != nullptr && source->Active()) {
    SkipTo(*source, frame.first + frame.count, listener);
  }
}

// The messages up to the sequence number will not come. Sequence numbers wrap, hence the comparison by difference.
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
