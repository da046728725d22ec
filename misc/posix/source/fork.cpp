#include "zq/posix/fork.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <map>
#include <mutex>
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

int Hide(int descriptor) {
  auto& descriptors = TheHidden().descriptors;
  try {
    const auto number = static_cast<std::size_t>(descriptor);
    if (descriptors.size() <= number) {
      descriptors.resize(number + 1);
    }
    descriptors[number] = true;
  } catch (...) {
    ::close(descriptor);
    throw;
  }
  return descriptor;
}

void* Hide(void* memory, std::size_t size) {
  try {
    TheHidden().memory.emplace(memory, size);
  } catch (...) {
    ::munmap(memory, size);
    throw;
  }
  return memory;
}

void CloseUnshared(int descriptor) noexcept {
  const ForkLock lock;
  TheHidden().descriptors[static_cast<std::size_t>(descriptor)] = false;
  ::close(descriptor);
}

}  // namespace details

void* MapUnshared(std::size_t size, int protection, int file) {
  const details::ForkLock lock;
  void* const memory = ::mmap(nullptr, size, protection, MAP_SHARED, file, 0);
  return memory == MAP_FAILED ? memory : details::Hide(memory, size);
}

void UnmapUnshared(void* memory, std::size_t size) noexcept {
  const details::ForkLock lock;
  TheHidden().memory.erase(memory);
  ::munmap(memory, size);
}

}  // namespace zq::posix
