// NATS: core publish and subscribe through a server of this measurement's own on a free loopback port.
#include <nats/nats.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <stdexcept>

#include "contender.h"

namespace compare {

namespace {

constexpr const char* kServerProgram = "/usr/sbin/nats-server";
constexpr std::size_t kWindow = 4096;

void Check(natsStatus status) {
  if (status != NATS_OK) {
    throw std::runtime_error(std::string("nats: ") + ::natsStatus_GetText(status));
  }
}

class Server {
 public:
  Server() {
    std::array<int, 2> output{};
    if (::pipe(output.data()) != 0) {
      throw std::runtime_error("cannot make a pipe for the server's log");
    }
    m_process = ::fork();
    if (m_process == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      ::dup2(output[1], STDERR_FILENO);
      ::close(output[0]);
      ::close(output[1]);
      ::execl(kServerProgram, kServerProgram, "--addr", "127.0.0.1", "--port", "-1", nullptr);
      std::_Exit(127);
    }
    ::close(output[1]);
    m_log = ::fdopen(output[0], "r");
    ReadPort();
  }
  ~Server() {
    ::kill(m_process, SIGTERM);
    ::waitpid(m_process, nullptr, 0);
    std::fclose(m_log);
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  std::string Url() const { return "nats://127.0.0.1:" + m_port; }
  const std::string& Version() const { return m_version; }

 private:
  void ReadPort() {
    const std::regex versionText("Version: +([0-9.]+)");
    const std::regex portText("client connections on 127\\.0\\.0\\.1:([0-9]+)");
    std::array<char, 512> line;
    bool ready = false;
    while (!ready && std::fgets(line.data(), line.size(), m_log) != nullptr) {
      std::cmatch found;
      if (std::regex_search(line.data(), found, versionText)) {
        m_version = found[1];
      } else if (std::regex_search(line.data(), found, portText)) {
        m_port = found[1];
      }
      ready = std::string(line.data()).find("Server is ready") != std::string::npos;
    }
    if (!ready || m_port.empty()) {
      throw std::runtime_error(std::string(kServerProgram) + " did not start");
    }
  }

  pid_t m_process;
  FILE* m_log = nullptr;
  std::string m_port;
  std::string m_version;
};

class NatsNode : public Node {
 public:
  NatsNode(const std::string& url, const NodeSetup& setup) : m_sink(setup.sink), m_topics(setup.publishes) {
    natsOptions* options = nullptr;
    Check(::natsOptions_Create(&options));
    Check(::natsOptions_SetURL(options, url.c_str()));
    // One thread for all subscriptions, instead of one for each.
    Check(::natsOptions_UseGlobalMessageDelivery(options, true));
    // A publisher's messages are collected by the library as it does by default; answers go out at once.
    Check(::natsOptions_SetSendAsap(options, !setup.publishes.empty() && !setup.subscribes.empty()));
    Check(::natsConnection_Connect(&m_connection, options));
    ::natsOptions_Destroy(options);
    for (const std::string& topic : setup.subscribes) {
      Check(::natsConnection_Subscribe(&m_subscriptions.emplace_back(), m_connection, topic.c_str(), Deliver, this));
    }
    if (!setup.subscribes.empty()) {
      Check(::natsConnection_Flush(m_connection));
    }
  }
  ~NatsNode() override {
    ::natsConnection_Close(m_connection);
    for (natsSubscription* subscription : m_subscriptions) {
      ::natsSubscription_Destroy(subscription);
    }
    ::natsConnection_Destroy(m_connection);
  }

  void Send(std::size_t topic, const char* data, std::size_t length) override {
    Check(::natsConnection_Publish(m_connection, m_topics[topic].c_str(), data, static_cast<int>(length)));
  }

  // The library delivers on a thread of its own.
  void Poll(int timeoutMs) override {
    if (timeoutMs > 0) {
      ::nats_Sleep(1);
    }
  }

 private:
  static void Deliver(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
    static_cast<NatsNode*>(closure)->m_sink->Take(::natsMsg_GetData(message),
                                                  static_cast<std::size_t>(::natsMsg_GetDataLength(message)));
    ::natsMsg_Destroy(message);
  }

  Sink* const m_sink;
  const std::vector<std::string> m_topics;
  natsConnection* m_connection = nullptr;
  std::vector<natsSubscription*> m_subscriptions;
};

}  // namespace

Contender MakeContender(const std::filesystem::path&) {
  const auto server = std::make_shared<const Server>();
  return {.version = server->Version() + ", client " + ::nats_GetVersion(),
          .transport = "core publish/subscribe over loopback TCP through a server",
          .pacing = "none of its own; at most " + std::to_string(kWindow) + " messages ahead",
          .window = kWindow,
          .makeNode = [server](const NodeSetup& setup) { return std::make_unique<NatsNode>(server->Url(), setup); }};
}

}  // namespace compare
