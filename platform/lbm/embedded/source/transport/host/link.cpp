#include "transport/host/link.h"

#include <limits.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <system_error>
#include <utility>

#include "transport/host/fault.h"
#include "transport/host/pieces.h"
#include "zq/posix/error.h"

namespace engine::transport::host {

namespace {

// Bytes that may wait for a peer, beside a response larger than the next.
constexpr std::size_t kUnreadMax = std::size_t{64} << 20;

// Bytes that may wait while responses are still taken.
constexpr std::size_t kUnreadWithRoom = std::size_t{1} << 20;

constexpr int kSocketBufferBytes = 1 << 20;

// How long a sender that waits goes without looking at what does not show on the link's socket: the context may be
// closing.
constexpr int kLookAgainMilliseconds = 10;

// The descriptor that came with a frame, if any. There was room for one; the system closes what is beyond.
zq::posix::Descriptor PassedIn(msghdr& message) {
  const cmsghdr* const header = CMSG_FIRSTHDR(&message);
  if (header == nullptr || header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS ||
      header->cmsg_len != CMSG_LEN(sizeof(int))) {
    return {};
  }
  int descriptor = -1;
  std::memcpy(&descriptor, CMSG_DATA(header), sizeof(descriptor));
  return zq::posix::Descriptor(descriptor);
}

iovec PartOf(wire::Bytes bytes) {
  // The structure of the system call serves both directions, hence no const.
  return {const_cast<std::byte*>(bytes.data()), bytes.size()};
}

}  // namespace

Link::Link(std::uint64_t id, LinkKind kind, zq::posix::Descriptor socket, int poller, int wakeWord)
    : m_id(id),
      m_kind(kind),
      m_socket(std::move(socket)),
      m_poller(poller),
      m_wakeWord(wakeWord),
      m_queueMax(kUnreadMax) {
  // As much as the system grants; less is no fault.
  ::setsockopt(m_socket.Get(), SOL_SOCKET, SO_SNDBUF, &kSocketBufferBytes, sizeof(kSocketBufferBytes));
}

void Link::SendControl(wire::Bytes frame) {
  const std::lock_guard lock(m_mutex);
  const iovec part = PartOf(frame);
  Take({&part, 1});
  if (m_queue.Size() > m_queueMax) {
    CutOff("it does not read what it is sent");
  }
}

void Link::PassWakeWord() {
  const std::lock_guard lock(m_mutex);
  if (!std::exchange(m_wakeWordPassed, true)) {
    const wire::Signal frame{wire::Type::kWakeWord};
    const iovec part = PartOf(wire::BytesOf(frame));
    Take({&part, 1});
  }
}

void Link::PassRing(zq::posix::Descriptor memory) {
  const std::lock_guard lock(m_mutex);
  m_ring = std::move(memory);
  const wire::Signal frame{wire::Type::kRing};
  const iovec part = PartOf(wire::BytesOf(frame));
  Take({&part, 1});
}

bool Link::SendResponse(const wire::ResponseHeader& header, std::span<const iovec> pieces) {
  const std::lock_guard lock(m_mutex);
  if (!RoomFor(header.total)) {
    return false;
  }
  if (header.total > kUnreadWithRoom) {
    m_queueMax = kUnreadMax + header.total;
  }
  constexpr std::size_t kPayloadMax = wire::kPacketMax - sizeof(wire::ResponseHeader);
  PieceCursor cursor(pieces);
  std::size_t left = header.total;
  do {
    m_parts.assign(1, PartOf(wire::BytesOf(header)));
    left -= cursor.Take(std::min(left, kPayloadMax), IOV_MAX - 1, m_parts);
    Take(m_parts);
  } while (left > 0 && !m_broken);
  return true;
}

bool Link::Flush() {
  const std::lock_guard lock(m_mutex);
  return FlushQueue();
}

void Link::AwaitWritable() const {
  pollfd entry{m_socket.Get(), POLLOUT, 0};
  ::poll(&entry, 1, kLookAgainMilliseconds);
}

void Link::LookForHangUp() {
  pollfd entry{m_socket.Get(), POLLRDHUP, 0};
  if (::poll(&entry, 1, 0) > 0) {
    const std::lock_guard lock(m_mutex);
    m_broken = true;
    m_queue.Clear();
  }
}

void Link::BreakOff(std::string_view fault) noexcept {
  const std::lock_guard lock(m_mutex);
  CutOff(fault);
}

bool Link::Broken() const {
  const std::lock_guard lock(m_mutex);
  return m_broken;
}

Link::Arrival Link::Receive(std::span<std::byte> buffer) {
  for (;;) {
    iovec part{buffer.data(), buffer.size()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control;
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = CMSG_LEN(sizeof(int));  // without the padding, which a second descriptor would fit
    const ssize_t length = ::recvmsg(m_socket.Get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (length > 0) {
      zq::posix::Descriptor descriptor = PassedIn(message);
      if ((message.msg_flags & MSG_TRUNC) != 0) {
        throw Fault("a frame is larger than allowed");
      }
      const wire::Bytes frame = buffer.first(static_cast<std::size_t>(length));
      if (wire::CarriesDescriptor(wire::TypeOf(frame)) != static_cast<bool>(descriptor)) {
        throw Fault(descriptor ? "a descriptor came with a frame that needs none"
                               : "a descriptor did not arrive; if this process has all the files open that it may "
                                 "have, raise the limit (ulimit -n)");
      }
      return {Received::kFrame, frame, std::move(descriptor)};
    }
    if (length == 0) {
      return {Received::kHangUp, {}, {}};
    }
    if (errno == EAGAIN) {
      return {Received::kNothing, {}, {}};
    }
    // A peer that went with frames unread resets the connection, once; what it had sent still follows.
    if (errno == ECONNRESET && !std::exchange(m_resetSeen, true)) {
      continue;
    }
    if (errno != EINTR) {
      return {Received::kHangUp, {}, {}};
    }
  }
}

void Link::End() {
  const std::lock_guard lock(m_mutex);
  CutOff({});
  ::epoll_ctl(m_poller, EPOLL_CTL_DEL, m_socket.Get(), nullptr);
}

std::string Link::FaultText() const {
  const std::lock_guard lock(m_mutex);
  return m_fault;
}

// Takes one frame: to the socket, or behind those that wait for it.
void Link::Take(std::span<const iovec> parts) {
  if (m_broken || (m_queue.Empty() && Transmit(parts)) || m_broken) {
    return;
  }
  m_queue.Push(parts);
  WatchWritable(true);
}

// Gives one frame to the socket. False when it has to wait or the peer is gone.
bool Link::Transmit(std::span<const iovec> parts) {
  msghdr message{};
  message.msg_iov = const_cast<iovec*>(parts.data());
  message.msg_iovlen = parts.size();
  const wire::Type type = wire::TypeOf({static_cast<const std::byte*>(parts[0].iov_base), parts[0].iov_len});
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  if (wire::CarriesDescriptor(type)) {
    const int descriptor = type == wire::Type::kRing ? m_ring.Get() : m_wakeWord;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof(int));
  }
  while (::sendmsg(m_socket.Get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
    if (errno == EAGAIN || errno == ENOBUFS) {
      return false;
    }
    if (errno == EPIPE || errno == ECONNRESET) {
      // Not hung up here: what the peer had sent before it went is still to be received.
      m_broken = true;
      m_queue.Clear();
      return false;
    }
    if (errno != EINTR) {
      CutOff("a frame cannot be sent to it: " + zq::posix::ErrorText(errno));
      return false;
    }
  }
  if (type == wire::Type::kRing) {
    m_ring = zq::posix::Descriptor();
  }
  return true;
}

// Ends the interest in a writable socket when nothing waits for it any more.
bool Link::FlushQueue() {
  while (!m_queue.Empty()) {
    const iovec part = PartOf(m_queue.Front());
    if (!Transmit({&part, 1})) {
      break;
    }
    m_queue.Pop();
  }
  if (m_queue.Empty()) {
    m_queueMax = kUnreadMax;
    WatchWritable(false);
  }
  return m_queue.Empty();
}

bool Link::RoomFor(std::size_t bytes) {
  const auto fits = [&] { return m_broken || m_queue.Empty() || m_queue.Size() + bytes <= kUnreadWithRoom; };
  return fits() || (FlushQueue(), fits());
}

void Link::CutOff(std::string_view fault) noexcept {
  m_broken = true;
  m_queue.Clear();
  ::shutdown(m_socket.Get(), SHUT_RDWR);
  if (m_fault.empty()) {
    try {
      m_fault = fault;
    } catch (const std::bad_alloc&) {
      m_fault = kOutOfMemory;  // short enough to need none
    }
  }
}

void Link::WatchWritable(bool on) {
  if (on == m_watchingWritable) {
    return;
  }
  epoll_event event{};
  event.events = EPOLLIN | (on ? EPOLLOUT : 0U);
  event.data.u64 = m_id;
  // Fails only for a link that has ended and is no longer registered.
  ::epoll_ctl(m_poller, EPOLL_CTL_MOD, m_socket.Get(), &event);
  m_watchingWritable = on;
}

}  // namespace engine::transport::host
