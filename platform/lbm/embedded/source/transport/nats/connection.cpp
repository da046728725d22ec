#include "transport/nats/connection.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <mutex>
#include <stdexcept>
#include <unordered_map>
#include <utility>

#include "zq/posix/error.h"
#include "zq/posix/file.h"

namespace engine::transport::nats {

namespace {

// The library would end the connection on its timer's thread, beside whoever is reading: see SilentFor.
constexpr int kUnansweredPingsMax = 1'000'000'000;
// More than a socket holds.
constexpr int kLastReadsMax = 1'000;
constexpr std::size_t kUserFileMax = 4'096;

struct OptionsDeleter {
  void operator()(natsOptions* options) const noexcept { Nats().natsOptions_Destroy(options); }
};
using Options = std::unique_ptr<natsOptions, OptionsDeleter>;

// What the client library says of its last failure on this thread.
std::string Reason(natsStatus status) {
  natsStatus last = status;
  const char* const text = Nats().nats_GetLastError(&last);
  if (text == nullptr || *text == '\0') {
    return Nats().natsStatus_GetText(status);
  }
  // It begins with the place in the library's own sources.
  const std::string_view reason(text);
  const std::size_t place = reason.starts_with('(') ? reason.find("): ") : std::string_view::npos;
  return std::string(place == std::string_view::npos ? reason : reason.substr(place + 3));
}

void Check(natsStatus status, const std::string& what) {
  if (status != NATS_OK) {
    throw std::runtime_error(what + ": " + Reason(status));
  }
}

std::string Trimmed(std::string text) {
  const auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  text.erase(std::find_if_not(text.rbegin(), text.rend(), isSpace).base(), text.end());
  text.erase(text.begin(), std::find_if_not(text.begin(), text.end(), isSpace));
  return text;
}

// Has the system end a connection whose other end is not heard of, also while somebody waits for the rest of an
// encrypted record.
void WatchOver(int socket) noexcept {
  const auto set = [socket](int level, int name, int value) {
    static_cast<void>(::setsockopt(socket, level, name, &value, sizeof(value)));
  };
  set(SOL_SOCKET, SO_KEEPALIVE, 1);
  set(IPPROTO_TCP, TCP_KEEPIDLE, 2);   // seconds
  set(IPPROTO_TCP, TCP_KEEPINTVL, 1);  // seconds
  set(IPPROTO_TCP, TCP_KEEPCNT, 3);
}

// Marks the calling thread as one that will flush: it need not be told that there is something to flush.
thread_local int t_flushing = 0;
struct FlushingScope {
  FlushingScope() noexcept { ++t_flushing; }
  ~FlushingScope() { --t_flushing; }
  FlushingScope(const FlushingScope&) = delete;
  FlushingScope& operator=(const FlushingScope&) = delete;
};

}  // namespace

// What the client library's callbacks touch. It may outlive the connection: they come on threads of the library.
struct Connection::State : std::enable_shared_from_this<State> {
  Observer observer;
  zq::posix::Descriptor socket;  // a duplicate, so that its number is not used again behind our back
  std::atomic<bool> wantsFlush{false};
  std::atomic<bool> ended{false};
  std::shared_ptr<State> attached;  // itself, while the library may call back through the loop

