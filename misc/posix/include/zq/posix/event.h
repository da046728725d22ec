// Something that threads can wait for beside descriptors.
#pragma once

#include "zq/posix/descriptor.h"

namespace zq::posix {

// A descriptor that is readable from Notify until Clear. A child that fork makes has no part in it. Threads: any.
class Event {
 public:
  // Throws std::system_error.
  Event();

  // Never blocks and never fails.
  void Notify() noexcept;

  // Whether there was a Notify since the last call.
  bool Clear() noexcept;

  int GetDescriptor() const noexcept { return m_descriptor.Get(); }

 private:
  Descriptor m_descriptor;
};

}  // namespace zq::posix
