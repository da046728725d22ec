// A list of a few things, without memory of its own.
#pragma once

#include <array>
#include <cstddef>
#include <utility>

namespace engine::core {

// For Max elements at most.
template <class T, std::size_t Max>
class Few {
 public:
  bool Empty() const noexcept { return m_size == 0; }
  std::size_t Size() const noexcept { return m_size; }
  T& operator[](std::size_t i) noexcept { return m_elements[i]; }
  const T& operator[](std::size_t i) const noexcept { return m_elements[i]; }
  auto begin() noexcept { return m_elements.data(); }
  auto end() noexcept { return m_elements.data() + m_size; }
  auto begin() const noexcept { return m_elements.data(); }
  auto end() const noexcept { return m_elements.data() + m_size; }
  void Add(T element) noexcept { m_elements[m_size++] = std::move(element); }

 private:
  std::array<T, Max> m_elements{};
  std::size_t m_size = 0;
};

}  // namespace engine::core
