// A context's membership of its domain: the transport, and the gate that callbacks of the context's thread go through.
#pragma once

#include <lbm/lbm.h>

#include <memory>
#include <span>
#include <utility>

#include "core/callback_gate.h"
#include "statistics/context_statistics.h"
#include "transport/transport.h"

namespace engine::core {

// Shared by everything that a context makes, so that it outlives all of them. It ends when the context is deleted; the
// transport is closed then or, when that happens in a callback of the context, soon after.
//
// Threads: any.
class Membership {
 public:
  Membership(std::unique_ptr<transport::Transport> transport, std::shared_ptr<ContextStatistics> statistics) noexcept
      : m_statistics(std::move(statistics)), m_transport(std::move(transport)), m_gate(m_transport->Identity()) {}

  transport::Transport& GetTransport() noexcept { return *m_transport; }
  CallbackGate& Gate() noexcept { return m_gate; }
  ContextStatistics& Statistics() noexcept { return *m_statistics; }

  bool Ended() const noexcept { return m_gate.Shut(); }
  // Throws Error when it has ended.
  void CheckNotEnded() const;

  // As the transport's operations of these names; kClosed as soon as the membership has ended. wait: whether the send
  // may wait for space. No send waits on a thread that makes space: the context's dispatching one, and that of a
  // subscriber. And no send waits on inside a callback for whose return somebody waits.
  transport::SendResult Publish(transport::Publication& publication, const transport::OutboundMessage& message,
                                bool wait) {
    return Ended() ? transport::SendResult::kClosed
                   : m_transport->Publish(publication, message,
                                          WaitIf(wait && !m_gate.Dispatching() && !DispatchesSubscriber(publication)));
  }
  transport::SendResult Respond(transport::ReplyPath& path, std::span<const iovec> pieces, bool wait) {
    return Ended() ? transport::SendResult::kClosed : m_transport->Respond(path, pieces, WaitIf(wait));
  }

 private:
  bool DispatchesSubscriber(const transport::Publication& publication) {
    return CallbackGate::AnyDispatchingHere(
        [&](std::string_view identity) { return m_transport->HasSubscriber(publication, identity); });
  }
  transport::SendWait WaitIf(bool wait) const noexcept {
    return {wait && !m_gate.Dispatching(), &CallbackGate::CallbackAwaited};
  }

  const std::shared_ptr<ContextStatistics> m_statistics;
  const std::unique_ptr<transport::Transport> m_transport;
  CallbackGate m_gate;
};

}  // namespace engine::core
