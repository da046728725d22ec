// The pieces in which an application gives a message.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <span>
#include <vector>

#include "transport/host/wire.h"

namespace engine::transport::host {

[[noreturn]] void RefuseSize(std::size_t size);

// Bytes of a message. Throws std::runtime_error when they are too many to be sent.
inline std::size_t MessageSize(std::span<const iovec> pieces) {
  std::size_t size = 0;
  for (const iovec& piece : pieces) {
    size += piece.iov_len;
  }
  if (size > wire::kMessageMax) {
    RefuseSize(size);
  }
  return size;
}

void CopyPieces(std::span<const iovec> pieces, std::byte* to) noexcept;

// Cuts a message into fragments.
class PieceCursor {
 public:
  explicit PieceCursor(std::span<const iovec> pieces) noexcept : m_pieces(pieces) {}

  // Appends what makes up the next wanted bytes, in at most partsMax parts. Returns how many bytes that are.
  std::size_t Take(std::size_t wanted, std::size_t partsMax, std::vector<iovec>& parts);

 private:
  std::span<const iovec> m_pieces;  // not yet taken whole
  std::size_t m_offset = 0;         // in the first of them
};

}  // namespace engine::transport::host
