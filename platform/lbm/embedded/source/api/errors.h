// The error of the calling thread, and the way from the engine's exceptions to it.
#pragma once

#include <utility>

namespace engine::api {

// Room for an error's text, its terminating zero included; a longer text is cut and ends in "...".
inline constexpr int kErrorTextRoom = 1024;

// Sets the calling thread's error and returns -1. number: one of LBM_E... Allocates nothing; text may be the present
// error's own. For outcomes that are expected often (LBM_EWOULDBLOCK), where an exception would cost too much.
int Fail(int number, const char* text) noexcept;

// Sets the calling thread's error from the exception being handled, as Guarded says, and returns -1.
int FailCaught(const char* function) noexcept;

// Runs a call of the C interface: returns what body() returns. When it throws, the thread's error gets the name of the
// function, ": " and the exception's text, and the result is -1. Numbers: that of an engine::Error; LBM_ENOMEM for
// std::bad_alloc, LBM_EOS for std::system_error, LBM_EINVAL for std::invalid_argument, LBM_EOP for anything else.
template <class Body>
int Guarded(const char* function, Body&& body) noexcept {
  try {
    return std::forward<Body>(body)();
  } catch (...) {
    return FailCaught(function);
  }
}

}  // namespace engine::api
