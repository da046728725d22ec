#include "system/biased_mutex.h"

#include <algorithm>
#include <chrono>
#include <new>

namespace engine {

namespace {

// Locked so many times in a row, the mutex is the thread's own. Ending that costs little beside so many messages.
constexpr unsigned kOwnerAfter = 1024;

// Threads that can ever own one mutex.
constexpr std::size_t kOwnersMax = 16;

// Asleep, not only yielding, so that an owner of lower priority gets on.
constexpr std::chrono::microseconds kWhileOwnerIsInside{20};

}  // namespace

void BiasedMutex::LockAsAnybody() {
  m_mutex.lock();
  if (Owner* const owner = m_owner.exchange(nullptr)) {
    ProcessBarrier();
    while (owner->inside.load(std::memory_order_acquire)) {
      std::this_thread::sleep_for(kWhileOwnerIsInside);
    }
  }
  m_insideAsOwner = nullptr;
  const std::thread::id self = std::this_thread::get_id();
  if (m_last != self) {
    m_last = self;
    m_times = 0;
  }
}

void BiasedMutex::UnlockAsAnybody() noexcept {
  if (++m_times >= kOwnerAfter && m_canBeOwned) {
    m_times = 0;
    m_owner.store(OwnerFor(m_last), std::memory_order_release);
  }
  m_mutex.unlock();
}

// Null when there is none to be had.
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
