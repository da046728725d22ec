#include "lbm/request_source.h"

#include <poll.h>

#include <future>
#include <stdexcept>
#include <thread>
#include <utility>

#include "lbm_test.h"
#include "zq/statistics/snapshot.h"

namespace lbm {
namespace {

using std::chrono::milliseconds;

constexpr RequestOptions kPatient{RequestOptions::kNoTimeout, RequestOptions::kNoTimeout};

class RequestSourceTest : public LbmTest {
 protected:
  RequestSource& Requests() {
    if (!m_requests) {
      m_requests = std::make_unique<RequestSource>(Ctx(), TopicToSend());
    }
    return *m_requests;
  }

  void TearDown() override {
    m_requests.reset();
    LbmTest::TearDown();
  }

  // A request whose outcomes and responses are in Told. What a response says, beside "more", is the whole answer.
  PendingRequest Ask(const RequestOptions& options = kPatient) {
    return Requests().Ask("ask", options, OnResponse(), OnOutcome());
  }
  ResponseCallback OnResponse() {
    return [this](const Message& message) {
      m_told.emplace_back(message.Data(), message.Length());
      return m_told.back() == "more" ? Answer::kPartial : Answer::kComplete;
    };
  }
  OutcomeCallback OnOutcome() {
    return [this](RequestOutcome outcome) { m_told.push_back(Text(outcome)); };
  }
  std::vector<std::string> Told() { return std::exchange(m_told, {}); }

  static std::string Text(RequestOutcome outcome) {
    const char* const texts[] = {"answered", "timed out", "nobody listened"};
    return texts[static_cast<std::size_t>(outcome)];
  }

  static std::size_t Sends() { return CallsTo("lbm_send_request").size(); }

  // The messaging library's handle of what was sent, counted from 0.
  static lbm_request_t* Sent(std::size_t number) {
    return static_cast<lbm_request_t*>(const_cast<void*>(CallsTo("lbm_send_request").at(number).Pointer("req")));
  }
  static void Respond(const std::string& text, std::size_t number = 0) {
    Deliver(Sent(number), {text, LBM_MSG_RESPONSE});
  }

  static void Tell(int event) { lbm_scripted::DeliverEvent(lbm_scripted::FindSource("PRICES"), event); }

