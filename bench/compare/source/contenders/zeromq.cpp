// libzmq: PUB and SUB over Unix sockets, a message of one frame that begins with the topic.
#include <zmq.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "contender.h"

namespace compare {

namespace {

constexpr int kHighWaterMark = 1000;  // the library's default
constexpr int kBatchMax = 256;        // messages in one poll

int Check(int result) {
  if (result == -1) {
    throw std::runtime_error(::zmq_strerror(::zmq_errno()));
  }
  return result;
}

class Socket {
 public:
  Socket(void* context, int type) : m_socket(::zmq_socket(context, type)) {
    if (m_socket == nullptr) {
      throw std::runtime_error(::zmq_strerror(::zmq_errno()));
    }
    Set(ZMQ_LINGER, 0);
    Set(ZMQ_SNDHWM, kHighWaterMark);
    Set(ZMQ_RCVHWM, kHighWaterMark);
  }
  ~Socket() { ::zmq_close(m_socket); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  void Set(int option, int value) { Check(::zmq_setsockopt(m_socket, option, &value, sizeof value)); }
  void Subscribe(const std::string& topic) {
    Check(::zmq_setsockopt(m_socket, ZMQ_SUBSCRIBE, topic.data(), topic.size()));
  }
  operator void*() const { return m_socket; }

 private:
  void* m_socket;
};

class ZmqNode : public Node {
 public:
  ZmqNode(const std::filesystem::path& directory, const NodeSetup& setup)
      : m_sink(setup.sink), m_topics(setup.publishes) {
    const std::string place = "ipc://" + directory.string() + "/";
    if (!setup.publishes.empty()) {
      m_publisher = std::make_unique<Socket>(m_context.get(), ZMQ_PUB);
      m_publisher->Set(ZMQ_XPUB_NODROP, 1);
      m_publisher->Set(ZMQ_RCVHWM, 0);
      Check(::zmq_bind(*m_publisher, (place + setup.name).c_str()));
    }
    if (!setup.subscribes.empty()) {
      m_subscriber = std::make_unique<Socket>(m_context.get(), ZMQ_SUB);
      // The mark counts for subscriptions too, and those above it would be dropped.
      m_subscriber->Set(ZMQ_SNDHWM, 0);
      for (const std::string& topic : setup.subscribes) {
        m_subscriber->Subscribe(topic);
      }
      for (const std::string& publisher : setup.publishers) {
        Check(::zmq_connect(*m_subscriber, (place + publisher).c_str()));
      }
    }
    ::zmq_msg_init(&m_received);
  }
  ~ZmqNode() override { ::zmq_msg_close(&m_received); }

  void Send(std::size_t topic, const char* data, std::size_t length) override {
    zmq_msg_t message;
    Check(::zmq_msg_init_size(&message, kTopicLength + length));
    char* bytes = static_cast<char*>(::zmq_msg_data(&message));
    std::memcpy(bytes, m_topics[topic].data(), kTopicLength);
    std::memcpy(bytes + kTopicLength, data, length);
    Check(::zmq_msg_send(&message, *m_publisher, 0));
  }

  void Poll(int timeoutMs) override {
    if (timeoutMs != m_timeoutMs) {
      m_subscriber->Set(ZMQ_RCVTIMEO, timeoutMs);
      m_timeoutMs = timeoutMs;
    }
    for (int i = 0, flags = 0; i < kBatchMax; ++i, flags = ZMQ_DONTWAIT) {
      if (::zmq_msg_recv(&m_received, *m_subscriber, flags) == -1) {
        if (::zmq_errno() != EAGAIN) {
          Check(-1);
        }
        return;
      }
      m_sink->Take(static_cast<const char*>(::zmq_msg_data(&m_received)) + kTopicLength,
                   ::zmq_msg_size(&m_received) - kTopicLength);
    }
  }

 private:
  struct EndContext {
    void operator()(void* context) const { ::zmq_ctx_term(context); }
  };

  const std::unique_ptr<void, EndContext> m_context{::zmq_ctx_new()};
  Sink* const m_sink;
  const std::vector<std::string> m_topics;
  std::unique_ptr<Socket> m_publisher;
  std::unique_ptr<Socket> m_subscriber;
  zmq_msg_t m_received;
  int m_timeoutMs = -1;
};

}  // namespace

Contender MakeContender(const std::filesystem::path& directory) {
  int major = 0;
  int minor = 0;
  int patch = 0;
  ::zmq_version(&major, &minor, &patch);
  return {.version = std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch),
          .transport = "PUB/SUB over ipc://, one I/O thread a process",
          .pacing = "ZMQ_XPUB_NODROP and high-water marks of " + std::to_string(kHighWaterMark) + ": a send waits",
          .makeNode = [directory](const NodeSetup& setup) { return std::make_unique<ZmqNode>(directory, setup); }};
}

}  // namespace compare
