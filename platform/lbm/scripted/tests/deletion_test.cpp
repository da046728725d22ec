// Ends of objects: whom they wait for, and what they leave behind.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "scripted_test.h"
#include "test_support/thread_state.h"

namespace lbm_scripted {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr int kFd = 5;

// Objects whose callbacks stay until the test lets them go.
class DeletionTest : public ScriptedTest {
 public:
  DeletionTest() {
    receiver = MakeReceiver([](lbm_rcv_t*, lbm_msg_t*, void* test) { return Stay(test); }, this);
    const lbm_rcv_src_notification_func_t onSource{[](const char*, void*) -> void* { return nullptr; },
                                                   [](const char*, void* test, void*) { return Stay(test); }, this};
    EXPECT_EQ(lbm_rcv_setopt(receiver, "source_notification_function", &onSource, sizeof onSource), 0);
    source = MakeSource([](lbm_src_t*, int, void*, void* test) { return Stay(test); }, this);
    request = SendRequest(
        source, [](lbm_request_t*, lbm_msg_t*, void* test) { return Stay(test); }, this);
    const lbm_src_notify_func_t onContext{[](const char*, const char*, void* test) { return Stay(test); }, this};
    EXPECT_EQ(lbm_context_setopt(context, "resolver_source_notification_function", &onContext, sizeof onContext), 0);
    const auto onFd = [](lbm_context_t*, int, lbm_ulong_t, void* test) { return Stay(test); };
    EXPECT_EQ(lbm_register_fd(context, kFd, onFd, this, nullptr, LBM_FD_EVENT_READ), 0);
  }

  static int Stay(void* test) {
    static_cast<DeletionTest*>(test)->StayInside();
    return 0;
  }

  void StayInside() {
    entered.set_value();
    leave.get_future().wait();
    left = true;
  }

  lbm_context_t* const context = m_context;
  lbm_rcv_t* receiver = nullptr;
  lbm_src_t* source = nullptr;
  lbm_request_t* request = nullptr;

