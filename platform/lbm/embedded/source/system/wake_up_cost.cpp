#include "system/wake_up_cost.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <ctime>
#include <optional>

#include "zq/posix/descriptor.h"

namespace engine {

namespace {

using std::chrono::nanoseconds;

constexpr std::chrono::microseconds kGuess{15};
constexpr std::chrono::microseconds kSleep{10};  // long enough for the processor to become idle
constexpr std::chrono::milliseconds kPatience{1};

nanoseconds Now() noexcept {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return std::chrono::seconds(now.tv_sec) + nanoseconds(now.tv_nsec);
}

// How late a timer wakes the calling thread. A timer's descriptor has none of the slack that time-outs have, and takes
// no second thread, which the scheduler would place next to this one.
std::optional<nanoseconds> MeasureOnce(int timer) noexcept {
  const nanoseconds due = Now() + kSleep;
  const auto seconds = std::chrono::floor<std::chrono::seconds>(due);
  const itimerspec setting{.it_interval = {}, .it_value = {seconds.count(), (due - seconds).count()}};
  std::uint64_t expirations = 0;
  if (::timerfd_settime(timer, TFD_TIMER_ABSTIME, &setting, nullptr) != 0 ||
      ::read(timer, &expirations, sizeof expirations) != sizeof expirations) {
    return std::nullopt;
  }
  return Now() - due;
}

// The median, as the thread may lose its processor to others meanwhile.
nanoseconds Measure() noexcept {
  const zq::posix::Descriptor timer(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
  std::array<nanoseconds, 5> costs{};
  const nanoseconds latest = Now() + kPatience;
  for (nanoseconds& cost : costs) {
    const std::optional<nanoseconds> measured = Now() < latest ? MeasureOnce(timer.Get()) : std::nullopt;
    cost = measured.value_or(kGuess);
  }
  const auto median = costs.begin() + costs.size() / 2;
  std::nth_element(costs.begin(), median, costs.end());
  return *median;
}

}  // namespace

nanoseconds WakeUpCost() noexcept {
  static const nanoseconds cost = Measure();
  return cost;
}

}  // namespace engine