  static natsStatus Attach(void** userData, void* loop, natsConnection*, natsSock socket) {
    auto& state = *static_cast<State*>(loop);
    state.socket = zq::posix::Descriptor(::fcntl(socket, F_DUPFD_CLOEXEC, 0));
    if (state.socket.Get() < 0) {
      return NATS_SYS_ERROR;
    }
    WatchOver(socket);
    state.attached = state.shared_from_this();
    *userData = &state;
    return NATS_OK;
  }
  static natsStatus SetReading(void*, bool) { return NATS_OK; }
  static natsStatus SetWriting(void* userData, bool wanted) {
    auto& state = *static_cast<State*>(userData);
    state.wantsFlush = wanted;
    if (wanted && t_flushing == 0) {
      state.observer.attention();
    }
    return NATS_OK;
  }
  static natsStatus Detach(void* userData) {
    auto& state = *static_cast<State*>(userData);
    state.ended = true;
    state.observer.attention();
    const auto kept = std::move(state.attached);
    return NATS_OK;
  }
  static void OnError(natsConnection* connection, natsSubscription*, natsStatus status, void* closure);
};

namespace {

// States by the number that error callbacks carry: such a callback may come after the connection is gone.
class StateTable {
 public:
  template <class T>
  void* Add(const std::shared_ptr<T>& state) {
    const std::lock_guard lock(m_mutex);
    m_states.emplace(++m_last, state);
    return reinterpret_cast<void*>(m_last);
  }
  std::shared_ptr<void> Find(void* key) {
    const std::lock_guard lock(m_mutex);
    const auto found = m_states.find(reinterpret_cast<std::uintptr_t>(key));
    return found == m_states.end() ? nullptr : found->second.lock();
  }
  void Purge() {
    const std::lock_guard lock(m_mutex);
    std::erase_if(m_states, [](const auto& entry) { return entry.second.expired(); });
  }

