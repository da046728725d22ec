#include "core/context.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <utility>

#include "core/notice.h"
#include "options/option_keys.h"
#include "system/error.h"

namespace engine::core {

namespace {

constexpr lbm_ulong_t kWaitLong = 1000UL * 60 * 60;  // milliseconds

// Says which process and which context of it; the random part tells runs apart whose process has the same number.
std::string MakeSessionPrefix() {
  std::random_device random;
  char text[64];
  std::snprintf(text, sizeof(text), "host:%d.%08x:", ::getpid(), random());
  return text;
}

// A function as an event of a queue.
class TaskTarget : public Target {
 public:
  TaskTarget(CallbackGate& gate, std::shared_ptr<EventQueue> queue, Dispatcher::Task task)
      : Target(gate, std::move(queue)), m_task(std::move(task)) {}
  void Run(Event&) override { m_task(); }

 private:
  Dispatcher::Task m_task;
};

}  // namespace

std::shared_ptr<Context> Context::Create(OptionSet options, std::unique_ptr<transport::Transport> transport,
                                         lbm_context_t* handle) {
  std::shared_ptr<Context> context(new Context(std::move(options), std::move(transport), handle));
  if (!context->m_sequential) {
    const std::lock_guard lock(context->m_mutex);
    context->m_thread = std::thread([context] { context->RunThread(); });
  }
  return context;
}

Context::Context(OptionSet options, std::unique_ptr<transport::Transport> transport, lbm_context_t* handle)
    : m_handle(handle),
      m_options(std::move(options)),
      m_sequential(m_options.Get(option::kOperationalMode) == OperationalMode::kSequential),
      m_resolverNotification(m_options.Get(option::kResolverSourceNotification)),
      m_sessionPrefix(MakeSessionPrefix()),
      m_transport(std::move(transport)),
      m_directory(*this) {
  m_dispatcher.SetWork(*this);
}

void Context::RunThread() {
  static_cast<void>(pthread_setname_np(pthread_self(), "lbm_context"));
  {
    const std::lock_guard lock(m_mutex);  // until m_thread is set: a callback may want to delete the context
  }
  try {
    while (!Deleted()) {
      m_dispatcher.Process(kWaitLong);
    }
  } catch (const std::exception& error) {
    if (!Deleted()) {
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
  const bool own = m_dispatcher.Gate().Dispatching();
  m_dispatcher.End([self = shared_from_this(), kept = std::move(handle)] { self->Finish(); });
  if (m_thread.joinable()) {
    if (own) {
      m_thread.detach();  // it holds the context until it ends
    } else {
      m_thread.join();
    }
  }
}

// Callbacks here have ended by now, those on event queues end below.
void Context::Finish() {
  m_transport->Close(m_options.Get(option::kCloseLingerTime));
  m_dispatcher.GetDescriptors().Clear();
  m_directory.Clear();
  m_requests.Clear();
  decltype(m_sources) sources;
  {
    const std::lock_guard lock(m_mutex);
    sources.swap(m_sources);
  }
  for (const auto& [publication, weak] : sources) {
    if (const auto source = weak.lock()) {
      source->CloseAndWait();
    }
  }
}

std::size_t Context::DrainMemory() {
  m_arrivalTime.reset();
  return m_transport->DrainMemory(*this);
}

std::chrono::microseconds Context::SpinTime() const {
  return std::chrono::microseconds(m_options.Get(option::kSpinTime));
}

std::size_t Context::Drain() {
  m_arrivalTime.reset();
  return m_transport->Drain(*this);
}

timespec Context::ArrivalTime() {
  if (!m_arrivalTime) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    m_arrivalTime = now;
  }
  return *m_arrivalTime;
}

lbm_topic_t& Context::GetTopic(std::string_view name, const OptionSet& options) {
  if (name.empty() || name.size() > LBM_TOPIC_NAME_MAX) {
    throw Error(LBM_EINVAL, "a topic name has 1 to " + std::to_string(LBM_TOPIC_NAME_MAX) + " bytes, this one has " +
                                std::to_string(name.size()));
  }
  const std::lock_guard lock(m_mutex);
  const auto [first, last] = m_topics.equal_range(name);
  for (auto known = first; known != last; ++known) {
    if (*known->second->options == options) {
      return *known->second;
    }
  }
  const auto same =
      std::find_if(m_topicOptions.begin(), m_topicOptions.end(), [&](const auto& known) { return *known == options; });
  const std::shared_ptr<const OptionSet> shared =
      same != m_topicOptions.end() ? *same : m_topicOptions.emplace_back(std::make_shared<OptionSet>(options));
  std::unique_ptr<lbm_topic_t> made(new lbm_topic_t{{*this, std::string(name), shared}});
  const std::string_view key = made->name;
  return *m_topics.emplace(key, std::move(made))->second;
}

void Context::Advertise(const transport::PublicationInfo& info, const std::shared_ptr<Source>& source,
                        std::shared_ptr<transport::Publication>& publication) {
  if (Deleted()) {
    throw Error(LBM_EOP, "the context is deleted");
  }
  // Locked throughout, so that the first subscriber finds the source, and the source its publication.
  const std::lock_guard lock(m_mutex);
  publication = m_transport->Advertise(info);
  if (source != nullptr) {
    m_sources.emplace(publication.get(), source);
  }
}

void Context::Withdraw(transport::Publication& publication) {
  if (Deleted()) {
    return;
  }
  m_transport->Withdraw(publication);
  const std::lock_guard lock(m_mutex);
  m_sources.erase(&publication);
}

void Context::RegisterDescriptor(int fd, lbm_ulong_t events, lbm_fd_cb_proc proc, void* clientd,
                                 const std::shared_ptr<EventQueue>& queue) {
  if (Deleted()) {
    throw Error(LBM_EOP, "the context is deleted");
  }
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
  Dispatcher::Task next = [fd, proc, clientd] { CallApplication([&] { proc(fd, clientd); }); };
  // The notice travels through every place where a callback of the registration may be running, so it comes behind it.
  auto places = m_dispatcher.GetDescriptors().CancelWithoutWaiting(fd, events);
  places.insert(places.begin(), queue);
  for (const auto& place : places) {
    next = [self = shared_from_this(), place, task = std::move(next)]() mutable {
      self->RunAt(place, std::move(task));
    };
  }
  next();
}

void Context::RunAt(const std::shared_ptr<EventQueue>& queue, Dispatcher::Task task) {
  if (queue == nullptr) {
    Post(std::move(task));
  } else {
    queue->Post(std::make_shared<TaskTarget>(Gate(), queue, std::move(task)), {});
  }
}

void Context::RunAfter(std::chrono::milliseconds delay, Dispatcher::Task task) {
  m_dispatcher.RunAt(Dispatcher::Clock::now() + delay, std::move(task));
}

std::string Context::SessionName(std::uint32_t sourceId) const { return m_sessionPrefix + std::to_string(sourceId); }

void Context::OnSourceUp(const std::shared_ptr<transport::RemoteSource>& source) {
  if (Deleted()) {
    return;
  }
  if (m_resolverNotification.notifyfunc != nullptr) {
    CallApplication([&] {
      m_resolverNotification.notifyfunc(source->GetTopic().c_str(), source->Session().c_str(),
                                        m_resolverNotification.clientd);
    });
  }
  m_directory.OnSourceUp(source);
}

void Context::OnSourceDown(const std::shared_ptr<transport::RemoteSource>& source) {
  m_directory.OnSourceDown(*source);
}

void Context::OnMessage(transport::RemoteSource& source, transport::InboundMessage& message) {
  m_directory.OnMessage(source, message);
}

void Context::OnLoss(transport::RemoteSource& source, std::uint32_t first, std::uint32_t count) {
  m_directory.OnLoss(source, first, count);
}

void Context::OnResponse(std::uint64_t requestId, const std::string& responder, std::span<const std::byte> payload) {
  const auto request = m_requests.Find(requestId);
  if (request == nullptr) {
    return;
  }
  MessageRef message = m_directory.Blank(LBM_MSG_RESPONSE, request->Origin(responder), 0);
  message->SetPayload(payload);
  request->Dispatch({.message = message});
  m_directory.Pool().Recycle(std::move(message));
}

void Context::NotifySource(transport::Publication& publication, int event, const std::string& text) {
  std::shared_ptr<Source> source;
  {
    const std::lock_guard lock(m_mutex);
    const auto found = m_sources.find(&publication);
    source = found != m_sources.end() ? found->second.lock() : nullptr;
  }
  if (source != nullptr) {
    source->Dispatch({.code = event, .text = text});
  }
}

void Context::OnSubscriberJoined(transport::Publication& publication, const std::string& contextName) {
  NotifySource(publication, LBM_SRC_EVENT_CONNECT, contextName);
}

void Context::OnSubscriberLeft(transport::Publication& publication, const std::string& contextName) {
  NotifySource(publication, LBM_SRC_EVENT_DISCONNECT, contextName);
}

void Context::OnWritable(transport::Publication& publication) { NotifySource(publication, LBM_SRC_EVENT_WAKEUP, {}); }

}  // namespace engine::core
