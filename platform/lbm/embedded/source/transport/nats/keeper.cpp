#include "transport/nats/keeper.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

#include "transport/instance.h"

namespace engine::transport::nats {

namespace {

constexpr Poller::Token kArrivedToken = 0;
constexpr Poller::Token kSocketToken = 1;

constexpr std::chrono::milliseconds kFirstRetry{100};
constexpr std::chrono::milliseconds kLastRetry{1'000};
constexpr std::chrono::milliseconds kSpreadMax{5'000};  // whatever sources say of their audience

// The thread may be late.
constexpr std::chrono::milliseconds kStopPatience{50};

// Different refusals that are told.
constexpr std::size_t kComplaintsMax = 32;

// A server that allows less is of no use: the names of sources have to fit.
constexpr std::size_t kPayloadMin = std::size_t{16} << 10;

// Reads in a row for a context that does not look itself.
constexpr int kReadsMax = 1'024;

std::string JoinUrls(const std::vector<std::string>& urls) {
  std::string text;
  for (const std::string& url : urls) {
    text.append(text.empty() ? "" : ", ").append(PublicUrl(url));
  }
  return text;
}

// Threads whose contexts are deleted.
class Stragglers {
 public:
  Stragglers() = default;
  ~Stragglers() {
    for (auto& [keeper, thread] : m_threads) {
      thread.join();
    }
  }
  Stragglers(const Stragglers&) = delete;
  Stragglers& operator=(const Stragglers&) = delete;

  void Add(std::shared_ptr<Keeper> keeper, std::thread thread) {
    const std::lock_guard lock(m_mutex);
    std::erase_if(m_threads, [](auto& one) {
      const bool stopped = one.first->Stopped();
      if (stopped) {
        one.second.join();
      }
      return stopped;
    });
    m_threads.emplace_back(std::move(keeper), std::move(thread));
  }

 private:
  std::mutex m_mutex;
  std::vector<std::pair<std::shared_ptr<Keeper>, std::thread>> m_threads;  // guarded by m_mutex
};

}  // namespace

std::chrono::milliseconds ReconnectSpread(std::uint32_t audience, std::chrono::milliseconds peerTimeout) {
  const auto most = std::clamp(peerTimeout / 4, kFirstRetry, kSpreadMax);
  return std::clamp(std::chrono::milliseconds(audience), kFirstRetry, most);
}

Keeper::Keeper(const NatsSettings& given)
    : settings(given),
      subjects(settings.subjectPrefix, settings.domain),
      instance(NewInstance()),
      identity(!settings.identity.empty() ? settings.identity
                                          : "nats:" + std::to_string(::getpid()) + '.' + InstanceText(instance)),
      subscriberName(!settings.contextName.empty() ? settings.contextName : identity),
      warnings(settings.warn),
      statistics(settings.statistics->NetworkRow(JoinUrls(ServerUrls(settings.server.servers)))),
      outbox(settings.sendQueueBytes, m_signals->attention, statistics),
      publications(settings, subjects, instance, identity, outbox, arrived),
      intake(arrived, [this](const Arrival& arrival, std::size_t bytesKept) { return Keep(arrival, bytesKept); }),
      sources(settings, subjects, instance, subscriberName, outbox, intake, arrived),
      m_servers(ServerUrls(settings.server.servers)),
      m_nextTick(Clock::now() + settings.announcementInterval),
      m_random(static_cast<std::minstd_rand::result_type>(instance)) {
  poller.Add(arrived.GetDescriptor(), kArrivedToken, EPOLLIN);
  intake.Listen(RouteKind::kInbox, subjects.Inbox(instance));
  intake.Listen(RouteKind::kWant, subjects.WantAll());
}

// On whatever thread reads. What is for this context's sources is done at once, also when nobody drains.
bool Keeper::Keep(const Arrival& arrival, std::size_t bytesKept) {
  try {
    Bytes bytes = BytesOf(arrival.message);
    const wire::Prologue prologue = wire::TakePrologue(bytes);
    switch (arrival.route->kind) {
      case RouteKind::kWant:
        publications.OnWant(prologue.instance, arrival.route->publication);
        return false;
      case RouteKind::kInbox:
        if (prologue.kind == wire::Kind::kInterest) {
          publications.OnInterest(prologue.instance, bytes);
          return false;
        }
        return true;
      case RouteKind::kData:
        if (bytesKept < settings.receiveQueueBytes || arrival.route->source->Waits()) {
          return true;
        }
        statistics.Serial().Add(network_field::kReceiveDropped);
        return false;
      default:
        return true;
    }
  } catch (const Fault& fault) {
    TellStranger(arrival, fault);
  } catch (const std::bad_alloc&) {
    // The message is as good as lost on its way.
  }
  return false;
}

void Keeper::TellStranger(const Arrival& arrival, const Fault& fault) {
  // Whoever writes there may do so often.
  constexpr std::uint32_t kTellEvery = 100'000;
  if (m_strangers.fetch_add(1) % kTellEvery == 0) {
    warnings.Tell([&] {
      return std::string("ignored a message on the NATS subject \"") +
             Nats().natsMsg_GetSubject(arrival.message.get()) + "\": " + fault.what() +
             ". Give each application a nats_subject_prefix of its own, and let the server's permissions keep others "
             "off";
    });
  }
}

void Keeper::Connect() {
  Connection::Observer observer;
  observer.attention = [signals = m_signals] { signals->attention.Notify(); };
  observer.complained = [signals = m_signals](const std::string& text) {
    {
      const std::lock_guard lock(signals->mutex);
      signals->complaints.push_back(text);
    }
    signals->attention.Notify();
  };
  ServerSettings server = settings.server;
  if (server.name.empty()) {
    server.name = subscriberName;
  }
  try {
    const auto connection = std::make_shared<Connection>(server, m_servers, std::move(observer));
    if (connection->MaxPayload() < kPayloadMin) {
      throw std::runtime_error("the server's max_payload is " + std::to_string(connection->MaxPayload()) +
                               " bytes; set it to " + std::to_string(kPayloadMin) + " at least");
    }
    Use(connection);
  } catch (const std::exception& error) {
    TellFailure(error.what());
    const auto wait = std::min(kFirstRetry * (1 << std::min(m_failures++, 8)), std::max(kLastRetry, m_spread));
    m_nextConnect = Clock::now() + wait / 2 + UpTo(wait / 2);
  }
}

void Keeper::Use(const std::shared_ptr<Connection>& connection) {
  m_connection = connection;
  m_socketFull = false;
  m_servers = connection->Servers();
  poller.Add(connection->GetDescriptor(), kSocketToken, EPOLLIN);
  intake.SetConnection(connection);
  outbox.SetConnection(connection);
  publications.Connected();
  sources.Connected();
  if (!std::exchange(m_toldFailure, {}).empty()) {
    warnings.Tell([&] { return "is connected to the NATS server " + connection->Url() + " again"; });
  }
  m_failures = 0;
  statistics.Set(network_field::kConnected, 1);
  if (std::exchange(m_wasConnected, true)) {
    statistics.Serial().Add(network_field::kReconnects);
  }
}

// When the context is busy with something else: its answers, and its place in the server's patience, must not depend on
// that. Whether anything was there.
bool Keeper::ReadForContext() {
  int reads = 0;
  while (reads < kReadsMax && intake.Read()) {
    ++reads;
  }
  return reads > 0;
}

// A server that does not even answer pings, or the network to it, is as good as gone.
void Keeper::CheckServer(bool punctual) {
  const std::chrono::milliseconds interval = settings.server.pingInterval;
  const bool held = !m_drained.exchange(false) && ReadForContext();
  // If this thread was held up itself, so may have been the pings.
  if (punctual && !held && m_connection->SilentFor() > interval + interval / 2) {
    LoseConnection("it does not answer");
  }
}

void Keeper::LoseConnection(const std::string& reason) {
  poller.Remove(m_connection->GetDescriptor());
  intake.SetConnection(nullptr);
  outbox.SetConnection(nullptr);
  statistics.Set(network_field::kConnected, 0);
  TellFailure("the connection to " + m_connection->Url() + " has ended" + (reason.empty() ? "" : ": " + reason));
  m_connection.reset();
  m_spread = ReconnectSpread(sources.Audience(), settings.peerTimeout);
  m_nextConnect = Clock::now() + UpTo(m_spread);
}

// Once for each reason, until there is a connection again.
void Keeper::TellFailure(const std::string& reason) {
  if (std::exchange(m_toldFailure, reason) != reason) {
    warnings.Tell([&] {
      return "is not connected to a NATS server (" + JoinUrls(m_servers) + "): " + reason +
             ". It goes on trying; look at the option nats_servers, the server and its log";
    });
  }
}

void Keeper::TellComplaints() {
  std::vector<std::string> complaints;
  {
    const std::lock_guard lock(m_signals->mutex);
    complaints.swap(m_signals->complaints);
  }
  for (const std::string& complaint : complaints) {
    if (m_toldComplaints.size() < kComplaintsMax && m_toldComplaints.insert(complaint).second) {
      warnings.Tell([&] {
        return "was refused something by the NATS server: " + complaint +
               ". Give the context's user the permission, see many-machines.md";
      });
    }
  }
}

void Keeper::Tick(bool punctual) {
  if (m_connection != nullptr) {
    CheckServer(punctual);
  }
  if (m_connection != nullptr) {
    m_servers = m_connection->Servers();  // servers tell of others that join their cluster
    if (const auto roundTrip = m_connection->RoundTrip(); roundTrip.count() > 0) {
      statistics.RecordInHistogram(network_field::kRoundTrip, static_cast<std::uint64_t>(roundTrip.count()),
                                   zq::statistics::Now());
    }
  }
  publications.Tick();
  sources.Tick();
}

void Keeper::Run() {
  static_cast<void>(::pthread_setname_np(::pthread_self(), "lbm_nats"));
  for (;;) {
    try {
      Work();
    } catch (const std::exception& error) {
      // Out of memory, most likely. What was not said is said again with the next interval or connection.
      warnings.Tell([&] { return std::string("could not do all that the network asks for: ") + TextOf(error); });
    }
    if (Finished()) {
      break;
    }
    Wait();
  }
  if (m_connection != nullptr) {
    poller.Remove(m_connection->GetDescriptor());
  }
  intake.SetConnection(nullptr);
  outbox.SetConnection(nullptr);
  m_connection.reset();
  statistics.Set(network_field::kConnected, 0);
  const std::lock_guard lock(m_stopMutex);
  m_stopped = true;
  m_stoppedNow.notify_all();
}

void Keeper::Work() {
  const auto now = Clock::now();
  if (m_connection != nullptr && m_connection->Ended()) {
    LoseConnection(m_connection->EndReason());
  }
  if (m_connection == nullptr && now >= m_nextConnect) {
    Connect();
  }
  m_socketFull = !outbox.WriteAll();
  publications.Written();
  if (now >= m_nextTick) {
    const bool punctual = now - m_nextTick < settings.server.pingInterval / 4;
    m_nextTick = now + settings.announcementInterval;
    Tick(punctual);
  }
  TellComplaints();
}

void Keeper::Wait() {
  std::array<pollfd, 2> descriptors{pollfd{m_signals->attention.GetDescriptor(), POLLIN, 0}, pollfd{-1, POLLOUT, 0}};
  auto until = m_connection == nullptr ? std::min(m_nextTick, m_nextConnect) : m_nextTick;
  if (m_socketFull && m_connection != nullptr) {
    descriptors[1].fd = m_connection->GetDescriptor();
  }
  {
    const std::lock_guard lock(m_stopMutex);
    if (m_stopping) {
      until = std::min(until, m_deadline);
    }
  }
  const auto wait = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
  ::poll(descriptors.data(), descriptors.size(), static_cast<int>(std::max<std::int64_t>(wait.count(), 0)));
  m_signals->attention.Clear();
}

bool Keeper::Finished() {
  const std::lock_guard lock(m_stopMutex);
  return m_stopping && (outbox.Empty() || Clock::now() >= m_deadline);
}

bool Keeper::Stop(Clock::time_point deadline) {
  std::unique_lock lock(m_stopMutex);
  m_stopping = true;
  m_deadline = deadline;
  m_signals->attention.Notify();
  // It looks at the deadline itself.
  return m_stoppedNow.wait_until(lock, deadline + kStopPatience, [this] { return m_stopped; });
}

bool Keeper::Stopped() {
  const std::lock_guard lock(m_stopMutex);
  return m_stopped;
}

std::chrono::milliseconds Keeper::UpTo(std::chrono::milliseconds most) {
  return std::chrono::milliseconds(std::uniform_int_distribution<std::int64_t>(0, most.count())(m_random));
}

void LetGo(std::shared_ptr<Keeper> keeper, std::thread thread) {
  // Made after the first connection, so destroyed before what that has set up.
  static Stragglers stragglers;
  stragglers.Add(std::move(keeper), std::move(thread));
}

}  // namespace engine::transport::nats
