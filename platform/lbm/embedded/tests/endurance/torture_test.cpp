// Threads and callbacks create, use and delete objects of the interface in every order, as far as lbm.h leaves it to
// them, in both operational modes. Nothing may be called back that is deleted, nobody may wait for ever, what is left
// in the end works, and deleting it leaves nothing. Goes on for as many seconds as LBM_TORTURE says.
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "../api/domain.h"
#include "endurance.h"
#include "objects.h"

namespace endurance {

using Random = std::mt19937;

constexpr std::size_t kDriven = 2;  // of the contexts, by threads of the application
constexpr const char* kTopics[] = {"A", "B", "C"};
constexpr std::array kMade = {Kind::kReceiver, Kind::kReceiver, Kind::kSource, Kind::kSource, Kind::kDescriptor};

// One set of objects, from nothing to nothing.
class Round {
 public:
  explicit Round(unsigned seed)
      : m_seed(seed),
        m_smallQueues(seed % 2 == 0),
        m_patience(std::array{2U, 10U, 50U}[seed % 3]),
        m_contexts(kDriven + 2),
        m_queues(2),
        m_objects(40) {}

  void Run(std::chrono::milliseconds time) {
    for (std::size_t i = 0; i < m_queues.size(); ++i) {
      m_servers.emplace_back([this, i] { Dispatch(m_queues[i]); });
    }
    for (std::size_t i = 0; i < kDriven; ++i) {
      m_servers.emplace_back([this, i] { Drive(m_contexts[i]); });
    }
    for (int i = 0; i < 3; ++i) {
      m_workers.emplace_back([this] { Work(); });
    }
    std::this_thread::sleep_for(time);
    m_quiet = true;
    m_workers.clear();
    ExpectWhatIsLeftToWork();
    m_end = true;
    m_servers.clear();
    DeleteAll();
  }

  long Calls() const noexcept { return m_calls; }

 private:
  Random NewRandom() { return Random(m_seed + ++m_randoms); }
  static Random& OfThisThread(Round& round) {
    thread_local Round* of = nullptr;
    thread_local Random random;
    if (std::exchange(of, &round) != &round) {
      random = round.NewRandom();
    }
    return random;
  }
  unsigned Any(unsigned below) { return static_cast<unsigned>(OfThisThread(*this)() % below); }
  bool OneIn(unsigned chances) { return Any(chances) == 0; }
  template <class Places>
  auto& AnyOf(Places& places) {
    return places[Any(static_cast<unsigned>(std::size(places)))];
  }

  void Work() {
    while (!m_quiet) {
      Caller caller{.mayWait = true};
      Act(caller);
    }
  }

  void Drive(Place<Context>& place) {
    while (!m_end) {
      if (place.access.TryUse()) {
        ServeOrLeave(place);
      }
      if (!m_quiet && OneIn(8)) {
        Caller caller;  // one that waits for nobody, since others wait for it
        Act(caller);
      }
    }
  }

  void ServeOrLeave(Place<Context>& place) {
    if (place.value != nullptr) {
      EXPECT_EQ(0, lbm_context_process_events(place.value->handle, Any(3))) << lbm_errmsg();
      if (place.value->handle == nullptr) {  // a callback has taken the place over
        place.value->life->over = true;
        place.value.reset();
        place.access.GiveBack();
        return;
      }
    }
    place.access.Leave();
  }

  void Dispatch(Place<Queue>& place) {
    while (!m_end) {
      if (const auto taken = Take(place); taken && (taken.Get() == nullptr || taken.Get()->shutDown || OneIn(300))) {
        Renew(taken.Value());
      }
      if (const auto use = Use(place); use.Get() != nullptr) {
        EXPECT_LE(0, lbm_event_dispatch(use.Get()->handle, Any(3))) << lbm_errmsg();
      }
    }
  }

