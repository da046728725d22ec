// A mutex biased towards one thread.
#pragma once

#include <memory>
#include <thread>
#include <vector>

#include "system/asymmetric_fence.h"
#include "system/atomic.h"

namespace engine {

// A mutex that nearly always the same thread locks. A thread that has locked it many times in a row becomes its owner;
// the owner locks and unlocks without a locked instruction, which would also make it wait until its earlier stores have
// left the store buffer. Another thread's lock revokes the ownership, at the cost of a heavy fence; from then on it is
// an ordinary mutex until some thread earns the ownership again.
//
// Ownership and revocation are Dekker's pattern with an asymmetric fence: the owner stores that it is inside and then
// loads whether it still owns the mutex; the revoking thread stores that there is no owner, issues the heavy fence, and
// then loads whether the owner is inside. At least one of the two sees the other's store.
class BiasedMutex {
 public:
  // So many locks in a row that the cost of one revocation is small beside what the owner saved.
  static constexpr unsigned kOwnerAfterLocks = 1024;

  explicit BiasedMutex(unsigned ownerAfterLocks = kOwnerAfterLocks) noexcept : m_ownerAfterLocks(ownerAfterLocks) {}

  void lock() {
    if (!LockAsOwner()) {
      LockOrdinarily();
    }
  }

  void unlock() noexcept {
    if (m_lockedAsOwner != nullptr) {
      m_lockedAsOwner->inside.store(false, std::memory_order_release);
    } else {
      UnlockOrdinarily();
    }
  }

 private:
  // One for each thread that has ever owned the mutex, so that a late store of a former owner is not taken for one of
  // the present owner.
  struct Owner {
    explicit Owner(std::thread::id id) : thread(id) {}

    const std::thread::id thread;
    Atomic<bool> inside{false};
  };

  bool LockAsOwner() noexcept {
    Owner* const owner = m_owner.load(std::memory_order_acquire);
    if (owner == nullptr || owner->thread != std::this_thread::get_id()) {
      return false;
    }
    // Acquires what a former thread of the same id has released: ids are used again.
    static_cast<void>(owner->inside.load(std::memory_order_acquire));
    owner->inside.store(true, std::memory_order_relaxed);
    LightFence();
    if (m_owner.load(std::memory_order_relaxed) != owner) {
      owner->inside.store(false, std::memory_order_release);
      return false;
    }
    m_lockedAsOwner = owner;
    return true;
  }

  void LockOrdinarily();
  void UnlockOrdinarily() noexcept;
  Owner* OwnerFor(std::thread::id thread) noexcept;

  const unsigned m_ownerAfterLocks;
  const bool m_biasable = ProcessFenceAvailable();  // asked here, because the first question is a system call
  Atomic<Owner*> m_owner{nullptr};
  Owner* m_lockedAsOwner = nullptr;  // for the thread that holds the lock

  Mutex m_mutex;
  // Guarded by m_mutex:
  std::thread::id m_lastThread;
  unsigned m_locksInARow = 0;  // by m_lastThread
  std::vector<std::unique_ptr<Owner>> m_owners;
};

}  // namespace engine
