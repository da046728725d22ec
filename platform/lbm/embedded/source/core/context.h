// The root object: what the application makes its sources and receivers from, and the seam to the transport.
#pragma once

#include <lbm/lbm.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "core/directory.h"
#include "core/dispatcher.h"
#include "core/request.h"
#include "core/source.h"
#include "core/topic.h"
#include "options/live_options.h"
#include "transport/transport.h"

namespace engine::core {

// Threads: any, unless said otherwise. Sources, receivers, requests and responses share its ownership, so that it
// outlives them; remove() is what ends its activity.
class Context : public std::enable_shared_from_this<Context>, private transport::Listener, private Dispatcher::Work {
 public:
  // handle is what callbacks get. In embedded mode the context's thread runs when it returns.
  static std::shared_ptr<Context> Create(OptionSet options, std::unique_ptr<transport::Transport> transport,
                                         lbm_context_t* handle);

  // See lbm_context_delete. handle: kept until no callback can be using it.
  void Remove(std::shared_ptr<const void> handle);
  bool Deleted() const noexcept { return m_dispatcher.Ended(); }

  // See lbm_context_process_events. Throws Error when the mode is not sequential.
  void ProcessEvents(lbm_ulong_t msec);
  void Unblock() { m_dispatcher.Unblock(); }

  // A repeated look-up of a name with equal options (of scope source or receiver) gives the same topic.
  lbm_topic_t& GetTopic(std::string_view name, const OptionSet& options);

  // Sets publication before anybody is told of its subscribers. source: whom to tell; null for nobody.
  void Advertise(const transport::PublicationInfo& info, const std::shared_ptr<Source>& source,
                 std::shared_ptr<transport::Publication>& publication);
  void Withdraw(transport::Publication& publication);

  void RegisterDescriptor(int fd, lbm_ulong_t events, lbm_fd_cb_proc proc, void* clientd,
                          const std::shared_ptr<EventQueue>& queue);
  void CancelDescriptor(int fd, lbm_ulong_t events) { m_dispatcher.GetDescriptors().Cancel(fd, events); }
  // queue: where the notice is given; null for the dispatching thread.
  void CancelDescriptorWithNotice(int fd, lbm_ulong_t events, lbm_event_queue_cancel_cb_proc proc, void* clientd,
                                  const std::shared_ptr<EventQueue>& queue);

  // Runs the task on the dispatching thread; never, when the context is deleted.
  void Post(Dispatcher::Task task) { m_dispatcher.Post(std::move(task)); }
  // Threads: the dispatching one only.
  void RunAfter(std::chrono::milliseconds delay, Dispatcher::Task task);

  LiveOptions& Options() noexcept { return m_options; }
  transport::Transport& Transport() noexcept { return *m_transport; }
  CallbackGate& Gate() noexcept { return m_dispatcher.Gate(); }
  RequestTable& Requests() noexcept { return m_requests; }
  // Threads: the dispatching one only.
  Directory& GetDirectory() noexcept { return m_directory; }

  // Unique among the context's sources.
  std::uint32_t NextSourceId() noexcept { return ++m_lastSourceId; }
  // Unique in the domain.
  std::string SessionName(std::uint32_t sourceId) const;

  // When what is being delivered now was taken in. Threads: the dispatching one only.
  timespec ArrivalTime();

 private:
  Context(OptionSet options, std::unique_ptr<transport::Transport> transport, lbm_context_t* handle);

  void RunThread();
  void Finish();
  void RunAt(const std::shared_ptr<EventQueue>& queue, Dispatcher::Task task);
  void NotifySource(transport::Publication& publication, int event, const std::string& text);

  // Dispatcher::Work
  int GetDescriptor() const noexcept override { return m_transport->GetDescriptor(); }
  std::size_t DrainMemory() override;
  std::size_t Drain() override;
  bool Arm() override { return m_transport->Arm(); }
  void Disarm() noexcept override { m_transport->Disarm(); }
  std::chrono::microseconds SpinTime() const override;

  // transport::Listener
  void OnSourceUp(const std::shared_ptr<transport::RemoteSource>& source) override;
  void OnSourceDown(const std::shared_ptr<transport::RemoteSource>& source) override;
  void OnMessage(transport::RemoteSource& source, transport::InboundMessage& message) override;
  void OnLoss(transport::RemoteSource& source, std::uint32_t first, std::uint32_t count) override;
  void OnResponse(std::uint64_t requestId, const std::string& responder, std::span<const std::byte> payload) override;
  void OnSubscriberJoined(transport::Publication& publication, const std::string& contextName) override;
  void OnSubscriberLeft(transport::Publication& publication, const std::string& contextName) override;
  void OnWritable(transport::Publication& publication) override;

  lbm_context_t* const m_handle;
  LiveOptions m_options;
  const bool m_sequential;
  const lbm_src_notify_func_t m_resolverNotification;
  const std::string m_sessionPrefix;
  std::atomic<std::uint32_t> m_lastSourceId{0};
  Dispatcher m_dispatcher;
  const std::unique_ptr<transport::Transport> m_transport;
  RequestTable m_requests;
  std::thread m_thread;  // embedded mode only

  // The dispatching thread's own:
  Directory m_directory;
  std::optional<timespec> m_arrivalTime;

  std::mutex m_mutex;
  // Guarded by m_mutex:
  std::unordered_multimap<std::string_view, std::unique_ptr<lbm_topic_t>> m_topics;    // by their names
  std::vector<std::shared_ptr<const OptionSet>> m_topicOptions;                        // all different
  std::unordered_map<const transport::Publication*, std::weak_ptr<Source>> m_sources;  // those with a callback
};

}  // namespace engine::core

struct lbm_context_t_stct {
  std::shared_ptr<engine::core::Context> context;
};