  // Waits for the timer that was made last, and lets the context find it.
  void LetTimePass() {
    const auto timer = static_cast<int>(CallsTo("lbm_register_fd").back().Number("fd"));
    pollfd descriptor{timer, POLLIN, 0};
    ASSERT_EQ(::poll(&descriptor, 1, 10'000), 1) << "waited in vain for the timer";
    lbm_scripted::DeliverFdEvent(Ctx(), timer, LBM_FD_EVENT_READ);
  }

  // Nothing of a request is left in the messaging library.
  static void ExpectReleased() {
    EXPECT_THAT(LiveHandles("request"), IsEmpty());
    EXPECT_EQ(CallsTo("lbm_cancel_fd").size(), CallsTo("lbm_register_fd").size());
  }

  std::unique_ptr<RequestSource> m_requests;

 private:
  std::vector<std::string> m_told;
};

TEST_F(RequestSourceTest, TheFirstResponseIsTheAnswerUnlessItIsSaidToBePartial) {
  auto request = Ask();
  EXPECT_EQ(CallsTo("lbm_send_request").at(0).Text("data"), "ask");
  EXPECT_EQ(CallsTo("lbm_send_request").at(0).Number("flags"), LBM_SRC_FLUSH | LBM_SRC_NONBLOCK);
  Respond("more");
  Respond("more");
  EXPECT_TRUE(request.IsOpen());
  Respond("last");
  EXPECT_THAT(Told(), ElementsAre("more", "more", "last", "answered"));
  EXPECT_FALSE(request.IsOpen());
  Respond("late");
  LetTimePass();
  ExpectReleased();

  const auto content = Requests().Ask("ask", kPatient, {}, OnOutcome());
  Respond("any", 1);
  EXPECT_THAT(Told(), ElementsAre("answered"));
}

TEST_F(RequestSourceTest, WhoBeginsToListenIsSentTheRequestUntilThereIsAResponse) {
  std::vector<std::size_t> listeners;
  m_requests =
      std::make_unique<RequestSource>(Ctx(), TopicToSend(), [&](std::size_t count) { listeners.push_back(count); });
  const auto request = Ask();
  const auto other = Ask();
  EXPECT_EQ(Sends(), 2U);
  Tell(LBM_SRC_EVENT_CONNECT);
  EXPECT_EQ(Sends(), 4U);
  Tell(LBM_SRC_EVENT_WAKEUP);
  Tell(LBM_SRC_EVENT_DISCONNECT);
  EXPECT_EQ(Sends(), 4U);
  Respond("more");
  Tell(LBM_SRC_EVENT_CONNECT);
  EXPECT_EQ(Sends(), 5U) << "the one that was not answered";
  Tell(LBM_SRC_EVENT_CONNECT);
  EXPECT_EQ(Requests().Listeners(), 2U);
  Tell(LBM_SRC_EVENT_DISCONNECT);
  Tell(LBM_SRC_EVENT_DISCONNECT);
  Tell(LBM_SRC_EVENT_DISCONNECT);
  EXPECT_THAT(listeners, ElementsAre(1, 0, 1, 2, 1, 0));
}

TEST_F(RequestSourceTest, TheOutcomeTellsWhetherAnybodyListened) {
  const std::vector<int> nothing;
  const int come = LBM_SRC_EVENT_CONNECT;
  const int go = LBM_SRC_EVENT_DISCONNECT;
  const struct {
    std::vector<int> before;
    std::vector<int> meanwhile;
    std::string response;
    std::vector<std::string> told;
  } cases[] = {{nothing, nothing, "", {"nobody listened"}},
               {{come, go}, nothing, "", {"nobody listened"}},
               {{come}, {go}, "", {"timed out"}},
               {nothing, {come, go}, "", {"timed out"}},
               {nothing, nothing, "more", {"more", "timed out"}}};  // by a transport that does not say who listens
  for (const auto& one : cases) {
    const auto sends = Sends();
    Requests();
    for (const int event : one.before) {
      Tell(event);
    }
    const auto request = Ask({milliseconds(5), RequestOptions::kNoTimeout});
    for (const int event : one.meanwhile) {
      Tell(event);
    }
    if (!one.response.empty()) {
      Respond(one.response, sends);
    }
    LetTimePass();
    EXPECT_EQ(Told(), one.told);
    Tell(come);
    EXPECT_THAT(Told(), IsEmpty());
    LetTimePass();
    ExpectReleased();
    m_requests.reset();
  }
}

TEST_F(RequestSourceTest, IsSentAgainAtGrowingIntervalsAndHearsAnswersToTheLastSixteenSends) {
  const auto begin = std::chrono::steady_clock::now();
  const auto request = Ask({RequestOptions::kNoTimeout, milliseconds(1)});
  for (std::size_t sends = 1; sends <= 4; ++sends) {
    EXPECT_EQ(Sends(), sends);
    LetTimePass();
  }
  EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(1 + 2 + 4 + 8));
  while (Sends() < 17) {
    Tell(LBM_SRC_EVENT_CONNECT);
  }
  EXPECT_THROW(Respond("too old", 0), std::logic_error);
  Respond("oldest", 1);
  EXPECT_THAT(Told(), ElementsAre("oldest", "answered"));
}

TEST_F(RequestSourceTest, WhatCannotBeSentForNowIsSentWhenThereIsRoom) {
  Script("lbm_send_request", Failure(LBM_EWOULDBLOCK, "full"), 2);
  log_capture::Clear();
  const auto request = Ask();
  Tell(LBM_SRC_EVENT_CONNECT);
  EXPECT_THAT(LiveHandles("request"), IsEmpty());
  Tell(LBM_SRC_EVENT_WAKEUP);
  Tell(LBM_SRC_EVENT_WAKEUP);
  EXPECT_THAT(LiveHandles("request"), SizeIs(1));
  EXPECT_THAT(log_capture::Find("Failed"), IsEmpty()) << "nothing unusual";
}

TEST_F(RequestSourceTest, AFailureToSendIsThrownTheFirstTimeAndLoggedLater) {
  const auto ask = [this] { const auto request = Ask(); };
  Requests();
  EXPECT_EQ(FailureOf("lbm_register_fd", ask), "Failed to register LBM timer: no");
  EXPECT_EQ(FailureOf("lbm_send_request", ask), "Failed to send LBM request: no");
  EXPECT_THAT(CallsTo("lbm_cancel_fd"), SizeIs(1));

  const auto request = Ask();
  log_capture::Clear();
  Script("lbm_send_request", Failure(LBM_ENOMEM, "no"));
  Tell(LBM_SRC_EVENT_CONNECT);
  EXPECT_THAT(Lines(), ElementsAre("30 71 Failed to send LBM request: no"));
  EXPECT_TRUE(request.IsOpen());
}

TEST_F(RequestSourceTest, AnOutcomeThatTheTimerTellsIsTimedAsEveryCallback) {
  const auto numberOf = [this](const char* field) {
    const zq::statistics::Snapshot snapshot = Ctx().GetStatistics();
    return snapshot.Of("context").at(0)->Find(field)->Count();
  };
  const auto request = Requests().Ask("ask", {milliseconds(1), kPatient.retryInterval}, {},
                                      [&](RequestOutcome) { EXPECT_GT(numberOf("busy_since"), 0U); });
  lbm_scripted::Post(Ctx(), [this] { LetTimePass(); });
  Ctx().Poll(0);
  EXPECT_EQ(numberOf("callbacks"), 1U);
  EXPECT_EQ(numberOf("busy_since"), 0U);
}

TEST_F(RequestSourceTest, CancellingTellsWhetherTheOutcomeWasOpen) {
  auto request = Ask();
  EXPECT_TRUE(request.Cancel());
  EXPECT_FALSE(request.Cancel());
  EXPECT_FALSE(request.IsOpen());
  ExpectReleased();
  request = Ask();
  Respond("all", 1);
  EXPECT_FALSE(request.Cancel());
  request = Ask();
  request = PendingRequest();
  EXPECT_FALSE(request.Cancel());
  EXPECT_THAT(Told(), ElementsAre("all", "answered"));
  ExpectReleased();
}

TEST_F(RequestSourceTest, ARequestMayEndInEachOfItsOwnCallbacks) {
  // In a response.
  PendingRequest request;
  const auto alive = std::make_shared<int>();
  request = Requests().Ask(
      "ask", kPatient,
      [&request, held = alive](const Message&) {
        EXPECT_TRUE(request.Cancel());
        request = {};
        EXPECT_EQ(held.use_count(), 2) << "the callback lives until it returns";
        return Answer::kComplete;
      },
      OnOutcome());
  Respond("all");
  EXPECT_THAT(Told(), IsEmpty()) << "no outcome after it is cancelled";
  LetTimePass();
  ExpectReleased();
  EXPECT_EQ(alive.use_count(), 1);

  // In the outcomes: of a response, where another is asked, and of the time-out.
  request = Requests().Ask("ask", kPatient, OnResponse(), [&](RequestOutcome) {
    request = Requests().Ask("again", {milliseconds(1), milliseconds(1000)}, OnResponse(),
                             [&](RequestOutcome) { request = {}; });
  });
  const auto first = static_cast<int>(CallsTo("lbm_register_fd").back().Number("fd"));
  Respond("all", 1);
  EXPECT_EQ(CallsTo("lbm_send_request").back().Text("data"), "again");
  EXPECT_TRUE(request.IsOpen());
  lbm_scripted::DeliverFdEvent(Ctx(), first, LBM_FD_EVENT_READ);
  LetTimePass();
  EXPECT_FALSE(request.IsOpen());
  LetTimePass();
  ExpectReleased();
}

TEST_F(RequestSourceTest, WhatIsSentWhileTheRequestIsCancelledIsNotKept) {
  auto request = Ask();
  lbm_scripted::OnCall("lbm_send_request", [&](const auto&) { request.Cancel(); });
  Tell(LBM_SRC_EVENT_CONNECT);
  EXPECT_EQ(Sends(), 2U);
  ExpectReleased();
}

TEST_F(RequestSourceTest, CancellingWaitsForTheCallbackOfAnotherThread) {
  for (const bool inOutcome : {false, true}) {
    std::promise<void> entered;
    bool hasReturned = false;
    const auto deletes = CallsTo("lbm_request_delete").size();
    const auto linger = [&] {
      entered.set_value();
      EXPECT_TRUE(lbm_scripted::WaitForCalls("lbm_request_delete", deletes + 1));
      hasReturned = true;
    };
    auto request = Requests().Ask(
        "ask", kPatient,
        [&](const Message&) {
          if (!inOutcome) {
            linger();
          }
          return Answer::kComplete;
        },
        [&](RequestOutcome) { linger(); });
    std::thread dispatching([sends = Sends()] { Respond("all", sends - 1); });
    entered.get_future().wait();
    EXPECT_EQ(request.Cancel(), !inOutcome);
    EXPECT_TRUE(hasReturned);
    dispatching.join();
  }
}

TEST_F(RequestSourceTest, TheSourceStaysWhileACancelledRequestIsStillBeingSent) {
  auto request = Ask({RequestOptions::kNoTimeout, milliseconds(1)});
  std::promise<void> entered;
  lbm_scripted::OnCall("lbm_send_request", [&](const auto&) {
    entered.set_value();
    EXPECT_TRUE(lbm_scripted::WaitForCalls("lbm_cancel_fd", 1));
    EXPECT_FALSE(lbm_scripted::WaitForCalls("lbm_src_delete", 1, milliseconds(50)));
  });
  std::thread dispatching([this] { LetTimePass(); });
  entered.get_future().wait();
  std::thread cancelling([&request] { request.Cancel(); });
  EXPECT_TRUE(lbm_scripted::WaitForCalls("lbm_cancel_fd", 1));
  m_requests.reset();
  cancelling.join();
  dispatching.join();
}

TEST_F(RequestSourceTest, WhenTheSourceGoesItsRequestsGoFirstAndSilently) {
  auto open = Ask();
  auto ended = Ask();
  Respond("all", 1);
  Told();
  m_requests.reset();
  std::vector<std::string> functions;
  for (const auto& call : lbm_scripted::Calls()) {
    functions.push_back(call.function);
  }
  EXPECT_EQ(functions.back(), "lbm_src_delete");
  ExpectReleased();
  EXPECT_FALSE(open.IsOpen());
  EXPECT_FALSE(open.Cancel());
  EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(RequestSourceTest, AfterAnExceptionOfACallbackTheRequestCanStillBeCancelled) {
  auto request =
      Requests().Ask("ask", kPatient, [](const Message&) -> Answer { throw std::runtime_error("callback"); });
  EXPECT_THROW(Respond("all"), std::runtime_error);
  EXPECT_TRUE(request.Cancel());
  ExpectReleased();
}

TEST_F(RequestSourceTest, EverythingRunsOnTheEventQueueThatIsGiven) {
  EventQueue queue{EventQueueAttributes()};
  RequestSource requests(Ctx(), TopicToSend(), {}, &queue);
  const auto request = requests.Ask("ask", kPatient, {});
  for (const char* function : {"lbm_src_create", "lbm_register_fd", "lbm_send_request"}) {
    EXPECT_EQ(CallsTo(function).at(0).Pointer("evq"), static_cast<lbm_event_queue_t*>(queue)) << function;
  }
  EXPECT_EQ(requests.GetTopic(), "PRICES");
}

}  // namespace
}  // namespace lbm
