#include "system/biased_mutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <thread>

namespace engine {
namespace {

// More than it takes to own the mutex.
constexpr std::size_t kOften = 3000;

struct Counted {
  void Add(std::size_t times) {
    for (std::size_t i = 0; i < times; ++i) {
      const std::lock_guard lock(mutex);
      count = count + 1;
    }
  }

  BiasedMutex mutex;
  volatile std::size_t count = 0;  // so that every addition is a load and a store
};

// One thread locks so often that it keeps becoming the owner, and others keep taking the mutex from it.
TEST(BiasedMutex, LetsOnlyOneInsideWhileItsOwnerChanges) {
  constexpr std::size_t kTakenAway = 20'000;
  Counted counted;
  std::atomic<bool> enough{false};
  std::size_t expected = 0;
  std::thread busy([&] {
    for (; !enough; expected += kOften) {
      counted.Add(kOften);
    }
  });
  const auto takeAway = [&] {
    for (std::size_t i = 0; i < kTakenAway; ++i) {
      counted.Add(i % 100 == 0 ? kOften : 1);
      std::this_thread::yield();
    }
  };
  std::thread other(takeAway);
  takeAway();
  other.join();
  enough = true;
  busy.join();
  EXPECT_EQ(counted.count, expected + 2 * (kTakenAway / 100 * kOften + kTakenAway - kTakenAway / 100));
}

// Ids of ended threads come back, and there may be more threads in a mutex's life than can ever own it.
TEST(BiasedMutex, OutlivesItsOwners) {
  constexpr std::size_t kThreads = 50;
  Counted counted;
  for (std::size_t i = 0; i < kThreads; ++i) {
    std::jthread first([&] { counted.Add(kOften); });
    if (i % 2 == 0) {
      first.join();
    }
    const std::jthread second([&] { counted.Add(kOften); });
  }
  EXPECT_EQ(counted.count, 2 * kThreads * kOften);
}

}  // namespace
}  // namespace engine
