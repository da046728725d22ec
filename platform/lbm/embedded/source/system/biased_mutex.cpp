#include "system/biased_mutex.h"

#include <algorithm>
#include <chrono>
#include <new>

namespace engine {

namespace {

// Threads that can ever own one mutex.
constexpr std::size_t kOwnersMax = 16;

// Between looks whether the owner is still inside. Sleeping, not yielding, lets an owner of lower priority get on.
constexpr std::chrono::microseconds kOwnerInsidePoll{20};

}  // namespace

void BiasedMutex::LockOrdinarily() {
  m_mutex.lock();
  if (Owner* const owner = m_owner.exchange(nullptr)) {
    HeavyProcessFence();
    SleepWhile(owner->inside, true, kOwnerInsidePoll);
  }
  m_lockedAsOwner = nullptr;
  const std::thread::id self = std::this_thread::get_id();
  if (m_lastThread != self) {
    m_lastThread = self;
    m_locksInARow = 0;
  }
}

void BiasedMutex::UnlockOrdinarily() noexcept {
  if (++m_locksInARow >= m_ownerAfterLocks && m_biasable) {
    m_locksInARow = 0;
    m_owner.store(OwnerFor(m_lastThread), std::memory_order_release);
  }
  m_mutex.unlock();
}

// Null when there are too many owners already, or no memory for another.
BiasedMutex::Owner* BiasedMutex::OwnerFor(std::thread::id thread) noexcept {
  const auto known =
      std::find_if(m_owners.begin(), m_owners.end(), [&](const auto& owner) { return owner->thread == thread; });
  if (known != m_owners.end()) {
    return known->get();
  }
  if (m_owners.size() == kOwnersMax) {
    return nullptr;
  }
  try {
    return m_owners.emplace_back(std::make_unique<Owner>(thread)).get();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace engine
