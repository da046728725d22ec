#include "system/wall_clock.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <string_view>
#include <utility>

#include "system/processor.h"
#include "zq/posix/descriptor.h"

namespace engine {

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kValid = 1'000'000;  // nanoseconds for which a reading of the kernel's clock is gone by
constexpr int kFraction = 32;               // bits of a pace

// A pace comes of two readings so far apart. Nearer, the time that the readings take would falsify it; further, the
// machine may have been moved meanwhile.
constexpr std::int64_t kIntervalMin = kValid / 2;
constexpr std::int64_t kIntervalMax = kSecond;

// Nanoseconds that a reading of all clocks takes unless something interrupts it.
constexpr std::int64_t kReadingMax = 250;

constexpr std::uint64_t kTicksMax = 16;  // a nanosecond

// The kernel has looked whether the counters of all processors agree and go evenly if it takes its own time from them.
bool KernelTrustsTicks() noexcept {
  static const bool trusts = [] {
    const zq::posix::Descriptor file(
        ::open("/sys/devices/system/clocksource/clocksource0/current_clocksource", O_RDONLY | O_CLOEXEC));
    std::array<char, 4> source{};
    return ::read(file.Get(), source.data(), source.size()) == 4 && std::string_view(source.data(), 4) == "tsc\n";
  }();
  return trusts;
}

std::int64_t Nanoseconds(clockid_t clock) noexcept {
  timespec now{};
  ::clock_gettime(clock, &now);
  return now.tv_sec * kSecond + now.tv_nsec;
}

}  // namespace

timespec WallClock::Now() noexcept {
  const std::uint64_t ticks = ReadTicks() - m_anchor.ticks;
  const std::int64_t now = ticks < m_validTicks
                               ? m_anchor.timeOfDay + static_cast<std::int64_t>((ticks * m_pace) >> kFraction)
                               : ReadKernel();
  return {now / kSecond, now % kSecond};
}

std::int64_t WallClock::ReadKernel() noexcept {
  const Reading now{
      .sinceBoot = Nanoseconds(CLOCK_BOOTTIME), .ticks = ReadTicks(), .timeOfDay = Nanoseconds(CLOCK_REALTIME)};
  const bool interrupted = Nanoseconds(CLOCK_BOOTTIME) - now.sinceBoot > kReadingMax;
  const bool tooEarly = m_validTicks == 0 && now.sinceBoot - m_anchor.sinceBoot < kIntervalMin;
  if (!tooEarly && KernelTrustsTicks()) {
    const Reading last = std::exchange(m_anchor, interrupted ? Reading() : now);
    m_validTicks = 0;
    if (!interrupted) {
      SetPace(last);
    }
  }
  return now.timeOfDay;
}

void WallClock::SetPace(const Reading& last) noexcept {
  const std::int64_t elapsed = m_anchor.sinceBoot - last.sinceBoot;
  const std::uint64_t ticks = m_anchor.ticks - last.ticks;
  if (elapsed >= kIntervalMin && elapsed <= kIntervalMax &&
      ticks - 1 < static_cast<std::uint64_t>(elapsed) * kTicksMax) {
    m_pace = (static_cast<std::uint64_t>(elapsed) << kFraction) / ticks;
    m_validTicks = ticks * kValid / static_cast<std::uint64_t>(elapsed);
  }
}

}  // namespace engine
