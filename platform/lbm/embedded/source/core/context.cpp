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
std::string makeSessionPrefix() {
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
  void run(Event&) override { m_task(); }

 private:
  Dispatcher::Task m_task;
};

}  // namespace

std::shared_ptr<Context> Context::create(OptionSet options, std::unique_ptr<transport::Transport> transport,
                                         lbm_context_t* handle) {
  std::shared_ptr<Context> context(new Context(std::move(options), std::move(transport), handle));
  if (!context->m_sequential) {
    const std::lock_guard lock(context->m_mutex);
    context->m_thread = std::thread([context] { context->runThread(); });
  }
  return context;
}

Context::Context(OptionSet options, std::unique_ptr<transport::Transport> transport, lbm_context_t* handle)
    : m_handle(handle),
      m_options(std::move(options)),
      m_sequential(m_options.get(option::operationalMode) == OperationalMode::sequential),
      m_resolverNotification(m_options.get(option::resolverSourceNotification)),
      m_sessionPrefix(makeSessionPrefix()),
      m_transport(std::move(transport)),
      m_directory(*this) {
  m_dispatcher.setWork(*this);
}

void Context::runThread() {
  static_cast<void>(pthread_setname_np(pthread_self(), "lbm_context"));
  {
    const std::lock_guard lock(m_mutex);  // until m_thread is set: a callback may want to delete the context
  }
  try {
    while (!deleted()) {
      m_dispatcher.process(kWaitLong);
    }
  } catch (const std::exception& error) {
    if (!deleted()) {
      notice(LBM_LOG_ERROR, std::string("the thread of a context ends: ") + error.what());
    }
  }
}

void Context::processEvents(lbm_ulong_t msec) {
  if (!m_sequential) {
    throw Error(LBM_EOP, "the context runs its own thread; set its option operational_mode to sequential");
  }
  m_dispatcher.process(msec);
}

void Context::remove(std::shared_ptr<const void> handle) {
  const bool own = m_dispatcher.gate().dispatching();
  m_dispatcher.end([self = shared_from_this(), kept = std::move(handle)] { self->finish(); });
  if (m_thread.joinable()) {
    if (own) {
      m_thread.detach();  // it holds the context until it ends
    } else {
      m_thread.join();
    }
  }
}

// Callbacks here have ended by now, those on event queues end below.
void Context::finish() {
  m_transport->close(m_options.get(option::closeLingerTime));
  m_dispatcher.descriptors().clear();
  m_directory.clear();
  m_requests.clear();
  decltype(m_sources) sources;
  {
    const std::lock_guard lock(m_mutex);
    sources.swap(m_sources);
  }
  for (const auto& [publication, weak] : sources) {
    if (const auto source = weak.lock()) {
      source->closeAndWait();
    }
  }
}

std::size_t Context::drainMemory() {
  m_arrivalTime.reset();
  return m_transport->drainMemory(*this);
}

std::chrono::microseconds Context::spinTime() const {
  return std::chrono::microseconds(m_options.get(option::spinTime));
}

std::size_t Context::drain() {
  m_arrivalTime.reset();
  return m_transport->drain(*this);
}

timespec Context::arrivalTime() {
  if (!m_arrivalTime) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    m_arrivalTime = now;
  }
  return *m_arrivalTime;
}