  void Act(Caller& caller) {
    Place<Object>& place = AnyOf(m_objects);
    if (OneIn(3)) {
      if (const auto taken = Take(place); taken && taken.Value() == nullptr) {
        Make(taken.Value());
      } else if (taken && OneIn(m_patience) && MayDelete(caller, *taken.Value())) {
        Delete(taken.Value(), caller);
      }
    } else if (const auto use = Use(place); use.Get() != nullptr) {
      Handle(*use.Get(), caller);
    }
    if (OneIn(100 * m_patience)) {
      ChangeContext(Any(static_cast<unsigned>(m_contexts.size())), caller);
    }
    if (OneIn(400 * m_patience)) {
      if (const auto queue = Use(AnyOf(m_queues)); queue.Get() != nullptr) {
        EXPECT_EQ(0, lbm_event_queue_shutdown(queue.Get()->handle));
        queue.Get()->shutDown = true;
      }
    }
  }

  // A deletion waits for a callback on another thread, which may itself be waiting like this. So each waits for what is
  // newer only: an object of a newer context, or one of its own context where no callback deletes that.
  static bool MayDelete(const Caller& caller, const Object& object) {
    const Object* const self = caller.object;
    if (self == nullptr || self == &object || object.kind >= Kind::kResponse) {
      return true;
    }
    return object.life->rank > self->life->rank ||
           (object.life == self->life && self->life->siblings && object.rank > self->rank);
  }

  void ChangeContext(std::size_t number, const Caller& caller) {
    const Object* const self = caller.object;
    if (const auto taken = Take(m_contexts[number]); taken && taken.Value() == nullptr) {
      taken.Value() = NewContext(number);
    } else if (taken && (self == nullptr || taken.Value()->life->rank > self->life->rank)) {
      Delete(taken.Value());
    } else if (taken && taken.Value()->life == self->life && !self->life->siblings) {
      EXPECT_EQ(0, lbm_context_delete(taken.Value()->handle)) << lbm_errmsg();
      (self->queued ? self->life->over : self->life->leaving) = true;
      taken.Value().reset();
    }
  }

  // A context that a thread of the application is processing, in a callback on that thread.
  void DeleteOwnDrivenContext(const Object& self) {
    if (self.queued || self.life->siblings || self.life->place >= kDriven) {
      return;
    }
    Place<Context>& place = m_contexts[self.life->place];
    if (place.access.TryTakeOver()) {
      EXPECT_EQ(0, lbm_context_delete(std::exchange(place.value->handle, nullptr))) << lbm_errmsg();
    }
  }

  std::unique_ptr<Context> NewContext(std::size_t number) {
    auto context = std::make_unique<Context>();
    context->life->place = number;
    context->life->rank = ++m_rank;
    context->life->siblings = OneIn(2);
    context->handle = engine_test::MakeContext(
        {{"operational_mode", number < kDriven ? "sequential" : "embedded"}, {"transport_ring_size", "65536"}});
    return context;
  }

  static void Delete(std::unique_ptr<Context>& context) {
    EXPECT_EQ(0, lbm_context_delete(context->handle)) << lbm_errmsg();
    context->life->over = true;
    context.reset();
  }

  void Renew(std::unique_ptr<Queue>& queue) {
    Delete(queue);
    queue = std::make_unique<Queue>();
    auto* const attr = engine_test::MakeAttributes(
        lbm_event_queue_attr_create, lbm_event_queue_attr_str_setopt,
        {{"queue_cancellation_callbacks_enabled", "1"}, {"queue_bytes_max", m_smallQueues ? "65536" : "67108864"}});
    EXPECT_EQ(0, lbm_event_queue_create(&queue->handle, nullptr, nullptr, attr)) << lbm_errmsg();
    EXPECT_EQ(0, lbm_event_queue_attr_delete(attr));
  }

  static void Delete(std::unique_ptr<Queue>& queue) {
    if (queue != nullptr) {
      EXPECT_EQ(0, lbm_event_queue_delete(queue->handle)) << lbm_errmsg();
      queue.reset();
    }
  }

  std::unique_ptr<Object> NewObject(Kind kind, const std::shared_ptr<Life>& life, bool queued) {
    auto object = std::make_unique<Object>();
    object->round = this;
    object->kind = kind;
    object->life = life;
    object->rank = ++m_rank;
    object->queued = queued;
    return object;
  }

