// How many descriptors the test's process may have.
#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include "zq/posix/descriptor.h"

namespace engine::transport::host {

inline rlimit DescriptorLimit() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  return limit;
}

// As many as the system allows. Returns how many that are.
inline rlim_t RaiseDescriptorLimit() {
  rlimit limit = DescriptorLimit();
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
  return limit.rlim_cur;
}

// While it lives, no more than there are.
class NoDescriptors {
 public:
  NoDescriptors() {
    rlimit tight = m_usual;
    tight.rlim_cur = static_cast<rlim_t>(zq::posix::Descriptor(::dup(STDIN_FILENO)).Get());
    ::setrlimit(RLIMIT_NOFILE, &tight);
  }
  ~NoDescriptors() { ::setrlimit(RLIMIT_NOFILE, &m_usual); }
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
  const rlimit m_usual = DescriptorLimit();
};

}  // namespace engine::transport::host
