#include "replay.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>

#include "replay_schedule.h"

namespace price_server {
namespace {

// How long sending may go on without a look whether the user wants it to stop, and how long to wait for room to send or
// for a client.
constexpr auto kPause = std::chrono::milliseconds(1);

}  // namespace

void Replay::Run() {
  if (m_options.waitForClient && !WaitForClient()) {
    return;
  }
  m_start = Clock::now();
  if (m_options.seconds) {
    m_end = m_start + std::chrono::duration_cast<Clock::duration>(*m_options.seconds);
  }
  ReplaySchedule schedule(m_options.updatesPerSecond, m_start);
  auto lastLook = m_start;
  for (std::size_t next = 0; !m_options.count || m_progress.UpdatesSent() < *m_options.count;) {
    const auto now = Clock::now();
    if (now >= m_end) {
      return;
    }
    if (schedule.NextDue() > now || now - lastLook > kPause) {
      if (StopsBefore(schedule.NextDue())) {
        return;
      }
      lastLook = now;
      continue;
    }
    if (!Send(m_file.prices[next])) {
      if (StopsBefore(now + kPause)) {
        return;
      }
      continue;
    }
    schedule.Advance(now);
    if (++next == m_file.prices.size()) {
      if (!m_options.loop) {
        return;
      }
      next = 0;
    }
  }
}

void Replay::RequestStop() {
  m_isStopRequested = true;
  m_signals.Wake();
}

std::string Replay::Summary() const {
  const auto seconds =
      m_start == Clock::time_point() ? 0 : std::chrono::duration<double>(Clock::now() - m_start).count();
  const auto sent = m_progress.UpdatesSent();
  return fmt::format("{}: sent {} updates in {:.1f} s ({:.0f}/s)\n", m_options.instance.ToString(), sent, seconds,
                     seconds > 0 ? static_cast<double>(sent) / seconds : 0);
}

bool Replay::Send(const feed::RecordedPrice& price) {
  if (!m_publisher.Send(m_catalogue.SegmentOf(price.symbol), m_file.symbols[price.symbol], price.date, price.price)) {
    return false;
  }
  m_progress.NoteSent(price.symbol, price.price);
  return true;
}

bool Replay::WaitForClient() {
  while (!m_publisher.EverySegmentHasSubscriber()) {
    if (StopsBefore(Clock::now() + kPause)) {
      return false;
    }
  }
  return true;
}

bool Replay::StopsBefore(Clock::time_point deadline) {
  return m_signals.WaitUntil(std::min(deadline, m_end)) != 0 || m_isStopRequested;
}

}  // namespace price_server