lbm_topic_t& Context::topic(std::string_view name, const OptionSet& options) {
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

void Context::advertise(const transport::PublicationInfo& info, const std::shared_ptr<Source>& source,
                        std::shared_ptr<transport::Publication>& publication) {
  if (deleted()) {
    throw Error(LBM_EOP, "the context is deleted");
  }
  // Locked throughout, so that the first subscriber finds the source, and the source its publication.
  const std::lock_guard lock(m_mutex);
  publication = m_transport->advertise(info);
  if (source != nullptr) {
    m_sources.emplace(publication.get(), source);
  }
}

void Context::withdraw(transport::Publication& publication) {
  if (deleted()) {
    return;
  }
  m_transport->withdraw(publication);
  const std::lock_guard lock(m_mutex);
  m_sources.erase(&publication);
}

void Context::registerDescriptor(int fd, lbm_ulong_t events, lbm_fd_cb_proc proc, void* clientd,
                                 const std::shared_ptr<EventQueue>& queue) {
  if (deleted()) {
    throw Error(LBM_EOP, "the context is deleted");
  }
  m_dispatcher.descriptors().add(
      fd, events,
      {.context = m_handle, .proc = proc, .clientd = clientd, .queue = queue, .keepAlive = shared_from_this()});
}

void Context::cancelDescriptorWithNotice(int fd, lbm_ulong_t events, lbm_event_queue_cancel_cb_proc proc, void* clientd,
                                         const std::shared_ptr<EventQueue>& queue) {
  if (queue != nullptr && !queue->cancellationCallbacks()) {
    throw Error(LBM_EOP,
                "the event queue gives no cancellation callbacks; set its option "
                "queue_cancellation_callbacks_enabled to 1");
  }
  Dispatcher::Task next = [fd, proc, clientd] { callApplication([&] { proc(fd, clientd); }); };
  // The notice travels through every place where a callback of the registration may be running, so it comes behind it.
  auto places = m_dispatcher.descriptors().cancelWithoutWaiting(fd, events);
  places.insert(places.begin(), queue);
  for (const auto& place : places) {
    next = [self = shared_from_this(), place, task = std::move(next)]() mutable {
      self->runAt(place, std::move(task));
    };
  }
  next();
}

void Context::runAt(const std::shared_ptr<EventQueue>& queue, Dispatcher::Task task) {
  if (queue == nullptr) {
    post(std::move(task));
  } else {
    queue->post(std::make_shared<TaskTarget>(gate(), queue, std::move(task)), {});
  }
}

void Context::runAfter(std::chrono::milliseconds delay, Dispatcher::Task task) {
  m_dispatcher.runAt(Dispatcher::Clock::now() + delay, std::move(task));
}

std::string Context::sessionName(std::uint32_t sourceId) const { return m_sessionPrefix + std::to_string(sourceId); }

void Context::sourceUp(const std::shared_ptr<transport::RemoteSource>& source) {
  if (deleted()) {
    return;
  }
  if (m_resolverNotification.notifyfunc != nullptr) {
    callApplication([&] {
      m_resolverNotification.notifyfunc(source->topic().c_str(), source->session().c_str(),
                                        m_resolverNotification.clientd);
    });
  }
  m_directory.sourceUp(source);
}

void Context::sourceDown(const std::shared_ptr<transport::RemoteSource>& source) { m_directory.sourceDown(*source); }

void Context::message(transport::RemoteSource& source, transport::InboundMessage& message) {
  m_directory.message(source, message);
}

void Context::loss(transport::RemoteSource& source, std::uint32_t first, std::uint32_t count) {
  m_directory.loss(source, first, count);
}

void Context::response(std::uint64_t requestId, const std::string& responder, std::span<const std::byte> payload) {
  const auto request = m_requests.find(requestId);
  if (request == nullptr) {
    return;
  }
  MessageRef message = m_directory.blank(LBM_MSG_RESPONSE, request->origin(responder), 0);
  message->setPayload(payload);
  request->dispatch({.message = message});
  m_directory.pool().recycle(std::move(message));
}

void Context::notifySource(transport::Publication& publication, int event, const std::string& text) {
  std::shared_ptr<Source> source;
  {
    const std::lock_guard lock(m_mutex);
    const auto found = m_sources.find(&publication);
    source = found != m_sources.end() ? found->second.lock() : nullptr;
  }
  if (source != nullptr) {
    source->dispatch({.code = event, .text = text});
  }
}

void Context::subscriberJoined(transport::Publication& publication, const std::string& contextName) {
  notifySource(publication, LBM_SRC_EVENT_CONNECT, contextName);
}

void Context::subscriberLeft(transport::Publication& publication, const std::string& contextName) {
  notifySource(publication, LBM_SRC_EVENT_DISCONNECT, contextName);
}

void Context::writable(transport::Publication& publication) { notifySource(publication, LBM_SRC_EVENT_WAKEUP, {}); }

}  // namespace engine::core
