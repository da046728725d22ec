#include "transport/host/link/link.h"

#include <limits.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "transport/fault.h"
#include "transport/gather.h"
#include "zq/posix/error.h"

namespace engine::transport::host {

namespace {

// Bytes that may wait for a peer, beside one response larger than kQueuedBeforeResponses.
constexpr std::size_t kQueuedMax = std::size_t{64} << 20;

// Bytes that may wait while responses are still taken.
constexpr std::size_t kQueuedBeforeResponses = std::size_t{1} << 20;

constexpr int kSocketBufferBytes = 1 << 20;

// How long a blocked sender waits before it looks at what does not show on the socket: the context may be closing.
constexpr int kBlockedPollMs = 10;

// Space for one descriptor beside a packet.
using ControlBuffer = std::array<char, CMSG_SPACE(sizeof(int))>;

// The descriptor that came with a packet, if any. There was space for one; the kernel closes any beyond it.
zq::posix::Descriptor PassedDescriptor(msghdr& message) {
  const cmsghdr* const header = CMSG_FIRSTHDR(&message);
  if (header == nullptr || header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS ||
      header->cmsg_len != CMSG_LEN(sizeof(int))) {
    return {};
  }
  int descriptor = -1;
  std::memcpy(&descriptor, CMSG_DATA(header), sizeof(descriptor));
  return zq::posix::Descriptor(descriptor);
}

void PassDescriptor(msghdr& message, ControlBuffer& control, int descriptor) {
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(header), &descriptor, sizeof(int));
}

void CheckDescriptor(wire::Type type, bool passed) {
  if (wire::CarriesDescriptor(type) == passed) {
    return;
  }
  throw Fault(passed
                  ? "a descriptor came with a frame that carries none"
                  : "a descriptor did not arrive; if this process has all the files open that it may have, raise the "
                    "limit (ulimit -n)");
}

}  // namespace

Link::Link(std::uint64_t id, LinkKind kind, zq::posix::Descriptor socket, Poller& poller, RetryTimer& retryTimer,
           int parkingWord)
    : m_id(id),
      m_kind(kind),
      m_socket(std::move(socket)),
      m_poller(poller),
      m_retryTimer(retryTimer),
      m_parkingWord(parkingWord),
      m_queueMax(kQueuedMax) {
  // As much as the system grants; less is no fault.
  ::setsockopt(m_socket.Get(), SOL_SOCKET, SO_SNDBUF, &kSocketBufferBytes, sizeof(kSocketBufferBytes));
}

void Link::SendControl(Bytes frame) noexcept {
  const std::lock_guard lock(m_mutex);
  const iovec part = PieceOf(frame);
  Send({&part, 1});
  if (m_queue.Size() > m_queueMax) {
    CutOff("it does not read what it is sent");
  }
}

void Link::SendParkingWord() noexcept {
  const std::lock_guard lock(m_mutex);
  if (!std::exchange(m_parkingWordSent, true)) {
    const wire::Signal frame{wire::Type::kParkingWord};
    const iovec part = PieceOf(wire::BytesOf(frame));
    Send({&part, 1});
  }
}

void Link::SendRing(Pacing pacing, zq::posix::Descriptor memory) noexcept {
  const std::lock_guard lock(m_mutex);
  m_rings[static_cast<std::size_t>(pacing)] = std::move(memory);
  const wire::Signal frame{pacing == Pacing::kReceiver ? wire::Type::kPacedRing : wire::Type::kRing};
  const iovec part = PieceOf(wire::BytesOf(frame));
  Send({&part, 1});
}

bool Link::TrySendResponse(const wire::ResponseHeader& header, std::span<const iovec> pieces) {
  const std::lock_guard lock(m_mutex);
  if (!TakesResponse(header.total)) {
    return false;
  }
  if (header.total > kQueuedBeforeResponses) {
    m_queueMax = kQueuedMax + header.total;
  }
  constexpr std::size_t kPayloadMax = wire::kPacketMax - sizeof(wire::ResponseHeader);
  m_parts.reserve(std::min<std::size_t>(pieces.size(), IOV_MAX - 1) + 1);  // so that nothing fails between fragments
  PieceCursor cursor(pieces);
  std::size_t left = header.total;
  do {
    m_parts.assign(1, PieceOf(wire::BytesOf(header)));
    left -= cursor.Take(std::min(left, kPayloadMax), IOV_MAX - 1, m_parts);
    Send(m_parts);
  } while (left > 0 && !m_broken);
  return true;
}

bool Link::Flush() {
  const std::lock_guard lock(m_mutex);
  return FlushQueue();
}

void Link::WaitWritable() const {
  pollfd entry{m_socket.Get(), POLLOUT, 0};
  ::poll(&entry, 1, kBlockedPollMs);
}

void Link::CheckHangUp() {
  pollfd entry{m_socket.Get(), POLLRDHUP, 0};
  if (::poll(&entry, 1, 0) > 0) {
    const std::lock_guard lock(m_mutex);
    m_broken = true;
    m_queue.Clear();
  }
}

void Link::Abort(std::string_view reason) noexcept {
  const std::lock_guard lock(m_mutex);
  CutOff(reason);
}

bool Link::Broken() const {
  const std::lock_guard lock(m_mutex);
  return m_broken;
}

