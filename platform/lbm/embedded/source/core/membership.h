// A context's membership of its domain: the transport, and the gate that callbacks of the context's thread go through.
#pragma once

#include <lbm/lbm.h>

#include <memory>
#include <span>
#include <utility>

#include "core/callback_gate.h"
#include "transport/transport.h"

namespace engine::core {

// Shared by everything that a context makes, so that it outlives all of them. Ended when the context is deleted: the
// transport is closed then.
//
// Threads: any.
class Membership {
 public:
  explicit Membership(std::unique_ptr<transport::Transport> transport) noexcept : m_transport(std::move(transport)) {}

  transport::Transport& GetTransport() noexcept { return *m_transport; }
  CallbackGate& Gate() noexcept { return m_gate; }

  bool Ended() const noexcept { return m_gate.Shut(); }
  // Throws Error when it has ended.
  void CheckNotEnded() const {
    if (Ended()) {
      ThrowEnded();
    }
  }

  // As the transport's operations of these names. wait: whether the send may wait for space. On the context's
  // dispatching thread, which is the one that makes space, no send waits; and a callback of an event queue waits no
  // longer once what it belongs to is being deleted. Throw Error when the membership has ended.
  transport::SendResult Publish(transport::Publication& publication, const transport::OutboundMessage& message,
                                bool wait) {
    CheckNotEnded();
    return Checked(m_transport->Publish(publication, message, WaitIf(wait)));
  }
  transport::SendResult Respond(transport::ReplyPath& path, std::span<const iovec> pieces, bool wait) {
    CheckNotEnded();
    return Checked(m_transport->Respond(path, pieces, WaitIf(wait)));
  }

 private:
  [[noreturn]] static void ThrowEnded();

  transport::SendWait WaitIf(bool wait) const noexcept {
    return {wait && !m_gate.Dispatching(), &InterruptibleCallback::Interrupted};
  }

  static transport::SendResult Checked(transport::SendResult result) {
    if (result == transport::SendResult::kClosed) {
      ThrowEnded();
    }
    return result;
  }

  const std::unique_ptr<transport::Transport> m_transport;
  CallbackGate m_gate;
};

}  // namespace engine::core
