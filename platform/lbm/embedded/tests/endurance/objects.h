// What many threads use while others take it away: objects of the interface, and the places where they are.
#pragma once

#include <lbm/lbm.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>

#include "zq/posix/descriptor.h"

namespace endurance {

// A context's life. Whatever belongs to it knows it, also when it is over.
struct Life {
  std::size_t place = 0;
  long rank = 0;
  bool siblings = false;             // its callbacks may delete each other's objects, and otherwise the context
  std::atomic<bool> over{false};     // nothing may call back any more
  std::atomic<bool> leaving{false};  // deleted in a callback of its own thread: nothing tells when it is over
};

struct Context {
  lbm_context_t* handle = nullptr;
  std::shared_ptr<Life> life = std::make_shared<Life>();
};

struct Queue {
  lbm_event_queue_t* handle = nullptr;
  std::atomic<bool> shutDown{false};
};

class Round;

enum class Kind { kReceiver, kSource, kRequest, kDescriptor, kResponse, kMessage };

struct Object {
  Round* round = nullptr;
  Kind kind{};
  std::shared_ptr<Life> life;
  long rank = 0;
  bool queued = false;
  lbm_src_t* source = nullptr;
  lbm_response_t* response = nullptr;
  zq::posix::Descriptor descriptor;
  std::function<int()> remove;  // by the interface; empty for a descriptor
  std::atomic<bool> inCallback{false};
  std::atomic<bool> cancelled{false};
};

// On whose behalf something is done.
struct Caller {
  Object* object = nullptr;  // whose callback it is; null for a thread of the application
  bool mayWait = false;
  bool deletedItself = false;
};

// Who may use a place, and who may take out what is there. Nobody waits for that.
class Access {
 public:
  bool TryUse() noexcept {
    int users = m_users;
    while (users >= 0) {
      if (m_users.compare_exchange_weak(users, users + 1)) {
        return true;
      }
    }
    return false;
  }
  void Leave() noexcept { --m_users; }
  bool TryTake() noexcept { return Change(0, kTaken); }
  // By the only user, who has nothing to leave then.
  bool TryTakeOver() noexcept { return Change(1, kTaken); }
  void GiveBack() noexcept { m_users = 0; }

 private:
  static constexpr int kTaken = -1;
  bool Change(int from, int to) noexcept { return m_users.compare_exchange_strong(from, to); }

  std::atomic<int> m_users{0};
};

template <class T>
struct Place {
  Access access;
  std::unique_ptr<T> value;  // looked at by users, changed by takers
};

// While it lives, the place is used or taken, unless that was not possible.
template <class T>
class Hold {
 public:
  Hold(Place<T>& place, bool takes)
      : m_place((takes ? place.access.TryTake() : place.access.TryUse()) ? &place : nullptr), m_takes(takes) {}
  ~Hold() {
    if (m_place != nullptr) {
      m_takes ? m_place->access.GiveBack() : m_place->access.Leave();
    }
  }
  Hold(const Hold&) = delete;
  Hold& operator=(const Hold&) = delete;

  explicit operator bool() const noexcept { return m_place != nullptr; }
  std::unique_ptr<T>& Value() const noexcept { return m_place->value; }
  // Null also when nothing is there.
  T* Get() const noexcept { return m_place != nullptr ? m_place->value.get() : nullptr; }

 private:
  Place<T>* const m_place;
  const bool m_takes;
};

template <class T>
Hold<T> Use(Place<T>& place) {
  return {place, false};
}
template <class T>
Hold<T> Take(Place<T>& place) {
  return {place, true};
}

}  // namespace endurance
