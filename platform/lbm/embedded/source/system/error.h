// The one exception of the engine's own making: a failure of a call as the caller of the C interface will see it.
// It stands on nothing else of the engine, so that every layer may throw it.
#pragma once

#include <stdexcept>
#include <string>

namespace engine {

class Error : public std::runtime_error {
 public:
  // number: one of LBM_E...; text: what was wrong and what to do, without the name of the function called.
  Error(int number, const std::string& text) : std::runtime_error(text), m_number(number) {}

  int Number() const noexcept { return m_number; }

 private:
  int m_number;
};

}  // namespace engine
