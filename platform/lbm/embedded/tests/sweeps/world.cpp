#include "world.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include "../api/domain.h"

namespace sweep {

namespace {

using engine_test::MakeAttributes;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience{30};
constexpr std::chrono::milliseconds kHope{20};     // while calls fail
constexpr std::chrono::milliseconds kFlight{200};  // of a message, before another one is sent

int Engine(const std::function<int()>& call) {
  const Doing engine(Doing::Whose::kEngine);
  return call();
}

}  // namespace

void World::Try(const char* what, const std::function<int()>& call) {
  if (Engine(call) == 0) {
    return;
  }
  const std::string text = lbm_errmsg();
  if (!Failed() || text.empty()) {
    throw Fault(std::string(what) + " fails for no reason: " + text);
  }
  Disarm();
  if (Engine(call) != 0) {
    throw Fault(std::string(what) + " fails a second time: " + lbm_errmsg());
  }
}

void World::Must(const char* what, const std::function<int()>& call) {
  if (Engine(call) != 0) {
    throw Fault(std::string(what) + " fails: " + lbm_errmsg());
  }
}

World::Context& World::NewContext(const char* ringBytes) {
  auto* const attr = MakeAttributes(
      lbm_context_attr_create, lbm_context_attr_str_setopt,
      {{"operational_mode", m_embedded ? "embedded" : "sequential"}, {"transport_ring_size", ringBytes}});
  Context& context = m_contexts.emplace_back();
  Try("making a context", [&] { return lbm_context_create(&context.handle, attr, nullptr, nullptr); });
  lbm_context_attr_delete(attr);
  return context;
}

World::Source& World::NewSource(Context& context, const char* name, const char* pacing) {
  Source& source = m_sources.emplace_back();
  source.context = &context;
  source.topic = name;
  auto* const attr =
      MakeAttributes(lbm_src_topic_attr_create, lbm_src_topic_attr_str_setopt, {{"transport_pacing", pacing}});
  lbm_topic_t* topic = nullptr;
  Try("allocating a topic", [&] { return lbm_src_topic_alloc(&topic, context.handle, name, attr); });
  Try("making a source",
      [&] { return lbm_src_create(&source.handle, context.handle, topic, &OnSource, &source, nullptr); });
  lbm_src_topic_attr_delete(attr);
  return source;
}

World::Receiver& World::NewReceiver(Context& context, const char* name, lbm_event_queue_t* queue) {
  Receiver& receiver = m_receivers.emplace_back();
  receiver.context = &context;
  receiver.topic = name;
  receiver.queue = queue;
  auto* const attr = MakeAttributes(lbm_rcv_topic_attr_create, lbm_rcv_topic_attr_str_setopt, {});
  if (queue == nullptr) {
    const lbm_rcv_src_notification_func_t notification{[](const char*, void* clientd) -> void* {
                                                         ++static_cast<Receiver*>(clientd)->announced;
                                                         return nullptr;
                                                       },
                                                       [](const char*, void* clientd, void*) {
                                                         --static_cast<Receiver*>(clientd)->announced;
                                                         return 0;
                                                       },
                                                       &receiver};
    lbm_rcv_topic_attr_setopt(attr, "source_notification_function", &notification, sizeof(notification));
  }
  lbm_topic_t* topic = nullptr;
  Try("looking up a topic", [&] { return lbm_rcv_topic_lookup(&topic, context.handle, name, attr); });
  Try("making a receiver",
      [&] { return lbm_rcv_create(&receiver.handle, context.handle, topic, &OnMessage, &receiver, queue); });
  lbm_rcv_topic_attr_delete(attr);
  return receiver;
}

lbm_event_queue_t*& World::NewQueue() {
  auto* const attr = MakeAttributes(lbm_event_queue_attr_create, lbm_event_queue_attr_str_setopt,
                                    {{"queue_cancellation_callbacks_enabled", "1"}});
  lbm_event_queue_t*& queue = m_queues.emplace_back();
  Try("making a queue", [&] { return lbm_event_queue_create(&queue, nullptr, nullptr, attr); });
  lbm_event_queue_attr_delete(attr);
  return queue;
}

World::Watched& World::Watch(Context& context, lbm_event_queue_t* queue) {
  Watched& watched = m_watched.emplace_back();
  watched.context = &context;
  watched.queue = queue;
  watched.pipe = test_support::MakePipe();
  Try("registering a descriptor", [&] {
    return lbm_register_fd(context.handle, watched.pipe.reader.Get(), &OnReadable, &watched, queue, LBM_FD_EVENT_READ);
  });
  return watched;
}

void World::Send(Source& source, std::size_t bytes) {
  std::vector<char> text(std::max(bytes, sizeof(long)), 'x');
  ++source.sent;
  std::memcpy(text.data(), &source.sent, sizeof(source.sent));
  const auto deadline = Clock::now() + kPatience;
  bool blocked = true;
  while (std::exchange(blocked, false)) {
    // Who waits for room would have to make it.
    Try("sending", [&] {
      const int result = lbm_src_send(source.handle, text.data(), text.size(), LBM_SRC_FLUSH | LBM_SRC_NONBLOCK);
      blocked = result != 0 && lbm_errnum() == LBM_EWOULDBLOCK;
      return blocked ? 0 : result;
    });
    if (Clock::now() > deadline) {
      throw Fault("no room for messages of " + source.topic);
    }
    if (blocked) {
      ServeOnce();
    }
  }
}

void World::Ask(Source& source) {
  CloseRequest(source);
  Try("asking", [&] {
    return lbm_send_request(&source.request, source.handle, "?", 1, &OnResponse, &source, nullptr, LBM_SRC_FLUSH);
  });
}

template <class Handle>
void World::Remove(Handle*& handle, int (*remove)(Handle*)) {
  if (auto* const removed = std::exchange(handle, nullptr)) {
    Must("a deletion", [&] { return remove(removed); });
  }
}

void World::CloseRequest(Source& source) { Remove(source.request, lbm_request_delete); }

void World::Cancel(Watched& watched) {
  if (auto* const context = std::exchange(watched.context, nullptr)) {
    Must("cancelling a descriptor",
         [&] { return lbm_cancel_fd(context->handle, watched.pipe.reader.Get(), LBM_FD_EVENT_READ); });
  }
}

void World::CancelAndAwaitNotice(Watched& watched) {
  const lbm_event_queue_cancel_cb_info_t info{watched.queue, &OnCancelled, &watched};
  const auto* const context = std::exchange(watched.context, nullptr);
  Try("cancelling a descriptor with a notice",
      [&] { return lbm_cancel_fd_ex(context->handle, watched.pipe.reader.Get(), LBM_FD_EVENT_READ, &info); });
  Serve([&] { return watched.cancelled.load(); });
  Disarm();
  Insist("the notice of a cancellation", [&] { return watched.cancelled.load(); });
}

void World::Delete(Source& source) {
  CloseRequest(source);
  Remove(source.handle, lbm_src_delete);
}

void World::Delete(Receiver& receiver) { Remove(receiver.handle, lbm_rcv_delete); }

void World::Delete(Context& context) { Remove(context.handle, lbm_context_delete); }

void World::DeleteAll() {
  for (Watched& watched : m_watched) {
    Cancel(watched);
  }
  for (Receiver& receiver : m_receivers) {
    Delete(receiver);
  }
  for (Source& source : m_sources) {
    Delete(source);
  }
  for (Context& context : m_contexts) {
    Delete(context);
  }
  for (auto*& queue : m_queues) {
    Remove(queue, lbm_event_queue_delete);
  }
}

void World::ServeOnce() {
  bool waited = false;
  for (const Context& context : m_contexts) {
    if (!m_embedded && context.handle != nullptr) {
      waited = true;
      // Whoever processes events may take an error for the end.
      Must("processing events", [&] { return lbm_context_process_events(context.handle, 1); });
    }
  }
  for (auto* const queue : m_queues) {
    if (queue != nullptr) {
      Engine([&] { return lbm_event_dispatch(queue, LBM_EVENT_QUEUE_POLL); });
    }
  }
  if (!waited) {
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
}

bool World::Await(const std::function<bool()>& condition, std::chrono::milliseconds patience) {
  const auto deadline = Clock::now() + patience;
  while (!condition()) {
    if (Clock::now() > deadline) {
      return false;
    }
    ServeOnce();
  }
  return true;
}

void World::Serve(const std::function<bool()>& condition) { Await(condition, Failed() ? kHope : 10 * kHope); }

void World::Insist(const std::string& what, const std::function<bool()>& condition) {
  if (!Await(condition, kPatience)) {
    throw Fault("waited in vain for " + what);
  }
}

bool World::Listens(const Receiver& receiver, const Source& source) const {
  return receiver.handle != nullptr && receiver.context->handle != nullptr && receiver.topic == source.topic;
}

int World::Listeners(const Source& source) const {
  std::set<const Context*> listening;
  for (const Receiver& receiver : m_receivers) {
    if (Listens(receiver, source)) {
      listening.insert(receiver.context);
    }
  }
  return static_cast<int>(listening.size());
}

void World::Verify() {
  End();
  for (Source& source : m_sources) {
    if (source.handle != nullptr && source.context->handle != nullptr) {
      VerifyStream(source);
    }
  }
  for (const Receiver& receiver : m_receivers) {
    const auto present = std::count_if(m_sources.begin(), m_sources.end(), [&](const Source& source) {
      return source.handle != nullptr && source.context->handle != nullptr && Listens(receiver, source);
    });
    if (receiver.handle != nullptr && receiver.context->handle != nullptr) {
      Insist("the number of sources of " + receiver.topic + " at a receiver",
             [&] { return receiver.sources == present; });
      if (receiver.queue == nullptr) {
        Insist("the notifications of sources of " + receiver.topic, [&] { return receiver.announced == present; });
      }
    }
  }
}

// One source a topic.
void World::VerifyStream(Source& source) {
  const int listeners = Listeners(source);
  const auto toAll = [&](auto&& holds) {
    return std::all_of(m_receivers.begin(), m_receivers.end(),
                       [&](Receiver& receiver) { return !Listens(receiver, source) || holds(receiver); });
  };
  Insist("the subscribers of " + source.topic, [&] { return source.subscribers == listeners; });
  const auto deadline = Clock::now() + kPatience;
  do {
    if (Clock::now() > deadline) {
      throw Fault("a receiver of " + source.topic + " hears nothing");
    }
    Send(source);
  } while (!Await([&] { return toAll([&](Receiver& one) { return one.last == source.sent; }); }, kFlight));
  // What failed last may show only now.
  constexpr int kRounds = 3;
  for (int round = 1; !IsSteady(source, listeners); ++round) {
    if (round == kRounds) {
      throw Fault("not each message of " + source.topic + " comes once");
    }
  }
  if (listeners != 0) {
    const long before = source.responses;
    Ask(source);
    Insist("the response to a request on " + source.topic, [&] { return source.responses > before; });
  }
}

// Whether each listener hears each of some messages, and is the only one in its place.
bool World::IsSteady(Source& source, int listeners) {
  for (Receiver& receiver : m_receivers) {
    receiver.messages = 0;
  }
  constexpr int kMessages = 5;
  for (int i = 0; i < kMessages; ++i) {
    Send(source);
  }
  const auto heardAll = [&](Receiver& receiver) {
    return !Listens(receiver, source) || (receiver.last == source.sent && receiver.messages == kMessages);
  };
  return Await(
      [&] { return source.subscribers == listeners && std::all_of(m_receivers.begin(), m_receivers.end(), heardAll); },
      kPatience);
}

void World::VerifyWatched(Watched& watched) {
  End();
  const int before = watched.bytes;
  if (::write(watched.pipe.writer.Get(), "!", 1) != 1) {
    throw Fault("cannot write");
  }
  Insist("the callback of a descriptor", [&] { return watched.bytes > before; });
}

void World::ExpectEmptyDomain() const {
  for (const auto& entry : std::filesystem::recursive_directory_iterator(m_domain.Directory())) {
    if (!entry.is_directory()) {
      throw Fault("left in the directory of the domain: " + entry.path().string());
    }
  }
}

int World::OnSource(lbm_src_t*, int event, void*, void* clientd) {
  const Doing test(Doing::Whose::kTest);
  auto& source = *static_cast<Source*>(clientd);
  if (event == LBM_SRC_EVENT_CONNECT) {
    ++source.subscribers;
  } else if (event == LBM_SRC_EVENT_DISCONNECT) {
    --source.subscribers;
  }
  return 0;
}

int World::OnMessage(lbm_rcv_t*, lbm_msg_t* message, void* clientd) {
  const Doing test(Doing::Whose::kTest);
  auto& receiver = *static_cast<Receiver*>(clientd);
  if (message->type == LBM_MSG_DATA) {
    long number = 0;
    std::memcpy(&number, message->data, sizeof(number));
    ++receiver.messages;
    receiver.last = number;
  } else if (message->type == LBM_MSG_BOS) {
    ++receiver.sources;
  } else if (message->type == LBM_MSG_EOS) {
    --receiver.sources;
  } else if (message->type == LBM_MSG_REQUEST) {
    const Doing engine(Doing::Whose::kEngine);
    lbm_send_response(message->response, "!", 1, 0);  // may fail
  }
  return 0;
}

int World::OnResponse(lbm_request_t*, lbm_msg_t*, void* clientd) {
  ++static_cast<Source*>(clientd)->responses;
  return 0;
}

int World::OnReadable(lbm_context_t*, int fd, unsigned long, void* clientd) {
  char byte = 0;
  auto& watched = *static_cast<Watched*>(clientd);
  watched.bytes += ::read(fd, &byte, 1) == 1 ? 1 : 0;
  return 0;
}

void World::OnCancelled(int, void* clientd) { static_cast<Watched*>(clientd)->cancelled = true; }

}  // namespace sweep