  void Make(std::unique_ptr<Object>& made) {
    const std::size_t number = Any(static_cast<unsigned>(m_contexts.size()));
    const auto context = Use(m_contexts[number]);
    const auto queue = Use(AnyOf(m_queues));
    if (context.Get() == nullptr) {
      return;
    }
    lbm_context_t* const handle = context.Get()->handle;
    lbm_event_queue_t* const evq = queue.Get() != nullptr && OneIn(2) ? queue.Get()->handle : nullptr;
    made = NewObject(AnyOf(kMade), context.Get()->life, evq != nullptr);
    const char* const name = AnyOf(kTopics);
    int result = 0;
    if (made->kind == Kind::kReceiver) {
      lbm_rcv_t* receiver = nullptr;
      result = lbm_rcv_create(&receiver, handle, engine_test::ReceiverTopic(handle, name), &OnMessage, made.get(), evq);
      made->remove = [receiver] { return lbm_rcv_delete(receiver); };
    } else if (made->kind == Kind::kSource) {
      auto* const attr = engine_test::MakeAttributes(lbm_src_topic_attr_create, lbm_src_topic_attr_str_setopt,
                                                     {{"transport_pacing", OneIn(2) ? "source" : "receiver"}});
      lbm_topic_t* topic = nullptr;
      EXPECT_EQ(0, lbm_src_topic_alloc(&topic, handle, name, attr)) << lbm_errmsg();
      EXPECT_EQ(0, lbm_src_topic_attr_delete(attr));
      result = lbm_src_create(&made->source, handle, topic, &OnSource, made.get(), evq);
      made->remove = [source = made->source] { return lbm_src_delete(source); };
    } else {
      made->descriptor = zq::posix::Descriptor(::eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC));
      result = lbm_register_fd(handle, made->descriptor.Get(), &OnReadable, made.get(), evq, LBM_FD_EVENT_READ);
    }
    EXPECT_EQ(0, result) << lbm_errmsg();
  }

  // Uses an object without taking it.
  void Handle(Object& object, const Caller& caller) {
    const std::string text = FloodMessage(Any(300));
    const bool own = caller.object != nullptr && caller.object->life == object.life;
    const bool waits = caller.mayWait || (caller.object != nullptr && (caller.object->queued ? !m_smallQueues : own));
    const int flags = waits && OneIn(2) ? 0 : LBM_SRC_NONBLOCK;
    if (object.kind == Kind::kSource && OneIn(8)) {
      Ask(object, text, flags);
    } else if (object.kind == Kind::kSource) {
      ExpectReason(lbm_src_send(object.source, text.data(), text.size(), flags));
    } else if (object.kind == Kind::kResponse) {
      ExpectReason(lbm_send_response(object.response, text.data(), text.size(), flags));
    } else if (object.kind == Kind::kDescriptor) {
      EXPECT_EQ(0, ::eventfd_write(object.descriptor.Get(), 1));
    }
  }

  void Ask(const Object& source, const std::string& text, int flags) {
    const auto place = Take(AnyOf(m_objects));
    const auto queue = Use(AnyOf(m_queues));
    if (!place || place.Value() != nullptr) {
      return;
    }
    auto* const evq = queue.Get() != nullptr && OneIn(2) ? queue.Get()->handle : nullptr;
    place.Value() = NewObject(Kind::kRequest, source.life, evq != nullptr);
    lbm_request_t* request = nullptr;
    ExpectReason(lbm_send_request(&request, source.source, text.data(), text.size(), &OnResponse, place.Value().get(),
                                  evq, flags));
    if (request == nullptr) {
      place.Value().reset();
    } else {
      place.Value()->remove = [request] { return lbm_request_delete(request); };
    }
  }

  // A send fails for want of room, in a context that is deleted, and to a requester that is gone.
  static void ExpectReason(int result) {
    if (result != 0) {
      EXPECT_THAT(lbm_errnum(), testing::AnyOf(LBM_EWOULDBLOCK, LBM_EOP)) << lbm_errmsg();
    }
  }

  // What is deleted is freed at once, so that a sanitizer sees who is called back all the same.
  void Delete(std::unique_ptr<Object>& object, Caller& caller) {
    if (object->kind != Kind::kDescriptor) {
      EXPECT_EQ(0, object->remove()) << lbm_errmsg();
    } else if (!Cancel(object) || object == nullptr) {
      return;
    }
    if (object.get() == caller.object) {
      caller.deletedItself = true;
      static_cast<void>(object.release());  // which its callback frees
    }
    object.reset();
  }

