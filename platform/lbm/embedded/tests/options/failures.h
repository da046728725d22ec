// Matchers for calls that fail.
#pragma once

#include <gmock/gmock.h>
#include <lbm/lbm.h>

#include <string>

#include "system/error.h"

namespace engine::test {

// The Error that the action throws, as "number text"; "no error" when it throws none.
template <class Action>
std::string ErrorOf(Action&& action) {
  try {
    action();
  } catch (const Error& error) {
    return std::to_string(error.Number()) + " " + error.what();
  }
  return "no error";
}

// A failed call of the C interface, with its number and text.
#define EXPECT_FAILS(call, number, text)                          \
  do {                                                            \
    EXPECT_EQ(call, -1);                                          \
    EXPECT_EQ(lbm_errnum(), number);                              \
    EXPECT_THAT(std::string(lbm_errmsg()), testing::StrEq(text)); \
  } while (false)

}  // namespace engine::test
