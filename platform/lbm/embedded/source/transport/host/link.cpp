#include "transport/host/link.h"

#include <limits.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace engine::transport::host {

namespace {

// Bytes that may wait for a peer, beside a message larger than the link's buffer.
constexpr std::size_t kUnreadMax = std::size_t{64} << 20;

// Losses of one source that are told at once. A peer that stands still for days misses more than a difference of
// sequence numbers can express.
constexpr std::uint32_t kLossesToldMax = std::uint32_t{1} << 20;

constexpr int kSocketBufferBytes = 1 << 20;

// How long a waiting publisher goes without looking at what does not show on the link's socket: the peer may have
// unsubscribed, the context may be closing.
constexpr int kLookAgainMilliseconds = 10;

iovec partOf(wire::Bytes bytes) {
  // The structure of the system call serves both directions, hence no const.
  return {const_cast<std::byte*>(bytes.data()), bytes.size()};
}

}  // namespace

std::size_t messageSize(std::span<const iovec> pieces) {
  std::size_t size = 0;
  for (const iovec& piece : pieces) {
    size += piece.iov_len;
  }
  if (size > wire::kMessageMax) {
    throw std::runtime_error("a message of " + std::to_string(size) + " bytes cannot be sent; the most is " +
                             std::to_string(wire::kMessageMax));
  }
  return size;
}

Link::Link(std::uint64_t id, LinkKind kind, Descriptor socket, int poller, std::size_t bufferBytes)
    : m_id(id),
      m_kind(kind),
      m_socket(std::move(socket)),
      m_poller(poller),
      m_bufferBytes(bufferBytes),
      m_queueMax(kUnreadMax) {
  // As much as the system grants; less is no fault.
  ::setsockopt(m_socket.get(), SOL_SOCKET, SO_SNDBUF, &kSocketBufferBytes, sizeof(kSocketBufferBytes));
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = id;
  if (::epoll_ctl(poller, EPOLL_CTL_ADD, m_socket.get(), &event) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot watch the link to another context");
  }
}

void Link::sendControl(wire::Bytes frame) {
  const std::lock_guard lock(m_mutex);
  reportLosses();
  const iovec part = partOf(frame);
  take({&part, 1});
  if (m_queue.size() > m_queueMax) {
    breakOff("it does not read what it is sent");
  }
}

bool Link::hasRoom(std::size_t bytes) {
  const std::lock_guard lock(m_mutex);
  return roomFor(bytes);
}

void Link::sendMessage(const wire::DataHeader& header, std::span<const iovec> pieces) {
  const std::lock_guard lock(m_mutex);
  takeMessage(header, pieces);
}

void Link::sendMessageOrDrop(const wire::DataHeader& header, std::span<const iovec> pieces) {
  const std::lock_guard lock(m_mutex);
  if (roomFor(header.total)) {
    takeMessage(header, pieces);
    return;
  }
  // Whatever the link takes is preceded by the losses before it, so a source's losses are one run.
  const auto [run, isNew] = m_losses.try_emplace(header.source, LostRun{header.sequence, 0});
  if (++run->second.count == kLossesToldMax) {
    reportLosses();
  }
}

bool Link::notifyWhenIdle(std::uint32_t publication) {
  const std::lock_guard lock(m_mutex);
  if (m_queue.empty()) {
    return false;
  }
  m_waiting.push_back(publication);
  return true;
}

bool Link::flush() {
  const std::lock_guard lock(m_mutex);
  return flushQueue();
}

std::vector<std::uint32_t> Link::takeIdle() {
  const std::lock_guard lock(m_mutex);
  if (!m_queue.empty()) {
    return {};
  }
  watchWritable(false);
  return std::exchange(m_waiting, {});
}

void Link::awaitWritable() const {
  pollfd entry{m_socket.get(), POLLOUT, 0};
  ::poll(&entry, 1, kLookAgainMilliseconds);
}

bool Link::broken() const {
  const std::lock_guard lock(m_mutex);
  return m_broken;
}

