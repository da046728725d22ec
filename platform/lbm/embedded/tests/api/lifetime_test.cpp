#include <atomic>
#include <future>
#include <thread>

#include "domain.h"
#include "transport_choice.h"

namespace engine_test {
namespace {

using testing::ElementsAre;

class Lifetime : public EngineTest {};

TEST_F(Lifetime, ChildrenMayOutliveTheirContext) {
  Driven context;
  const Sender source(context, "ORPHAN");
  const Recorder recorder(context, "ORPHAN");
  source.AwaitSubscriber({context});
  context.Delete();
  EXPECT_EQ(LBM_EOP, ErrorOf(source.Send("nobody")));
}

TEST_F(Lifetime, AReceiverDeletedInItsOwnCallbackHearsNothingMore) {
  const Driven context;
  const Sender source(context, "SELF");
  Recorder doomed(context, "SELF");
  const Recorder witness(context, "SELF");
  doomed.onEvent = [&](lbm_msg_t&) { doomed.Stop(); };
  source.AwaitSubscriber({context});
  source.Send("a");
  source.Send("b");
  PumpUntil({context}, "the other receiver", [&] { return witness.lines.size() >= 3; });
  EXPECT_THAT(doomed.lines, ElementsAre("BOS 0"));
}

TEST_F(Lifetime, ASourceIsReadyForUseInItsFirstCallback) {
  const Driven context({});
  const Recorder recorder(context, "READY");
  const auto onEvent = [](lbm_src_t* source, int event, void*, void* clientd) {
    if (event == LBM_SRC_EVENT_CONNECT) {
      EXPECT_EQ(0, lbm_src_send(source, "welcome", 7, LBM_SRC_FLUSH));
      EXPECT_EQ(0, lbm_src_delete(source));
      static_cast<std::promise<void>*>(clientd)->set_value();
    }
    return 0;
  };
  for (int round = 0; round < 50; ++round) {
    std::promise<void> connected;
    lbm_topic_t* topic = nullptr;
    lbm_src_t* source = nullptr;
    ASSERT_EQ(0, lbm_src_topic_alloc(&topic, context, "READY", nullptr));
    ASSERT_EQ(0, lbm_src_create(&source, context, topic, onEvent, &connected, nullptr)) << lbm_errmsg();
    ASSERT_EQ(std::future_status::ready, connected.get_future().wait_for(std::chrono::seconds(30)));
  }
}

// A callback that stays, the first time, until it is let go.
class Stay {
 public:
  void operator()() {
    if (m_left) {
      return;
    }
    m_inside.set_value();
    m_goOn.get_future().wait();
    m_left = true;
  }

  // Runs the deletion while the callback is inside, and expects that the deletion waits for it.
  void ExpectWaitOf(const std::function<void()>& deletion) {
    m_inside.get_future().wait();
    std::promise<void> begun;
    std::thread deleting([&] {
      begun.set_value();
      deletion();
      EXPECT_TRUE(m_left);
    });
    begun.get_future().wait();
    m_goOn.set_value();
    deleting.join();
  }

 private:
  std::promise<void> m_inside;
  std::promise<void> m_goOn;
  std::atomic<bool> m_left{false};
};

// Often, because a deletion that does not wait may still be the slower one.
constexpr int kDeletions = 50;

TEST_F(Lifetime, DeletingAReceiverWaitsForItsRunningCallback) {
  const Driven context({});
  for (int i = 0; i < kDeletions; ++i) {
    Stay stay;
    Recorder recorder(context, "WAIT");
    recorder.onEvent = [&](lbm_msg_t&) { stay(); };
    const Sender source(context, "WAIT");
    source.AwaitSubscriber({});
    source.Send("stay");
    stay.ExpectWaitOf([&] { recorder.Stop(); });
  }
}

// A receiver on an event queue, in which its beginning of session and a message are waiting.
struct QueuedReceiver {
  QueuedReceiver() {
    const Sender source(context, "QUEUED");
    source.AwaitSubscriber({context});
    source.Send("a");
    PumpUntil({context}, "the message", [&] { return witness.lines.size() == 2; });
  }

  Driven context;
  const Queue queue;
  Recorder recorder{context, "QUEUED", queue};
  const Recorder witness{context, "QUEUED"};  // hears once the other one's events are queued
};

TEST_F(Lifetime, DeletingAContextSilencesItsReceiversOnEventQueues) {
  QueuedReceiver receiver;
  receiver.context.Delete();
  receiver.queue.Poll();
  EXPECT_TRUE(receiver.recorder.lines.empty());
}

TEST_F(Lifetime, DeletingAContextWaitsForItsReceiversCallbacksOnEventQueues) {
  for (int i = 0; i < kDeletions; ++i) {
    Stay stay;
    QueuedReceiver receiver;
    receiver.recorder.onEvent = [&](lbm_msg_t&) { stay(); };
    const std::jthread dispatching([&] { receiver.queue.Poll(); });
    stay.ExpectWaitOf([&] { receiver.context.Delete(); });
  }
}

TEST_F(Lifetime, DeletingAContextWaitsForACallbackThatHasDeletedItsReceiver) {
  for (int i = 0; i < kDeletions; ++i) {
    Stay stay;
    QueuedReceiver receiver;
    receiver.recorder.onEvent = [&](lbm_msg_t&) {
      receiver.recorder.Stop();
      stay();
    };
    const std::jthread dispatching([&] { receiver.queue.Poll(); });
    stay.ExpectWaitOf([&] {
      EXPECT_EQ(0, lbm_context_process_events(receiver.context, 0));  // takes the receiver out
      receiver.context.Delete();
    });
  }
}

// A callback that sends, waiting for space, to a peer that takes nothing in.
class BlockedCallback : public EngineTest {
 protected:
  // Called with LBM_SRC_NONBLOCK until it fails, then with 0.
  using SendCall = std::function<int(lbm_msg_t& request, int flags)>;

