// What fork() leaves to a child: a copy of the memory and all descriptors, but none of the threads.
//
// A child that lives on without exec would hold open what others take for this process being alive: connections,
// sockets that listen, shared memory. What is made here no child has. Only fork() itself is noticed: a process that is
// made by the clone system call, or by _Fork(), keeps everything.
#pragma once

#include <atomic>
#include <cstddef>

#include "zq/posix/descriptor.h"

namespace zq::posix {

namespace details {

extern constinit std::atomic<unsigned> g_generation;

// No thread of this process forks while one lives.
class ForkLock {
 public:
  ForkLock() noexcept;
  ~ForkLock();
  ForkLock(const ForkLock&) = delete;
  ForkLock& operator=(const ForkLock&) = delete;
};

// Under a ForkLock: notes that children are not to have it. Without memory for that, they have it.
Descriptor Hide(int descriptor) noexcept;

}  // namespace details

// How many forks lie between the first process of this program and this one: what was made in another generation
// belongs to a parent. Costs no more than reading a variable.
inline unsigned Generation() noexcept { return details::g_generation.load(std::memory_order_relaxed); }

// A descriptor that no child has: the same number stands there for an object that does nothing, until it is closed.
// open: a system call that makes a descriptor and does not block. None, with errno, when that fails.
template <typename Open>
Descriptor OpenUnshared(Open open) {
  const details::ForkLock lock;
  const int descriptor = open();
  return descriptor < 0 ? Descriptor() : details::Hide(descriptor);
}

// Maps a file's memory, as mmap with MAP_SHARED. A child has private memory there, which is filled with zeros. Returns
// MAP_FAILED, with errno, when the system refuses.
void* MapUnshared(std::size_t size, int protection, int file) noexcept;
void UnmapUnshared(void* memory, std::size_t size) noexcept;

}  // namespace zq::posix
