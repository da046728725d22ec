#include <time.h>

#include <cerrno>
#include <climits>
#include <deque>
#include <optional>
#include <thread>
#include <vector>

#include "lbm_test.h"

namespace {

struct Sleeps {
  std::vector<timespec> asked;
  std::deque<timespec> interruptedWith;  // what is left at each of the next interruptions
  int otherError = 0;
};
Sleeps g_sleeps;

}  // namespace

// Takes the place of the C library's in this program: nothing sleeps, everything is counted.
extern "C" int nanosleep(const timespec* requested, timespec* remaining) {
  g_sleeps.asked.push_back(*requested);
  if (!g_sleeps.interruptedWith.empty()) {
    *remaining = g_sleeps.interruptedWith.front();
    g_sleeps.interruptedWith.pop_front();
    errno = EINTR;
    return -1;
  }
  errno = g_sleeps.otherError;
  return g_sleeps.otherError == 0 ? 0 : -1;
}

namespace lbm {
namespace {

using lbm_scripted::CallsTo;
using lbm_scripted::Failure;
using lbm_scripted::Script;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using zq::logging::ZQLOG_DEBUG;
using zq::logging::ZQLOG_ERROR;

class ResponseTest : public LbmTest {
 protected:
  void SetUp() override {
    g_sleeps = {};
    lbm_msg_t* const raw = lbm_scripted::MakeMessage({"ask", LBM_MSG_REQUEST, 0, 0, "SRC"}, "TOPIC");
    m_request = Message(raw);
    lbm_msg_delete(raw);
  }
  void TearDown() override {
    m_request = Message();
    LbmTest::TearDown();
  }

  bool Send(int maxRetries, int retrySleepMs, int flags = 1, const char* source = "SRC", const char* topic = "TOPIC") {
    return m_request.GetResponse().SendWithRetries(source, topic, "reply", 5, "ID", maxRetries, retrySleepMs, flags);
  }

  static std::vector<std::int64_t> SleptMilliseconds() {
    std::vector<std::int64_t> milliseconds;
    for (const timespec& sleep : g_sleeps.asked) {
      milliseconds.push_back(sleep.tv_sec * 1000 + sleep.tv_nsec / 1'000'000);
    }
    return milliseconds;
  }

