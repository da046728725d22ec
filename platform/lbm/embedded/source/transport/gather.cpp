#include "transport/gather.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

namespace engine::transport {

void RefuseSize(std::size_t size) {
  throw std::invalid_argument("a message of " + std::to_string(size) + " bytes cannot be sent; the most is " +
                              std::to_string(kMessageMax));
}

void CopyPieces(std::span<const iovec> pieces, std::byte* to) noexcept {
  for (const iovec& piece : pieces) {
    if (piece.iov_len != 0) {
      std::memcpy(to, piece.iov_base, piece.iov_len);
      to += piece.iov_len;
    }
  }
}

std::size_t PieceCursor::Take(std::size_t bytesWanted, std::size_t partsMax, std::vector<iovec>& fragment) {
  std::size_t size = 0;
  while (size < bytesWanted && partsMax > 0) {
    const iovec& piece = m_pieces.front();
    const std::size_t length = std::min(piece.iov_len - m_offset, bytesWanted - size);
    if (length > 0) {
      fragment.push_back({static_cast<std::byte*>(piece.iov_base) + m_offset, length});
      --partsMax;
    }
    size += length;
    m_offset += length;
    if (m_offset == piece.iov_len) {
      m_pieces = m_pieces.subspan(1);
      m_offset = 0;
    }
  }
  return size;
}

}  // namespace engine::transport
