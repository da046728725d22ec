// The layer's error convention: a call of the C interface has failed when it returns exactly -1. Code that can throw
// then throws LbmError; destructors and other paths that must not throw log the failure and carry on.
#pragma once

#include <stdexcept>
#include <string>

#pragma GCC visibility push(default)

namespace lbm {

// A failed call. what() is the message given, ": ", and the library's last error text of the constructing thread, which
// therefore has to be the thread of the failed call.
class LbmError : public std::runtime_error {
 public:
  explicit LbmError(const std::string& msg);
  ~LbmError() override;
};

namespace details {

// Logs and throws an LbmError.
[[noreturn]] void ThrowLbmError(const std::string& msg);

// Logs msg, ": " and the library's last error text.
void LogLbmError(const char* msg);

constexpr bool Failed(int result) noexcept { return result == -1; }

// Gives a call's result back, or throws an LbmError when the call failed.
inline int ThrowIfFailed(int result, const char* msg) {
  if (Failed(result)) {
    ThrowLbmError(msg);
  }
  return result;
}

}  // namespace details
}  // namespace lbm

#pragma GCC visibility pop