  const lbm_scripted::Result m_wouldBlock = Failure(LBM_EWOULDBLOCK, "would block");
  Message m_request;
};

struct RetryCase {
  int maxRetries;
  int retrySleepMs;
  int wouldBlock;  // how many sends
  bool result;
  std::size_t sends;
  std::size_t sleeps;
};

class RetriesTest : public ResponseTest, public ::testing::WithParamInterface<RetryCase> {};

TEST_P(RetriesTest, SendsAndSleepsExactlyAsOftenAsTold) {
  const RetryCase& given = GetParam();
  Script("lbm_send_response", m_wouldBlock, given.wouldBlock);
  EXPECT_EQ(Send(given.maxRetries, given.retrySleepMs), given.result);
  const auto sends = CallsTo("lbm_send_response");
  EXPECT_THAT(sends, SizeIs(given.sends));
  EXPECT_THAT(SleptMilliseconds(), ::testing::AllOf(SizeIs(given.sleeps), ::testing::Each(given.retrySleepMs)));
  for (const auto& send : sends) {
    EXPECT_EQ(send.Text("data"), "reply");
    EXPECT_EQ(send.Number("flags"), given.maxRetries == -1 ? 1 : 12);
  }
  const auto errors = log_capture::Find("Failed responding");
  EXPECT_THAT(errors, SizeIs(given.result ? 0 : 1));
  EXPECT_THAT(
      log_capture::Statements(),
      SizeIs(given.wouldBlock == lbm_scripted::kAlways ? given.sends : static_cast<std::size_t>(given.wouldBlock)));
}

INSTANTIATE_TEST_SUITE_P(Cases, RetriesTest,
                         ::testing::Values(RetryCase{3, 10, lbm_scripted::kAlways, false, 3, 3},
                                           RetryCase{1, 1999, lbm_scripted::kAlways, false, 1, 1},
                                           RetryCase{3, 10, 2, true, 3, 2},
                                           RetryCase{3, 0, lbm_scripted::kAlways, false, 3, 0},
                                           RetryCase{2, -5, lbm_scripted::kAlways, false, 2, 0},
                                           RetryCase{0, 10, lbm_scripted::kAlways, true, 1, 1},
                                           RetryCase{-1, 10, lbm_scripted::kAlways, true, 1, 1},
                                           RetryCase{INT_MIN, 10, lbm_scripted::kAlways, true, 1, 1}));

TEST_F(ResponseTest, EveryOutcomeHasItsLine) {
  Script("lbm_send_response", m_wouldBlock, 2);
  EXPECT_FALSE(Send(2, 10));
  Script("lbm_send_response", m_wouldBlock);
  Script("lbm_send_response", Failure(LBM_ENOMEM, "no memory"));
  EXPECT_FALSE(Send(7, 10));
  EXPECT_FALSE(Response(nullptr).SendWithRetries("SRC", "TOPIC", "reply", 5, "ID", 1, 0, 0));
  const std::string wouldBlock = "LBMEWouldBlockException responding to requestId=ID retrySleepMs=10 retriesRemaining=";
  EXPECT_THAT(
      log_capture::Statements(),
      ElementsAre(Statement(ZQLOG_DEBUG, 188, wouldBlock + "1 maxRetries=2 source=SRC topicName=TOPIC error=2"),
                  Statement(ZQLOG_ERROR, 179,
                            "Failed responding: requestId=ID retrySleepMs=10 retriesRemaining=0 maxRetries=2 "
                            "source=SRC topicName=TOPIC error=2"),
                  Statement(ZQLOG_DEBUG, 188, wouldBlock + "6 maxRetries=7 source=SRC topicName=TOPIC error=2"),
                  Statement(ZQLOG_ERROR, 195,
                            "Error responding to requestId=ID retrySleepMs=10 retriesRemaining=6 maxRetries=7 "
                            "source=SRC topicName=TOPIC errorCode=3"),
                  Statement(ZQLOG_ERROR, 205, "source=SRC topicName=TOPIC does not contain a valid response object.")));
  EXPECT_THAT(CallsTo("lbm_send_response"), SizeIs(4)) << "nothing is sent without a handle";
}

TEST_F(ResponseTest, OnlyMinusOneIsAFailure) {
  Script("lbm_send_response", {-2, LBM_EINVAL, "not looked at"});
  EXPECT_TRUE(Send(3, 10));
  EXPECT_THAT(CallsTo("lbm_errnum"), IsEmpty());
}

TEST_F(ResponseTest, AMissingSourceOrTopicOnlyShortensTheLine) {
  Script("lbm_send_response", Failure(LBM_ENOMEM, "no memory"), 2);
  EXPECT_FALSE(Send(1, 0, 0, nullptr));
  EXPECT_FALSE(Send(1, 0, 0, "SRC", nullptr));
  EXPECT_FALSE(Response(nullptr).SendWithRetries(nullptr, "TOPIC", "reply", 5, "ID", 1, 0, 0));
  const std::string start = "Error responding to requestId=ID retrySleepMs=0 retriesRemaining=1 maxRetries=1 source=";
  EXPECT_THAT(log_capture::Texts(), ElementsAre(start, start + "SRC topicName=", "source="));
}

TEST_F(ResponseTest, ASleepGoesOnAfterASignalAndEndsAtAnyOtherError) {
  Script("lbm_send_response", m_wouldBlock);
  g_sleeps.interruptedWith = {{1, 500'000'000}, {0, 2'000'000}};
  EXPECT_TRUE(Send(2, 2500));
  EXPECT_THAT(SleptMilliseconds(), ElementsAre(2500, 1500, 2));

  g_sleeps = {};
  g_sleeps.otherError = EINVAL;
  Script("lbm_send_response", m_wouldBlock);
  EXPECT_TRUE(Send(2, 10));
  EXPECT_THAT(SleptMilliseconds(), ElementsAre(10));
}

TEST_F(ResponseTest, TheOtherFormsSendTheSame) {
  const Response response = m_request.GetResponse();
  response.Send("reply", 5, LBM_SRC_FLUSH);
  response.Send(std::string("reply"), LBM_SRC_FLUSH);
  for (const auto& call : CallsTo("lbm_send_response")) {
    EXPECT_EQ(call.Pointer("response"), static_cast<lbm_response_t*>(response));
    EXPECT_EQ(call.Text("data"), "reply");
    EXPECT_EQ(call.Number("flags"), LBM_SRC_FLUSH);
  }
  Script("lbm_send_response", m_wouldBlock);
  EXPECT_EQ(ErrorOf([&] { response.Send("reply", 5, 0); }), "Failed to send LBM response: would block");

  log_capture::Clear();
  Script("lbm_send_response", m_wouldBlock);
  EXPECT_FALSE(response.SendWithRetries(m_request, "reply", "ID", 1, 0, 0));
  EXPECT_THAT(log_capture::Texts(), ElementsAre("Failed responding: requestId=ID retrySleepMs=0 retriesRemaining=0 "
                                                "maxRetries=1 source=SRC topicName=TOPIC error=2"));
}

class EventQueueTest : public LbmTest {};

TEST_F(EventQueueTest, IsMadeWithCancellationCallbacksWhateverItsAttributesSay) {
  EventQueueAttributes attributes;
  attributes.Set<int>("queue_cancellation_callbacks_enabled", 0);
  const EventQueue queue(attributes);
  const auto set = CallsTo("lbm_event_queue_attr_setopt").at(1);
  EXPECT_EQ(set.Text("optname"), "queue_cancellation_callbacks_enabled");
  EXPECT_EQ(set.Value<int>("optval"), 1);
  EXPECT_NE(set.Pointer("attr"), static_cast<const void*>(attributes)) << "the caller's attributes stay as they are";
  const auto created = CallsTo("lbm_event_queue_create").at(0);
  EXPECT_EQ(created.Pointer("attr"), set.Pointer("attr"));
  EXPECT_TRUE(created.IsNull("proc") && created.IsNull("clientd"));
  EXPECT_THAT(CallsTo("lbm_event_queue_attr_delete"), SizeIs(1)) << "the copy is gone";

  for (const auto& [function, text] : std::vector<std::pair<std::string, std::string>>{
           {"lbm_event_queue_attr_dup", "Failed to duplicate LBM event queue attributes: no"},
           {"lbm_event_queue_attr_setopt", "Failed to set LBM topic attribute: no"},
           {"lbm_event_queue_create", "Failed to create LBM event queue: no"}}) {
    Script(function, Failure(LBM_EINVAL, "no"));
    EXPECT_EQ(ErrorOf([&] { EventQueue failing(attributes); }), text);
  }
  EXPECT_THAT(lbm_scripted::LiveHandles("event_queue_attr"), SizeIs(1));
}

TEST_F(EventQueueTest, RunsCallbacksUntilUnblocked) {
  auto queue = std::make_unique<EventQueue>(EventQueueAttributes());
  std::thread::id ranOn;
  std::optional<int> dispatched;
  std::thread thread([&] { dispatched = queue->Run(); });
  const auto runner = thread.get_id();
  EXPECT_TRUE(lbm_scripted::WaitForCalls("lbm_event_dispatch", 1));
  EXPECT_EQ(CallsTo("lbm_event_dispatch").at(0).Number("msec"), 4294967295);
  lbm_scripted::Post(*queue, [&] {
    ranOn = std::this_thread::get_id();
    queue->Unblock();
  });
  thread.join();
  EXPECT_EQ(ranOn, runner);
  EXPECT_EQ(dispatched, 1);
  EXPECT_EQ(queue->Poll(), 0);
  EXPECT_EQ(CallsTo("lbm_event_dispatch").at(1).Number("msec"), 0);

  Script("lbm_event_dispatch", Failure(LBM_EOP, "no"), 2);
  EXPECT_EQ(ErrorOf([&] { queue->Run(); }), "Failed to run LBM event queue: no");
  EXPECT_EQ(ErrorOf([&] { queue->Poll(); }), "Failed to poll LBM event queue: no");

  lbm_scripted::OnCall("lbm_event_queue_delete",
                       [](const auto&) { EXPECT_THAT(CallsTo("lbm_event_queue_shutdown"), SizeIs(1)); });
  queue.reset();
  EXPECT_THAT(CallsTo("lbm_event_queue_delete"), SizeIs(1));
}

}  // namespace
}  // namespace lbm
