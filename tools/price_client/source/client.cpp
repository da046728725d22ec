#include "client.h"

#include <boost/property_tree/exceptions.hpp>
#include <cstddef>
#include <string>
#include <utility>

#include "cli/exit_code.h"
#include "lbm/errors.h"
#include "ps_common/config/config.h"

namespace price_client {
namespace {

constexpr unsigned kProcessEventTimeoutMs = 100;

// Commands that may wait to be obeyed. Whoever sends more at once gets no answer to them.
constexpr std::size_t kMaxPendingCommands = 1024;

ps_ns::ConfigPtr LoadConfig(const std::string& path) {
  try {
    return path.empty() ? ps_ns::Config::Parse("<Config><General/><Logging/></Config>") : ps_ns::Config::Load(path);
  } catch (const ps_ns::ConfigError& error) {
    throw cli::UsageError(error.what());
  }
}

// Where servers have to be to be found; empty when the messaging library has no such place.
std::string DomainDirectory(const lbm::Context& context) {
  try {
    return context.GetStrOpt("domain_directory");
  } catch (const lbm::LbmError&) {
    return {};
  }
}

}  // namespace

Client::Client(const Options& options, std::function<void()> wake)
    : m_mailbox(std::move(wake)), m_dispatchThread([this] { m_manager->GetContext()->Unblock(); }) {
  const auto config = LoadConfig(options.configFile);
  // Called once after each round of event processing.
  const auto betweenEvents = [this] {
    m_mailbox.HandOver();
    m_dispatchThread.Serve();
    return false;
  };
  try {
    m_manager = std::make_unique<ps_ns::LbmClientResourceMgr>(config, options.contextName, options.onload, options.cpu,
                                                              kProcessEventTimeoutMs, betweenEvents, 1);
  } catch (const boost::property_tree::ptree_error& error) {
    throw cli::UsageError(options.configFile + ": " + error.what());
  }
  m_shutdown.emplace(*m_manager);
  try {
    const auto maxSilence = std::chrono::duration_cast<Clock::duration>(options.maxSilence);
    for (const auto& instance : options.instances) {
      m_subscriptions.push_back(std::make_unique<Subscription>(*m_manager, m_mailbox, m_subscriptions.size(), instance,
                                                               options.segments, maxSilence));
    }
    StartPrices();
    // Last, so that whoever gets an answer knows that all else is there.
    m_commands.emplace(*m_manager, m_mailbox, options.host, options.clientID);
  } catch (...) {
    Stop();
    throw;
  }
  m_self.directory = DomainDirectory(*m_manager->GetContext());
  m_self.id = options.clientID;
  m_self.host = options.host;
}

void Client::Work(Clock::time_point now) {
  TakeInMail(now);
  for (const auto& subscription : m_subscriptions) {
    subscription->Pursue(now);
  }
  FollowProducts();
}

void Client::FollowProducts() {
  bool isAny = false;
  for (const auto& subscription : m_subscriptions) {
    isAny |= subscription->AddNamedSegments();
  }
  if (isAny && !m_isPaused) {
    StartPrices();
  }
}

void Client::TakeInMail(Clock::time_point now) {
  for (const auto& mail : m_mailbox.Collect()) {
    if (mail.kind == Mail::Kind::kCommand) {
      TakeInCommand(mail.message);
    } else {
      m_subscriptions[mail.instance]->TakeIn(mail, now);
    }
  }
}

void Client::TakeInCommand(const lbm::Message& message) {
  if (message.Type() != LBM_MSG_DATA && message.Type() != LBM_MSG_REQUEST) {
    return;
  }
  auto command = m_commands->Read(message);
  if (!command) {
    ++m_self.malformedCommands;
  } else if (m_pendingCommands.size() < kMaxPendingCommands) {
    m_pendingCommands.push_back(std::move(*command));
  }
}

std::optional<ReceivedCommand> Client::NextCommand() {
  if (m_pendingCommands.empty()) {
    return std::nullopt;
  }
  ++m_self.commands;
  auto command = std::move(m_pendingCommands.front());
  m_pendingCommands.pop_front();
  return command;
}

void Client::Pause(Clock::time_point now) {
  if (m_isPaused) {
    return;
  }
  StopPrices(now);
  m_isPaused = true;
}

void Client::Resume(Clock::time_point now) {
  if (!m_isPaused) {
    return;
  }
  try {
    StartPrices();
  } catch (...) {
    StopPrices(now);
    throw;
  }
  m_isPaused = false;
}

void Client::StartPrices() {
  m_dispatchThread.Run([this] {
    for (const auto& subscription : m_subscriptions) {
      subscription->StartPrices();
    }
  });
}

void Client::StopPrices(Clock::time_point now) {
  m_dispatchThread.Run([this] {
    for (const auto& subscription : m_subscriptions) {
      subscription->StopPrices();
    }
  });
  TakeInMail(now);
  for (const auto& subscription : m_subscriptions) {
    subscription->PricesStopped();
  }
}

Snapshot Client::Read(Clock::time_point now) {
  m_dispatchThread.Run([this] {
    for (const auto& subscription : m_subscriptions) {
      subscription->NotePrices();
    }
  });
  Snapshot snapshot;
  snapshot.client = m_self;
  snapshot.client.isPaused = m_isPaused;
  snapshot.client.dropped = m_mailbox.Dropped();
  snapshot.instances.reserve(m_subscriptions.size());
  for (const auto& subscription : m_subscriptions) {
    snapshot.instances.push_back(subscription->Read(now));
  }
  return snapshot;
}

void Client::Stop() {
  if (!m_manager) {
    return;
  }
  m_shutdown.reset();
  m_dispatchThread.NoteEnd();
  m_mailbox.HandOver();
  if (m_commands) {
    TakeInMail(Clock::now());
  }
  // Endpoints and messages go before the context; the endpoints of the command channel are the manager's.
  for (const auto& subscription : m_subscriptions) {
    subscription->Close();
  }
  m_commands.reset();
  m_pendingCommands.clear();
  m_mailbox.Collect();
  m_manager.reset();
}

}  // namespace price_client
