// What tests of the whole engine share: a domain of their own, contexts that the test drives, and recorders of what the
// callbacks saw.
#pragma once

#include <gtest/gtest.h>
#include <lbm/lbm.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "test_support/private_domain.h"

namespace engine_test {

// A runtime directory for the life of a test.
class PrivateDomain : public ::testing::Test {
 protected:
  const std::filesystem::path& GetDirectory() const { return m_domain.Directory(); }

 private:
  const test_support::PrivateDomain m_domain;
};

using Options = std::initializer_list<std::pair<const char*, const char*>>;

inline lbm_context_t* MakeContext(Options options = {{"operational_mode", "sequential"}}) {
  lbm_context_attr_t* attr = nullptr;
  lbm_context_t* context = nullptr;
  EXPECT_EQ(0, lbm_context_attr_create(&attr)) << lbm_errmsg();
  for (const auto& [name, value] : options) {
    EXPECT_EQ(0, lbm_context_attr_str_setopt(attr, name, value)) << lbm_errmsg();
  }
  EXPECT_EQ(0, lbm_context_create(&context, attr, nullptr, nullptr)) << lbm_errmsg();
  EXPECT_EQ(0, lbm_context_attr_delete(attr));
  return context;
}

inline lbm_topic_t* ReceiverTopic(lbm_context_t* context, const char* name, Options options = {}) {
  lbm_rcv_topic_attr_t* attr = nullptr;
  lbm_topic_t* topic = nullptr;
  EXPECT_EQ(0, lbm_rcv_topic_attr_create(&attr));
  for (const auto& [option, value] : options) {
    EXPECT_EQ(0, lbm_rcv_topic_attr_str_setopt(attr, option, value)) << lbm_errmsg();
  }
  EXPECT_EQ(0, lbm_rcv_topic_lookup(&topic, context, name, attr)) << lbm_errmsg();
  EXPECT_EQ(0, lbm_rcv_topic_attr_delete(attr));
  return topic;
}

inline lbm_src_t* MakeSource(lbm_context_t* context, const char* name, lbm_src_cb_proc proc = nullptr,
                             void* clientd = nullptr, lbm_event_queue_t* queue = nullptr) {
  lbm_topic_t* topic = nullptr;
  lbm_src_t* source = nullptr;
  EXPECT_EQ(0, lbm_src_topic_alloc(&topic, context, name, nullptr)) << lbm_errmsg();
  EXPECT_EQ(0, lbm_src_create(&source, context, topic, proc, clientd, queue)) << lbm_errmsg();
  return source;
}

inline int SendText(lbm_src_t* source, const std::string& text) {
  return lbm_src_send(source, text.data(), text.size(), LBM_SRC_FLUSH);
}

// A receiver that keeps a line for each event: "data 0 text", "BOS 0", "EOS", "request 3 text", "loss 4", "burst 5 17".
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
  std::vector<std::string> lines;

  static std::string Describe(const lbm_msg_t& message) {
    const std::string sequence = " " + std::to_string(message.sequence_number);
    const std::string text = message.data != nullptr ? " " + std::string(message.data, message.len) : "";
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
      case LBM_MSG_UNRECOVERABLE_LOSS:
        return "loss" + sequence;
      case LBM_MSG_UNRECOVERABLE_LOSS_BURST:
        return "burst" + sequence + " " + std::to_string(message.len);
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

// Processes until nothing has happened for a few passes: what was under way has arrived.
inline void Settle(std::initializer_list<lbm_context_t*> contexts) {
  for (int pass = 0; pass < 10; ++pass) {
    for (lbm_context_t* context : contexts) {
      EXPECT_EQ(0, lbm_context_process_events(context, 1)) << lbm_errmsg();
    }
  }
}

}  // namespace engine_test
