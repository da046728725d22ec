// A context's place in a domain of the network: the connection, which is made anew whenever it ends, and the thread
// that looks after it.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "system/poller.h"
#include "transport/nats/intake.h"
#include "transport/nats/outbox.h"
#include "transport/nats/publications.h"
#include "transport/nats/settings.h"
#include "transport/nats/sources.h"
#include "transport/nats/subjects.h"
#include "transport/warnings.h"
#include "zq/posix/event.h"

namespace engine::transport::nats {

// Contexts that lose their server together connect anew spread over so long: those that receive the same source at
// about one a millisecond. A server that is there has then been found long before the context counts as gone.
std::chrono::milliseconds ReconnectSpread(std::uint32_t audience, std::chrono::milliseconds peerTimeout);

// Shared by the transport and the keeper's thread, which may be the last to hold it: nothing interrupts the client
// library while it connects.
class Keeper {
  // What the connections' callbacks leave, on threads of the client library.
  struct Signals {
    zq::posix::Event attention;
    std::mutex mutex;
    std::vector<std::string> complaints;  // guarded by mutex
  };
  const std::shared_ptr<Signals> m_signals = std::make_shared<Signals>();

 public:
  explicit Keeper(const NatsSettings& settings);

  // Tries to connect, once; what fails is told, and tried again by Run.
  void Connect();

  // The thread's work, until Stop.
  void Run();

  // Ends Run when everything is written, at the latest at the deadline; returns whether it has ended by then.
  bool Stop(std::chrono::steady_clock::time_point deadline);
  bool Stopped();

  // That the context's own thread has been looking for messages.
  void NoteDrain() noexcept { m_drained.store(true, std::memory_order_relaxed); }

  // Of a message that makes no sense. Threads: any.
  void TellStranger(const Arrival& arrival, const Fault& fault);

  const NatsSettings settings;
  const Subjects subjects;
  const std::uint64_t instance;
  const std::string identity;
  const std::string subscriberName;
  const Warnings warnings;
  Poller poller;             // readable when there is something for Drain
  zq::posix::Event arrived;  // in the poller
  zq::statistics::Row statistics;
  Outbox outbox;
  PublicationTable publications;
  Intake intake;
  SourceTable sources;

 private:
  using Clock = std::chrono::steady_clock;

  bool Keep(const Arrival& arrival, std::size_t bytesKept);
  void Use(const std::shared_ptr<Connection>& connection);
  void LoseConnection(const std::string& reason);
  void CheckServer(bool punctual);
  bool ReadForContext();
  void TellFailure(const std::string& reason);
  void TellComplaints();
  void Work();
  void Tick(bool punctual);
  void Wait();
  bool Finished();
  std::chrono::milliseconds UpTo(std::chrono::milliseconds most);

  std::atomic<bool> m_drained{false};
  std::atomic<std::uint32_t> m_strangers{0};  // messages that were none of ours

  // For the keeper's thread:
  std::shared_ptr<Connection> m_connection;
  std::vector<std::string> m_servers;  // also those of the cluster that a server told of
  std::string m_toldFailure;           // empty: none since the last connection
  std::unordered_set<std::string> m_toldComplaints;
  bool m_socketFull = false;
  int m_failures = 0;
  std::chrono::milliseconds m_spread{0};  // as it was when the last connection was lost
  bool m_wasConnected = false;
  Clock::time_point m_nextConnect;
  Clock::time_point m_nextTick;
  std::minstd_rand m_random;

  std::mutex m_stopMutex;
  std::condition_variable m_stoppedNow;
  // Guarded by m_stopMutex:
  bool m_stopping = false;
  Clock::time_point m_deadline;
  bool m_stopped = false;
};

// Leaves alone a thread that is connecting, which nothing interrupts, when its context is deleted. It ends when that
// succeeds or fails; the process does not end before, since the thread is inside libraries that clean up then.
void LetGo(std::shared_ptr<Keeper> keeper, std::thread thread);

}  // namespace engine::transport::nats