Link::Arrival Link::Receive(std::span<std::byte> buffer) {
  for (;;) {
    iovec part{buffer.data(), buffer.size()};
    alignas(cmsghdr) ControlBuffer control;
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = CMSG_LEN(sizeof(int));  // without the padding, in which a second descriptor would fit
    const ssize_t length = ::recvmsg(m_socket.Get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    // Taken over in any case: an empty packet may carry one, too.
    zq::posix::Descriptor descriptor = length >= 0 ? PassedDescriptor(message) : zq::posix::Descriptor();
    if (length > 0) {
      if ((message.msg_flags & MSG_TRUNC) != 0) {
        throw Fault("a frame is larger than allowed");
      }
      const Bytes frame = buffer.first(static_cast<std::size_t>(length));
      CheckDescriptor(wire::TypeOf(frame), static_cast<bool>(descriptor));
      return {Received::kFrame, frame, std::move(descriptor)};
    }
    if (length < 0 && errno == EAGAIN) {
      return {Received::kNothing, {}, {}};
    }
    // A peer that went with frames unread resets the connection, once; what it had sent is still there behind that.
    const bool firstReset = length < 0 && errno == ECONNRESET && !std::exchange(m_resetSeen, true);
    if (length == 0 || (errno != EINTR && !firstReset)) {
      return {Received::kHangUp, {}, {}};
    }
  }
}

void Link::Close() {
  const std::lock_guard lock(m_mutex);
  CutOff({});
  m_poller.Remove(m_socket.Get());
}

std::string Link::AbortReason() const {
  const std::lock_guard lock(m_mutex);
  return m_abortReason;
}

// Hands one frame to the socket, or queues it behind those that wait for it.
void Link::Send(std::span<const iovec> parts) noexcept {
  if (m_broken || (m_queue.Empty() && Transmit(parts)) || m_broken) {
    return;
  }
  try {
    m_queue.Push(parts);
    WatchWritable(m_shortage == 0);
  } catch (const std::bad_alloc&) {
    CutOff(kOutOfMemory);
  }
}

// The ring that a frame of the type passes; null when it passes none.
zq::posix::Descriptor* Link::RingOf(wire::Type type) noexcept {
  switch (type) {
    case wire::Type::kRing:
      return &m_rings[static_cast<std::size_t>(Pacing::kSource)];
    case wire::Type::kPacedRing:
      return &m_rings[static_cast<std::size_t>(Pacing::kReceiver)];
    default:
      return nullptr;
  }
}

// Hands one frame to the socket. False when it has to wait or the peer is gone.
bool Link::Transmit(std::span<const iovec> parts) {
  msghdr message{};
  message.msg_iov = const_cast<iovec*>(parts.data());
  message.msg_iovlen = parts.size();
  const wire::Type type = wire::TypeOf({static_cast<const std::byte*>(parts[0].iov_base), parts[0].iov_len});
  alignas(cmsghdr) ControlBuffer control{};
  zq::posix::Descriptor* const ring = RingOf(type);
  if (wire::CarriesDescriptor(type)) {
    PassDescriptor(message, control, ring != nullptr ? ring->Get() : m_parkingWord);
  }
  m_shortage = 0;
  while (::sendmsg(m_socket.Get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
    if (errno == EAGAIN) {
      return false;
    }
    if (errno == ENOBUFS || errno == ENOMEM || errno == ETOOMANYREFS) {
      m_shortage = errno;
      m_retryTimer.Start();
      return false;
    }
    if (errno == EPIPE || errno == ECONNRESET) {
      // Not shut down here: what the peer had sent before it went is still to be received.
      m_broken = true;
      m_queue.Clear();
      return false;
    }
    if (errno != EINTR) {
      CutOff("a frame cannot be sent to it: " + zq::posix::ErrorText(errno));
      return false;
    }
  }
  if (ring != nullptr) {
    *ring = zq::posix::Descriptor();
  }
  return true;
}

bool Link::FlushQueue() {
  while (!m_queue.Empty()) {
    const iovec part = PieceOf(m_queue.Front());
    if (!Transmit({&part, 1})) {
      break;
    }
    m_queue.Pop();
  }
  if (m_queue.Empty()) {
    m_queueMax = kQueuedMax;
  }
  // A socket that is short of something else is writable.
  WatchWritable(!m_queue.Empty() && m_shortage == 0);
  return m_queue.Empty();
}

bool Link::TakesResponse(std::size_t bytes) {
  const auto fits = [&] { return m_broken || m_queue.Empty() || m_queue.Size() + bytes <= kQueuedBeforeResponses; };
  return fits() || (FlushQueue(), fits());
}

void Link::CutOff(std::string_view reason) noexcept {
  m_broken = true;
  m_shortage = 0;
  m_queue.Clear();
  ::shutdown(m_socket.Get(), SHUT_RDWR);
  if (m_abortReason.empty()) {
    try {
      m_abortReason = reason;
    } catch (const std::bad_alloc&) {
      m_abortReason = kOutOfMemory;  // short enough to need none
    }
  }
}

void Link::WatchWritable(bool on) {
  if (on != m_watchingWritable) {
    // Refused only for a link that is closed and no longer in the poller.
    m_poller.Change(m_socket.Get(), m_id, EPOLLIN | (on ? EPOLLOUT : 0U));
    m_watchingWritable = on;
  }
}

}  // namespace engine::transport::host
