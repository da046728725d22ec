// The client's main loop.
#pragma once

#include <chrono>

#include "cli/signal_wait.h"
#include "client.h"
#include "options.h"
#include "rate_meter.h"
#include "view.h"

namespace price_client {

// Shows what arrives and obeys commands. References have to outlive it.
//
// Threads: for one thread.
class Watch {
 public:
  Watch(const Options& options, Client& client, cli::SignalWait& signals, View& view, RateMeter& rates)
      : m_options(options), m_client(client), m_signals(signals), m_view(view), m_rates(rates) {}

  // Returns when the user, the options or a command ends it: whether it was a command. Throws std::runtime_error when
  // the dispatch thread has ended.
  bool Run();

 private:
  using Clock = cli::SignalWait::Clock;

  // All that is done again and again; return whether to go on.
  bool ObeyCommands(Clock::time_point now);
  bool Show(Clock::time_point now);
  bool WaitUntil(Clock::time_point deadline);

  void Obey(const ReceivedCommand& received, Clock::time_point now);

  const Options& m_options;
  Client& m_client;
  cli::SignalWait& m_signals;
  View& m_view;
  RateMeter& m_rates;
  bool m_hasQuit = false;
};

}  // namespace price_client
