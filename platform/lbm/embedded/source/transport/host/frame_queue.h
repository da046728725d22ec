#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <span>
#include <vector>

namespace engine::transport::host {

// Frames in the order in which they wait for a socket, in one block of memory that is used again.
class FrameQueue {
 public:
  bool Empty() const { return m_head == m_bytes.size(); }
  std::size_t Size() const { return m_bytes.size() - m_head; }  // bytes, with what the queue itself needs

  void Push(std::span<const iovec> parts);
  std::span<std::byte> Front();
  void Pop();
  void Clear();

 private:
  std::vector<std::byte> m_bytes;  // each frame after its length, a std::size_t
  std::size_t m_head = 0;
};

}  // namespace engine::transport::host
