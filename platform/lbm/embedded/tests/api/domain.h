// What tests of the whole engine share: a domain of their own, contexts that the test drives, and recorders of what the
// callbacks saw.
#pragma once

#include <gmock/gmock.h>
#include <lbm/lbm.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "test_support/private_domain.h"

namespace engine_test {

using Lines = std::vector<std::string>;
using Options = std::initializer_list<std::pair<const char*, const char*>>;

// New attributes of one kind with these options, to be given back.
template <class Attr>
Attr* MakeAttributes(int (*create)(Attr**), int (*set)(Attr*, const char*, const char*), Options options) {
  Attr* attr = nullptr;
  EXPECT_EQ(0, create(&attr)) << lbm_errmsg();
  for (const auto& [name, value] : options) {
    EXPECT_EQ(0, set(attr, name, value)) << lbm_errmsg();
  }
  return attr;
}

inline lbm_context_t* MakeContext(Options options = {{"operational_mode", "sequential"}}) {
  auto* const attr = MakeAttributes(lbm_context_attr_create, lbm_context_attr_str_setopt, options);
  lbm_context_t* context = nullptr;
  EXPECT_EQ(0, lbm_context_create(&context, attr, nullptr, nullptr)) << lbm_errmsg();
  EXPECT_EQ(0, lbm_context_attr_delete(attr));
  return context;
}

// Processes the contexts' events until the condition holds, and fails the test when that takes too long.
inline bool PumpUntil(std::initializer_list<lbm_context_t*> contexts, const char* what,
                      const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      ADD_FAILURE() << "waited in vain for " << what;
      return false;
    }
    for (lbm_context_t* context : contexts) {
      EXPECT_EQ(0, lbm_context_process_events(context, 1)) << lbm_errmsg();
    }
  }
  return true;
}

// A runtime directory for the life of a test.
class EngineTest : public ::testing::Test {
  const test_support::PrivateDomain m_domain;
};

// A context that the test drives, deleted in the end.
class Driven {
 public:
  explicit Driven(Options options = {{"operational_mode", "sequential"}}) : m_context(MakeContext(options)) {}
  ~Driven() { Delete(); }
  Driven(const Driven&) = delete;
  Driven& operator=(const Driven&) = delete;

  operator lbm_context_t*() const noexcept { return m_context; }
  void Delete() {
    if (m_context != nullptr) {
      EXPECT_EQ(0, lbm_context_delete(std::exchange(m_context, nullptr)));
    }
  }

 private:
  lbm_context_t* m_context;
};

inline lbm_topic_t* ReceiverTopic(lbm_context_t* context, const char* name, Options options = {}) {
  auto* const attr = MakeAttributes(lbm_rcv_topic_attr_create, lbm_rcv_topic_attr_str_setopt, options);
  lbm_topic_t* topic = nullptr;
  EXPECT_EQ(0, lbm_rcv_topic_lookup(&topic, context, name, attr)) << lbm_errmsg();
  EXPECT_EQ(0, lbm_rcv_topic_attr_delete(attr));
  return topic;
}

// A source that counts its subscribers.
class Sender {
 public:
  Sender(lbm_context_t* context, const char* topic, Options options = {}) {
    auto* const attr = MakeAttributes(lbm_src_topic_attr_create, lbm_src_topic_attr_str_setopt, options);
    lbm_topic_t* made = nullptr;
    EXPECT_EQ(0, lbm_src_topic_alloc(&made, context, topic, attr)) << lbm_errmsg();
    EXPECT_EQ(0, lbm_src_topic_attr_delete(attr));
    EXPECT_EQ(0, lbm_src_create(&m_source, context, made, &Sender::OnEvent, this, nullptr)) << lbm_errmsg();
  }
  ~Sender() { Delete(); }
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;

  void Delete() {
    if (m_source != nullptr) {
      EXPECT_EQ(0, lbm_src_delete(std::exchange(m_source, nullptr)));
    }
  }

  int Subscribers() const { return m_subscribers; }

  // What is sent after this reaches the subscriber. contexts: those that the test drives.
  void AwaitSubscriber(std::initializer_list<lbm_context_t*> contexts) const {
    PumpUntil(contexts, "the subscriber", [&] { return Subscribers() == 1; });
  }