  // Whether the descriptor may be closed; it may have been kept for the end instead.
  bool Cancel(std::unique_ptr<Object>& object) {
    const auto context = Use(m_contexts[object->life->place]);
    if (context.Get() == nullptr || context.Get()->life != object->life) {
      if (object->life->leaving) {
        Keep(std::move(object));
        return true;
      }
      return object->life->over;
    }
    lbm_context_t* const handle = context.Get()->handle;
    const int fd = object->descriptor.Get();
    if (OneIn(2)) {
      EXPECT_EQ(0, lbm_cancel_fd(handle, fd, LBM_FD_EVENT_READ)) << lbm_errmsg();
      return true;
    }
    const auto queue = Use(AnyOf(m_queues));
    const lbm_event_queue_cancel_cb_info_t info{queue.Get() != nullptr ? queue.Get()->handle : nullptr, &OnCancelled,
                                                object.get()};
    EXPECT_EQ(0, lbm_cancel_fd_ex(handle, fd, LBM_FD_EVENT_READ, &info)) << lbm_errmsg();
    Keep(std::move(object));
    return true;
  }

  void Keep(std::unique_ptr<Object> object) {
    const std::lock_guard lock(m_mutex);
    m_kept.push_back(std::move(object));
  }

  // Runs one callback: checks that it may be, and does something.
  template <class Function>
  static int CallBack(void* clientd, Function&& function) {
    auto* const self = static_cast<Object*>(clientd);
    Round& round = *self->round;
    EXPECT_FALSE(self->life->over) << "a callback after the context's deletion";
    EXPECT_FALSE(self->cancelled) << "a callback after the notice of its cancellation";
    EXPECT_FALSE(self->inCallback.exchange(true)) << "two callbacks at once";
    ++round.m_calls;
    Caller caller{.object = self};
    function(*self, caller);
    for (unsigned count = round.m_quiet ? 0 : round.Any(3); count > 0; --count) {
      round.Act(caller);
      if (round.OneIn(40)) {
        round.DeleteOwnDrivenContext(*self);
      }
    }
    self->inCallback = false;
    if (caller.deletedItself) {
      delete self;
    }
    return 0;
  }

  static int OnMessage(lbm_rcv_t*, lbm_msg_t* message, void* clientd) {
    return CallBack(clientd, [&](const Object& self, const Caller&) {
      Round& round = *self.round;
      if (message->type != LBM_MSG_DATA && message->type != LBM_MSG_REQUEST) {
        return;
      }
      ExpectIntact(*message);
      const auto place = Take(round.AnyOf(round.m_objects));
      if (message->response != nullptr && round.OneIn(2)) {
        ExpectReason(lbm_send_response(message->response, message->data, message->len, LBM_SRC_NONBLOCK));
      }
      if (round.m_quiet || !place || place.Value() != nullptr) {
        return;
      }
      if (message->response != nullptr && round.OneIn(2)) {
        lbm_response_t* const response = std::exchange(message->response, nullptr);
        place.Value() = round.NewObject(Kind::kResponse, self.life, false);
        place.Value()->response = response;
        place.Value()->remove = [response] { return lbm_response_delete(response); };
      } else if (round.OneIn(4)) {
        EXPECT_EQ(0, lbm_msg_retain(message));
        place.Value() = round.NewObject(Kind::kMessage, self.life, false);
        place.Value()->remove = [message] {
          ExpectIntact(*message);
          return lbm_msg_delete(message);
        };
      }
    });
  }

  static int OnSource(lbm_src_t*, int, void*, void* clientd) {
    return CallBack(clientd, [](const Object&, const Caller&) {});
  }

  static int OnResponse(lbm_request_t*, lbm_msg_t* message, void* clientd) {
    return CallBack(clientd, [&](const Object&, const Caller&) { ExpectIntact(*message); });
  }

  static int OnReadable(lbm_context_t*, int fd, unsigned long, void* clientd) {
    return CallBack(clientd, [&](const Object&, const Caller&) {
      eventfd_t value = 0;
      static_cast<void>(::eventfd_read(fd, &value));
    });
  }

