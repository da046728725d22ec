// A delivered message.
#pragma once

#include <lbm/lbm.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "lbm/response.h"

#pragma GCC visibility push(default)

namespace lbm {

// One counted reference to a delivered message, or none. The message and everything its accessors point to live until
// the last Message that holds it is gone; so a callback may keep it. Moving leaves null; copying takes one more
// reference, never a copy of the data.
//
// All accessors but ToString and the conversion need a message.
// Threads: one object is for one thread at a time; several that hold the same message may live on several threads.
class Message {
 public:
  Message() noexcept = default;
  explicit Message(lbm_msg_t* msg) noexcept : m_msg(msg) { Retain(); }
  Message(const Message& other) noexcept : m_msg(other.m_msg) { Retain(); }
  Message(Message&& other) noexcept : m_msg(std::exchange(other.m_msg, nullptr)) {}
  Message& operator=(Message other) noexcept {
    std::swap(m_msg, other.m_msg);
    return *this;
  }
  ~Message() {
    if (m_msg != nullptr) {
      lbm_msg_delete(m_msg);
    }
  }

  int Type() const noexcept { return m_msg->type; }    // LBM_MSG_...
  int Flags() const noexcept { return m_msg->flags; }  // LBM_MSG_FLAG_...
  const char* Data() const noexcept { return m_msg->data; }
  std::size_t Length() const noexcept { return m_msg->len; }
  bool IsFragment() const noexcept { return (m_msg->flags & LBM_MSG_FLAG_FRAGMENT) != 0; }

  // Empty unless the message is a request.
  Response GetResponse() const noexcept { return Response(m_msg->response); }

  const char* TopicName() const noexcept { return m_msg->topic_name; }
  const char* Source() const noexcept { return m_msg->source; }
  std::uint32_t SequenceNumber() const noexcept { return m_msg->sequence_number; }

  bool CanSendExplicitAck() const noexcept { return (m_msg->flags & LBM_MSG_FLAG_EXPLICIT_ACK) != 0; }
  // Throws LbmError.
  void SendExplicitAck() const;

  bool WasSentOnChannel() const noexcept { return m_msg->channel_info != nullptr; }
  // 0 when the message was not sent on a channel.
  std::uint32_t ChannelNumber() const noexcept { return WasSentOnChannel() ? m_msg->channel_info->channel_number : 0; }

  // One line for people: type, topic, source, sequence number, flags and length.
  std::string ToString() const;

  // What the source notification's create function returned for the message's source, or null.
  void* SourceClientd() const noexcept { return m_msg->source_clientd; }

  // CLOCK_REALTIME when the receiving context took the message in.
  timespec GetTimestamp() const noexcept { return m_msg->timestamp; }

  operator lbm_msg_t*() const noexcept { return m_msg; }

 private:
  void Retain() const noexcept {
    if (m_msg != nullptr) {
      lbm_msg_retain(m_msg);
    }
  }

  lbm_msg_t* m_msg = nullptr;
};

// Takes a message; may keep it. Called on the thread that delivers, and must not throw: an exception would leave
// through the messaging library.
using MessageCallback = std::function<void(Message)>;

}  // namespace lbm

#pragma GCC visibility pop
