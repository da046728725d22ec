// Packets that wait for a socket.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <span>
#include <vector>

namespace engine::transport::host {

// A queue of packets in one block of memory, which is used again.
class SendQueue {
 public:
  bool Empty() const { return m_head == m_bytes.size(); }
  std::size_t Size() const { return m_bytes.size() - m_head; }  // bytes, the queue's own bookkeeping included

  // Appends the parts as one packet.
  void Push(std::span<const iovec> parts);
  std::span<std::byte> Front();
  void Pop();
  void Clear();

 private:
  std::vector<std::byte> m_bytes;  // each packet behind its length, a std::size_t
  std::size_t m_head = 0;          // of the first packet
};

}  // namespace engine::transport::host
