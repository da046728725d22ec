#include "core/context.h"

#include <pthread.h>

#include <exception>
#include <string>
#include <utility>

#include "core/notice.h"
#include "options/option_keys.h"
#include "system/error.h"
#include "zq/posix/signals.h"

namespace engine::core {

namespace {

constexpr lbm_ulong_t kHour = 1000UL * 60 * 60;  // milliseconds

}  // namespace

// Goes through every place where a callback of ended registrations may be running, so that the notice comes after the
// last of them.
class Context::CancellationNotice final : public Task {
 public:
  CancellationNotice(std::shared_ptr<Context> context, std::shared_ptr<EventQueue> last, int fd,
                     lbm_event_queue_cancel_cb_proc proc, void* clientd) noexcept
      : m_context(std::move(context)), m_lastPlace(std::move(last)), m_fd(fd), m_proc(proc), m_clientd(clientd) {}

  void Run(std::unique_ptr<Task>& self) override {
    if (m_visited == m_places.Size()) {
      return CallApplication([&] { m_proc(m_fd, m_clientd); });
    }
    ++m_visited;
    GoOn(self);
  }

  static void Start(std::unique_ptr<CancellationNotice> notice, const Descriptors::Places& places) noexcept {
    notice->m_places = places;
    CancellationNotice& first = *notice;
    std::unique_ptr<Task> self = std::move(notice);
    first.GoOn(self);
  }

 private:
  // Once posted it may be gone at any moment.
  void GoOn(std::unique_ptr<Task>& self) noexcept {
    const std::shared_ptr<Context> context = m_context;
    const std::shared_ptr<EventQueue> queue = m_visited < m_places.Size() ? m_places[m_visited] : m_lastPlace;
    context->RunAt(queue.get(), std::move(self));
  }

  const std::shared_ptr<Context> m_context;
  const std::shared_ptr<EventQueue> m_lastPlace;
  const int m_fd;
  const lbm_event_queue_cancel_cb_proc m_proc;
  void* const m_clientd;
  Descriptors::Places m_places;
  std::size_t m_visited = 0;
};

std::shared_ptr<Context> Context::Create(OptionSet options, std::unique_ptr<transport::Transport> transport,
                                         const std::shared_ptr<ContextStatistics>& statistics, lbm_context_t* handle) {
  std::shared_ptr<Context> context(new Context(std::move(options), std::move(transport), statistics, handle));
  context->ShowOptions();
  if (!context->m_sequential) {
    const std::lock_guard lock(context->m_threadMutex);
    const zq::posix::SignalBlocker blocker;
    context->m_thread = std::thread([context] { context->RunThread(); });
  }
  return context;
}

Context::Context(OptionSet options, std::unique_ptr<transport::Transport> transport,
                 const std::shared_ptr<ContextStatistics>& statistics, lbm_context_t* handle)
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
                   .resolverNotification = m_options.Get(option::kResolverSourceNotification),
                   .awaitRoom = [this](EventQueue& queue) { return queue.AwaitRoom(weak_from_this()); }}),
      m_dispatcher({.membership = m_membership,
                    .listener = m_directory,
                    .timers = m_timers,
                    .arrivalClock = m_arrivalClock,
                    .options = m_options,
                    .room = [this] { m_directory.OnRoom(); },
                    .last = [this] { Finish(); }}) {}

void Context::RunThread() {
  static_cast<void>(pthread_setname_np(pthread_self(), "lbm_context"));
  {
    const std::lock_guard lock(m_threadMutex);  // a callback may want to delete the context, and with it m_thread
  }
  while (!m_membership->Ended()) {
    try {
      m_dispatcher.Process(kHour);
    } catch (const std::exception& error) {
      if (!m_membership->Ended()) {
        Notice(LBM_LOG_ERROR, "a context cannot go on yet: ", error);
        std::this_thread::sleep_for(Timers::kRetryDelay);
      }
    }
  }
}

void Context::ProcessEvents(lbm_ulong_t msec) {
  if (!m_sequential) {
    throw Error(LBM_EOP, "the context runs its own thread; set its option operational_mode to sequential");
  }
  m_dispatcher.Process(msec);
}

void Context::Remove(const std::shared_ptr<const void>& handle) noexcept {
  const bool own = m_membership->Gate().Dispatching();
  m_dispatcher.End(handle);
  if (m_thread.joinable()) {
    if (own) {
      m_thread.detach();  // it holds the context until it ends
    } else {
      m_thread.join();
    }
  }
}

// Callbacks on the dispatching thread have ended by now, those on event queues end here.
void Context::Finish() noexcept {
  m_membership->GetTransport().Close(m_options.Get(option::kCloseLingerTime));
  m_dispatcher.GetDescriptors().Clear();
  m_directory.Clear();
  m_requests.Clear();
  m_sources.Clear();
  m_membership->Gate().WaitForElsewhere();
}

void Context::CreateReceiver(const Topic& topic, const Receiver::Callback& callback,
                             const std::shared_ptr<EventQueue>& queue, OpenReceiver& opened) {
  m_membership->CheckNotEnded();
  const auto receiver = std::make_shared<Receiver>(m_membership, topic, callback, queue);
  auto addition = MakeTask([this, receiver] { m_directory.AddReceiver(receiver); });
  opened = {receiver, MakeTask([this, receiver] { m_directory.RemoveReceiver(*receiver); })};
  m_dispatcher.Post(std::move(addition));
}

void Context::DeleteReceiver(OpenReceiver opened) noexcept {
  opened.receiver->CloseAndWait();
  m_dispatcher.Post(std::move(opened.removal));
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
  auto notice = std::make_unique<CancellationNotice>(shared_from_this(), queue, fd, proc, clientd);
  CancellationNotice::Start(std::move(notice), m_dispatcher.GetDescriptors().CancelWithoutWaiting(fd, events));
}

void Context::RunAt(EventQueue* queue, std::unique_ptr<Task> task) noexcept {
  if (queue == nullptr) {
    m_dispatcher.Post(std::move(task));
  } else {
    queue->Post(std::move(task));
  }
}

}  // namespace engine::core
