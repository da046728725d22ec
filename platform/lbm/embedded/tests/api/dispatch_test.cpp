#include <dlfcn.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "domain.h"
#include "test_support/pipe.h"

namespace {

// How often this process has waited for events, on any thread.
std::atomic<std::size_t> g_waits{0};

}  // namespace

// Takes the place of the C library's for the engine, too.
extern "C" int epoll_wait(int epoll, epoll_event* events, int eventsMax, int timeout) {
  static const auto real = reinterpret_cast<decltype(&epoll_wait)>(::dlsym(RTLD_NEXT, "epoll_wait"));
  g_waits += timeout != 0 ? 1 : 0;
  return real(epoll, events, eventsMax, timeout);
}

namespace engine_test {
namespace {

using test_support::Pipe;
using testing::ElementsAre;

class EventQueues : public EngineTest {};

TEST_F(EventQueues, MoveCallbacksToTheDispatchingThread) {
  const Driven context({});
  const Queue queue;
  Recorder queued(context, "QUEUE", queue);
  std::vector<std::thread::id> threads;
  queued.onEvent = [&](lbm_msg_t& message) {
    threads.push_back(std::this_thread::get_id());
    if (message.sequence_number == 2) {
      lbm_event_dispatch_unblock(queue);
    }
  };
  {
    const Sender source(context, "QUEUE");
    source.AwaitSubscriber({});
    for (const char* text : {"a", "b", "c"}) {
      source.Send(text);
    }
    EXPECT_EQ(4, lbm_event_dispatch(queue, LBM_EVENT_QUEUE_BLOCK));
  }
  queued.Stop();
  queue.Poll();
  EXPECT_THAT(queued.lines, ElementsAre("BOS 0", "data 0 a", "data 1 b", "data 2 c"))
      << "events after the deletion are dropped";
  EXPECT_THAT(threads, testing::Each(std::this_thread::get_id()));
  lbm_event_dispatch_unblock(queue);
  EXPECT_EQ(0, lbm_event_dispatch(queue, LBM_EVENT_QUEUE_BLOCK)) << "an unblock before the dispatch counts";
}

// What a receiver with a queue was given, or told to be lost.
struct Account {
  explicit Account(Recorder& recorder) {
    recorder.onEvent = [this](const lbm_msg_t& message) {
      given += message.type == LBM_MSG_DATA ? 1 : 0;
      lost += message.type == LBM_MSG_UNRECOVERABLE_LOSS ? 1 : 0;
      lost += message.type == LBM_MSG_UNRECOVERABLE_LOSS_BURST ? message.len : 0;
    };
  }
  std::size_t given = 0;
  std::size_t lost = 0;
};

const std::string kBulky(1000, 'x');

TEST_F(EventQueues, AFullOneHoldsBackSourcesThatWaitAndLosesNothing) {
  const Queue queue(false, "65536");
  const Driven sending;
  const Driven receiving;
  const Sender source(sending, "W", {{"transport_pacing", "receiver"}});
  Recorder recorder(receiving, "W", queue);
  const Account account(recorder);
  source.AwaitSubscriber({sending, receiving});
  std::size_t sent = 0;
  for (int refusals = 0; refusals < 100;) {
    const bool taken = source.Send(kBulky, LBM_SRC_NONBLOCK) == 0;
    sent += taken ? 1 : 0;
    refusals = taken ? 0 : refusals + 1;
    ASSERT_EQ(0, lbm_context_process_events(receiving, 0));
    ASSERT_LT(sent, 5000U) << "more than the ring and the queue hold";
  }
  PumpUntil({sending, receiving}, "all messages", [&] {
    queue.Poll();
    return account.given == sent;
  });
  EXPECT_EQ(0U, account.lost);
}

TEST_F(EventQueues, AFullOneTellsOfWhatItLosesAndLosesNothingOfOthers) {
  constexpr std::size_t kSent = 1000;
  const Queue queue(false, "65536");
  const Driven sending;
  const Driven receiving;
  const Sender source(sending, "D");
  Recorder queued(receiving, "D", queue);
  Recorder direct(receiving, "D");
  const Account account(queued);
  const Account other(direct);
  source.AwaitSubscriber({sending, receiving});
  for (std::size_t i = 0; i < kSent; ++i) {
    ASSERT_EQ(0, source.Send(kBulky));
    PumpUntil({receiving}, "the message", [&] { return other.given == i + 1; });
  }
  PumpUntil({receiving}, "the account", [&] {
    queue.Poll();
    return account.given + account.lost == kSent;
  });
  EXPECT_LT(account.given, 100U);
  EXPECT_EQ(0U, other.lost);
}

TEST_F(EventQueues, APollIsDoneWithWhatWasThere) {
  const Driven context;
  const Queue queue;
  const Sender source(context, "ENDLESS");
  Recorder recorder(context, "ENDLESS", queue);
  const Recorder witness(context, "ENDLESS");  // hears once the other one's events are queued
  std::size_t sent = 0;
  const auto sendAnother = [&] {
    source.Send("another");
    ++sent;
    PumpUntil({context}, "the message", [&] { return witness.lines.size() == 1 + sent; });
  };
  recorder.onEvent = [&](lbm_msg_t&) {
    if (sent < 100) {
      sendAnother();
    }
  };
  source.AwaitSubscriber({context});
  sendAnother();
  EXPECT_EQ(2, queue.Poll()) << "beginning of session and the message";
  EXPECT_EQ(2, queue.Poll()) << "one of each callback";
}

void PutByte(const Pipe& pipe) { EXPECT_EQ(1, ::write(pipe.writer.Get(), "x", 1)); }

int CountCalls(lbm_context_t*, int, lbm_ulong_t, void* clientd) {
  ++*static_cast<int*>(clientd);
  return 0;
}

class Descriptors : public EngineTest {
 protected:
  const Driven m_context;
  const Queue m_queue{true};
  Pipe m_pipe = test_support::MakePipe();
  const int m_fd = m_pipe.reader.Get();
};

TEST_F(Descriptors, AreWatchedUntilTheyAreCancelled) {
  struct Watch {
    const int fd;
    int calls = 0;
    bool cancelInside = false;
  } watch{m_fd};
  const auto onReadable = [](lbm_context_t* ctx, int fd, lbm_ulong_t event, void* clientd) {
    auto& self = *static_cast<Watch*>(clientd);
    EXPECT_EQ(static_cast<lbm_ulong_t>(LBM_FD_EVENT_READ), event);
    EXPECT_EQ(self.fd, fd);
    ++self.calls;
    if (self.cancelInside) {
      EXPECT_EQ(0, lbm_cancel_fd(ctx, fd, LBM_FD_EVENT_READ)) << lbm_errmsg();
    } else {
      char byte = 0;
      EXPECT_EQ(1, ::read(fd, &byte, 1));
    }
    return 0;
  };
  ASSERT_EQ(0, lbm_register_fd(m_context, m_fd, onReadable, &watch, nullptr, LBM_FD_EVENT_READ)) << lbm_errmsg();
  EXPECT_EQ(-1, lbm_register_fd(m_context, m_fd, onReadable, &watch, nullptr, LBM_FD_EVENT_READ));
  EXPECT_EQ(-1, lbm_register_fd(m_context, m_fd, onReadable, &watch, nullptr, 64));
  EXPECT_EQ(-1, lbm_register_fd(m_context, -1, onReadable, &watch, nullptr, LBM_FD_EVENT_READ));
  const Queue silent;
  const lbm_event_queue_cancel_cb_info_t info{silent, [](int, void*) {}, nullptr};
  EXPECT_EQ(-1, lbm_cancel_fd_ex(m_context, m_fd, LBM_FD_EVENT_READ, &info)) << "the queue gives no notices";
  PutByte(m_pipe);
  PumpUntil({m_context}, "the first byte", [&] { return watch.calls == 1; });
  watch.cancelInside = true;
  PutByte(m_pipe);
  PumpUntil({m_context}, "the second byte", [&] { return watch.calls == 2; });
  EXPECT_EQ(LBM_EINVAL, ErrorOf(lbm_cancel_fd(m_context, m_fd, LBM_FD_EVENT_READ)));

  const Pipe witness = test_support::MakePipe();
  int calls = 0;
  ASSERT_EQ(0, lbm_register_fd(m_context, witness.reader.Get(), CountCalls, &calls, nullptr, LBM_FD_EVENT_READ));
  PutByte(witness);
  PumpUntil({m_context}, "another descriptor", [&] { return calls > 0; });
  EXPECT_EQ(2, watch.calls) << "the cancelled one is still readable";
}

TEST_F(Descriptors, NothingIsCalledAfterTheNoticeThatDeletesTheContext) {
  lbm_context_t* context = MakeContext();
  int calls = 0;
  struct Deletion {
    lbm_context_t* context;
    int notices = 0;
  } deletion{context};
  const auto onCancelled = [](int, void* clientd) {
    auto& self = *static_cast<Deletion*>(clientd);
    if (++self.notices == 1) {
      EXPECT_EQ(0, lbm_context_delete(self.context));
    }
  };
  const lbm_event_queue_cancel_cb_info_t info{nullptr, onCancelled, &deletion};
  for (const int event : {LBM_FD_EVENT_READ, LBM_FD_EVENT_EXCEPT}) {
    const auto mask = static_cast<lbm_ulong_t>(event);
    ASSERT_EQ(0, lbm_register_fd(context, m_fd, CountCalls, &calls, nullptr, mask)) << lbm_errmsg();
    ASSERT_EQ(0, lbm_cancel_fd_ex(context, m_fd, mask, &info)) << lbm_errmsg();
  }
  while (deletion.notices == 0) {
    ASSERT_EQ(0, lbm_context_process_events(context, 1)) << lbm_errmsg();
  }
  EXPECT_EQ(1, deletion.notices);
}

// A context with nothing to do waits once for each call, and does not return early.
void ExpectIdle(lbm_context_t* context) {
  constexpr std::size_t kCalls = 20;
  EXPECT_EQ(0, lbm_context_process_events(context, 1)) << lbm_errmsg();  // may still find something
  const std::size_t before = g_waits;
  for (std::size_t call = 0; call < kCalls; ++call) {
    EXPECT_EQ(0, lbm_context_process_events(context, 1)) << lbm_errmsg();
  }
  EXPECT_LE(g_waits - before, 2 * kCalls) << "rounding of the time-out may cost a second wait";
}

TEST_F(Descriptors, AHangUpThatNobodyTakesKeepsNoThreadBusy) {
  int calls = 0;
  ASSERT_EQ(0, lbm_register_fd(m_context, m_fd, CountCalls, &calls, m_queue, LBM_FD_EVENT_READ)) << lbm_errmsg();
  m_pipe.writer = {};
  ExpectIdle(m_context);
  for (int round = 1; round <= 2; ++round) {
    EXPECT_EQ(1, m_queue.Poll());
    EXPECT_EQ(0, lbm_context_process_events(m_context, 0));
  }
  EXPECT_EQ(2, calls);
  EXPECT_EQ(0, lbm_cancel_fd(m_context, m_fd, LBM_FD_EVENT_READ)) << lbm_errmsg();

  ASSERT_EQ(0, lbm_register_fd(m_context, m_fd, CountCalls, &calls, nullptr, LBM_FD_EVENT_EXCEPT)) << lbm_errmsg();
  ExpectIdle(m_context);
  EXPECT_EQ(2, calls);
  ASSERT_EQ(0, lbm_register_fd(m_context, m_fd, CountCalls, &calls, nullptr, LBM_FD_EVENT_READ)) << lbm_errmsg();
  PumpUntil({m_context}, "the hang-up", [&] { return calls > 2; });
}

class Processing : public EngineTest {};

constexpr lbm_ulong_t kHour = 3'600'000;  // milliseconds

TEST_F(Processing, WaitsForMessagesInsteadOfPollingForThem) {
  const Driven publisher;
  const Driven subscriber;
  const Sender source(publisher, "T");
  const Recorder recorder(subscriber, "T");
  source.AwaitSubscriber({publisher, subscriber});
  source.Send("so that the ring was used");
  PumpUntil({publisher, subscriber}, "the message", [&] { return recorder.lines.size() == 2; });
  ExpectIdle(subscriber);

  std::thread waiting([&] {
    while (recorder.lines.size() < 3) {
      lbm_context_process_events(subscriber, kHour);
    }
  });
  while (lbm_context_process_events(subscriber, 0) == 0) {  // until the other thread is inside
  }
  source.Send("wake up");
  waiting.join();
  EXPECT_EQ("data 1 wake up", recorder.lines.back());
}

TEST_F(Processing, NeitherDescriptorsNorTimersNorTasksAwaitTheEndOfASpin) {
  const Driven context({{"operational_mode", "sequential"}, {"spin_time", "1000000000"}});
  const std::size_t before = g_waits;
  const auto process = [&] { ASSERT_EQ(0, lbm_context_process_events(context, kHour)) << lbm_errmsg(); };

  const Recorder recorder(context, ReceiverTopic(context, "NOBODY", {{"no_source_notification_delay", "1"}}));
  while (recorder.lines.empty()) {
    process();
  }

  const Pipe pipe = test_support::MakePipe();
  int calls = 0;
  ASSERT_EQ(0, lbm_register_fd(context, pipe.reader.Get(), CountCalls, &calls, nullptr, LBM_FD_EVENT_READ));
  PutByte(pipe);
  process();
  EXPECT_EQ(1, calls);
  ASSERT_EQ(0, lbm_cancel_fd(context, pipe.reader.Get(), LBM_FD_EVENT_READ));

  std::atomic<bool> done{false};
  std::thread spinning([&] {
    while (!done) {  // turned away while the other thread is inside
      lbm_context_process_events(context, kHour);
    }
  });
  while (lbm_context_process_events(context, 0) == 0) {  // until the other thread is inside
  }
  done = true;
  const Recorder another(context, "NOBODY");  // a task
  spinning.join();
  EXPECT_EQ(before, g_waits);
}

TEST_F(Processing, WaitsUntilUnblockedAndIsForOneThread) {
  const Driven context;
  std::atomic<bool> unblocked{false};
  std::thread waiting([&] {
    while (!unblocked) {  // turned away while this thread is inside
      lbm_context_process_events(context, kHour);
    }
  });
  while (lbm_context_process_events(context, 0) == 0) {  // until the other thread is inside
  }
  EXPECT_EQ(LBM_EOP, lbm_errnum());
  unblocked = true;
  EXPECT_EQ(0, lbm_context_unblock(context));
  waiting.join();
  EXPECT_EQ(0, lbm_context_unblock(context));
  EXPECT_EQ(0, lbm_context_process_events(context, kHour)) << "an unblock before the call counts";

  const Driven threaded({});
  EXPECT_EQ(-1, lbm_context_process_events(threaded, 0));
  EXPECT_NE(nullptr, std::strstr(lbm_errmsg(), "operational_mode"));
}

}  // namespace
}  // namespace engine_test
