#include "line_reader.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>
#include <system_error>
#include <utility>

namespace price_server {
namespace {

constexpr int kRetryMs = 10;
constexpr int kForever = -1;

}  // namespace

LineReader::LineReader(int file, Handler handler)
    : m_file(file), m_handler(std::move(handler)), m_stop(::eventfd(0, EFD_CLOEXEC)) {
  if (m_stop < 0) {
    throw std::system_error(errno, std::generic_category(), "eventfd");
  }
  m_thread = std::thread([this] { Run(); });
}

LineReader::~LineReader() {
  ::eventfd_write(m_stop, 1);
  m_thread.join();
  ::close(m_stop);
}

void LineReader::Run() {
  while (WaitUntilReadable()) {
    std::array<char, 4096> buffer;
    const auto length = ::read(m_file, buffer.data(), buffer.size());
    if (length < 0 && (errno == EINTR || errno == EAGAIN)) {
      continue;
    }
    if (length <= 0) {
      break;
    }
    for (const char c : std::string_view(buffer.data(), static_cast<std::size_t>(length))) {
      if (c == '\n') {
        if (!Deliver()) {
          return;
        }
      } else if (m_line.size() < kMaxLength) {
        m_line += c;
      }
    }
  }
  if (!m_line.empty() && !IsStopped(0)) {
    Deliver();
  }
}

// False when the reader is to end.
bool LineReader::Deliver() {
  while (!m_handler(m_line)) {
    if (IsStopped(kRetryMs)) {
      return false;
    }
  }
  m_line.clear();
  return true;
}

bool LineReader::WaitUntilReadable() const {
  std::array<pollfd, 2> files{{{m_file, POLLIN, 0}, {m_stop, POLLIN, 0}}};
  while (::poll(files.data(), files.size(), kForever) < 0) {
    if (errno != EINTR) {
      return false;
    }
  }
  return files[1].revents == 0 && (files[0].revents & POLLNVAL) == 0;
}

bool LineReader::IsStopped(int timeoutMs) const {
  pollfd stop{m_stop, POLLIN, 0};
  return ::poll(&stop, 1, timeoutMs) > 0;
}

}  // namespace price_server