  static void OnCancelled(int, void* clientd) { static_cast<Object*>(clientd)->cancelled = true; }

  // Every payload here is a FloodMessage.
  static void ExpectIntact(const lbm_msg_t& message) {
    std::uint32_t number = 0;
    ASSERT_GE(message.len, sizeof(number));
    std::memcpy(&number, message.data, sizeof(number));
    EXPECT_EQ(FloodMessage(number), std::string_view(message.data, message.len));
  }

  // A new context hears each of those that have gone through all that.
  void ExpectWhatIsLeftToWork() {
    const engine_test::Driven probe;
    engine_test::Recorder heard(probe, "PROBE");
    for (Place<Context>& place : m_contexts) {
      while (!place.access.TryUse()) {
        std::this_thread::yield();
      }
      if (place.value != nullptr) {
        heard.lines.clear();
        const engine_test::Sender source(place.value->handle, "PROBE");
        source.AwaitSubscriber({probe});
        EXPECT_EQ(0, source.Send("works"));
        engine_test::PumpUntil({probe}, "a message", [&] {
          return std::ranges::any_of(heard.lines, [](const std::string& line) { return line.starts_with("data"); });
        });
      }
      place.access.Leave();
    }
  }

  void DeleteAll() {
    Caller caller;
    std::vector<std::function<void()>> deletions;
    const auto add = [&](auto& places, auto remove) {
      for (auto& place : places) {
        if (place.value != nullptr) {
          deletions.emplace_back([&place, remove] { remove(place.value); });
        }
      }
    };
    add(m_objects, [&](auto& object) { Delete(object, caller); });
    add(m_contexts, [](auto& context) { Delete(context); });
    add(m_queues, [](auto& queue) { Delete(queue); });
    std::shuffle(deletions.begin(), deletions.end(), OfThisThread(*this));
    for (const auto& deletion : deletions) {
      deletion();
    }
  }

  const unsigned m_seed;
  const bool m_smallQueues;   // which get full
  const unsigned m_patience;  // the greater it is the longer things live, and the more they do meanwhile
  std::atomic<unsigned> m_randoms{0};
  std::atomic<long> m_rank{0};
  std::atomic<long> m_calls{0};
  std::atomic<bool> m_quiet{false};  // callbacks do nothing any more
  std::atomic<bool> m_end{false};
  std::vector<Place<Context>> m_contexts;
  std::vector<Place<Queue>> m_queues;
  std::vector<Place<Object>> m_objects;
  std::mutex m_mutex;
  std::vector<std::unique_ptr<Object>> m_kept;  // guarded by m_mutex
  std::vector<std::jthread> m_servers;
  std::vector<std::jthread> m_workers;
};

TEST(Torture, LeavesNothingAndCallsNothingBackThatIsDeleted) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(Setting("LBM_TORTURE", 10));
  const unsigned seed = Seed();
  std::thread([] {}).join();  // a sanitizer may have a thread of its own as soon as there was another
  lbm_log(
      +[](int, const char*, void*) { return 0; }, nullptr);
  unsigned rounds = 0;
  long calls = 0;
  for (; std::chrono::steady_clock::now() < end && !HasFailure(); ++rounds) {
    const test_support::PrivateDomain domain;
    const Belongings before = Belongings::Now();
    const long allocationsBefore = engine::test::LiveAllocations();
    {
      Round round(seed + rounds * 1001);
      round.Run(std::chrono::milliseconds(700));
      calls += round.Calls();
      // Threads of contexts that were deleted in callbacks of theirs end soon after.
      engine_test::PumpUntil({}, "the end of all threads", [&] { return Belongings::Now().threads == before.threads; });
    }
    EXPECT_THAT(FilesBelow(domain.Directory()), testing::IsEmpty());
    if (rounds > 0) {  // after the first one there is what is made once in a process
      EXPECT_EQ(Belongings::Now(), before);
      EXPECT_EQ(engine::test::LiveAllocations(), allocationsBefore);
    }
  }
  lbm_log(nullptr, nullptr);
  std::printf("%u rounds, %ld callbacks\n", rounds, calls);
}

}  // namespace endurance
