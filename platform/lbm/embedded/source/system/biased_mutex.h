#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "system/barrier.h"

namespace engine {

// A mutex for what one thread locks nearly all the time. A thread that has locked it often, and nobody else meanwhile,
// owns it: from then on it pays no locked instruction, which would also make it wait until all that it has written has
// reached the cache. A thread that comes along pays some microseconds to end that; then it is a mutex like any other,
// until somebody owns it again.
//
// The owner says that it is inside before it looks whether it still is the owner. Whoever ends the ownership says so,
// puts a barrier into the owner's thread, and then looks whether the owner is inside: at least one of the two sees what
// the other said.
class BiasedMutex {
 public:
  void lock() {
    if (!LockAsOwner()) {
      LockAsAnybody();
    }
  }

  void unlock() noexcept {
    if (m_insideAsOwner != nullptr) {
      m_insideAsOwner->inside.store(false, std::memory_order_release);
    } else {
      UnlockAsAnybody();
    }
  }

 private:
  // One for each thread that ever was the owner: a late word of a past owner is not taken for the present one's.
  struct Owner {
    explicit Owner(std::thread::id id) : thread(id) {}

    const std::thread::id thread;
    std::atomic<bool> inside{false};
  };

  bool LockAsOwner() noexcept {
    Owner* const owner = m_owner.load(std::memory_order_acquire);
    if (owner == nullptr || owner->thread != std::this_thread::get_id()) {
      return false;
    }
    // Acquired, because the id may have been that of another thread, which has ended.
    static_cast<void>(owner->inside.load(std::memory_order_acquire));
    owner->inside.store(true, std::memory_order_relaxed);
    KeepOrder();
    if (m_owner.load(std::memory_order_relaxed) != owner) {
      owner->inside.store(false, std::memory_order_release);
      return false;
    }
    m_insideAsOwner = owner;
    return true;
  }

  void LockAsAnybody();
  void UnlockAsAnybody() noexcept;
  Owner* OwnerFor(std::thread::id thread) noexcept;

  const bool m_canBeOwned = ProcessBarrierWorks();  // asked here, since the first question is a system call
  std::atomic<Owner*> m_owner{nullptr};
  Owner* m_insideAsOwner = nullptr;  // for whoever has locked it

  std::mutex m_mutex;
  // Guarded by m_mutex:
  std::thread::id m_last;
  unsigned m_times = 0;  // that m_last locked it in a row
  std::vector<std::unique_ptr<Owner>> m_owners;
};

}  // namespace engine
