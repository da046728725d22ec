// A sender of the application.
#pragma once

#include <lbm/lbm.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "core/target.h"
#include "core/topic.h"
#include "transport/transport.h"

namespace engine::core {

class Source : public Target {
 public:
  // What lbm_src_create was told.
  struct Callback {
    lbm_src_cb_proc proc = nullptr;  // null: no events
    lbm_src_t* handle = nullptr;
    void* clientd = nullptr;
  };

  // queue: null for the context's dispatching thread.
  Source(std::shared_ptr<Context> context, const Topic& topic, const Callback& callback,
         std::shared_ptr<EventQueue> queue);

  // Announces the source. Threads: any.
  void Start();

  // Withdraws it; after this no callback runs, but the one that it is called from. Threads: any.
  void Stop();

  // flags: LBM_SRC_FLUSH, LBM_SRC_NONBLOCK. On the context's dispatching thread, which is the one that makes room, a
  // send never waits. Threads: any. Throws Error when the context is deleted.
  transport::SendResult Send(const transport::OutboundMessage& message, int flags);

  // The event's code is one of LBM_SRC_EVENT_..., its text the event data, if any.
  void Run(Event& event) override;

  // The options of the topic with the values that only a live source has.
  OptionSet Options() const;
  const std::shared_ptr<Context>& GetContext() const noexcept { return m_context; }
  const Topic& GetTopic() const noexcept { return m_topic; }

 private:
  const std::shared_ptr<Context> m_context;
  const Topic& m_topic;
  const Callback m_callback;
  const std::uint32_t m_id;
  const std::string m_session;
  const transport::Pacing m_pacing;
  std::shared_ptr<transport::Publication> m_publication;  // set by start()
};

}  // namespace engine::core

struct lbm_src_t_stct {
  std::shared_ptr<engine::core::Source> source;
};
