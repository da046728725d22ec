// Lines from a descriptor.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <utility>

namespace price_server {

class LineReader {
 public:
  // Longer lines come cut off after this many bytes.
  static constexpr std::size_t kMaxLength = 4096;

  // Takes one line without its end.
  using Handler = std::function<void(const std::string& line)>;

  // file stays the caller's.
  LineReader(int file, Handler handler) : m_file(file), m_handler(std::move(handler)) {}

  // Reads once, which waits when there is nothing, and hands over the lines that are complete by then. False at the end
  // of the input, when what stood behind the last end of line has been handed over, too; an error counts as the end.
  bool Read();

 private:
  void Deliver() { m_handler(std::exchange(m_line, {})); }

  const int m_file;
  const Handler m_handler;
  std::string m_line;
};

}  // namespace price_server
