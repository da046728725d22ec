// Messages in the pieces in which the application gives them.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <span>
#include <vector>

#include "transport/message.h"

namespace engine::transport {

[[noreturn]] void RefuseSize(std::size_t size);

// Bytes of a message. Throws std::invalid_argument when they are more than a message may have.
inline std::size_t MessageSize(std::span<const iovec> pieces) {
  std::size_t size = 0;
  for (const iovec& piece : pieces) {
    size += piece.iov_len;
  }
  if (size > kMessageMax) {
    RefuseSize(size);
  }
  return size;
}

void CopyPieces(std::span<const iovec> pieces, std::byte* to) noexcept;

// The bytes as a piece. The structure of the system calls serves both directions, hence no const.
inline iovec PieceOf(Bytes bytes) noexcept { return {const_cast<std::byte*>(bytes.data()), bytes.size()}; }

// Cuts a message into fragments.
class PieceCursor {
 public:
  explicit PieceCursor(std::span<const iovec> pieces) noexcept : m_pieces(pieces) {}

  // Appends to fragment what makes up the next bytesWanted bytes, in at most partsMax parts. Returns how many bytes
  // that are.
  std::size_t Take(std::size_t bytesWanted, std::size_t partsMax, std::vector<iovec>& fragment);

 private:
  std::span<const iovec> m_pieces;  // not yet taken whole
  std::size_t m_offset = 0;         // in the first of them
};

}  // namespace engine::transport
