// Messages that show whether they arrived whole: the number stands at both ends, inverted at the second.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

namespace compare {

// Sent until every receiver has got one; not counted.
inline constexpr std::uint64_t kProbe = 0;

inline constexpr std::size_t kPayloadMin = 2 * sizeof(std::uint64_t);
inline constexpr std::size_t kPayloadWithTimeMin = 3 * sizeof(std::uint64_t);

class Payload {
 public:
  explicit Payload(std::size_t length) : m_bytes(length, 'p') {}

  void Stamp(std::uint64_t number) noexcept {
    const std::uint64_t inverted = ~number;
    std::memcpy(m_bytes.data(), &number, sizeof number);
    std::memcpy(m_bytes.data() + m_bytes.size() - sizeof inverted, &inverted, sizeof inverted);
  }

  // When the message should have been sent, of the steady clock; between the numbers of one that has room for it.
  void StampDue(std::chrono::nanoseconds due) noexcept {
    const std::int64_t count = due.count();
    std::memcpy(m_bytes.data() + sizeof count, &count, sizeof count);
  }
  static std::chrono::nanoseconds DueOf(const char* data) noexcept {
    std::int64_t count = 0;
    std::memcpy(&count, data + sizeof count, sizeof count);
    return std::chrono::nanoseconds(count);
  }

  // The number of a message that is whole, else nothing.
  static std::optional<std::uint64_t> NumberOf(const char* data, std::size_t length, std::size_t expected) noexcept {
    if (length != expected) {
      return {};
    }
    std::uint64_t number = 0;
    std::uint64_t inverted = 0;
    std::memcpy(&number, data, sizeof number);
    std::memcpy(&inverted, data + length - sizeof inverted, sizeof inverted);
    if (number != ~inverted) {
      return {};
    }
    return number;
  }

  const char* Data() const noexcept { return m_bytes.data(); }
  std::size_t Size() const noexcept { return m_bytes.size(); }

 private:
  std::vector<char> m_bytes;
};

}  // namespace compare
