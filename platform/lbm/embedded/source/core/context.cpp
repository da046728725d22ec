#include "core/context.h"

#include <pthread.h>

#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "core/notice.h"
#include "options/option_keys.h"
#include "system/error.h"

namespace engine::core {

namespace {

constexpr lbm_ulong_t kHour = 1000UL * 60 * 60;  // milliseconds

// A task as an event of a queue.
class TaskTarget : public Target {
 public:
  TaskTarget(std::shared_ptr<Membership> membership, std::shared_ptr<EventQueue> queue, Task task)
      : Target(std::move(membership), std::move(queue)), m_task(std::move(task)) {}
  void Run(Event&) override { m_task(); }

 private:
  Task m_task;
};

}  // namespace

std::shared_ptr<Context> Context::Create(OptionSet options, std::unique_ptr<transport::Transport> transport,
                                         std::shared_ptr<ContextStatistics> statistics, lbm_context_t* handle) {
  std::shared_ptr<Context> context(
      new Context(std::move(options), std::move(transport), std::move(statistics), handle));
  context->ShowOptions();
  if (!context->m_sequential) {
    const std::lock_guard lock(context->m_threadMutex);
    context->m_thread = std::thread([context] { context->RunThread(); });
  }
  return context;
}

Context::Context(OptionSet options, std::unique_ptr<transport::Transport> transport,
                 std::shared_ptr<ContextStatistics> statistics, lbm_context_t* handle)
    : m_handle(handle),
      m_options(std::move(options)),
      m_sequential(m_options.Get(option::kOperationalMode) == OperationalMode::kSequential),
      m_membership(std::make_shared<Membership>(std::move(transport), statistics)),
      m_optionRows(statistics->GetLabels().context, statistics->GetLabels().handle),
      m_topics(m_optionRows),
      m_sources(*m_membership),
      m_directory({.membership = m_membership,
                   .sources = m_sources,
                   .requests = m_requests,
                   .timers = m_timers,
                   .arrivalClock = m_arrivalClock,
                   .resolverNotification = m_options.Get(option::kResolverSourceNotification)}),
      m_dispatcher({.membership = m_membership,
                    .listener = m_directory,
                    .timers = m_timers,
                    .arrivalClock = m_arrivalClock,
                    .options = m_options}) {}

void Context::RunThread() {
  static_cast<void>(pthread_setname_np(pthread_self(), "lbm_context"));
  {
    const std::lock_guard lock(m_threadMutex);  // a callback may want to delete the context, and with it m_thread
  }
  try {
    while (!m_membership->Ended()) {
      m_dispatcher.Process(kHour);
    }
  } catch (const std::exception& error) {
    if (!m_membership->Ended()) {
      Notice(LBM_LOG_ERROR, std::string("the thread of a context ends: ") + error.what());
    }
  }
}

void Context::ProcessEvents(lbm_ulong_t msec) {
  if (!m_sequential) {
    throw Error(LBM_EOP, "the context runs its own thread; set its option operational_mode to sequential");
  }
  m_dispatcher.Process(msec);
}

void Context::Remove(std::shared_ptr<const void> handle) {
  const bool own = m_membership->Gate().Dispatching();
  m_dispatcher.End([self = shared_from_this(), kept = std::move(handle)] { self->Finish(); });
  if (m_thread.joinable()) {
    if (own) {
      m_thread.detach();  // it holds the context until it ends
    } else {
      m_thread.join();
    }
  }
}

// Callbacks on the dispatching thread have ended by now, those on event queues end here.
void Context::Finish() {
  m_membership->GetTransport().Close(m_options.Get(option::kCloseLingerTime));
  m_dispatcher.GetDescriptors().Clear();
  m_directory.Clear();
  m_requests.Clear();
  m_sources.Clear();
}

void Context::CreateReceiver(const Topic& topic, const Receiver::Callback& callback,
                             const std::shared_ptr<EventQueue>& queue, std::shared_ptr<Receiver>& receiver) {
  m_membership->CheckNotEnded();
  receiver = std::make_shared<Receiver>(m_membership, topic, callback, queue);
  m_dispatcher.Post([this, receiver] { m_directory.AddReceiver(receiver); });
}

void Context::DeleteReceiver(const std::shared_ptr<Receiver>& receiver) {
  receiver->CloseAndWait();
  m_dispatcher.Post([this, receiver] { m_directory.RemoveReceiver(*receiver); });
}

void Context::CreateSource(const Topic& topic, const Source::Callback& callback,
                           const std::shared_ptr<EventQueue>& queue, std::shared_ptr<Source>& source) {
  m_membership->CheckNotEnded();
  source = std::make_shared<Source>(m_membership, topic, callback, queue);
  m_sources.Add(source);
}

void Context::RegisterDescriptor(int fd, lbm_ulong_t events, lbm_fd_cb_proc proc, void* clientd,
                                 const std::shared_ptr<EventQueue>& queue) {
  m_membership->CheckNotEnded();
  m_dispatcher.GetDescriptors().Add(
      fd, events,
      {.context = m_handle, .proc = proc, .clientd = clientd, .queue = queue, .keepAlive = shared_from_this()});
}

void Context::CancelDescriptorWithNotice(int fd, lbm_ulong_t events, lbm_event_queue_cancel_cb_proc proc, void* clientd,
                                         const std::shared_ptr<EventQueue>& queue) {
  if (queue != nullptr && !queue->CancellationCallbacks()) {
    throw Error(LBM_EOP,
                "the event queue gives no cancellation callbacks; set its option "
                "queue_cancellation_callbacks_enabled to 1");
  }
  Task next = [fd, proc, clientd] { CallApplication([&] { proc(fd, clientd); }); };
  // The notice travels through every place where a callback of the registration may be running, so that it comes after
  // the last of them.
  auto places = m_dispatcher.GetDescriptors().CancelWithoutWaiting(fd, events);
  places.insert(places.begin(), queue);
  for (const auto& place : places) {
    next = [self = shared_from_this(), place, task = std::move(next)]() mutable {
      self->RunAt(place, std::move(task));
    };
  }
  next();
}

void Context::RunAt(const std::shared_ptr<EventQueue>& queue, Task task) {
  if (queue == nullptr) {
    m_dispatcher.Post(std::move(task));
  } else {
    queue->Post(std::make_shared<TaskTarget>(m_membership, queue, std::move(task)), {});
  }
}

}  // namespace engine::core
