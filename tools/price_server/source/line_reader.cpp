#include "line_reader.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>

namespace price_server {

bool LineReader::Read() {
  std::array<char, 4096> buffer;
  const auto length = ::read(m_file, buffer.data(), buffer.size());
  if (length < 0 && (errno == EINTR || errno == EAGAIN)) {
    return true;
  }
  if (length <= 0) {
    if (!m_line.empty()) {
      Deliver();
    }
    return false;
  }
  for (const char c : std::string_view(buffer.data(), static_cast<std::size_t>(length))) {
    if (c == '\n') {
      Deliver();
    } else if (m_line.size() < kMaxLength) {
      m_line += c;
    }
  }
  return true;
}

}  // namespace price_server