Link::Arrival Link::receive(std::span<std::byte> buffer) {
  for (;;) {
    const ssize_t length = ::recv(m_socket.get(), buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
    if (length > 0) {
      const auto size = static_cast<std::size_t>(length);
      if (size > buffer.size()) {
        throw wire::Fault("a frame is larger than allowed");
      }
      return {Received::frame, buffer.first(size)};
    }
    if (length == 0) {
      return {Received::hangUp, {}};
    }
    if (errno == EAGAIN) {
      return {Received::nothing, {}};
    }
    // A peer that went with frames unread resets the connection, once; what it had sent still follows.
    if (errno == ECONNRESET && !std::exchange(m_resetSeen, true)) {
      continue;
    }
    if (errno != EINTR) {
      return {Received::hangUp, {}};
    }
  }
}

std::vector<std::uint32_t> Link::end() {
  const std::lock_guard lock(m_mutex);
  breakOff({});
  ::epoll_ctl(m_poller, EPOLL_CTL_DEL, m_socket.get(), nullptr);
  return std::exchange(m_waiting, {});
}

std::string Link::fault() const {
  const std::lock_guard lock(m_mutex);
  return m_fault;
}

// Takes one frame: to the socket, or behind those that wait for it.
void Link::take(std::span<const iovec> parts) {
  if (m_broken || (m_queue.empty() && transmit(parts)) || m_broken) {
    return;
  }
  m_queue.push(parts);
  watchWritable(true);
}

void Link::takeMessage(const wire::DataHeader& header, std::span<const iovec> pieces) {
  reportLosses();
  if (header.total > m_bufferBytes) {
    m_queueMax = kUnreadMax + header.total;
  }
  constexpr std::size_t kPayloadMax = wire::kPacketMax - sizeof(wire::DataHeader);
  std::size_t left = header.total;
  auto piece = pieces.begin();
  std::size_t offset = 0;  // in the piece
  do {
    m_parts.assign(1, partOf(wire::bytesOf(header)));
    std::size_t size = 0;
    const std::size_t wanted = std::min(left, kPayloadMax);
    while (size < wanted && m_parts.size() < IOV_MAX) {
      const std::size_t length = std::min(piece->iov_len - offset, wanted - size);
      if (length > 0) {
        m_parts.push_back({static_cast<std::byte*>(piece->iov_base) + offset, length});
      }
      size += length;
      offset += length;
      if (offset == piece->iov_len) {
        ++piece;
        offset = 0;
      }
    }
    left -= size;
    take(m_parts);
  } while (left > 0 && !m_broken);
}

// Gives one frame to the socket. False when it has to wait or the peer is gone.
bool Link::transmit(std::span<const iovec> parts) {
  msghdr message{};
  message.msg_iov = const_cast<iovec*>(parts.data());
  message.msg_iovlen = parts.size();
  while (::sendmsg(m_socket.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
    if (errno == EAGAIN || errno == ENOBUFS) {
      return false;
    }
    if (errno != EINTR) {
      // Not hung up here: what the peer had sent before it went is still to be received.
      m_broken = true;
      m_queue.clear();
      return false;
    }
  }
  return true;
}

bool Link::flushQueue() {
  while (!m_queue.empty()) {
    const iovec part = partOf(m_queue.front());
    if (!transmit({&part, 1})) {
      break;
    }
    m_queue.pop();
  }
  if (m_queue.empty()) {
    m_queueMax = kUnreadMax;
    reportLosses();
  }
  return m_queue.empty();
}

bool Link::roomFor(std::size_t bytes) {
  const auto fits = [&] { return m_broken || m_queue.empty() || m_queue.size() + bytes <= m_bufferBytes; };
  return fits() || (flushQueue(), fits());
}

void Link::reportLosses() {
  if (m_losses.empty()) {
    return;
  }
  for (const auto& [source, run] : m_losses) {
    wire::Loss loss;
    loss.source = source;
    loss.first = run.first;
    loss.count = run.count;
    const iovec part = partOf(wire::bytesOf(loss));
    take({&part, 1});
  }
  m_losses.clear();
}

void Link::breakOff(std::string fault) {
  m_broken = true;
  m_queue.clear();
  m_losses.clear();
  if (m_fault.empty()) {
    m_fault = std::move(fault);
  }
  ::shutdown(m_socket.get(), SHUT_RDWR);
}

void Link::watchWritable(bool on) {
  if (on == m_watchingWritable) {
    return;
  }
  epoll_event event{};
  event.events = EPOLLIN | (on ? EPOLLOUT : 0U);
  event.data.u64 = m_id;
  // Fails only for a link that has ended and is no longer registered.
  ::epoll_ctl(m_poller, EPOLL_CTL_MOD, m_socket.get(), &event);
  m_watchingWritable = on;
}

}  // namespace engine::transport::host
