// Ownership of file descriptors.
#pragma once

#include <unistd.h>

#include <utility>

#include "zq/posix/error.h"

namespace zq::posix {

// Owns one file descriptor, or none, and closes it in the end.
class Descriptor {
 public:
  Descriptor() = default;
  // Takes over the result of a system call; a negative one is none.
  explicit Descriptor(int value) noexcept : m_value(value) {}
  Descriptor(Descriptor&& other) noexcept : m_value(other.Release()) {}
  Descriptor& operator=(Descriptor other) noexcept {
    std::swap(m_value, other.m_value);
    return *this;
  }
  ~Descriptor() {
    if (m_value >= 0) {
      ::close(m_value);
    }
  }

  int Get() const noexcept { return m_value; }
  int Release() noexcept { return std::exchange(m_value, -1); }
  explicit operator bool() const noexcept { return m_value >= 0; }

 private:
  int m_value = -1;
};

// Takes over the result of a system call that must not fail: throws std::system_error from errno, what in front.
inline Descriptor Checked(int value, const char* what) {
  if (value < 0) {
    ThrowErrno(what);
  }
  return Descriptor(value);
}

}  // namespace zq::posix
