// Errors of system calls. The project gives errno values the generic category, nowhere the system category.
#pragma once

#include <string>

namespace zq::posix {

// Throw std::system_error with the text "<what>: <the error's own text>". error: a value of errno; ThrowErrno takes the
// present one.
[[noreturn]] void ThrowError(int error, const std::string& what);
[[noreturn]] void ThrowErrno(const std::string& what);
[[noreturn]] void ThrowErrno(const char* what);  // leaves errno alone until it is read

// The error's text for people.
std::string ErrorText(int error);

}  // namespace zq::posix
