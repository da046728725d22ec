#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <future>
#include <thread>

#include "domain.h"

namespace engine_test {
namespace {

using Lines = std::vector<std::string>;
using EngineTest = PrivateDomain;

TEST_F(EngineTest, DeliversInOrderBetweenBeginningAndEndOfSession) {
  lbm_context_t* publisher = MakeContext();
  lbm_context_t* subscriber = MakeContext();
  lbm_src_t* source = MakeSource(publisher, "PRICES");
  Recorder recorder(subscriber, "PRICES");
  std::string session;
  recorder.onEvent = [&](lbm_msg_t& message) {
    EXPECT_STREQ("PRICES", message.topic_name);
    session = message.source;
    EXPECT_EQ(nullptr, message.response);
    EXPECT_GT(message.timestamp.tv_sec, 0);
  };
  Settle({publisher, subscriber});
  for (const char* text : {"one", "two", ""}) {
    EXPECT_EQ(0, SendText(source, text)) << lbm_errmsg();
  }
  std::array<char, 256> name{};
  std::size_t length = name.size();
  EXPECT_EQ(0, lbm_src_str_getopt(source, "transport_source", name.data(), &length));
  PumpUntil({publisher, subscriber}, "three messages", [&] { return recorder.lines.size() >= 4; });
  EXPECT_EQ(0, lbm_src_delete(source));
  PumpUntil({publisher, subscriber}, "the end of the session", [&] { return recorder.lines.size() >= 5; });
  EXPECT_EQ((Lines{"BOS 0", "data 0 one", "data 1 two", "data 2", "EOS"}), recorder.lines);
  EXPECT_EQ(name.data(), session);
  recorder.Stop();
  EXPECT_EQ(0, lbm_context_delete(subscriber));
  EXPECT_EQ(0, lbm_context_delete(publisher));
}

TEST_F(EngineTest, AContextHearsItsOwnSourcesAndEveryReceiverGetsEveryMessage) {
  lbm_context_t* context = MakeContext();
  Recorder first(context, "LOOP");
  Recorder second(context, "LOOP");
  Recorder other(context, "LOOP.OTHER");
  lbm_src_t* source = MakeSource(context, "LOOP");
  Settle({context});
  SendText(source, "hello");
  PumpUntil({context}, "both receivers", [&] { return first.lines.size() >= 2 && second.lines.size() >= 2; });
  EXPECT_EQ((Lines{"BOS 0", "data 0 hello"}), first.lines);
  EXPECT_EQ(first.lines, second.lines);
  EXPECT_TRUE(other.lines.empty());
  first.Stop();
  second.Stop();
  other.Stop();
  lbm_src_delete(source);
  lbm_context_delete(context);
}

TEST_F(EngineTest, AReceiverThatComesLateStartsItsSessionAtTheNextMessage) {
  lbm_context_t* context = MakeContext();
  lbm_src_t* source = MakeSource(context, "LATE");
  Recorder early(context, "LATE");
  Settle({context});
  SendText(source, "a");
  PumpUntil({context}, "the first message", [&] { return early.lines.size() >= 2; });
  Recorder late(context, "LATE");
  Settle({context});
  SendText(source, "b");
  PumpUntil({context}, "the second message", [&] { return late.lines.size() >= 2; });
  EXPECT_EQ((Lines{"BOS 1", "data 1 b"}), late.lines);
  lbm_src_delete(source);
  early.Stop();
  late.Stop();
  lbm_context_delete(context);
}

TEST_F(EngineTest, ARetainedMessageOutlivesEverythingItCameFrom) {
  lbm_context_t* context = MakeContext();
  lbm_src_t* source = MakeSource(context, "KEEP");
  auto recorder = std::make_unique<Recorder>(context, "KEEP");
  lbm_msg_t* kept = nullptr;
  recorder->onEvent = [&](lbm_msg_t& message) {
    if (message.type == LBM_MSG_DATA) {
      lbm_msg_retain(kept = &message);
    }
  };
  Settle({context});
  SendText(source, std::string(100'000, 'x'));
  PumpUntil({context}, "the message", [&] { return kept != nullptr; });
  recorder.reset();
  lbm_src_delete(source);
  lbm_context_delete(context);
  ASSERT_NE(nullptr, kept);
  EXPECT_STREQ("KEEP", kept->topic_name);
  EXPECT_EQ(std::string(100'000, 'x'), std::string(kept->data, kept->len));
  EXPECT_EQ(0, lbm_msg_delete(kept));
}

TEST_F(EngineTest, ChildrenMayOutliveTheirContext) {
  lbm_context_t* context = MakeContext();
  lbm_src_t* source = MakeSource(context, "ORPHAN");
  Recorder recorder(context, "ORPHAN");
  Settle({context});
  EXPECT_EQ(0, lbm_context_delete(context));
  EXPECT_EQ(-1, SendText(source, "nobody"));
  EXPECT_EQ(LBM_EOP, lbm_errnum());
  EXPECT_EQ(0, lbm_src_delete(source));
  recorder.Stop();
}

TEST_F(EngineTest, AReceiverDeletedInItsOwnCallbackHearsNothingMore) {
  lbm_context_t* context = MakeContext();
  lbm_src_t* source = MakeSource(context, "SELF");
  Recorder doomed(context, "SELF");
  Recorder witness(context, "SELF");
  doomed.onEvent = [&](lbm_msg_t&) { doomed.Stop(); };
  Settle({context});
  SendText(source, "a");
  SendText(source, "b");
  PumpUntil({context}, "the other receiver", [&] { return witness.lines.size() >= 3; });
  EXPECT_EQ((Lines{"BOS 0"}), doomed.lines);
  lbm_src_delete(source);
  witness.Stop();
  lbm_context_delete(context);
}

// A source that says when its first subscriber is there.
class ConnectedSource {
 public:
  ConnectedSource(lbm_context_t* context, const char* topic) : m_source(MakeSource(context, topic, &GetEvent, this)) {}
  ~ConnectedSource() { EXPECT_EQ(0, lbm_src_delete(m_source)); }

  lbm_src_t* Get() const { return m_source; }
  void WaitForSubscriber() {
    ASSERT_EQ(std::future_status::ready, m_connected.get_future().wait_for(std::chrono::seconds(30)));
  }

 private:
  static int GetEvent(lbm_src_t*, int event, void* data, void* clientd) {
    if (event == LBM_SRC_EVENT_CONNECT) {
      EXPECT_NE(nullptr, data);
      static_cast<ConnectedSource*>(clientd)->m_connected.set_value();
    }
    return 0;
  }

  std::promise<void> m_connected;
  lbm_src_t* m_source;
};

TEST_F(EngineTest, ASourceIsReadyForUseInItsFirstCallback) {
  lbm_context_t* context = MakeContext({});
  Recorder recorder(context, "READY");
  const auto onEvent = [](lbm_src_t* source, int event, void*, void* clientd) {
    if (event == LBM_SRC_EVENT_CONNECT) {
      EXPECT_EQ(0, SendText(source, "welcome"));
      EXPECT_EQ(0, lbm_src_delete(source));
      static_cast<std::promise<void>*>(clientd)->set_value();
    }
    return 0;
  };
  for (int round = 0; round < 50; ++round) {
    std::promise<void> connected;
    MakeSource(context, "READY", onEvent, &connected);
    ASSERT_EQ(std::future_status::ready, connected.get_future().wait_for(std::chrono::seconds(30)));
  }
  recorder.Stop();
  lbm_context_delete(context);
}

TEST_F(EngineTest, DeletingAReceiverWaitsForItsRunningCallback) {
  lbm_context_t* context = MakeContext({});  // runs a thread of its own
  std::promise<void> inside;
  std::promise<void> goOn;
  Recorder recorder(context, "WAIT");
  recorder.onEvent = [&](lbm_msg_t& message) {
    if (message.type == LBM_MSG_DATA) {
      inside.set_value();
      goOn.get_future().wait();
    }
  };
  {
    ConnectedSource source(context, "WAIT");
    source.WaitForSubscriber();
    SendText(source.Get(), "stay");
    inside.get_future().wait();
    std::future<void> deleted = std::async(std::launch::async, [&] { recorder.Stop(); });
    EXPECT_EQ(std::future_status::timeout, deleted.wait_for(std::chrono::milliseconds(50)));
    goOn.set_value();
    EXPECT_EQ(std::future_status::ready, deleted.wait_for(std::chrono::seconds(30)));
  }
  lbm_context_delete(context);
}

TEST_F(EngineTest, AContextMayBeDeletedInItsOwnCallback) {
  for (const bool sequential : {true, false}) {
    lbm_context_t* context = MakeContext({{"operational_mode", sequential ? "sequential" : "embedded"}});
    lbm_src_t* source = MakeSource(context, "END");
    Recorder recorder(context, "END");
    Recorder after(context, "END");
    std::promise<void> deleted;
    recorder.onEvent = [&](lbm_msg_t& message) {
      if (message.type == LBM_MSG_BOS) {
        EXPECT_EQ(0, lbm_context_delete(std::exchange(context, nullptr)));
        deleted.set_value();
      }
    };
    std::future<void> done = deleted.get_future();
    while (done.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
      static_cast<void>(SendText(source, "x"));
      if (sequential) {
        EXPECT_EQ(0, lbm_context_process_events(context, 1));
      }
    }
    lbm_src_delete(source);
    recorder.Stop();
    after.Stop();
    EXPECT_EQ((Lines{}), after.lines);
    EXPECT_EQ(1U, recorder.lines.size());
  }
}

TEST_F(EngineTest, AnEventQueueMovesCallbacksToTheDispatchingThread) {
  lbm_context_t* context = MakeContext({});
  lbm_event_queue_t* queue = nullptr;
  ASSERT_EQ(0, lbm_event_queue_create(&queue, nullptr, nullptr, nullptr));
  Recorder queued(context, "QUEUE", queue);
  std::vector<std::thread::id> threads;
  queued.onEvent = [&](lbm_msg_t& message) {
    threads.push_back(std::this_thread::get_id());
    if (message.sequence_number == 2) {
      lbm_event_dispatch_unblock(queue);
    }
  };
  {
    ConnectedSource source(context, "QUEUE");
    source.WaitForSubscriber();
    for (const char* text : {"a", "b", "c"}) {
      SendText(source.Get(), text);
    }
    EXPECT_EQ(4, lbm_event_dispatch(queue, LBM_EVENT_QUEUE_BLOCK));
  }
  queued.Stop();
  lbm_event_dispatch(queue, LBM_EVENT_QUEUE_POLL);
  EXPECT_EQ((Lines{"BOS 0", "data 0 a", "data 1 b", "data 2 c"}), queued.lines)
      << "events after the deletion are dropped";
  EXPECT_EQ(std::vector(4, std::this_thread::get_id()), threads);
  lbm_event_dispatch_unblock(queue);
  EXPECT_EQ(0, lbm_event_dispatch(queue, LBM_EVENT_QUEUE_BLOCK)) << "an unblock before the dispatch counts";
  lbm_event_queue_shutdown(queue);
  lbm_event_queue_delete(queue);
  lbm_context_delete(context);
}

TEST_F(EngineTest, DeletingAContextSilencesItsReceiversOnEventQueues) {
  lbm_context_t* context = MakeContext();
  lbm_event_queue_t* queue = nullptr;
  ASSERT_EQ(0, lbm_event_queue_create(&queue, nullptr, nullptr, nullptr));
  lbm_src_t* source = MakeSource(context, "SILENCE");
  Recorder recorder(context, "SILENCE", queue);
  std::promise<void> inside;
  std::promise<void> goOn;
  recorder.onEvent = [&](lbm_msg_t&) {
    inside.set_value();
    goOn.get_future().wait();
  };
  Settle({context});
  EXPECT_EQ(0, SendText(source, "a"));
  Settle({context});
  std::future<int> dispatched =
      std::async(std::launch::async, [&] { return lbm_event_dispatch(queue, LBM_EVENT_QUEUE_POLL); });
  inside.get_future().wait();
  std::future<int> deleted = std::async(std::launch::async, [&] { return lbm_context_delete(context); });
  EXPECT_EQ(std::future_status::timeout, deleted.wait_for(std::chrono::milliseconds(50)))
      << "has to wait for the running callback";
  goOn.set_value();
  EXPECT_EQ(0, deleted.get());
  dispatched.get();
  EXPECT_EQ((Lines{"BOS 0"}), recorder.lines) << "the message behind it is dropped";
  recorder.Stop();
  lbm_src_delete(source);
  lbm_event_queue_delete(queue);
}

TEST_F(EngineTest, PollingAnEventQueueIsDoneWithWhatIsThere) {
  lbm_context_t* context = MakeContext();
  lbm_event_queue_t* queue = nullptr;
  ASSERT_EQ(0, lbm_event_queue_create(&queue, nullptr, nullptr, nullptr));
  lbm_src_t* source = MakeSource(context, "ENDLESS");
  Recorder recorder(context, "ENDLESS", queue);
  recorder.onEvent = [&](lbm_msg_t&) {
    if (recorder.lines.size() < 100) {
      SendText(source, "another");
      Settle({context});
    }
  };
  Settle({context});
  SendText(source, "first");
  Settle({context});
  EXPECT_EQ(2, lbm_event_dispatch(queue, LBM_EVENT_QUEUE_POLL)) << "beginning of session and the message";
  EXPECT_EQ(2, lbm_event_dispatch(queue, LBM_EVENT_QUEUE_POLL)) << "one of each callback";
  recorder.Stop();
  lbm_src_delete(source);
  lbm_event_queue_delete(queue);
  lbm_context_delete(context);
}

TEST_F(EngineTest, RequestsAreAnsweredUntilTheyAreDeleted) {
  lbm_context_t* asker = MakeContext();
  lbm_context_t* server = MakeContext();
  lbm_src_t* source = MakeSource(asker, "ASK");
  Recorder first(server, "ASK");
  Recorder second(server, "ASK");
  lbm_response_t* takenOver = nullptr;
  first.onEvent = [](lbm_msg_t& message) {
    if (message.type == LBM_MSG_REQUEST) {
      EXPECT_EQ(0, lbm_send_response(message.response, "one", 3, LBM_SRC_NONBLOCK)) << lbm_errmsg();
      EXPECT_EQ(0, lbm_send_response(message.response, "two", 3, 0)) << lbm_errmsg();
    }
  };
  second.onEvent = [&](lbm_msg_t& message) {
    if (message.type == LBM_MSG_REQUEST) {
      takenOver = std::exchange(message.response, nullptr);
    }
  };
  Settle({asker, server});
  Lines answers;
  lbm_request_t* request = nullptr;
  const auto onAnswer = [](lbm_request_t*, lbm_msg_t* message, void* clientd) {
    static_cast<Lines*>(clientd)->push_back(Recorder::Describe(*message));
    return 0;
  };
  ASSERT_EQ(0, lbm_send_request(&request, source, "?", 1, onAnswer, &answers, nullptr, 0)) << lbm_errmsg();
  PumpUntil({asker, server}, "two answers", [&] { return answers.size() >= 2 && takenOver != nullptr; });
  EXPECT_EQ(0, lbm_send_response(takenOver, "three", 5, 0));
  PumpUntil({asker, server}, "the third answer", [&] { return answers.size() >= 3; });
  EXPECT_EQ((Lines{"response one", "response two", "response three"}), answers);
  EXPECT_EQ("request 0 ?", second.lines.back());
  EXPECT_EQ(0, lbm_request_delete(request));
  EXPECT_EQ(0, lbm_send_response(takenOver, "late", 4, 0));
  Settle({asker, server});
  EXPECT_EQ(3U, answers.size());
  lbm_src_delete(source);
  lbm_context_delete(asker);
  PumpUntil({server}, "the asker's end", [&] { return second.lines.back() == "EOS"; });
  EXPECT_EQ(-1, lbm_send_response(takenOver, "gone", 4, 0));
  EXPECT_EQ(LBM_EOP, lbm_errnum());
  EXPECT_EQ(0, lbm_response_delete(takenOver));
  first.Stop();
  second.Stop();
  lbm_context_delete(server);
}

TEST_F(EngineTest, TellsWhenNoSourceIsFound) {
  lbm_context_t* context = MakeContext();
  Recorder impatient(context, ReceiverTopic(context, "NOBODY", {{"no_source_notification_delay", "1"}}));
  Recorder never(context, ReceiverTopic(context, "NOBODY", {{"no_source_notification_delay", "0"}}));
  PumpUntil({context}, "the notification", [&] { return !impatient.lines.empty(); });
  EXPECT_EQ((Lines{"no source"}), impatient.lines);
  EXPECT_TRUE(never.lines.empty());
  impatient.Stop();
  never.Stop();
  lbm_context_delete(context);
}

TEST_F(EngineTest, NotifiesOnceOfEachSourceThatComesAndGoes) {
  Lines resolver;
  const lbm_src_notify_func_t onResolved{
      [](const char* topic, const char* session, void* clientd) {
        static_cast<Lines*>(clientd)->push_back(std::string(topic) + (*session != '\0' ? " named" : ""));
        return 0;
      },
      &resolver};
  lbm_context_attr_t* attr = nullptr;
  lbm_context_t* subscriber = nullptr;
  lbm_context_attr_create(&attr);
  lbm_context_attr_str_setopt(attr, "operational_mode", "sequential");
  ASSERT_EQ(0, lbm_context_attr_setopt(attr, "resolver_source_notification_function", &onResolved, sizeof(onResolved)));
  ASSERT_EQ(0, lbm_context_create(&subscriber, attr, nullptr, nullptr));
  lbm_context_attr_delete(attr);

  Lines notified;
  const lbm_rcv_src_notification_func_t onSource{[](const char*, void* clientd) -> void* {
                                                   static_cast<Lines*>(clientd)->push_back("create");
                                                   return clientd;
                                                 },
                                                 [](const char*, void* clientd, void* sourceClientd) {
                                                   EXPECT_EQ(clientd, sourceClientd);
                                                   static_cast<Lines*>(clientd)->push_back("delete");
                                                   return 0;
                                                 },
                                                 &notified};
  lbm_rcv_topic_attr_t* topicAttr = nullptr;
  lbm_topic_t* topic = nullptr;
  lbm_rcv_topic_attr_create(&topicAttr);
  ASSERT_EQ(0, lbm_rcv_topic_attr_setopt(topicAttr, "source_notification_function", &onSource, sizeof(onSource)));
  ASSERT_EQ(0, lbm_rcv_topic_lookup(&topic, subscriber, "STATUS", topicAttr));
  lbm_rcv_topic_attr_delete(topicAttr);
  Recorder first(subscriber, topic);
  Recorder second(subscriber, topic);
  Recorder plain(subscriber, "STATUS");
  std::vector<void*> clientData;
  second.onEvent = plain.onEvent = [&](lbm_msg_t& message) {
    if (message.type == LBM_MSG_DATA) {
      clientData.push_back(message.source_clientd);
    }
  };
  lbm_context_t* publisher = MakeContext();
  lbm_src_t* status = MakeSource(publisher, "STATUS");
  lbm_src_t* other = MakeSource(publisher, "OTHER");
  PumpUntil({subscriber, publisher}, "both sources", [&] { return resolver.size() >= 2; });
  Settle({subscriber, publisher});
  SendText(status, "up");
  PumpUntil({subscriber, publisher}, "the message", [&] { return clientData.size() >= 2; });
  EXPECT_EQ((std::vector<void*>{&notified, nullptr}), clientData);
  lbm_src_delete(status);
  PumpUntil({subscriber, publisher}, "the end", [&] { return notified.size() >= 2; });
  status = MakeSource(publisher, "STATUS");
  PumpUntil({subscriber, publisher}, "the return", [&] { return notified.size() >= 3; });
  EXPECT_EQ((Lines{"STATUS named", "OTHER named", "STATUS named"}), resolver);
  first.Stop();
  second.Stop();
  plain.Stop();
  lbm_context_delete(subscriber);
  EXPECT_EQ((Lines{"create", "delete", "create", "delete"}), notified) << "the last when the context was deleted";
  lbm_src_delete(status);
  lbm_src_delete(other);
  lbm_context_delete(publisher);
}

// A pipe whose ends are closed at the end.
struct Pipe {
  std::array<int, 2> ends{};
  Pipe() { EXPECT_EQ(0, ::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK)); }
  ~Pipe() {
    ::close(ends[0]);
    HangUp();
  }
  void HangUp() {
    if (ends[1] >= 0) {
      ::close(std::exchange(ends[1], -1));
    }
  }
  void Put() const { EXPECT_EQ(1, ::write(ends[1], "x", 1)); }
  void Take() const {
    char byte = 0;
    EXPECT_EQ(1, ::read(ends[0], &byte, 1));
  }
};

TEST_F(EngineTest, WatchesDescriptorsUntilTheyAreCancelled) {
  lbm_context_t* context = MakeContext();
  struct Watch {
    Pipe pipe;
    int calls = 0;
    bool cancelInside = false;
  } watch;
  const auto onReadable = [](lbm_context_t* ctx, int fd, lbm_ulong_t event, void* clientd) {
    auto& self = *static_cast<Watch*>(clientd);
    EXPECT_EQ(static_cast<lbm_ulong_t>(LBM_FD_EVENT_READ), event);
    EXPECT_EQ(self.pipe.ends[0], fd);
    ++self.calls;
    if (self.cancelInside) {
      EXPECT_EQ(0, lbm_cancel_fd(ctx, fd, LBM_FD_EVENT_READ)) << lbm_errmsg();
    } else {
      self.pipe.Take();
    }
    return 0;
  };
  const int fd = watch.pipe.ends[0];
  ASSERT_EQ(0, lbm_register_fd(context, fd, onReadable, &watch, nullptr, LBM_FD_EVENT_READ)) << lbm_errmsg();
  EXPECT_EQ(-1, lbm_register_fd(context, fd, onReadable, &watch, nullptr, LBM_FD_EVENT_READ));
  EXPECT_EQ(-1, lbm_register_fd(context, fd, onReadable, &watch, nullptr, 64));
  EXPECT_EQ(-1, lbm_register_fd(context, -1, onReadable, &watch, nullptr, LBM_FD_EVENT_READ));
  watch.pipe.Put();
  PumpUntil({context}, "the first byte", [&] { return watch.calls == 1; });
  watch.cancelInside = true;
  watch.pipe.Put();
  PumpUntil({context}, "the second byte", [&] { return watch.calls == 2; });
  Settle({context});
  EXPECT_EQ(2, watch.calls);
  EXPECT_EQ(-1, lbm_cancel_fd(context, fd, LBM_FD_EVENT_READ));
  EXPECT_EQ(LBM_EINVAL, lbm_errnum());
  lbm_context_delete(context);
}

TEST_F(EngineTest, ACancellationNoticeComesAfterTheLastCallback) {
  lbm_context_t* context = MakeContext();
  lbm_event_queue_attr_t* attr = nullptr;
  lbm_event_queue_t* queue = nullptr;
  lbm_event_queue_t* silent = nullptr;
  lbm_event_queue_attr_create(&attr);
  const int enabled = 1;
  ASSERT_EQ(0, lbm_event_queue_attr_setopt(attr, "queue_cancellation_callbacks_enabled", &enabled, sizeof(enabled)));
  ASSERT_EQ(0, lbm_event_queue_create(&queue, nullptr, nullptr, attr));
  ASSERT_EQ(0, lbm_event_queue_create(&silent, nullptr, nullptr, nullptr));
  lbm_event_queue_attr_delete(attr);
  Pipe pipe;
  Lines lines;
  const auto onReadable = [](lbm_context_t*, int, lbm_ulong_t, void* clientd) {
    static_cast<Lines*>(clientd)->push_back("readable");
    return 0;
  };
  const auto onCancelled = [](int, void* clientd) { static_cast<Lines*>(clientd)->push_back("cancelled"); };
  ASSERT_EQ(0, lbm_register_fd(context, pipe.ends[0], onReadable, &lines, queue, LBM_FD_EVENT_READ));
  pipe.Put();
  for (int round = 1; round <= 2; ++round) {
    PumpUntil({context}, "the readable descriptor", [&] { return lbm_event_dispatch(queue, 0) > 0; });
  }
  EXPECT_EQ((Lines{"readable", "readable"}), lines) << "once for each look while it stays readable";
  const lbm_event_queue_cancel_cb_info_t wrong{silent, onCancelled, &lines};
  EXPECT_EQ(-1, lbm_cancel_fd_ex(context, pipe.ends[0], LBM_FD_EVENT_READ, &wrong)) << "gives no such notices";
  const lbm_event_queue_cancel_cb_info_t info{queue, onCancelled, &lines};
  EXPECT_EQ(0, lbm_cancel_fd_ex(context, pipe.ends[0], LBM_FD_EVENT_READ, &info)) << lbm_errmsg();
  PumpUntil({context}, "the notice", [&] {
    lbm_event_dispatch(queue, 0);
    return lines.back() == "cancelled";
  });
  EXPECT_EQ((Lines{"readable", "readable", "cancelled"}), lines);
  lbm_event_queue_delete(queue);
  lbm_event_queue_delete(silent);
  lbm_context_delete(context);
}

// What the thread has used of a processor.
std::chrono::nanoseconds ThreadTime() {
  timespec used{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

TEST_F(EngineTest, AHangUpThatNobodyTakesKeepsNoThreadBusy) {
  lbm_context_t* context = MakeContext();
  lbm_event_queue_t* queue = nullptr;
  ASSERT_EQ(0, lbm_event_queue_create(&queue, nullptr, nullptr, nullptr));
  const auto count = [](lbm_context_t*, int, lbm_ulong_t, void* clientd) {
    ++*static_cast<int*>(clientd);
    return 0;
  };
  const auto expectIdle = [&] {
    Settle({context});
    const auto before = ThreadTime();
    EXPECT_EQ(0, lbm_context_process_events(context, 300)) << lbm_errmsg();
    EXPECT_LT(ThreadTime() - before, std::chrono::milliseconds(40));
  };
  Pipe pipe;
  int calls = 0;
  const int fd = pipe.ends[0];
  ASSERT_EQ(0, lbm_register_fd(context, fd, count, &calls, queue, LBM_FD_EVENT_READ)) << lbm_errmsg();
  pipe.HangUp();
  expectIdle();
  for (int round = 1; round <= 2; ++round) {
    EXPECT_EQ(1, lbm_event_dispatch(queue, LBM_EVENT_QUEUE_POLL));
    Settle({context});
  }
  EXPECT_EQ(2, calls);
  EXPECT_EQ(0, lbm_cancel_fd(context, fd, LBM_FD_EVENT_READ)) << lbm_errmsg();

  ASSERT_EQ(0, lbm_register_fd(context, fd, count, &calls, nullptr, LBM_FD_EVENT_EXCEPT)) << lbm_errmsg();
  expectIdle();
  EXPECT_EQ(2, calls);
  ASSERT_EQ(0, lbm_register_fd(context, fd, count, &calls, nullptr, LBM_FD_EVENT_READ)) << lbm_errmsg();
  PumpUntil({context}, "the hang-up", [&] { return calls > 2; });
  lbm_event_queue_delete(queue);
  lbm_context_delete(context);
}

TEST_F(EngineTest, NothingIsCalledAfterTheNoticeThatDeletesTheContext) {
  lbm_context_t* context = MakeContext();
  Pipe pipe;
  int calls = 0;
  const auto count = [](lbm_context_t*, int, lbm_ulong_t, void*) { return 0; };
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
    ASSERT_EQ(0, lbm_register_fd(context, pipe.ends[0], count, &calls, nullptr, mask)) << lbm_errmsg();
    ASSERT_EQ(0, lbm_cancel_fd_ex(context, pipe.ends[0], mask, &info)) << lbm_errmsg();
  }
  while (deletion.notices == 0) {
    ASSERT_EQ(0, lbm_context_process_events(context, 1)) << lbm_errmsg();
  }
  EXPECT_EQ(1, deletion.notices);
}

TEST_F(EngineTest, ProcessingWaitsUntilUnblockedAndIsForOneThread) {
  lbm_context_t* context = MakeContext();
  Settle({context});
  std::future<void> waiting = std::async(std::launch::async, [&] {
    while (lbm_context_process_events(context, 3'600'000) != 0) {  // turned away: this thread is inside
    }
  });
  while (lbm_context_process_events(context, 0) == 0) {  // until the other thread is inside
  }
  EXPECT_EQ(LBM_EOP, lbm_errnum());
  EXPECT_EQ(0, lbm_context_unblock(context));
  waiting.get();
  EXPECT_EQ(0, lbm_context_unblock(context));
  EXPECT_EQ(0, lbm_context_process_events(context, 3'600'000)) << "an unblock before the call counts";
  lbm_context_delete(context);

  lbm_context_t* threaded = MakeContext({});
  EXPECT_EQ(-1, lbm_context_process_events(threaded, 0));
  EXPECT_NE(nullptr, std::strstr(lbm_errmsg(), "operational_mode"));
  lbm_context_delete(threaded);
}

TEST_F(EngineTest, WaitingForAMessageTakesNoProcessor) {
  lbm_context_t* publisher = MakeContext();
  lbm_context_t* subscriber = MakeContext();
  lbm_src_t* source = MakeSource(publisher, "T");
  Recorder recorder(subscriber, "T");
  Settle({publisher, subscriber});
  SendText(source, "so that there is a ring");
  Settle({publisher, subscriber});
  std::future<std::chrono::nanoseconds> waiting = std::async(std::launch::async, [&] {
    std::chrono::nanoseconds used{};
    while (recorder.lines.size() < 3) {
      const auto before = ThreadTime();
      if (lbm_context_process_events(subscriber, 3'600'000) == 0) {  // not turned away: the other thread was outside
        used += ThreadTime() - before;
      }
    }
    return used;
  });
  while (lbm_context_process_events(subscriber, 0) == 0) {  // until the other thread is inside
  }
  EXPECT_EQ(0, lbm_context_process_events(publisher, 300)) << "lets time pass";
  SendText(source, "wake up");
  EXPECT_LT(waiting.get(), std::chrono::milliseconds(40));
  EXPECT_EQ("data 1 wake up", recorder.lines.back());
  recorder.Stop();
  lbm_src_delete(source);
  lbm_context_delete(subscriber);
  lbm_context_delete(publisher);
}

TEST_F(EngineTest, RefusesWhatCannotWorkAndSaysWhy) {
  lbm_context_t* context = MakeContext();
  lbm_context_t* other = MakeContext();
  lbm_topic_t* topic = ReceiverTopic(context, "T");
  const auto proc = [](lbm_rcv_t*, lbm_msg_t*, void*) { return 0; };
  lbm_rcv_t* receiver = nullptr;
  lbm_src_t* source = nullptr;
  EXPECT_EQ(-1, lbm_rcv_create(&receiver, other, topic, proc, nullptr, nullptr));
  EXPECT_STREQ("lbm_rcv_create: the topic T belongs to another context", lbm_errmsg());
  EXPECT_EQ(-1, lbm_src_create(&source, context, topic, nullptr, nullptr, nullptr));
  EXPECT_STREQ("lbm_src_create: the topic T was made for a receiver and not for a source", lbm_errmsg());
  EXPECT_EQ(-1, lbm_rcv_create(&receiver, context, topic, nullptr, nullptr, nullptr));
  EXPECT_EQ(-1, lbm_rcv_topic_lookup(&topic, context, "", nullptr));
  EXPECT_EQ(-1, lbm_rcv_topic_lookup(&topic, context, std::string(256, 'x').c_str(), nullptr));
  EXPECT_EQ(-1, lbm_context_create(nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(-1, lbm_src_send(nullptr, "x", 1, 0));
  EXPECT_EQ(LBM_EINVAL, lbm_errnum());
  Recorder recorder(context, "PIECES");
  lbm_src_t* pieces = MakeSource(context, "PIECES");
  Settle({context});
  const std::array<iovec, 2> torn{{{nullptr, 0}, {nullptr, 5}}};
  EXPECT_EQ(-1, lbm_src_sendv(pieces, torn.data(), 2, 0));
  EXPECT_EQ(LBM_EINVAL, lbm_errnum());
  EXPECT_EQ(0, lbm_src_sendv(pieces, torn.data(), 1, 0));
  PumpUntil({context}, "the message after the refused one", [&] { return recorder.lines.size() == 2; });
  lbm_src_delete(pieces);
  recorder.Stop();
  EXPECT_EQ(ReceiverTopic(context, "SAME"), ReceiverTopic(context, "SAME"));
  EXPECT_NE(ReceiverTopic(context, "SAME"), ReceiverTopic(context, "SAME", {{"loss_burst_threshold", "3"}}));
  lbm_context_delete(other);
  lbm_context_delete(context);
}

TEST_F(EngineTest, ALiveContextTellsItsOptions) {
  const std::string longName(1023, 'n');
  lbm_context_t* context = MakeContext({{"operational_mode", "sequential"}, {"context_name", longName.c_str()}});
  std::array<char, 1024> name{};
  std::size_t length = name.size() - 1;
  EXPECT_EQ(0, lbm_context_str_getopt(context, "context_name", name.data(), &length)) << lbm_errmsg();
  EXPECT_EQ(longName, name.data());
  EXPECT_EQ(-1, lbm_context_str_setopt(context, "context_name", "other"));
  std::size_t count = 0;
  EXPECT_EQ(-1, lbm_context_str_getopt_all(context, nullptr, &count));
  std::vector<lbm_option_text_t> options(count);
  ASSERT_EQ(0, lbm_context_str_getopt_all(context, options.data(), &count));
  EXPECT_EQ(options.size(), count);
  EXPECT_TRUE(std::any_of(options.begin(), options.end(), [](const lbm_option_text_t& option) {
    return std::string("resolver_multicast_interface") == option.name && std::string("0.0.0.0") == option.value;
  }));
  EXPECT_EQ(0, lbm_context_str_getopt(context, "domain_directory", name.data(), &(length = 1024))) << lbm_errmsg();
  EXPECT_TRUE(std::filesystem::is_directory(name.data())) << name.data();
  lbm_context_delete(context);
}

TEST_F(EngineTest, EndpointsComeAndGoOnManyThreadsWhileMessagesFlow) {
  lbm_context_t* context = MakeContext({});
  std::atomic<bool> stop{false};
  lbm_src_t* steady = MakeSource(context, "BUSY");
  std::thread sender([&] {
    while (!stop) {
      EXPECT_EQ(0, SendText(steady, "tick"));
    }
  });
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 3; ++thread) {
    threads.emplace_back([&] {
      for (int round = 0; round < 50; ++round) {
        Recorder recorder(context, "BUSY");
        lbm_src_t* source = MakeSource(context, "BUSY");
        EXPECT_EQ(0, SendText(source, "hello"));
        EXPECT_EQ(0, lbm_src_delete(source));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  stop = true;
  sender.join();
  lbm_src_delete(steady);
  lbm_context_delete(context);
}

}  // namespace
}  // namespace engine_test
