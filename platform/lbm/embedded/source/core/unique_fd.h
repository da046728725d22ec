// An owned file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace engine::core {

class UniqueFd {
 public:
  UniqueFd() noexcept = default;
  explicit UniqueFd(int fd) noexcept : m_fd(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
  UniqueFd& operator=(UniqueFd other) noexcept {
    std::swap(m_fd, other.m_fd);
    return *this;
  }
  ~UniqueFd() {
    if (m_fd >= 0) {
      ::close(m_fd);
    }
  }

  int get() const noexcept { return m_fd; }
  explicit operator bool() const noexcept { return m_fd >= 0; }

 private:
  int m_fd = -1;
};

}  // namespace engine::core
