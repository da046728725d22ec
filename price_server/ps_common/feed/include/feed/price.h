// A price as an exact decimal number.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#pragma GCC visibility push(default)

namespace feed {

// A price that is not negative, counted in millionths, so that what a prices file says is what arrives.
class Price {
 public:
  static constexpr int kDecimals = 6;
  static constexpr std::int64_t kUnitsPerOne = 1'000'000;

  constexpr Price() = default;
  constexpr explicit Price(std::int64_t units) : m_units(units) {}

  // Reads plain decimal notation such as "39.81": up to 12 digits before the point and up to kDecimals after it.
  // Anything else (a sign, an exponent, "nan", blanks) gives nothing.
  static std::optional<Price> Parse(std::string_view text);

  constexpr std::int64_t Units() const { return m_units; }
  constexpr double ToDouble() const { return static_cast<double>(m_units) / kUnitsPerOne; }

  // Plain decimal notation with at least two digits after the point and no more than needed.
  std::string ToString() const;

  friend constexpr bool operator==(Price a, Price b) { return a.m_units == b.m_units; }
  friend constexpr bool operator!=(Price a, Price b) { return a.m_units != b.m_units; }
  friend constexpr bool operator<(Price a, Price b) { return a.m_units < b.m_units; }
  friend constexpr bool operator>(Price a, Price b) { return a.m_units > b.m_units; }

 private:
  std::int64_t m_units = 0;
};

}  // namespace feed

#pragma GCC visibility pop
