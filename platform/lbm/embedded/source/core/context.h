// The root object: owns everything of a context and makes the application's sources, receivers and requests.
#pragma once

#include <lbm/lbm.h>

#include <memory>
#include <mutex>
#include <thread>

#include "core/arrival_clock.h"
#include "core/directory.h"
#include "core/dispatcher.h"
#include "core/membership.h"
#include "core/option_rows.h"
#include "core/receiver.h"
#include "core/request.h"
#include "core/source.h"
#include "core/tasks.h"
#include "core/topics.h"
#include "options/live_options.h"
#include "transport/transport.h"

namespace engine::core {

// A receiver, and what will take it out of the context's topics.
struct OpenReceiver {
  std::shared_ptr<Receiver> receiver;
  std::unique_ptr<Task> removal;
};

// Shared with the handles of what it made, so that they may be deleted in any order; Remove is what ends its activity.
// A queue argument is the event queue that runs the callbacks; null for the context's dispatching thread.
//
// Threads: any.
class Context : public RoomWaiter, public std::enable_shared_from_this<Context> {
 public:
  // handle is what callbacks get. In embedded mode the context's thread runs when it returns.
  static std::shared_ptr<Context> Create(OptionSet options, std::unique_ptr<transport::Transport> transport,
                                         const std::shared_ptr<ContextStatistics>& statistics, lbm_context_t* handle);

  // See lbm_context_delete. handle: kept until no callback can be using it; it has to keep this.
  void Remove(const std::shared_ptr<const void>& handle) noexcept;

  // See lbm_context_process_events. Throws Error when the mode is not sequential.
  void ProcessEvents(lbm_ulong_t msec);
  void Unblock() { m_dispatcher.Unblock(); }
  void OnRoom() noexcept override { m_dispatcher.NoteRoom(); }

  LiveOptions& Options() noexcept { return m_options; }
  // To be called after a change of the options.
  void ShowOptions() { m_optionRows.Replace(m_options); }
  TopicTable& Topics() noexcept { return m_topics; }

  // The receiver hears the topic's sources until DeleteReceiver; after that none of its callbacks runs, except the one
  // that it is called from. The same holds for the other pairs below. What is created is in the last argument before
  // its first callback. Those that create throw Error when the context is deleted.
  //
  // What deletes needs no memory and does not fail.
  void CreateReceiver(const Topic& topic, const Receiver::Callback& callback, const std::shared_ptr<EventQueue>& queue,
                      OpenReceiver& opened);
  void DeleteReceiver(OpenReceiver opened) noexcept;

  void CreateSource(const Topic& topic, const Source::Callback& callback, const std::shared_ptr<EventQueue>& queue,
                    std::shared_ptr<Source>& source);
  void DeleteSource(Source& source) noexcept { m_sources.Remove(source); }

  // The request takes responses from now on; sending it with its id is up to the caller. Returned as well, because the
  // application may delete what holds the last argument in the first callback.
  std::shared_ptr<Request> OpenRequest(const Source& source, const Request::Callback& callback,
                                       const std::shared_ptr<EventQueue>& queue, std::shared_ptr<Request>& request) {
    return m_requests.Open(m_membership, source.GetTopic().name, callback, queue, request);
  }
  void CloseRequest(Request& request) noexcept { m_requests.Close(request); }

  void RegisterDescriptor(int fd, lbm_ulong_t events, lbm_fd_cb_proc proc, void* clientd,
                          const std::shared_ptr<EventQueue>& queue);
  void CancelDescriptor(int fd, lbm_ulong_t events) { m_dispatcher.GetDescriptors().Cancel(fd, events); }
  // queue: where the notice is given. Needs memory for it; when there is none, nothing is cancelled.
  void CancelDescriptorWithNotice(int fd, lbm_ulong_t events, lbm_event_queue_cancel_cb_proc proc, void* clientd,
                                  const std::shared_ptr<EventQueue>& queue);

 private:
  class CancellationNotice;

  Context(OptionSet options, std::unique_ptr<transport::Transport> transport,
          const std::shared_ptr<ContextStatistics>& statistics, lbm_context_t* handle);

  void RunThread();
  void Finish() noexcept;
  void RunAt(EventQueue* queue, std::unique_ptr<Task> task) noexcept;

  lbm_context_t* const m_handle;
  LiveOptions m_options;
  const bool m_sequential;
  const std::shared_ptr<Membership> m_membership;
  OptionRows m_optionRows;
  TopicTable m_topics;
  SourceTable m_sources;
  RequestTable m_requests;

  // The dispatching thread's own:
  Timers m_timers;
  ArrivalClock m_arrivalClock;
  Directory m_directory;

  Dispatcher m_dispatcher;

  std::mutex m_threadMutex;  // locked until m_thread is set
  std::thread m_thread;      // embedded mode only
};

}  // namespace engine::core
