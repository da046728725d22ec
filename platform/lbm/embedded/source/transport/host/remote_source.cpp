#include "transport/host/remote_source.h"

#include <limits>

#include "transport/gather.h"

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
  link->SendParkingWord();
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
  m_activeToken = token;
  m_expected = nextSequence;
}

SendResult HostReplyPath::Respond(std::span<const iovec> pieces, const SendWait& wait,
                                  const std::atomic<bool>& closed) {
  const std::size_t size = MessageSize(pieces);
  wire::ResponseHeader header;
  header.request = m_request;
  header.total = static_cast<std::uint32_t>(size);
  static_assert(kMessageMax <= std::numeric_limits<decltype(header.total)>::max());
  for (;;) {
    if (closed) {
      return SendResult::kClosed;
    }
    const auto link = m_link.lock();
    if (!link || link->Broken()) {
      return SendResult::kPeerGone;
    }
    if (link->TrySendResponse(header, pieces)) {
      return SendResult::kSent;
    }
    if (!wait.GoesOn()) {
      return SendResult::kWouldBlock;
    }
    link->WaitWritable();
  }
}

}  // namespace engine::transport::host
