// The subscriber to a topic.
#pragma once

#include <lbm/lbm.h>

#include <memory>
#include <string>

#include "lbm/message.h"
#include "lbm/topics.h"
#include "zq/statistics/row.h"

#pragma GCC visibility push(default)

namespace lbm {

class Context;
class EventQueue;

class BaseReceiver {
 public:
  virtual ~BaseReceiver() = default;
};

// Owns one subscription. Every event of it is passed to the callback, whatever its type; with an empty callback they
// are dropped. The context has to outlive the receiver.
//
// Threads: the callback runs on the thread that processes the context's events, or dispatches the event queue when one
// is given; the first message may come before the constructor has returned. Once the destructor has returned no
// callback runs; it must not be called in the callback, which goes with the receiver.
class Receiver : public BaseReceiver {
 public:
  using Callback = MessageCallback;
  using Topic = ReceiverTopic;

  // Throws LbmError.
  Receiver(Context& ctx, ReceiverTopic topic, Callback cb, EventQueue* eq = nullptr);
  ~Receiver() override;

  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  // Sets an option of the live receiver; throws LbmError.
  void SetString(const char* name, const char* value);

  const std::string& GetTopic() const noexcept { return m_topic; }

  // How the library delivers: clientd is the Receiver. Always returns 0.
  static int LbmCallback(lbm_rcv_t* rcv, lbm_msg_t* msg, void* clientd);

  operator lbm_rcv_t*() noexcept { return m_rcv; }
  operator const lbm_rcv_t*() const noexcept { return m_rcv; }

 private:
  lbm_rcv_t* m_rcv = nullptr;
  Callback m_cbk;
  std::string m_topic;
  zq::statistics::Row m_row;
  std::shared_ptr<zq::statistics::Row> m_responses;  // of the context
};

}  // namespace lbm

#pragma GCC visibility pop
