#include "zq/posix/error.h"

#include <cerrno>
#include <system_error>

namespace zq::posix {

void ThrowError(int error, const std::string& what) { throw std::system_error(error, std::generic_category(), what); }

void ThrowErrno(const std::string& what) { ThrowError(errno, what); }

void ThrowErrno(const char* what) {
  const int error = errno;  // making a string may change it
  ThrowError(error, what);
}

std::string ErrorText(int error) { return std::generic_category().message(error); }

}  // namespace zq::posix
