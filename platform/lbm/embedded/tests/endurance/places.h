// Places for objects that many threads use while others take them away.
#pragma once

#include <atomic>
#include <memory>

namespace endurance {

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
template <class T, bool kTakes>
class Hold {
 public:
  explicit Hold(Place<T>& place)
      : m_place((kTakes ? place.access.TryTake() : place.access.TryUse()) ? &place : nullptr) {}
  ~Hold() {
    if (m_place != nullptr) {
      kTakes ? m_place->access.GiveBack() : m_place->access.Leave();
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
};

template <class T>
struct Use : Hold<T, false> {
  using Hold<T, false>::Hold;
};
template <class T>
struct Taken : Hold<T, true> {
  using Hold<T, true>::Hold;
};
template <class T>
Use(Place<T>&) -> Use<T>;
template <class T>
Taken(Place<T>&) -> Taken<T>;

}  // namespace endurance
