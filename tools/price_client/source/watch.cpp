#include "watch.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "feed/command.h"
#include "lbm/errors.h"
#include "operator_report.h"

namespace price_client {
namespace {

constexpr auto kTick = std::chrono::milliseconds(50);

}  // namespace

bool Watch::Run() {
  const auto end = m_options.seconds ? m_rates.Start() + std::chrono::duration_cast<Clock::duration>(*m_options.seconds)
                                     : Clock::time_point::max();
  auto nextTick = Clock::now();
  for (;;) {
    const auto now = Clock::now();
    m_client.Work(now);
    if (!ObeyCommands(now)) {
      return true;
    }
    if (now >= nextTick) {
      if (!Show(now)) {
        return false;
      }
      nextTick = now + kTick;
    }
    if (now >= end || !WaitUntil(std::min(nextTick, end))) {
      return false;
    }
  }
}

bool Watch::Show(Clock::time_point now) {
  const auto snapshot = m_rates.Measure(m_client.Read(now), now);
  m_view.Show(snapshot);
  return !m_options.count || snapshot.Total().updates < *m_options.count;
}

bool Watch::WaitUntil(Clock::time_point deadline) {
  const int signal = m_signals.WaitUntil(deadline);
  if (cli::AsksToStop(signal)) {
    return false;
  }
  if (signal != 0) {
    m_view.Suspend();
  }
  return true;
}

bool Watch::ObeyCommands(Clock::time_point now) {
  while (const auto command = m_client.NextCommand()) {
    Obey(*command, now);
    if (m_hasQuit) {
      return false;
    }
  }
  return true;
}

void Watch::Obey(const ReceivedCommand& received, Clock::time_point now) {
  const auto& name = received.command.name;
  const auto done = [&](std::string text, feed::CommandAnswer::Figures figures = {}) {
    m_client.Answer(received, feed::kResultOk, std::move(text), std::move(figures));
  };
  if (name == feed::kReportCommand) {
    const auto snapshot = m_rates.Measure(m_client.Read(now), now);
    done(ReportText(snapshot), ReportFigures(snapshot));
  } else if (name == feed::kPauseCommand) {
    const bool wasPaused = m_client.IsPaused();
    m_client.Pause(now);
    done(wasPaused ? "was paused already" : "paused");
  } else if (name == feed::kResumeCommand) {
    const bool wasPaused = m_client.IsPaused();
    try {
      m_client.Resume(now);
      done(wasPaused ? "resumed" : "was not paused");
    } catch (const lbm::LbmError& error) {
      m_client.Answer(received, error.what());
    }
  } else if (name == feed::kQuitCommand) {
    done("ends");
    m_hasQuit = true;
  } else {
    m_client.Answer(received, "unknown command \"" + name + "\"; known: report, pause, resume, quit");
  }
}

}  // namespace price_client
