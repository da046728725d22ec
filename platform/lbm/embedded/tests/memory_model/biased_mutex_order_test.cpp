// The argument about memory order at BiasedMutex, tried in every execution that a machine with late stores allows.
#include <gtest/gtest.h>

#include <optional>

#include "machine.h"
#include "system/biased_mutex.h"

namespace engine {
namespace {

constexpr unsigned kOwnerAfterLocks = 2;

TEST(BiasedMutexOrder, TheOwnerAndWhoRevokesTheOwnershipAreNeverInsideTogetherNorWaitForEver) {
  std::optional<BiasedMutex> mutex;
  std::optional<Atomic<int>> data;
  // As the threads run one at a time, these tell at once.
  bool stored = false;
  bool revokerInside = false;
  bool together = false;  // or what was stored inside was not seen
  const std::size_t executions = model::TryAllExecutions({
      .prepare =
          [&] {
            mutex.emplace(kOwnerAfterLocks);
            data.emplace(0);
            stored = revokerInside = false;
          },
      .threads = {[&] {
                    model::Before([&] {
                      for (unsigned locks = 0; locks < kOwnerAfterLocks; ++locks) {
                        mutex->lock();
                        mutex->unlock();
                      }
                    });
                    mutex->lock();
                    together = together || revokerInside;
                    data->store(1, std::memory_order_relaxed);
                    stored = true;
                    mutex->unlock();
                  },
                  [&] {
                    mutex->lock();
                    revokerInside = true;
                    const bool storedBefore = stored;
                    together = together || (data->load() == 1) != storedBefore;
                    revokerInside = false;
                    mutex->unlock();
                  }},
      .verify = [&] { EXPECT_FALSE(together); },
  });
  EXPECT_GT(executions, 2U);
}

}  // namespace
}  // namespace engine
