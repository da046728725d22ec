// Ownership of file descriptors.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <utility>

#include "zq/posix/error.h"

namespace zq::posix {

namespace details {

void CloseUnshared(int descriptor) noexcept;

}  // namespace details

// Owns one file descriptor, or none, and closes it in the end.
class Descriptor {
 public:
  // kNotWithChildren is for what OpenUnshared makes; see fork.h.
  enum class Sharing : std::uint8_t { kWithChildren, kNotWithChildren };

  Descriptor() = default;
  // Takes over the result of a system call; a negative one is none.
  explicit Descriptor(int value, Sharing sharing = Sharing::kWithChildren) noexcept
      : m_value(value), m_sharing(sharing) {}
  Descriptor(Descriptor&& other) noexcept : m_value(std::exchange(other.m_value, -1)), m_sharing(other.m_sharing) {}
  Descriptor& operator=(Descriptor other) noexcept {
    std::swap(m_value, other.m_value);
    std::swap(m_sharing, other.m_sharing);
    return *this;
  }
  ~Descriptor() {
    if (m_value < 0) {
      return;
    }
    if (m_sharing == Sharing::kNotWithChildren) {
      details::CloseUnshared(m_value);
    } else {
      ::close(m_value);
    }
  }

  int Get() const noexcept { return m_value; }
  int Release() noexcept { return std::exchange(m_value, -1); }  // not for what OpenUnshared makes
  explicit operator bool() const noexcept { return m_value >= 0; }

 private:
  int m_value = -1;
  Sharing m_sharing = Sharing::kWithChildren;
};

// Takes over the result of a system call that must not fail: throws std::system_error from errno, what in front.
inline Descriptor Checked(int value, const char* what) {
  if (value < 0) {
    ThrowErrno(what);
  }
  return Descriptor(value);
}

// The same for a descriptor that a call has made.
inline Descriptor Checked(Descriptor made, const char* what) {
  if (!made) {
    ThrowErrno(what);
  }
  return made;
}

}  // namespace zq::posix
