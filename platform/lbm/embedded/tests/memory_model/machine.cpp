#include "machine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "system/asymmetric_fence.h"

namespace engine {

// Those of the machine, in place of the kernel's.
bool ProcessFenceAvailable() noexcept { return true; }
void HeavyProcessFence() noexcept { model::FenceEverybody(); }
bool RegisterForGlobalFences() noexcept { return true; }
bool GlobalFenceAvailable() noexcept { return true; }
void HeavyGlobalFence() noexcept { model::FenceEverybody(); }

}  // namespace engine

namespace engine::model {

namespace {

// The choices of one execution after another, depth first.
class Choices {
 public:
  std::size_t Choose(std::size_t options) {
    if (m_depth == m_path.size()) {
      m_path.push_back({0, options});
    }
    return m_path[m_depth++].taken;
  }

  // False when all have been taken.
  bool Advance() {
    m_depth = 0;
    while (!m_path.empty() && ++m_path.back().taken == m_path.back().options) {
      m_path.pop_back();
    }
    return !m_path.empty();
  }

 private:
  struct Choice {
    std::size_t taken;
    std::size_t options;
  };
  std::vector<Choice> m_path;
  std::size_t m_depth = 0;
};

Choices g_choices;

struct BufferedStore {
  void* address;
  std::size_t size;
  std::uint64_t value;
  bool release;
  bool recent = true;  // the thread has made no access since

  void BecomeVisible() const { std::memcpy(address, &value, size); }
};

class StoreBuffer {
 public:
  void Add(const BufferedStore& store) { m_stores.push_back(store); }

  const BufferedStore* Latest(const void* address) const {
    const auto found =
        std::find_if(m_stores.rbegin(), m_stores.rend(), [&](const auto& store) { return store.address == address; });
    return found == m_stores.rend() ? nullptr : &*found;
  }

  // The stores that may become visible next, by their places.
  std::vector<std::size_t> Next() const {
    std::vector<std::size_t> next;
    for (std::size_t place = 0; place < m_stores.size(); ++place) {
      const auto precedes = [&](const BufferedStore& earlier) { return earlier.address == m_stores[place].address; };
      const auto end = m_stores.begin() + static_cast<std::ptrdiff_t>(place);
      if (place == 0 || (!m_stores[place].release && std::none_of(m_stores.begin(), end, precedes))) {
        next.push_back(place);
      }
    }
    return next;
  }

  void BecomeVisible(std::size_t place) {
    m_stores[place].BecomeVisible();
    m_stores.erase(m_stores.begin() + static_cast<std::ptrdiff_t>(place));
  }

  // The thread makes an access.
  void NoteAccess() {
    for (BufferedStore& store : m_stores) {
      store.recent = false;
    }
  }

  void Empty() { EmptyExcept(0); }

  // For somebody else's fence. The thread may have been anywhere between its last access and now, so the last stores
  // may come after the fence.
  void EmptyUpToAnyMoment() {
    const auto recent = std::count_if(m_stores.begin(), m_stores.end(), [](const auto& store) { return store.recent; });
    EmptyExcept(g_choices.Choose(static_cast<std::size_t>(recent) + 1));
  }

 private:
  void EmptyExcept(std::size_t last) {
    while (m_stores.size() > last) {
      BecomeVisible(0);
    }
  }

  std::deque<BufferedStore> m_stores;
};

// Of the standard semaphores each wait would first yield the processor a few times, for long where others want it.
class Baton {
 public:
  void Give() {
    const std::lock_guard lock(m_mutex);
    m_given = true;
    m_changed.notify_one();
  }
  void Take() {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_given; });
    m_given = false;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_given = false;
};

// A thread of an execution. Between the call of Turn and its return it runs, and nobody else does. At first it runs up
// to its first access.
class Actor {
 public:
  explicit Actor(const std::function<void()>& function)
      : m_thread([this, &function] {
          t_self = this;
          try {
            function();
          } catch (const std::exception& error) {
            ADD_FAILURE() << error.what();
          }
          m_ended = true;
          m_atAccess.Give();
        }) {
    m_atAccess.Take();
  }

  // Null on all other threads.
  static Actor* Self() noexcept { return t_self; }

  bool CanGoOn() const { return !m_ended && m_awaited == nullptr && (!m_condition || m_condition()); }
  bool Ended() const noexcept { return m_ended; }
  void Turn() {
    m_turn.Give();
    m_atAccess.Take();
  }
  void AwaitTurn() {
    m_atAccess.Give();
    m_turn.Take();
    stores.NoteAccess();
  }
  // One that does not come before the condition holds.
  void AwaitTurnUntil(std::function<bool()> condition) {
    m_condition = std::move(condition);
    AwaitTurn();
    m_condition = nullptr;
  }

