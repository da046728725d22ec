#include "loop.h"

#include <time.h>

#include <algorithm>
#include <utility>

#include "statistics.h"

namespace lbm::details {
namespace {

std::int64_t Nanoseconds(const timespec& time) noexcept {
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

std::int64_t Realtime() noexcept {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return Nanoseconds(now);
}

}  // namespace

std::uint64_t LoopClock::Now() noexcept {
  m_read = Realtime();
  if (m_read < m_compared || m_read - m_compared >= kBelieved) {
    m_compared = m_read;
    m_ahead = m_read - static_cast<std::int64_t>(zq::statistics::Now());
  }
  return static_cast<std::uint64_t>(m_read - m_ahead);
}

std::uint64_t LoopClock::OfArrival(const timespec& arrival) noexcept {
  const std::int64_t time = Nanoseconds(arrival);
  return time >= m_read && time - m_read < kBelieved && m_read != 0 ? static_cast<std::uint64_t>(time - m_ahead)
                                                                    : Now();
}

void LoopClock::StrideTook(std::uint64_t nanoseconds) noexcept {
  if (nanoseconds < kTooShort) {
    m_stride = std::min(2 * m_stride, kStrideMax);
  } else if (nanoseconds > kTooLong) {
    m_stride = std::max(m_stride / 2, std::uint64_t{1});
  }
}

Loop::Loop(Row& row, LoopClock& clock) noexcept
    : m_row(&row), m_clock(&clock), m_outer(std::exchange(g_current, this)) {}

Loop::Loop(Row& row) noexcept : m_row(&row), m_outer(std::exchange(g_current, this)) {}

Loop::~Loop() {
  g_current = m_outer;
  Rest();
  if (m_row != nullptr) {
    m_row->Add(loop_field::kLoops);
  }
}

void Loop::Forget(const Row& row) noexcept {
  for (Loop* loop = g_current; loop != nullptr; loop = loop->m_outer) {
    if (loop->m_row == &row) {
      loop->m_row = nullptr;
    }
  }
}

void Loop::Look(const lbm_msg_t* msg) noexcept {
  if (m_row == nullptr) {
    return;
  }
  if (m_lastLook != 0) {
    const std::uint64_t now = Record();
    if (m_clock != nullptr) {
      m_clock->StrideTook(now - m_lastLook);
    }
    m_lastLook = now;
  } else {
    Begin(msg);
  }
  m_nextLook = m_callbacks + (m_clock != nullptr ? m_clock->Stride() : 1);
}

void Loop::Begin(const lbm_msg_t* msg) noexcept {
  m_lastLook = m_clock != nullptr && msg != nullptr ? m_clock->OfArrival(msg->timestamp) : Now();
  m_row->Set(loop_field::kBusySince, static_cast<std::int64_t>(m_lastLook));
}

void Loop::Rest() noexcept {
  if (m_row != nullptr && m_lastLook != 0) {
    Record();
    m_lastLook = 0;
    m_row->Set(loop_field::kBusySince, 0);
  }
}

// What happened since the last look. Returns the time.
std::uint64_t Loop::Record() noexcept {
  const std::uint64_t now = Now();
  const std::uint64_t taken = now > m_lastLook ? now - m_lastLook : 0;
  const zq::statistics::Cells cells = m_row->Mine();
  cells.Add(loop_field::kCallbacks, m_callbacks - std::exchange(m_counted, m_callbacks));
  cells.Add(loop_field::kCallbackTime, taken);
  m_row->RecordMaximum(loop_field::kLongestCallback, taken, now);
  return now;
}

std::uint64_t Loop::Now() noexcept { return m_clock != nullptr ? m_clock->Now() : zq::statistics::Now(); }

}  // namespace lbm::details
