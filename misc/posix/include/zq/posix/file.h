// Reading and writing files whole. Calls that a signal interrupts are resumed.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zq::posix {

// The file's contents, whatever kind of file it is. Throws std::system_error whose text begins with the path: as open
// or read failed, or EFBIG when there are more than bytesMax bytes.
std::string ReadFile(const std::string& path, std::size_t bytesMax);

// What stands at the beginning of an open file, up to bytesMax bytes; empty when it cannot be read. Leaves the file's
// position alone.
std::string ReadBeginning(int file, std::size_t bytesMax);

struct WriteResult {
  int error = 0;  // a value of errno; 0 when everything was written
  std::size_t written = 0;
};

// Writes all the bytes, waiting for room where the descriptor does not.
WriteResult WriteAll(int file, std::string_view bytes) noexcept;

}  // namespace zq::posix
