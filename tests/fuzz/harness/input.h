// What fuzzers make of their bytes.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

namespace fuzz {

class Input : public FuzzedDataProvider {
 public:
  using FuzzedDataProvider::FuzzedDataProvider;

  bool Left() { return remaining_bytes() > 0; }

  template <typename T>
  T UpTo(T most) {
    return ConsumeIntegralInRange<T>(0, most);
  }

  // Small as a rule, so that it is one that exists; now and then any.
  template <typename T>
  T Plausible(T most) {
    return UpTo<std::uint8_t>(15) == 0 ? ConsumeIntegral<T>() : UpTo<T>(most);
  }

  std::vector<std::byte> Bytes(std::size_t most) { return ConsumeBytes<std::byte>(UpTo(most)); }
  std::string Text(std::size_t most) { return ConsumeBytesAsString(UpTo(most)); }

  // The usual one, any other, or one that may be too long.
  std::string Name(const char* usual) {
    switch (UpTo<std::uint8_t>(7)) {
      case 0:
        return Text(20);
      case 1:
        return std::string(UpTo<std::size_t>(6'000), 'x');
      default:
        return usual;
    }
  }

  // Overwrites some bytes.
  void Damage(std::span<std::byte> bytes) {
    if (!bytes.empty()) {
      const std::vector<std::byte> damage = ConsumeBytes<std::byte>(UpTo<std::size_t>(8));
      const std::size_t at = UpTo(bytes.size() - 1);
      std::copy_n(damage.begin(), std::min(damage.size(), bytes.size() - at),
                  bytes.begin() + static_cast<std::ptrdiff_t>(at));
    }
  }

  // A structure of which each byte comes from the input.
  template <typename T>
  T Any() {
    static_assert(std::is_trivially_copyable_v<T>);
    T value{};
    ConsumeData(&value, sizeof value);
    return value;
  }
};

}  // namespace fuzz

// The fuzzer's entry, for a function that takes an Input.
#define FUZZ_WITH(function)                                                           \
  extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) { \
    fuzz::Input input(data, size);                                                    \
    function(input);                                                                  \
    return 0;                                                                         \
  }