  int Send(const std::string& text, int flags = LBM_SRC_FLUSH) const {
    return lbm_src_send(m_source, text.data(), text.size(), flags);
  }

  operator lbm_src_t*() const noexcept { return m_source; }

 private:
  static int OnEvent(lbm_src_t*, int event, void* data, void* clientd) {
    std::atomic<int>& subscribers = static_cast<Sender*>(clientd)->m_subscribers;
    if (event == LBM_SRC_EVENT_CONNECT || event == LBM_SRC_EVENT_DISCONNECT) {
      EXPECT_NE(nullptr, data);
      subscribers += event == LBM_SRC_EVENT_CONNECT ? 1 : -1;
    }
    return 0;
  }

  lbm_src_t* m_source = nullptr;
  std::atomic<int> m_subscribers{0};
};

// A receiver that keeps a line for each event: "data 0 text", "BOS 0", "EOS", "request 3 text".
class Recorder {
 public:
  Recorder(lbm_context_t* context, const char* topic, lbm_event_queue_t* queue = nullptr)
      : Recorder(context, ReceiverTopic(context, topic), queue) {}
  Recorder(lbm_context_t* context, lbm_topic_t* topic, lbm_event_queue_t* queue = nullptr) {
    EXPECT_EQ(0, lbm_rcv_create(&m_receiver, context, topic, &Recorder::Receive, this, queue)) << lbm_errmsg();
  }
  ~Recorder() { Stop(); }
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  void Stop() {
    if (m_receiver != nullptr) {
      EXPECT_EQ(0, lbm_rcv_delete(std::exchange(m_receiver, nullptr)));
    }
  }

  // Called for each event after it was recorded.
  std::function<void(lbm_msg_t&)> onEvent;
  Lines lines;

  static std::string Describe(const lbm_msg_t& message) {
    const std::string sequence = ' ' + std::to_string(message.sequence_number);
    const std::string text = message.data != nullptr ? ' ' + std::string(message.data, message.len) : "";
    switch (message.type) {
      case LBM_MSG_DATA:
        return "data" + sequence + text;
      case LBM_MSG_REQUEST:
        return "request" + sequence + text;
      case LBM_MSG_RESPONSE:
        return "response" + text;
      case LBM_MSG_BOS:
        return "BOS" + sequence;
      case LBM_MSG_EOS:
        return "EOS";
      case LBM_MSG_NO_SOURCE_NOTIFICATION:
        return "no source";
      default:
        return "type " + std::to_string(message.type);
    }
  }

 private:
  static int Receive(lbm_rcv_t*, lbm_msg_t* message, void* clientd) {
    auto& self = *static_cast<Recorder*>(clientd);
    self.lines.push_back(Describe(*message));
    if (self.onEvent) {
      self.onEvent(*message);
    }
    return 0;
  }

  lbm_rcv_t* m_receiver = nullptr;
};

// An event queue that the test dispatches, deleted in the end.
class Queue {
 public:
  explicit Queue(bool cancellationCallbacks = false, const char* bytesMax = "67108864") {
    auto* const attr = MakeAttributes(
        lbm_event_queue_attr_create, lbm_event_queue_attr_str_setopt,
        {{"queue_cancellation_callbacks_enabled", cancellationCallbacks ? "1" : "0"}, {"queue_bytes_max", bytesMax}});
    EXPECT_EQ(0, lbm_event_queue_create(&m_queue, nullptr, nullptr, attr)) << lbm_errmsg();
    EXPECT_EQ(0, lbm_event_queue_attr_delete(attr));
  }
  ~Queue() { EXPECT_EQ(0, lbm_event_queue_delete(m_queue)); }
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;

  operator lbm_event_queue_t*() const noexcept { return m_queue; }
  int Poll() const { return lbm_event_dispatch(m_queue, LBM_EVENT_QUEUE_POLL); }

 private:
  lbm_event_queue_t* m_queue = nullptr;
};

// The error number of a call that failed; 0 for one that did not.
inline int ErrorOf(int result) { return result == -1 ? lbm_errnum() : 0; }

}  // namespace engine_test
