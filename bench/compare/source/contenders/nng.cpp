// nng: pub0 and sub0 over Unix sockets, a message that begins with the topic.
#include <nng/nng.h>
#include <nng/protocol/pubsub0/pub.h>
#include <nng/protocol/pubsub0/sub.h>

#include <stdexcept>

#include "contender.h"

namespace compare {

namespace {

constexpr int kBuffer = 8192;          // messages, the most that the library takes
constexpr std::size_t kWindow = 4096;  // both buffers hold it, so nothing is dropped
constexpr int kBatchMax = 256;         // messages in one poll

void Check(int result) {
  if (result != 0) {
    throw std::runtime_error(::nng_strerror(result));
  }
}

class NngNode : public Node {
 public:
  NngNode(const std::filesystem::path& directory, const NodeSetup& setup)
      : m_sink(setup.sink), m_topics(setup.publishes) {
    const std::string place = "ipc://" + directory.string() + "/";
    if (!setup.publishes.empty()) {
      Check(::nng_pub0_open(&m_publisher));
      Check(::nng_socket_set_int(m_publisher, NNG_OPT_SENDBUF, kBuffer));
      Check(::nng_listen(m_publisher, (place + setup.name).c_str(), nullptr, 0));
    }
    if (!setup.subscribes.empty()) {
      Check(::nng_sub0_open(&m_subscriber));
      Check(::nng_socket_set_int(m_subscriber, NNG_OPT_RECVBUF, kBuffer));
      Check(::nng_socket_set_ms(m_subscriber, NNG_OPT_RECONNMINT, kReconnectMs));
      Check(::nng_socket_set_ms(m_subscriber, NNG_OPT_RECONNMAXT, kReconnectMs));
      for (const std::string& topic : setup.subscribes) {
        Check(::nng_socket_set(m_subscriber, NNG_OPT_SUB_SUBSCRIBE, topic.data(), topic.size()));
      }
      for (const std::string& publisher : setup.publishers) {
        Check(::nng_dial(m_subscriber, (place + publisher).c_str(), nullptr, NNG_FLAG_NONBLOCK));
      }
    }
  }
  ~NngNode() override {
    ::nng_close(m_publisher);
    ::nng_close(m_subscriber);
  }

  void Send(std::size_t topic, const char* data, std::size_t length) override {
    nng_msg* message = nullptr;
    Check(::nng_msg_alloc(&message, 0));
    Check(::nng_msg_reserve(message, kTopicLength + length));
    Check(::nng_msg_append(message, m_topics[topic].data(), kTopicLength));
    Check(::nng_msg_append(message, data, length));
    Check(::nng_sendmsg(m_publisher, message, 0));
  }

  void Poll(int timeoutMs) override {
    if (timeoutMs != m_timeoutMs) {
      Check(::nng_socket_set_ms(m_subscriber, NNG_OPT_RECVTIMEO, timeoutMs));
      m_timeoutMs = timeoutMs;
    }
    for (int i = 0, flags = timeoutMs == 0 ? NNG_FLAG_NONBLOCK : 0; i < kBatchMax; ++i, flags = NNG_FLAG_NONBLOCK) {
      nng_msg* message = nullptr;
      const int result = ::nng_recvmsg(m_subscriber, &message, flags);
      if (result == NNG_EAGAIN || result == NNG_ETIMEDOUT) {
        return;
      }
      Check(result);
      m_sink->Take(static_cast<const char*>(::nng_msg_body(message)) + kTopicLength,
                   ::nng_msg_len(message) - kTopicLength);
      ::nng_msg_free(message);
    }
  }

 private:
  static constexpr nng_duration kReconnectMs = 1;

  Sink* const m_sink;
  const std::vector<std::string> m_topics;
  nng_socket m_publisher = NNG_SOCKET_INITIALIZER;
  nng_socket m_subscriber = NNG_SOCKET_INITIALIZER;
  int m_timeoutMs = -1;
};

}  // namespace

Contender MakeContender(const std::filesystem::path& directory) {
  return {.version = ::nng_version(),
          .transport = "pub0/sub0 over ipc://",
          .pacing = "none of its own; at most " + std::to_string(kWindow) + " messages ahead, buffers of " +
                    std::to_string(kBuffer),
          .window = kWindow,
          .makeNode = [directory](const NodeSetup& setup) { return std::make_unique<NngNode>(directory, setup); }};
}

}  // namespace compare
