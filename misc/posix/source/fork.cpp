#include "zq/posix/fork.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <new>
#include <vector>

namespace zq::posix {

namespace {

// What children do not get.
struct Hidden {
  std::mutex mutex;
  // Guarded by mutex:
  std::vector<bool> descriptors;  // by number
  std::map<void*, std::size_t> memory;
};

// Never destroyed: objects that are destroyed later than this file's may still own something of it.
Hidden& TheHidden() {
  static Hidden& hidden = *new Hidden;
  return hidden;
}

// Numbers and addresses stay taken, so that their owners, should the child destroy them, hit nothing else.
void ReplaceInChild(Hidden& hidden) noexcept {
  const Descriptor inert(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  for (std::size_t i = 0; i < hidden.descriptors.size(); ++i) {
    const int descriptor = static_cast<int>(i);
    if (hidden.descriptors[i] && (!inert || ::dup3(inert.Get(), descriptor, O_CLOEXEC) == -1)) {
      ::close(descriptor);
    }
  }
  for (const auto& [memory, size] : hidden.memory) {
    // Without memory even for that, the child goes on sharing it.
    static_cast<void>(
        ::mmap(memory, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0));
  }
}

[[maybe_unused]] const int g_registered =
    ::pthread_atfork([] { TheHidden().mutex.lock(); }, [] { TheHidden().mutex.unlock(); },
                     [] {
                       ++details::g_generation;
                       ReplaceInChild(TheHidden());
                       TheHidden().mutex.unlock();
                     });

}  // namespace

namespace details {

constinit std::atomic<unsigned> g_generation{0};

ForkLock::ForkLock() noexcept { TheHidden().mutex.lock(); }
ForkLock::~ForkLock() { TheHidden().mutex.unlock(); }

Descriptor Hide(int descriptor) noexcept {
  auto& descriptors = TheHidden().descriptors;
  const auto number = static_cast<std::size_t>(descriptor);
  try {
    descriptors.resize(std::max(descriptors.size(), number + 1));
  } catch (const std::bad_alloc&) {
    return Descriptor(descriptor);
  }
  descriptors[number] = true;
  return Descriptor(descriptor, Descriptor::Sharing::kNotWithChildren);
}

void CloseUnshared(int descriptor) noexcept {
  const ForkLock lock;
  TheHidden().descriptors[static_cast<std::size_t>(descriptor)] = false;
  ::close(descriptor);
}

}  // namespace details

void* MapUnshared(std::size_t size, int protection, int file) noexcept {
  const details::ForkLock lock;
  void* const memory = ::mmap(nullptr, size, protection, MAP_SHARED, file, 0);
  if (memory != MAP_FAILED) {
    try {
      TheHidden().memory.emplace(memory, size);
    } catch (const std::bad_alloc&) {
      // Children have it, too.
    }
  }
  return memory;
}

void UnmapUnshared(void* memory, std::size_t size) noexcept {
  const details::ForkLock lock;
  TheHidden().memory.erase(memory);
  ::munmap(memory, size);
}

}  // namespace zq::posix
