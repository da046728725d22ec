// The client's side of the connector: what is subscribed to, and what has come of it.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "command_channel.h"
#include "dispatch_thread.h"
#include "mailbox.h"
#include "options.h"
#include "ps_common/connector/lbm_client_resource_mgr.h"
#include "ps_common/connector/shutdown_guard.h"
#include "snapshot.h"
#include "subscription.h"

namespace price_client {

// Receives everything of every instance, and commands, from construction until Stop.
//
// Threads: for one thread, which has to have blocked the signals that it waits for. The connector's dispatch thread
// takes in prices by itself, and all else as far as the mailbox. What asks that thread for something throws
// std::runtime_error when it has ended, or hangs.
class Client {
 public:
  using Clock = Subscription::Clock;

  // wake is called on the dispatch thread when something has come that Work should see at once. Throws
  // cli::UsageError for a configuration that cannot be used, lbm::LbmError when messaging is not possible.
  Client(const Options& options, std::function<void()> wake);
  ~Client() { Stop(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Takes in what has come besides prices, and sends what is due. To be called several times a second. Throws
  // lbm::LbmError when prices of further segments cannot be received.
  void Work(Clock::time_point now);

  // The next command that Work has taken in; each must be answered.
  std::optional<ReceivedCommand> NextCommand();
  void Answer(const ReceivedCommand& command, std::string_view result, std::string text = {},
              feed::CommandAnswer::Figures figures = {}) {
    m_commands->Answer(command, result, std::move(text), std::move(figures));
  }

  // While the client is paused it listens to no prices; servers do not even send them to it. Neither does anything
  // when it is so already. Resume throws lbm::LbmError, and the client stays paused then.
  void Pause(Clock::time_point now);
  void Resume(Clock::time_point now);
  bool IsPaused() const { return m_isPaused; }

  // What is known by now; without rates and the time that has passed. After Stop this is final.
  Snapshot Read(Clock::time_point now);

  // Nothing arrives any more when it returns. May be called more than once.
  void Stop();

 private:
  void FollowProducts();
  void TakeInMail(Clock::time_point now);
  void TakeInCommand(const lbm::Message& message);
  void StartPrices();
  void StopPrices(Clock::time_point now);

  Mailbox m_mailbox;
  DispatchThread m_dispatchThread;
  ClientSnapshot m_self;
  bool m_isPaused = false;
  std::deque<ReceivedCommand> m_pendingCommands;
  std::unique_ptr<ps_ns::LbmClientResourceMgr> m_manager;
  std::optional<ps_ns::ShutdownGuard> m_shutdown;
  std::vector<std::unique_ptr<Subscription>> m_subscriptions;
  std::optional<CommandChannel> m_commands;
};

}  // namespace price_client
