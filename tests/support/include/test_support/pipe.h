// A pipe whose ends are closed in the end.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include "zq/posix/descriptor.h"

namespace test_support {

struct Pipe {
  zq::posix::Descriptor reader;
  zq::posix::Descriptor writer;
};

// Throws std::system_error.
inline Pipe MakePipe() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    zq::posix::ThrowErrno("pipe2");
  }
  return {zq::posix::Descriptor(ends[0]), zq::posix::Descriptor(ends[1])};
}

}  // namespace test_support
