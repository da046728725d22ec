// Putting fragments together again.
#pragma once

#include <cstddef>
#include <vector>

#include "transport/fault.h"
#include "transport/host/wire/frames.h"

namespace engine::transport::host::wire {

// Reassembles the fragmented messages of one ring, or the responses of one link. The fragments of a message follow each
// other; all carry its header, whose total is the number of bytes of the whole message.
template <typename Header>
class Reassembly {
 public:
  // Calls complete(Bytes) with the whole message when this was its last fragment. Throws Fault.
  template <typename Complete>
  void Add(const Header& header, Bytes fragment, Complete complete) {
    if (!m_inProgress) {
      if (fragment.size() == header.total) {
        return complete(fragment);
      }
      Begin(header);
    } else if (header != m_header) {
      throw Fault("a message begins inside another message");
    }
    if (fragment.empty() || fragment.size() > header.total - m_message.size()) {
      throw Fault("the fragments of a message do not add up");
    }
    m_message.insert(m_message.end(), fragment.begin(), fragment.end());
    if (m_message.size() == header.total) {
      m_inProgress = false;
      complete(Bytes(m_message));
      Clear();
    }
  }

 private:
  // Bytes of buffer kept for the next message: enough for any that fits in a ring of the default size.
  static constexpr std::size_t kBufferKept = std::size_t{1} << 20;

  void Begin(const Header& header) {
    if (header.total > kMessageMax) {
      throw Fault("a message is larger than allowed");
    }
    m_header = header;
    m_message.reserve(header.total);
    m_inProgress = true;
  }

  void Clear() {
    m_message.clear();
    if (m_message.capacity() > kBufferKept) {
      m_message.shrink_to_fit();
    }
  }

  Header m_header;
  std::vector<std::byte> m_message;
  bool m_inProgress = false;
};

}  // namespace engine::transport::host::wire