  // Lets the recorder's callback block, calls whileBlocked, and returns what the blocked send gave. contexts: those
  // that the test has to drive for the recorder.
  int Block(Recorder& recorder, std::initializer_list<lbm_context_t*> contexts, const SendCall& send,
            const std::function<void()>& whileBlocked) {
    std::promise<void> blocking;
    std::promise<int> result;
    recorder.onEvent = [&](lbm_msg_t& message) {
      if (message.type == LBM_MSG_REQUEST) {
        while (send(message, LBM_SRC_NONBLOCK) == 0) {
        }
        blocking.set_value();
        result.set_value(send(message, 0));
      }
    };
    std::thread dispatching([&] { lbm_event_dispatch(m_queue, LBM_EVENT_QUEUE_BLOCK); });
    PumpUntil({m_stopped, m_context}, "the question's subscriber", [&] { return m_question.Subscribers() == 1; });
    lbm_request_t* request = nullptr;
    const auto ignore = [](lbm_request_t*, lbm_msg_t*, void*) { return 0; };
    EXPECT_EQ(0, lbm_send_request(&request, m_question, "?", 1, ignore, nullptr, nullptr, 0)) << lbm_errmsg();
    const std::future<void> inside = blocking.get_future();
    PumpUntil(contexts, "the callback",
              [&] { return inside.wait_for(std::chrono::seconds(0)) == std::future_status::ready; });
    whileBlocked();
    const int given = result.get_future().get();
    lbm_event_dispatch_unblock(m_queue);
    dispatching.join();
    EXPECT_EQ(0, lbm_request_delete(request));
    return given;
  }

  SendCall Responding() {
    return [this](lbm_msg_t& request, int flags) {
      return lbm_send_response(request.response, m_payload.data(), m_payload.size(), flags);
    };
  }

  const std::string m_payload = std::string(60'000, 'x');
  const Queue m_queue;
  const Driven m_stopped;  // whose events nobody processes once the request is sent
  Driven m_context;
  const Sender m_question{m_stopped, "QUESTION"};
};

class BlockedResponse : public BlockedCallback {
 protected:
  void SetUp() override {
    if (OverNetwork()) {
      GTEST_SKIP() << "the server takes what the requester does not";
    }
  }
};

TEST_F(BlockedResponse, EndsWhenItsReceiverIsDeleted) {
  Recorder recorder(m_context, "QUESTION", m_queue);
  EXPECT_EQ(-1, Block(recorder, {m_context}, Responding(), [&] { recorder.Stop(); }));
}

TEST_F(BlockedResponse, EndsWhenItsContextIsDeleted) {
  Recorder recorder(m_context, "QUESTION", m_queue);
  EXPECT_EQ(-1, Block(recorder, {m_context}, Responding(), [&] { m_context.Delete(); }));
}

TEST_F(BlockedCallback, EndsWhenTheReceiverIsDeletedAlsoThroughAnotherContext) {
  const Recorder full(m_stopped, "ANSWERS");
  const Sender answers(m_context, "ANSWERS", {{"transport_pacing", "receiver"}});
  answers.AwaitSubscriber({m_stopped, m_context});
  const Driven own({});  // has a thread of its own, on which its callbacks run
  Recorder recorder(own, "QUESTION");
  const SendCall publish = [&](lbm_msg_t&, int flags) { return answers.Send(m_payload, flags); };
  EXPECT_EQ(-1, Block(recorder, {}, publish, [&] { recorder.Stop(); }));
}

TEST_F(BlockedResponse, GoesOnWaitingAfterItsCallbackHasDeletedItsReceiver) {
  Recorder recorder(m_context, "QUESTION", m_queue);
  const SendCall respond = [&](lbm_msg_t& request, int flags) {
    if (flags == 0) {
      recorder.Stop();
    }
    return Responding()(request, flags);
  };
  std::atomic<bool> sent{false};
  std::jthread peer;
  EXPECT_EQ(0, Block(recorder, {m_context}, respond, [&] {
              peer = std::jthread([&] { PumpUntil({m_stopped}, "the response", [&] { return sent.load(); }); });
            }));
  sent = true;
}

}  // namespace
}  // namespace engine_test
