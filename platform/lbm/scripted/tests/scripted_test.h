// What the tests of the scripted provider share.
#pragma once

#include <gmock/gmock.h>

#include "lbm_scripted/lbm_scripted.h"

namespace lbm_scripted {

class ScriptedTest : public ::testing::Test {
 protected:
  ScriptedTest() {
    Reset();
    m_context = MakeContext();
  }

  static lbm_context_t* MakeContext(const lbm_context_attr_t* attributes = nullptr) {
    lbm_context_t* context = nullptr;
    EXPECT_EQ(lbm_context_create(&context, attributes, nullptr, nullptr), 0);
    return context;
  }

  lbm_rcv_t* MakeReceiver(lbm_rcv_cb_proc proc, void* clientd = nullptr) {
    lbm_topic_t* topic = nullptr;
    lbm_rcv_t* receiver = nullptr;
    EXPECT_EQ(lbm_rcv_topic_lookup(&topic, m_context, "PRICES", nullptr), 0);
    EXPECT_EQ(lbm_rcv_create(&receiver, m_context, topic, proc, clientd, nullptr), 0);
    return receiver;
  }

  lbm_src_t* MakeSource(lbm_src_cb_proc proc = nullptr, void* clientd = nullptr) {
    lbm_topic_t* topic = nullptr;
    lbm_src_t* source = nullptr;
    EXPECT_EQ(lbm_src_topic_alloc(&topic, m_context, "PRICES", nullptr), 0);
    EXPECT_EQ(lbm_src_create(&source, m_context, topic, proc, clientd, nullptr), 0);
    return source;
  }

  static lbm_request_t* SendRequest(lbm_src_t* source, lbm_request_cb_proc proc, void* clientd = nullptr) {
    lbm_request_t* request = nullptr;
    EXPECT_EQ(lbm_send_request(&request, source, "ask", 3, proc, clientd, nullptr, 0), 0);
    return request;
  }

  static lbm_event_queue_t* MakeEventQueue() {
    lbm_event_queue_t* queue = nullptr;
    EXPECT_EQ(lbm_event_queue_create(&queue, nullptr, nullptr, nullptr), 0);
    return queue;
  }

  lbm_context_t* m_context = nullptr;
};

}  // namespace lbm_scripted
