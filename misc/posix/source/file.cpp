#include "zq/posix/file.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "zq/posix/descriptor.h"
#include "zq/posix/error.h"

namespace zq::posix {

std::string ReadFile(const std::string& path, std::size_t bytesMax) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) {
    ThrowErrno(path);
  }
  // The size that the system reports means nothing for a pipe or for a file that is still growing.
  constexpr std::size_t kChunk = std::size_t{64} * 1024;
  std::string text;
  for (;;) {
    const std::size_t size = text.size();
    text.resize(size + kChunk);
    const ssize_t count = ::read(file.Get(), text.data() + size, kChunk);
    if (count == -1 && errno != EINTR) {
      ThrowErrno(path);
    }
    text.resize(size + static_cast<std::size_t>(count > 0 ? count : 0));
    if (text.size() > bytesMax) {
      ThrowError(EFBIG, path);
    }
    if (count == 0) {
      return text;
    }
  }
}

std::string ReadBeginning(int file, std::size_t bytesMax) {
  std::string text(bytesMax, '\0');
  ssize_t count = -1;
  do {
    count = ::pread(file, text.data(), text.size(), 0);
  } while (count == -1 && errno == EINTR);
  text.resize(static_cast<std::size_t>(count > 0 ? count : 0));
  return text;
}

WriteResult WriteAll(int file, std::string_view bytes) noexcept {
  std::size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t count = ::write(file, bytes.data() + written, bytes.size() - written);
    if (count >= 0) {
      written += static_cast<std::size_t>(count);
    } else if (errno == EAGAIN) {
      pollfd ready{file, POLLOUT, 0};
      ::poll(&ready, 1, -1);
    } else if (errno != EINTR) {
      return {errno, written};
    }
  }
  return {0, written};
}

}  // namespace zq::posix
