#include "transport/host/frame_queue.h"

#include <cstring>

namespace engine::transport::host {

namespace {

// Memory kept by an empty queue.
constexpr std::size_t kKept = std::size_t{4} << 20;

}  // namespace

void FrameQueue::Push(std::span<const iovec> parts) {
  // What was taken off the front is given back once it is the larger half, so that moving never costs more than
  // pushing.
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

std::span<std::byte> FrameQueue::Front() {
  std::size_t length = 0;
  std::memcpy(&length, &m_bytes[m_head], sizeof(length));
  return std::span(m_bytes).subspan(m_head + sizeof(length), length);
}

void FrameQueue::Pop() {
  m_head += sizeof(std::size_t) + Front().size();
  if (Empty()) {
    Clear();
  }
}

void FrameQueue::Clear() {
  m_bytes.clear();
  m_head = 0;
  if (m_bytes.capacity() > kKept) {
    m_bytes.shrink_to_fit();
  }
}

}  // namespace engine::transport::host
