#pragma once

#include <unistd.h>

#include <utility>

namespace engine {

// Owns a file descriptor.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int value) noexcept : m_value(value) {}
  Descriptor(Descriptor&& other) noexcept : m_value(std::exchange(other.m_value, -1)) {}
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

}  // namespace engine
