// A source of the application.
#pragma once

#include <lbm/lbm.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "core/target.h"
#include "core/topics.h"
#include "transport/transport.h"

namespace engine::core {

class Source : public Target {
 public:
  using Callback = ApplicationCallback<lbm_src_cb_proc, lbm_src_t>;  // none: nobody is told of events

  Source(std::shared_ptr<Membership> membership, const Topic& topic, const Callback& callback,
         std::shared_ptr<EventQueue> queue);

  // flags: LBM_SRC_FLUSH, LBM_SRC_NONBLOCK; see Membership::Publish. Threads: any. Throws Error when the context is
  // deleted.
  transport::SendResult Send(const transport::OutboundMessage& message, int flags) {
    const bool wait = m_pacing == transport::Pacing::kReceiver && (flags & LBM_SRC_NONBLOCK) == 0;
    const transport::SendResult result = GetMembership().Publish(*m_publication, message, wait);
    if (result == transport::SendResult::kClosed) {
      ThrowContextDeleted();
    }
    return result;
  }

  // Tells the application, if it wants to know, unless it throws. event: one of LBM_SRC_EVENT_... Threads: the
  // context's dispatching one.
  void Notify(int event, const std::string& text);

  // The event's code is one of LBM_SRC_EVENT_..., its text the event data, if any.
  void Run(Event& event) override;

  // The options of the topic, with the values that only a live source has.
  OptionSet Options() const;
  const Topic& GetTopic() const noexcept { return m_topic; }

 private:
  friend class SourceTable;

  [[noreturn]] void ThrowContextDeleted() const;

  const Topic& m_topic;
  const Callback m_callback;
  const transport::Pacing m_pacing;
  zq::statistics::Row m_statistics;
  std::shared_ptr<transport::Publication> m_publication;  // set once, by the table
};

// The sources of a context. Threads: any.
class SourceTable {
 public:
  explicit SourceTable(Membership& membership) noexcept
      : m_transport(membership.GetTransport()), m_statistics(membership.Statistics()) {}

  // Advertises the source; its first event may come before this returns. When it throws, nobody has heard of it.
  void Add(const std::shared_ptr<Source>& source);

  // Withdraws it; after this no callback of it runs, except the one that this is called from.
  void Remove(Source& source) noexcept;

  // The source to be told of what happens to the publication; null when there is none.
  std::shared_ptr<Source> Find(const transport::Publication& publication);

  // Closes all, and returns when no callback of them runs.
  void Clear();

 private:
  transport::Transport& m_transport;
  ContextStatistics& m_statistics;
  std::mutex m_mutex;
  std::map<std::uint32_t, std::weak_ptr<Source>> m_sources;  // by Publication::Id; under m_mutex
};

}  // namespace engine::core