  // While it runs, this thread is no actor.
  static void RunBefore(const std::function<void()>& function) {
    Actor* const self = std::exchange(t_self, nullptr);
    function();
    t_self = self;
  }

  // At its next turn somebody has notified.
  void AwaitNotice(const void* address) {
    m_awaited = address;
    AwaitTurn();
  }
  void Notice(const void* address) {
    if (m_awaited == address) {
      m_awaited = nullptr;
    }
  }

  StoreBuffer stores;

 private:
  inline static thread_local Actor* t_self = nullptr;

  Baton m_turn;
  Baton m_atAccess;
  bool m_ended = false;
  const void* m_awaited = nullptr;
  std::function<bool()> m_condition;
  std::jthread m_thread;
};

std::vector<std::unique_ptr<Actor>> g_actors;

// One step: a thread makes its access and runs up to the next one, or a store becomes visible. False when nothing is
// left to do.
bool Step() {
  struct Option {
    Actor* actor;
    std::size_t store;
  };
  constexpr std::size_t kRun = ~std::size_t{0};
  std::vector<Option> options;
  for (const auto& actor : g_actors) {
    if (actor->CanGoOn()) {
      options.push_back({actor.get(), kRun});
    }
    for (const std::size_t place : actor->stores.Next()) {
      options.push_back({actor.get(), place});
    }
  }
  if (options.empty()) {
    return false;
  }
  const Option& chosen = options[g_choices.Choose(options.size())];
  if (chosen.store == kRun) {
    chosen.actor->Turn();
  } else {
    chosen.actor->stores.BecomeVisible(chosen.store);
  }
  return true;
}

}  // namespace

std::uint64_t Load(const void* address, std::size_t size) {
  std::uint64_t value = 0;
  if (Actor* const self = Actor::Self()) {
    if (const BufferedStore* const own = self->stores.Latest(address)) {
      return own->value;
    }
    self->AwaitTurn();
  }
  std::memcpy(&value, address, size);
  return value;
}

void Store(void* address, std::size_t size, std::uint64_t value, std::memory_order order) {
  const BufferedStore store{address, size, value, order != std::memory_order_relaxed};
  Actor* const self = Actor::Self();
  if (self == nullptr) {
    return store.BecomeVisible();
  }
  if (order == std::memory_order_seq_cst) {
    self->AwaitTurn();
    self->stores.Empty();
    store.BecomeVisible();
  } else {
    self->stores.Add(store);
  }
}

std::uint64_t Update(void* address, std::size_t size, const std::function<std::uint64_t(std::uint64_t)>& next) {
  if (Actor* const self = Actor::Self()) {
    self->AwaitTurn();
    self->stores.Empty();
  }
  std::uint64_t before = 0;
  std::memcpy(&before, address, size);
  const std::uint64_t after = next(before);
  std::memcpy(address, &after, size);
  return before;
}

void AwaitChange(const void* address, std::size_t size, std::uint64_t from) {
  while (Load(address, size) == from) {
    Actor::Self()->AwaitNotice(address);
  }
}

void AwaitOther(const void* address, std::size_t size, std::uint64_t from) {
  Actor::Self()->AwaitTurnUntil([=] {
    std::uint64_t value = 0;
    std::memcpy(&value, address, size);
    return value != from;
  });
}

void Before(const std::function<void()>& function) { Actor::RunBefore(function); }

void Notify(const void* address) {
  if (Actor* const self = Actor::Self()) {
    self->AwaitTurn();
    for (const auto& actor : g_actors) {
      actor->Notice(address);
    }
  }
}

void FenceEverybody() {
  if (Actor* const self = Actor::Self()) {
    self->AwaitTurn();
    for (const auto& actor : g_actors) {
      if (actor.get() == self) {
        actor->stores.Empty();
      } else {
        actor->stores.EmptyUpToAnyMoment();
      }
    }
  }
}

std::size_t TryAllExecutions(const Scenario& scenario) {
  g_choices = {};
  std::size_t executions = 0;
  do {
    scenario.prepare();
    for (const auto& function : scenario.threads) {
      g_actors.push_back(std::make_unique<Actor>(function));
    }
    while (Step()) {
    }
    ++executions;
    if (std::all_of(g_actors.begin(), g_actors.end(), [](const auto& actor) { return actor->Ended(); })) {
      scenario.verify();
    } else {
      ADD_FAILURE() << "a thread waits for ever";
      std::abort();  // it cannot be joined
    }
    g_actors.clear();
  } while (!testing::Test::HasFailure() && g_choices.Advance());
  return executions;
}

}  // namespace engine::model
