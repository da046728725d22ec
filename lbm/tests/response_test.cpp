#include <time.h>

#include <cerrno>
#include <climits>
#include <deque>

#include "lbm_test.h"

namespace {

struct Sleeps {
  std::vector<std::int64_t> milliseconds;  // that were asked for
  std::deque<timespec> interruptedWith;    // what is left at each of the next interruptions
  int otherError = 0;
};
Sleeps g_sleeps;

}  // namespace

// Takes the place of the C library's in this program: nothing sleeps, everything is counted.
extern "C" int nanosleep(const timespec* requested, timespec* remaining) {
  g_sleeps.milliseconds.push_back(requested->tv_sec * 1000 + requested->tv_nsec / 1'000'000);
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

using lbm_scripted::kAlways;

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

  bool Send(int maxRetries, int retrySleepMs) {
    return m_request.GetResponse().SendWithRetries("SRC", "TOPIC", "reply", 5, "ID", maxRetries, retrySleepMs, 1);
  }

  static void WouldBlock(int times = 1) { Script("lbm_send_response", Failure(LBM_EWOULDBLOCK, "would block"), times); }

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
  WouldBlock(given.wouldBlock);
  EXPECT_EQ(Send(given.maxRetries, given.retrySleepMs), given.result);
  const auto sends = CallsTo("lbm_send_response");
  EXPECT_THAT(sends, SizeIs(given.sends));
  for (const auto& send : sends) {
    EXPECT_EQ(send.Text("data"), "reply");
    EXPECT_EQ(send.Number("flags"), given.maxRetries == -1 ? 1 : 12);
  }
  EXPECT_THAT(g_sleeps.milliseconds, ::testing::AllOf(SizeIs(given.sleeps), ::testing::Each(given.retrySleepMs)));
  EXPECT_THAT(log_capture::Find("Failed responding"), SizeIs(given.result ? 0 : 1));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RetriesTest,
    ::testing::Values(RetryCase{3, 10, kAlways, false, 3, 3}, RetryCase{1, 1999, kAlways, false, 1, 1},
                      RetryCase{3, 10, 2, true, 3, 2}, RetryCase{3, 0, kAlways, false, 3, 0},
                      RetryCase{2, -5, kAlways, false, 2, 0}, RetryCase{0, 10, kAlways, true, 1, 1},
                      RetryCase{-1, 10, kAlways, true, 1, 1}, RetryCase{INT_MIN, 10, kAlways, true, 1, 1}));

TEST_F(ResponseTest, EveryOutcomeHasItsLine) {
  WouldBlock(2);
  EXPECT_FALSE(Send(2, 10));
  WouldBlock();
  Script("lbm_send_response", Failure(LBM_ENOMEM, "no memory"));
  EXPECT_FALSE(m_request.GetResponse().SendWithRetries(m_request, "reply", "ID", 7, 10, 0));
  EXPECT_FALSE(Response(nullptr).SendWithRetries("SRC", "TOPIC", "reply", 5, "ID", 1, 0, 0));
  const std::string asked = "requestId=ID retrySleepMs=10 retriesRemaining=";
  const std::string from = " source=SRC topicName=TOPIC";
  EXPECT_THAT(Lines(),
              ElementsAre("0 188 LBMEWouldBlockException responding to " + asked + "1 maxRetries=2" + from + " error=2",
                          "30 179 Failed responding: " + asked + "0 maxRetries=2" + from + " error=2",
                          "0 188 LBMEWouldBlockException responding to " + asked + "6 maxRetries=7" + from + " error=2",
                          "30 195 Error responding to " + asked + "6 maxRetries=7" + from + " errorCode=3",
                          "30 205 source=SRC topicName=TOPIC does not contain a valid response object."));
  EXPECT_THAT(CallsTo("lbm_send_response"), SizeIs(4)) << "nothing is sent without a handle";
}

TEST_F(ResponseTest, OnlyMinusOneIsAFailure) {
  Script("lbm_send_response", {-2, LBM_EINVAL, "not looked at"});
  EXPECT_TRUE(Send(3, 10));
  EXPECT_THAT(CallsTo("lbm_errnum"), IsEmpty());
}

TEST_F(ResponseTest, ASleepGoesOnAfterASignalAndEndsAtAnyOtherError) {
  g_sleeps.interruptedWith = {{1, 500'000'000}, {0, 2'000'000}};
  WouldBlock();
  EXPECT_TRUE(Send(2, 2500));
  g_sleeps.otherError = EINVAL;
  WouldBlock();
  EXPECT_TRUE(Send(2, 10));
  EXPECT_THAT(g_sleeps.milliseconds, ElementsAre(2500, 1500, 2, 10));
}

TEST_F(ResponseTest, WithoutRetriesItIsSentAsToldOrTheFailureIsThrown) {
  const Response response = m_request.GetResponse();
  response.Send(std::string("reply"), LBM_SRC_FLUSH);
  const auto sent = CallsTo("lbm_send_response").at(0);
  EXPECT_EQ(sent.Text("data"), "reply");
  EXPECT_EQ(sent.Number("flags"), LBM_SRC_FLUSH);
  EXPECT_EQ(FailureOf("lbm_send_response", [&] { response.Send("reply", 5, 0); }), "Failed to send LBM response: no");
}

}  // namespace
}  // namespace lbm
