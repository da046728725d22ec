#include "transport/host/link/send_queue.h"

#include <cstring>

namespace engine::transport::host {

namespace {

// Memory kept while the queue is empty.
constexpr std::size_t kBytesKept = std::size_t{4} << 20;

}  // namespace

void SendQueue::Push(std::span<const iovec> parts) {
  // Compacted once the larger half is consumed, so that moving never costs more than pushing did.
  if (m_head > m_bytes.size() / 2) {
    m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<std::ptrdiff_t>(m_head));
    m_head = 0;
  }
  std::size_t length = 0;
  for (const iovec& part : parts) {
    length += part.iov_len;
  }
  std::size_t position = m_bytes.size();
  m_bytes.resize(position + sizeof(length) + length);
  std::memcpy(&m_bytes[position], &length, sizeof(length));
  position += sizeof(length);
  for (const iovec& part : parts) {
    if (part.iov_len != 0) {
      std::memcpy(&m_bytes[position], part.iov_base, part.iov_len);
      position += part.iov_len;
    }
  }
}

std::span<std::byte> SendQueue::Front() {
  std::size_t length = 0;
  std::memcpy(&length, &m_bytes[m_head], sizeof(length));
  return std::span(m_bytes).subspan(m_head + sizeof(length), length);
}

void SendQueue::Pop() {
  m_head += sizeof(std::size_t) + Front().size();
  if (Empty()) {
    Clear();
  }
}

void SendQueue::Clear() {
  m_bytes.clear();
  m_head = 0;
  if (m_bytes.capacity() > kBytesKept) {
    m_bytes.shrink_to_fit();
  }
}

}  // namespace engine::transport::host
