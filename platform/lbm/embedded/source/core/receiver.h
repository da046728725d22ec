// A subscription of the application.
#pragma once

#include <lbm/lbm.h>

#include <cstdint>
#include <memory>
#include <utility>

#include "core/target.h"
#include "core/topics.h"
#include "options/option_keys.h"

namespace engine::core {

class Receiver : public Target {
 public:
  using Callback = ApplicationCallback<lbm_rcv_cb_proc, lbm_rcv_t>;

  Receiver(std::shared_ptr<Membership> membership, const Topic& topic, const Callback& callback,
           std::shared_ptr<EventQueue> queue)
      : Target(std::move(membership), std::move(queue)),
        m_topic(topic),
        m_callback(callback),
        m_lossBurstThreshold(topic.options->Get(option::kLossBurstThreshold)),
        m_statistics(GetMembership().Statistics().ReceiverRow(topic.name)),
        m_counters(m_statistics.Serial()) {}

  // As Dispatch, for messages: costs no reference count when the callback is made here.
  void Deliver(const MessageRef& message) {
    if (Queue() != nullptr) {
      Dispatch({.message = message});
    } else {
      ContextGate().Call(*this, [&] { m_callback(message.Get()); });
    }
  }

  // Whether messages that can be dropped or wait should, as nobody takes what is queued.
  bool QueueFull() const noexcept { return Queue() != nullptr && Queue()->Full(); }

  void Run(Event& event) override { m_callback(event.message.Get()); }

  // Threads: the context's dispatching one.
  const zq::statistics::Cells& Counters() const noexcept { return m_counters; }

  const Topic& GetTopic() const noexcept { return m_topic; }
  std::uint32_t LossBurstThreshold() const noexcept { return m_lossBurstThreshold; }

 private:
  const Topic& m_topic;
  const Callback m_callback;
  const std::uint32_t m_lossBurstThreshold;
  zq::statistics::Row m_statistics;
  const zq::statistics::Cells m_counters;  // of the row
};

}  // namespace engine::core
