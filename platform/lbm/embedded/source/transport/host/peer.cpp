#include "transport/host/peer.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <limits>
#include <utility>

#include "transport/host/pieces.h"

namespace engine::transport::host {

void HostRemoteSource::subscribe() {
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
  link->passWakeWord();
  link->sendControl(wire::bytesOf(frame));
}

void HostRemoteSource::unsubscribe() {
  const std::lock_guard lock(m_mutex);
  const auto link = m_link.lock();
  if (m_wantedToken.exchange(0) == 0 || !link) {
    return;
  }
  wire::Unsubscribe frame;
  frame.source = m_id;
  link->sendControl(wire::bytesOf(frame));
}

void HostRemoteSource::activate(std::uint32_t token, std::uint32_t nextSequence) {
  if (token == m_wantedToken) {
    m_activeToken = token;
    m_expected = nextSequence;
  }
}

SendResult HostReplyPath::respond(std::span<const iovec> pieces, bool mayWait, const std::atomic<bool>& closed) {
  const std::size_t size = messageSize(pieces);
  wire::ResponseHeader header;
  header.request = m_request;
  header.total = static_cast<std::uint32_t>(size);
  static_assert(wire::kMessageMax <= std::numeric_limits<decltype(header.total)>::max());
  for (;;) {
    if (closed) {
      return SendResult::closed;
    }
    const auto link = m_link.lock();
    if (!link || link->broken()) {
      return SendResult::peerGone;
    }
    if (link->sendResponse(header, pieces)) {
      return SendResult::sent;
    }
    if (!mayWait) {
      return SendResult::wouldBlock;
    }
    link->awaitWritable();
  }
}

std::string Peer::description() const {
  if (!m_greeted) {
    return "a context that has not introduced itself";
  }
  return "context \"" + m_greeting.name + "\" (process " + std::to_string(m_greeting.process) + ", session " +
         wire::sessionText(m_greeting.session) + ")";
}

void Peer::handle(Link::Arrival arrival, Listener& listener) {
  const wire::Bytes frame = arrival.frame;
  if (!m_greeted) {
    m_greeting = wire::decodeHello(frame);
    m_identity = "host:" + std::to_string(m_greeting.process) + '.' + wire::sessionText(m_greeting.session);
    m_greeted = true;
    return;
  }
  switch (wire::typeOf(frame)) {
    case wire::Type::advertise:
      return advertised(frame, listener);
    case wire::Type::withdraw:
      return withdrawn(wire::decode<wire::Withdraw>(frame).source, listener);
    case wire::Type::subscribe:
      return subscribed(wire::decode<wire::Subscribe>(frame), listener);
    case wire::Type::unsubscribe:
      return unsubscribed(wire::decode<wire::Unsubscribe>(frame), listener);
    case wire::Type::response:
      return response(frame, listener);
    case wire::Type::wakeWord:
      return wakeWordPassed(arrival.descriptor);
    case wire::Type::ring:
      return ringPassed(arrival.descriptor);
    case wire::Type::bell:
      return;
    case wire::Type::room:
      if (m_sender) {
        tellWritable(m_surroundings.publications.flush(*m_sender), listener);
      }
      return;
    default:
      throw Fault("a frame has no known type");
  }
}

std::size_t Peer::receiveData(std::size_t framesMax, Listener& listener) {
  if (!m_receiver) {
    return 0;
  }
  RingReader<RingCounter>& ring = m_receiver->ring;
  std::size_t frames = 0;
  if (ring.look()) {
    RingFrame frame;
    while (frames < framesMax && !m_surroundings.closed.load(std::memory_order_relaxed) && ring.next(frame)) {
      ++frames;
      handleData(frame, listener);
    }
  }
  if (ring.release()) {
    std::atomic<std::uint32_t>& word = ring.told();
    ::syscall(SYS_futex, &word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
    m_link->sendSignal(wire::Type::room);
  }
  return frames;
}

bool Peer::hasData() noexcept {
  try {
    return m_receiver && (m_receiver->ring.look() || m_receiver->ring.toldIsDue());
  } catch (const Fault&) {
    return true;  // receiveData() will find it as well
  }
}

void Peer::end(Listener& listener) {
  m_lastSource = nullptr;
  for (const auto& [id, source] : std::exchange(m_sources, {})) {
    listener.sourceDown(source);
  }
}

void Peer::tellWritable(const std::vector<std::uint32_t>& publications, Listener& listener) {
  for (const std::uint32_t id : publications) {
    const auto publication = m_surroundings.publications.find(id);
    if (publication && publication->takeWaiting()) {
      listener.writable(*publication);
    }
  }
}

void Peer::advertised(wire::Bytes frame, Listener& listener) {
  wire::decodeAdvertise(frame, [&](std::uint32_t id, std::string_view topic, std::string_view session) {
    auto source = std::make_shared<HostRemoteSource>(std::string(topic), std::string(session), id, m_link);
    if (!m_sources.emplace(id, source).second) {
      throw Fault("it announced a source twice");
    }
    listener.sourceUp(source);
  });
}

void Peer::withdrawn(std::uint32_t source, Listener& listener) {
  const auto node = m_sources.extract(source);
  if (!node) {
    throw Fault("it withdrew a source that it had not announced");
  }
  m_lastSource = nullptr;
  listener.sourceDown(node.mapped());
}

void Peer::wakeWordPassed(const Descriptor& memory) {
  if (m_wakeWord || m_sender) {
    throw Fault("it passed two wake words");
  }
  m_wakeWord.emplace(memory);
}

void Peer::ringPassed(const Descriptor& memory) {
  if (m_receiver) {
    throw Fault("it passed two rings");
  }
  m_receiver.emplace(memory);
}

void Peer::subscribed(const wire::Subscribe& frame, Listener& listener) {
  if (m_sender) {
    return answer(frame.source, frame.token, listener);
  }
  if (!m_wakeWord) {
    throw Fault("it subscribed without a wake word");
  }
  if (m_surroundings.publications.find(frame.source)) {
    m_unanswered[frame.source] = frame.token;
  }
}

void Peer::openRing(Listener& listener) {
  RingMemory::Made made = RingMemory::make(m_surroundings.ringBytes);
  m_link->passRing(std::move(made.memory));
  m_sender = std::make_shared<DataSender>(m_link, std::move(made.ring), *std::exchange(m_wakeWord, std::nullopt));
  m_surroundings.publications.addSender(m_sender);
  for (const auto& [source, token] : std::exchange(m_unanswered, {})) {
    answer(source, token, listener);
  }
}

void Peer::answer(std::uint32_t source, std::uint32_t token, Listener& listener) {
  // A publication that is not there was withdrawn while the subscription was on its way.
  const auto publication = m_surroundings.publications.find(source);
  if (publication && publication->addSubscriber(m_sender, token)) {
    listener.subscriberJoined(*publication, name());
  }
}

void Peer::unsubscribed(const wire::Unsubscribe& frame, Listener& listener) {
  m_unanswered.erase(frame.source);
  const auto publication = m_surroundings.publications.find(frame.source);
  if (!publication || !publication->removeSubscriber(*m_link)) {
    return;
  }
  listener.subscriberLeft(*publication, name());
  // It may have been the one without room.
  if (publication->takeWaiting()) {
    listener.writable(*publication);
  }
}

void Peer::response(wire::Bytes frame, Listener& listener) {
  const auto header = wire::take<wire::ResponseHeader>(frame);
  m_responses.add(header, frame, [&](wire::Bytes message) { listener.response(header.request, m_identity, message); });
}

void Peer::handleData(const RingFrame& frame, Listener& listener) {
  wire::Bytes content = frame.content;
  switch (static_cast<wire::Type>(frame.tag)) {
    case wire::Type::message: {
      const auto plain = wire::take<wire::MessageHeader>(content);
      wire::FragmentHeader header;
      header.source = plain.source;
      header.sequence = plain.sequence;
      return message(header, content, listener);
    }
    case wire::Type::fragment: {
      const auto header = wire::take<wire::FragmentHeader>(content);
      return m_receiver->reassembly.add(header, content, [&](wire::Bytes whole) { message(header, whole, listener); });
    }
    case wire::Type::subscribed: {
      const auto answer = wire::decode<wire::Subscribed>(content);
      if (HostRemoteSource* const source = findSource(answer.source)) {
        source->activate(answer.token, answer.nextSequence);
      }
      return;
    }
    case wire::Type::loss:
      return lost(wire::decode<wire::Loss>(content), listener);
    case wire::Type::withdrawn:
      return withdrawn(wire::decode<wire::Withdrawn>(content).source, listener);
    default:
      throw Fault("a frame in a ring has no known type");
  }
}

void Peer::message(const wire::FragmentHeader& header, wire::Bytes payload, Listener& listener) {
  HostRemoteSource* const source = findSource(header.source);
  if (source != nullptr && source->active()) {
    skipTo(*source, header.sequence, listener);
  }
  // Asked again, because the listener may have unsubscribed.
  if (source == nullptr || !source->active()) {
    return;
  }
  source->expect(header.sequence + 1);
  InboundMessage inbound;
  inbound.payload = payload;
  inbound.sequence = header.sequence;
  if ((header.flags & wire::kHasChannel) != 0) {
    inbound.channel = header.channel;
  }
  if (header.request != 0) {
    inbound.replyPath = std::make_shared<HostReplyPath>(m_link, header.request);
  }
  listener.message(*source, inbound);
}

void Peer::lost(const wire::Loss& frame, Listener& listener) {
  HostRemoteSource* const source = findSource(frame.source);
  if (source != nullptr && source->active()) {
    skipTo(*source, frame.first + frame.count, listener);
  }
}

// The messages up to the sequence number will not come. Sequence numbers wrap, hence the comparison by difference.
void Peer::skipTo(HostRemoteSource& source, std::uint32_t sequence, Listener& listener) {
  const std::uint32_t first = source.expected();
  const std::uint32_t count = sequence - first;
  if (static_cast<std::int32_t>(count) < 0) {
    throw Fault("the sequence numbers of a source went back");
  }
  if (count != 0) {
    source.expect(sequence);
    listener.loss(source, first, count);
  }
}

// Null when it was withdrawn: messages of a subscription that had ended before may follow that.
HostRemoteSource* Peer::findSource(std::uint32_t id) {
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
