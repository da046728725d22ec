#include "replay.h"

#include <fmt/format.h>

#include <algorithm>

#include "replay_schedule.h"

namespace price_server {
namespace {

// How long to wait for room to send or for a client.
constexpr auto kPause = std::chrono::milliseconds(1);

}  // namespace

void Replay::Run(const std::stop_token& stop) {
  if (m_options.waitForClient) {
    WaitForClient(stop);
  }
  if (stop.stop_requested()) {
    return;
  }
  m_start = Clock::now();
  const auto end = m_options.seconds ? m_start + std::chrono::duration_cast<Clock::duration>(*m_options.seconds)
                                     : Clock::time_point::max();
  ReplaySchedule schedule(m_options.updatesPerSecond, m_start);
  std::size_t next = 0;
  while (!stop.stop_requested() && (!m_options.count || m_progress.UpdatesSent() < *m_options.count)) {
    const auto now = Clock::now();
    if (now >= end) {
      return;
    }
    if (schedule.NextDue() > now) {
      WaitUntil(std::min(schedule.NextDue(), end), stop);
    } else if (!Send(m_file.prices[next])) {
      WaitUntil(now + kPause, stop);
    } else {
      schedule.Advance(now);
      if (++next == m_file.prices.size()) {
        if (!m_options.loop) {
          return;
        }
        next = 0;
      }
    }
  }
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

void Replay::WaitForClient(const std::stop_token& stop) {
  while (!stop.stop_requested() && !m_publisher.EverySegmentHasSubscriber()) {
    WaitUntil(Clock::now() + kPause, stop);
  }
}

void Replay::WaitUntil(Clock::time_point time, const std::stop_token& stop) {
  std::unique_lock lock(m_mutex);
  m_stopped.wait_until(lock, stop, time, [] { return false; });
}

}  // namespace price_server
