// Lines from a descriptor, on a thread that can be ended at any time.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <thread>

namespace price_server {

// Threads: the handler is called on the reader's own.
class LineReader {
 public:
  // Longer lines come cut off after this many bytes.
  static constexpr std::size_t kMaxLength = 4096;

  // Takes one line without its end; false: try again in a moment.
  using Handler = std::function<bool(const std::string& line)>;

  // Reads file, which stays the caller's, until its end; an error counts as the end. Throws std::system_error.
  LineReader(int file, Handler handler);

  // Lines that are still to come are not read; a handler that is running is waited for.
  ~LineReader();

  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

 private:
  void Run();
  bool Deliver();
  bool WaitUntilReadable() const;
  bool IsStopped(int timeoutMs) const;

  const int m_file;
  const Handler m_handler;
  int m_stop = -1;  // readable once the reader is to end
  std::string m_line;
  std::thread m_thread;
};

}  // namespace price_server