 private:
  std::mutex m_mutex;
  std::uintptr_t m_last = 0;
  std::unordered_map<std::uintptr_t, std::weak_ptr<void>> m_states;
};

StateTable& States() {
  static auto* const table = new StateTable;  // never destroyed: the library's threads may outlive static objects
  return *table;
}

bool IsEncrypted(const ServerSettings& settings, const std::vector<std::string>& servers) {
  return !settings.tlsCaFile.empty() || !settings.tlsCertificateFile.empty() ||
         std::any_of(servers.begin(), servers.end(), [](const auto& url) { return url.starts_with("tls:"); });
}

bool IsReadable(int socket) noexcept {
  pollfd readable{socket, POLLIN, 0};
  return ::poll(&readable, 1, 0) == 1;
}

Options MakeOptions(const ServerSettings& settings, const std::vector<std::string>& servers) {
  natsOptions* made = nullptr;
  Check(Nats().natsOptions_Create(&made), "cannot use the NATS client library");
  Options options(made);
  std::vector<const char*> urls;
  urls.reserve(servers.size());
  for (const std::string& server : servers) {
    urls.push_back(server.c_str());
  }
  Check(Nats().natsOptions_SetServers(made, urls.data(), static_cast<int>(urls.size())), "option nats_servers");
  Check(Nats().natsOptions_SetTimeout(made, settings.connectTimeout.count()), "connect time-out");
  Check(Nats().natsOptions_SetName(made, settings.name.c_str()), "option nats_connection_name");
  Check(Nats().natsOptions_SetPingInterval(made, settings.pingInterval.count()), "ping interval");
  Check(Nats().natsOptions_SetMaxPingsOut(made, kUnansweredPingsMax), "pings");
  Check(Nats().natsOptions_SetAllowReconnect(made, false), "reconnecting");
  Check(Nats().natsOptions_SetSendAsap(made, true), "sending");  // else the library makes a thread that flushes
  if (!settings.credentialsFile.empty()) {
    Check(Nats().natsOptions_SetUserCredentialsFromFiles(made, settings.credentialsFile.c_str(), nullptr),
          "option nats_credentials_file");
  }
  if (!settings.userFile.empty()) {
    const std::string text = zq::posix::ReadFile(settings.userFile, kUserFileMax);
    const std::size_t end = text.find('\n');
    if (end == std::string::npos) {
      throw std::runtime_error("option nats_user_file: \"" + settings.userFile +
                               "\" must have the user on its first line and the password on its second");
    }
    Check(Nats().natsOptions_SetUserInfo(made, Trimmed(text.substr(0, end)).c_str(),
                                         Trimmed(text.substr(end + 1)).c_str()),
          "option nats_user_file");
  }
  if (IsEncrypted(settings, servers)) {
    Check(Nats().natsOptions_SetSecure(made, true), "TLS");
  }
  if (!settings.tlsCaFile.empty()) {
    Check(Nats().natsOptions_LoadCATrustedCertificates(made, settings.tlsCaFile.c_str()), "option nats_tls_ca_file");
  }
  if (!settings.tlsCertificateFile.empty()) {
    Check(Nats().natsOptions_LoadCertificatesChain(made, settings.tlsCertificateFile.c_str(),
                                                   settings.tlsKeyFile.c_str()),
          "options nats_tls_certificate_file and nats_tls_key_file");
  }
  return options;
}

// What the kernel knows of a connection; all 0 when that is nothing.
tcp_info SocketInfo(int socket) noexcept {
  tcp_info info{};
  socklen_t size = sizeof(info);
  if (::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) {
    info = {};
  }
  return info;
}

}  // namespace

void Connection::State::OnError(natsConnection* connection, natsSubscription*, natsStatus status, void* closure) {
  if (const auto state = std::static_pointer_cast<State>(States().Find(closure))) {
    const char* text = nullptr;
    static_cast<void>(Nats().natsConnection_GetLastError(connection, &text));
    state->observer.complained(text != nullptr && *text != '\0' ? text : Nats().natsStatus_GetText(status));
  }
}

std::vector<std::string> ServerUrls(const std::string& servers) {
  std::vector<std::string> urls;
  for (std::size_t begin = 0; begin <= servers.size();) {
    const std::size_t end = std::min(servers.find(',', begin), servers.size());
    if (std::string url = Trimmed(servers.substr(begin, end - begin)); !url.empty()) {
      urls.push_back(std::move(url));
    }
    begin = end + 1;
  }
  if (urls.empty()) {
    throw std::invalid_argument("option nats_servers names no server; for example nats://127.0.0.1:4222");
  }
  return urls;
}

std::string PublicUrl(const std::string& url) {
  const std::size_t scheme = url.find("://");
  const std::size_t begin = scheme == std::string::npos ? 0 : scheme + 3;
  const std::size_t at = url.rfind('@');
  return at == std::string::npos || at < begin ? url : url.substr(0, begin) + url.substr(at + 1);
}

Connection::Connection(const ServerSettings& settings, const std::vector<std::string>& servers, Observer observer)
    : m_state(std::make_shared<State>()), m_encrypted(IsEncrypted(settings, servers)) {
  m_state->observer = std::move(observer);
  const Options options = MakeOptions(settings, servers);
  States().Purge();
  Check(Nats().natsOptions_SetEventLoop(options.get(), m_state.get(), &State::Attach, &State::SetReading,
                                        &State::SetWriting, &State::Detach),
        "event loop");
  Check(Nats().natsOptions_SetErrorHandler(options.get(), &State::OnError, States().Add(m_state)), "errors");
  Check(Nats().natsStatistics_Create(&m_statistics), "statistics");
  const FlushingScope scope;
  const natsStatus status = Nats().natsConnection_Connect(&m_connection, options.get());
  if (status != NATS_OK) {
    std::string reason = Reason(status);
    if (!settings.credentialsFile.empty() && reason.find(settings.credentialsFile) != std::string::npos) {
      reason.insert(0, "option nats_credentials_file: ");  // the library reads it while it connects
    }
    Nats().natsStatistics_Destroy(m_statistics);
    Nats().natsConnection_Destroy(m_connection);
    throw std::runtime_error(reason);
  }
  m_maxPayload = static_cast<std::size_t>(std::max<std::int64_t>(Nats().natsConnection_GetMaxPayload(m_connection), 0));
  std::array<char, 512> url{};
  static_cast<void>(Nats().natsConnection_GetConnectedUrl(m_connection, url.data(), url.size()));
  m_url = PublicUrl(url.data());
}

Connection::~Connection() {
  // Otherwise the library waits for an answer to a last ping, which only Read could find.
  ::shutdown(m_state->socket.Get(), SHUT_RDWR);
  for (int reads = 0; !m_state->ended && reads < kLastReadsMax; ++reads) {
    Nats().natsConnection_ProcessReadEvent(m_connection);
  }
  Nats().natsConnection_Destroy(m_connection);
  Nats().natsStatistics_Destroy(m_statistics);
}

int Connection::GetDescriptor() const noexcept { return m_state->socket.Get(); }

bool Connection::Ended() const noexcept { return m_state->ended; }

std::string Connection::EndReason() const {
  const char* text = nullptr;
  static_cast<void>(Nats().natsConnection_GetLastError(m_connection, &text));
  return text != nullptr ? text : "";
}

std::vector<std::string> Connection::Servers() const {
  char** urls = nullptr;
  int count = 0;
  std::vector<std::string> servers;
  if (Nats().natsConnection_GetServers(m_connection, &urls, &count) == NATS_OK) {
    for (int i = 0; i < count; ++i) {
      servers.emplace_back(urls[i]);
      std::free(urls[i]);
    }
    std::free(urls);
  }
  return servers;
}

bool Connection::Send(const std::string& subject, Bytes message) noexcept {
  const FlushingScope scope;
  return Nats().natsConnection_Publish(m_connection, subject.c_str(), message.data(),
                                       static_cast<int>(message.size())) == NATS_OK;
}

bool Connection::Flush() noexcept {
  const FlushingScope scope;
  if (m_state->wantsFlush && !m_state->ended) {
    const std::lock_guard lock(m_ioMutex);
    Nats().natsConnection_ProcessWriteEvent(m_connection);
  }
  return !m_state->wantsFlush || m_state->ended;
}

bool Connection::WantsFlush() const noexcept { return m_state->wantsFlush && !m_state->ended; }

std::chrono::milliseconds Connection::SilentFor() const noexcept {
  return std::chrono::milliseconds(SocketInfo(GetDescriptor()).tcpi_last_data_recv);
}

std::chrono::nanoseconds Connection::RoundTrip() const noexcept {
  return std::chrono::microseconds(SocketInfo(GetDescriptor()).tcpi_rtt);
}

std::size_t Connection::Read() noexcept {
  if (m_state->ended) {
    return 0;
  }
  const std::lock_guard lock(m_ioMutex);
  // With encryption the library waits where there is nothing to read.
  if (m_encrypted && !IsReadable(GetDescriptor())) {
    return 0;
  }
  {
    const FlushingScope scope;
    Nats().natsConnection_ProcessReadEvent(m_connection);
  }
  std::uint64_t received = 0;
  static_cast<void>(Nats().natsConnection_GetStats(m_connection, m_statistics));
  static_cast<void>(Nats().natsStatistics_GetCounts(m_statistics, &received, nullptr, nullptr, nullptr, nullptr));
  return static_cast<std::size_t>(received - std::exchange(m_received, received));
}

SubscriptionHandle Connection::Subscribe(const std::string& subject) {
  natsSubscription* subscription = nullptr;
  const FlushingScope scope;
  static_cast<void>(Nats().natsConnection_SubscribeSync(&subscription, m_connection, subject.c_str()));
  return SubscriptionHandle(subscription);
}

Message Next(natsSubscription* subscription) noexcept {
  int waiting = 0;
  natsMsg* message = nullptr;
  // The call for a message costs far more than this one when there is none.
  if (Nats().natsSubscription_GetPending(subscription, &waiting, nullptr) == NATS_OK && waiting > 0) {
    static_cast<void>(Nats().natsSubscription_NextMsg(&message, subscription, 0));
  }
  return Message(message);
}

}  // namespace engine::transport::nats
