#include "transport/host/peer.h"

#include <utility>

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
  wire::DataHeader header;
  header.type = wire::Type::response;
  header.request = m_request;
  header.total = messageSize(pieces);
  for (;;) {
    const auto link = m_link.lock();
    if (!link || link->broken()) {
      return SendResult::peerGone;
    }
    if (link->hasRoom(header.total)) {
      link->sendMessage(header, pieces);
      return SendResult::sent;
    }
    if (!mayWait || closed) {
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

void Peer::handle(wire::Bytes frame, Listener& listener) {
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
      return withdrawn(wire::decode<wire::Withdraw>(frame), listener);
    case wire::Type::subscribe:
      return subscribed(wire::decode<wire::Subscribe>(frame), listener);
    case wire::Type::subscribed: {
      const auto answer = wire::decode<wire::Subscribed>(frame);
      return sourceOf(answer.source).activate(answer.token, answer.nextSequence);
    }
    case wire::Type::unsubscribe:
      return unsubscribed(wire::decode<wire::Unsubscribe>(frame), listener);
    case wire::Type::data:
    case wire::Type::response:
      return message(frame, listener);
    case wire::Type::loss:
      return lost(wire::decode<wire::Loss>(frame), listener);
    case wire::Type::hello:
      break;
  }
  throw wire::Fault("a frame has no known type");
}

void Peer::end(Listener& listener) {
  for (const auto& [id, source] : std::exchange(m_sources, {})) {
    listener.sourceDown(source);
  }
}

void Peer::advertised(wire::Bytes frame, Listener& listener) {
  wire::decodeAdvertise(frame, [&](std::uint32_t id, std::string_view topic, std::string_view session) {
    auto source = std::make_shared<HostRemoteSource>(std::string(topic), std::string(session), id, m_link);
    if (!m_sources.emplace(id, source).second) {
      throw wire::Fault("it announced a source twice");
    }
    listener.sourceUp(source);
  });
}

void Peer::withdrawn(const wire::Withdraw& frame, Listener& listener) {
  const auto node = m_sources.extract(frame.source);
  if (!node) {
    throw wire::Fault("it withdrew a source that it had not announced");
  }
  listener.sourceDown(node.mapped());
}

void Peer::subscribed(const wire::Subscribe& frame, Listener& listener) {
  // A publication that is not there was withdrawn while the frame was on its way.
  const auto publication = m_publications.find(frame.source);
  if (publication && publication->addSubscriber(m_link, frame.token)) {
    listener.subscriberJoined(*publication, name());
  }
}

void Peer::unsubscribed(const wire::Unsubscribe& frame, Listener& listener) {
  const auto publication = m_publications.find(frame.source);
  if (!publication || !publication->removeSubscriber(*m_link)) {
    return;
  }
  listener.subscriberLeft(*publication, name());
  // It may have been the one without room.
  if (publication->takeWaiting()) {
    listener.writable(*publication);
  }
}

void Peer::message(wire::Bytes frame, Listener& listener) {
  const auto header = wire::take<wire::DataHeader>(frame);
  const wire::Reassembly::Result result = m_reassembly.add(header, frame);
  if (!result.complete) {
    return;
  }
  if (header.type == wire::Type::response) {
    return listener.response(header.request, m_identity, result.message);
  }
  HostRemoteSource& source = sourceOf(header.source);
  if (source.active()) {
    skipTo(source, header.sequence, listener);
  }
  // Asked again, because the listener may have unsubscribed.
  if (!source.active()) {
    return;
  }
  source.expect(header.sequence + 1);
  InboundMessage inbound;
  inbound.payload = result.message;
  inbound.sequence = header.sequence;
  if ((header.flags & wire::kHasChannel) != 0) {
    inbound.channel = header.channel;
  }
  if (header.request != 0) {
    inbound.replyPath = std::make_shared<HostReplyPath>(m_link, header.request);
  }
  listener.message(source, inbound);
}

void Peer::lost(const wire::Loss& frame, Listener& listener) {
  HostRemoteSource& source = sourceOf(frame.source);
  if (source.active()) {
    skipTo(source, frame.first + frame.count, listener);
  }
}

// The messages up to the sequence number will not come. Sequence numbers wrap, hence the comparison by difference.
void Peer::skipTo(HostRemoteSource& source, std::uint32_t sequence, Listener& listener) {
  const std::uint32_t first = source.expected();
  const std::uint32_t count = sequence - first;
  if (static_cast<std::int32_t>(count) < 0) {
    throw wire::Fault("the sequence numbers of a source went back");
  }
  if (count != 0) {
    source.expect(sequence);
    listener.loss(source, first, count);
  }
}

HostRemoteSource& Peer::sourceOf(std::uint32_t id) const {
  const auto found = m_sources.find(id);
  if (found == m_sources.end()) {
    throw wire::Fault("it names a source that it has not announced");
  }
  return *found->second;
}

}  // namespace engine::transport::host