  std::promise<void> entered;
  std::promise<void> leave;
  std::atomic<bool> left = false;
};

// A way into a callback, and a call that ends what the callback belongs to.
struct Case {
  const char* name;
  void (*enter)(DeletionTest&);
  int (*end)(DeletionTest&);
};

void PrintTo(const Case& which, std::ostream* out) { *out << which.name; }

class EndTest : public DeletionTest, public ::testing::WithParamInterface<Case> {};

TEST_P(EndTest, ReturnsWhenTheCallbackOnAnotherThreadHasReturned) {
  std::thread visitor([this] { GetParam().enter(*this); });
  entered.get_future().wait();
  std::atomic<pid_t> thread = 0;
  auto ending = std::async(std::launch::async, [&] {
    thread = ::gettid();
    EXPECT_EQ(GetParam().end(*this), 0);
    return left.load();
  });
  const auto isDone = [&] { return ending.wait_for(std::chrono::seconds(0)) == std::future_status::ready; };
  while (!isDone() && !test_support::IsAsleep(thread)) {
  }
  EXPECT_FALSE(isDone());
  leave.set_value();
  EXPECT_TRUE(ending.get());
  visitor.join();
  EXPECT_THAT(Problems(), IsEmpty());
}

const auto kInReceiver = [](DeletionTest& test) { Deliver(test.receiver, {"data"}); };
const auto kInSourceNotification = [](DeletionTest& test) { NotifySourceDeleted(test.receiver, "host:1", nullptr); };
const auto kInSource = [](DeletionTest& test) { DeliverEvent(test.source, LBM_SRC_EVENT_CONNECT); };
const auto kInRequest = [](DeletionTest& test) { Deliver(test.request, {"answer"}); };
const auto kInDescriptor = [](DeletionTest& test) { DeliverFdEvent(test.context, kFd, LBM_FD_EVENT_READ); };
const auto kInContextNotification = [](DeletionTest& test) { NotifyContext(test.context, "PRICES", "host:1"); };
const auto kInPostedWork = [](DeletionTest& test) {
  Post(test.context, [&test] { test.StayInside(); });
  EXPECT_EQ(lbm_context_process_events(test.context, 600'000), 0);
};

const auto kRcvDelete = [](DeletionTest& test) { return lbm_rcv_delete(test.receiver); };
const auto kContextDelete = [](DeletionTest& test) { return lbm_context_delete(test.context); };
const auto kCancelWithNotice = [](DeletionTest& test) {
  const lbm_event_queue_cancel_cb_info_t notice{nullptr, [](int, void*) {}, nullptr};
  EXPECT_EQ(lbm_cancel_fd_ex(test.context, kFd, LBM_FD_EVENT_READ, &notice), 0);
  return lbm_context_process_events(test.context, 0);  // gives the notice
};

INSTANTIATE_TEST_SUITE_P(
    , EndTest,
    ::testing::Values(Case{"ReceiverDelete", kInReceiver, kRcvDelete},
                      Case{"SourceDelete", kInSource, [](DeletionTest& test) { return lbm_src_delete(test.source); }},
                      Case{"Cancel", kInDescriptor,
                           [](DeletionTest& test) { return lbm_cancel_fd(test.context, kFd, LBM_FD_EVENT_READ); }},
                      Case{"NoticeOfCancel", kInDescriptor, kCancelWithNotice},
                      Case{"ContextDeleteInReceiver", kInReceiver, kContextDelete},
                      Case{"ContextDeleteInSourceNotification", kInSourceNotification, kContextDelete},
                      Case{"ContextDeleteInSource", kInSource, kContextDelete},
                      Case{"ContextDeleteInRequest", kInRequest, kContextDelete},
                      Case{"ContextDeleteInDescriptor", kInDescriptor, kContextDelete},
                      Case{"ContextDeleteInNotification", kInContextNotification, kContextDelete},
                      Case{"ContextDeleteInPostedWork", kInPostedWork, kContextDelete}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(DeletionTest, FromInsideItsOwnCallbackAnObjectEndsWithoutWaiting) {
  Deliver(MakeReceiver([](lbm_rcv_t* self, lbm_msg_t*, void*) { return lbm_rcv_delete(self); }), {"data"});
  const auto cancel = [](lbm_context_t* self, int fd, lbm_ulong_t event, void*) {
    return lbm_cancel_fd(self, fd, event);
  };
  lbm_register_fd(context, kFd, cancel, nullptr, nullptr, LBM_FD_EVENT_WRITE);
  EXPECT_EQ(DeliverFdEvent(context, kFd, LBM_FD_EVENT_WRITE), 0);

  bool ranLater = false;
  Post(context, [&] {
    lbm_context_delete(context);
    // What was posted goes, and what it owns may call the interface.
    EXPECT_THROW(Post(context, [] {}), std::logic_error);
  });
  std::shared_ptr<void> owned(nullptr, [](void*) { lbm_version(); });
  const std::weak_ptr<void> watched = owned;
  Post(context, [&ranLater, owned = std::move(owned)] { ranLater = true; });
  EXPECT_EQ(lbm_context_process_events(context, 600'000), 0);
  EXPECT_FALSE(ranLater);
  EXPECT_TRUE(watched.expired());
  EXPECT_THAT(Problems(), IsEmpty());
}

TEST_F(DeletionTest, AThreadThatProcessesEventsIsSentAwayFirst) {
  std::thread idle([this] { EXPECT_EQ(lbm_context_process_events(context, 600'000), 0); });
  ASSERT_TRUE(WaitForCalls("lbm_context_process_events", 1));
  EXPECT_EQ(lbm_context_delete(context), 0);
  idle.join();
  EXPECT_THAT(Problems(), IsEmpty());
}

TEST_F(DeletionTest, WhatOutlivesItsContextIsInert) {
  lbm_response_t* response = nullptr;
  lbm_rcv_t* const asked = MakeReceiver(
      [](lbm_rcv_t*, lbm_msg_t* msg, void* clientd) {
        *static_cast<lbm_response_t**>(clientd) = std::exchange(msg->response, nullptr);
        return 0;
      },
      &response);
  Deliver(asked, {"ask", LBM_MSG_REQUEST});
  ASSERT_EQ(lbm_send_response(response, "answer", 6, 0), 0);
  EXPECT_EQ(lbm_context_delete(context), 0);

  EXPECT_THROW(Deliver(receiver, {"late"}), std::logic_error);
  EXPECT_THROW(Deliver(request, {"late"}), std::logic_error);
  EXPECT_THROW(DeliverEvent(source, LBM_SRC_EVENT_CONNECT), std::logic_error);
  EXPECT_THROW(NotifySourceDeleted(receiver, "host:1", nullptr), std::logic_error);
  EXPECT_THROW(DeliverFdEvent(context, kFd, LBM_FD_EVENT_READ), std::logic_error);
  EXPECT_NE(FindReceiver("PRICES"), asked);
  EXPECT_NE(FindSource("PRICES"), source);

  EXPECT_EQ(lbm_src_send(source, "late", 4, 0), -1);
  EXPECT_EQ(lbm_errnum(), LBM_EOP);
  EXPECT_THAT(lbm_errmsg(), HasSubstr("outlived its context"));
  EXPECT_EQ(lbm_send_response(response, "late", 4, 0), -1);
  lbm_request_t* late = nullptr;
  const auto never = [](lbm_request_t*, lbm_msg_t*, void*) { return 0; };
  EXPECT_EQ(lbm_send_request(&late, source, "late", 4, never, nullptr, nullptr, 0), -1);

  EXPECT_THAT(LiveHandles(), SizeIs(5)) << "and has still to be given back";
  EXPECT_EQ(lbm_rcv_delete(receiver), 0);
  EXPECT_EQ(lbm_rcv_delete(asked), 0);
  EXPECT_EQ(lbm_src_delete(source), 0);
  EXPECT_EQ(lbm_request_delete(request), 0);
  EXPECT_EQ(lbm_response_delete(response), 0);
  EXPECT_THAT(LiveHandles(), IsEmpty());
  EXPECT_THAT(Problems(), IsEmpty());
}

TEST_F(DeletionTest, TwoThreadsMayNotDeleteTheSameObject) {
  std::thread visitor([this] { kInReceiver(*this); });
  entered.get_future().wait();
  std::thread first([this] { EXPECT_EQ(lbm_rcv_delete(receiver), 0); });
  EXPECT_TRUE(WaitForCalls("lbm_rcv_delete", 1));
  EXPECT_EQ(lbm_rcv_delete(receiver), -1);
  EXPECT_THROW(Deliver(receiver, {"late"}), std::logic_error);
  leave.set_value();
  first.join();
  visitor.join();
  EXPECT_THAT(Problems(), ElementsAre(HasSubstr("lbm_rcv_delete: rcv#")));
}

TEST_F(DeletionTest, AnEventQueueThatWasShutDownTakesNothingMore) {
  lbm_event_queue_t* const queue = MakeEventQueue();
  std::thread idle([&] { EXPECT_EQ(lbm_event_dispatch(queue, LBM_EVENT_QUEUE_BLOCK), 0); });
  ASSERT_TRUE(WaitForCalls("lbm_event_dispatch", 1));
  EXPECT_EQ(lbm_event_queue_shutdown(queue), 0);
  idle.join();

  EXPECT_THROW(Post(queue, [] { ADD_FAILURE() << "ran"; }), std::logic_error);
  const lbm_event_queue_cancel_cb_info_t notice{queue, [](int, void*) { ADD_FAILURE() << "told"; }, nullptr};
  EXPECT_EQ(lbm_cancel_fd_ex(context, kFd, LBM_FD_EVENT_READ, &notice), 0);
  EXPECT_EQ(lbm_event_dispatch(queue, LBM_EVENT_QUEUE_POLL), 0);
  EXPECT_EQ(lbm_event_queue_delete(queue), 0);
  EXPECT_THAT(Problems(), IsEmpty());
}

TEST_F(DeletionTest, AnEventQueueIsNotDeletedWhileAThreadIsInside) {
  lbm_event_queue_t* const queue = MakeEventQueue();
  bool ran = false;
  Post(queue, [&] { EXPECT_EQ(lbm_event_queue_delete(queue), -1); });
  Post(queue, [&] { ran = true; });
  EXPECT_EQ(lbm_event_dispatch(queue, LBM_EVENT_QUEUE_POLL), 2);
  EXPECT_TRUE(ran);
  EXPECT_THAT(Problems(), ElementsAre(HasSubstr("lbm_event_queue_delete: a thread is inside event_queue#")));
  EXPECT_EQ(lbm_event_queue_delete(queue), 0) << "the call that failed did nothing";
}

}  // namespace
}  // namespace lbm_scripted
