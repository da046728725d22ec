#include <time.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <tuple>

#include "lbm_test.h"
#include "loop.h"
#include "zq/statistics/snapshot.h"

namespace lbm {
namespace {

namespace statistics = zq::statistics;
using ::testing::AllOf;
using ::testing::Ge;
using ::testing::Le;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

using Numbers = std::map<std::string, std::int64_t>;  // by field

class StatisticsTest : public LbmTest {
 protected:
  // Of each row of a kind that this context has, what is not 0.
  static std::vector<Numbers> RowsOf(const Context& ctx, std::string_view kind) {
    const statistics::Snapshot snapshot = ctx.GetStatistics();
    std::vector<Numbers> rows;
    for (const statistics::RowValues* row : snapshot.Of(kind)) {
      EXPECT_EQ(row->Label("context"), ctx.GetName());
      rows.push_back(NumbersOf(*row));
    }
    return rows;
  }
  static Numbers RowOf(const Context& ctx, std::string_view kind) {
    const std::vector<Numbers> rows = RowsOf(ctx, kind);
    EXPECT_THAT(rows, SizeIs(1));
    return rows.empty() ? Numbers() : rows[0];
  }
  static Numbers NumbersOf(const statistics::RowValues& row) {
    Numbers numbers;
    for (std::size_t i = 0; i < row.values.size(); ++i) {
      if (row.values[i].number != 0) {
        numbers[row.kind->fields[i].name] = row.values[i].number;
      }
    }
    return numbers;
  }

  Numbers OfReceiver() { return RowOf(Ctx(), "receiver"); }
  Numbers OfSource() { return RowOf(Ctx(), "source"); }

  // Runs work on this thread as the context's Poll runs callbacks.
  static void InPoll(Context& ctx, std::function<void()> work) {
    lbm_scripted::Post(ctx, std::move(work));
    ctx.Poll(0);
  }

  static void Spend(std::uint64_t nanoseconds) {
    for (const std::uint64_t begin = statistics::Now(); statistics::Now() < begin + nanoseconds;) {
    }
  }
};

TEST_F(StatisticsTest, AReceiverCountsWhatItIsDelivered) {
  {
    Receiver receiver(Ctx(), TopicToReceive(), [](const Message&) {});
    for (const auto& [type, data] : {std::pair{LBM_MSG_DATA, "four"},
                                     {LBM_MSG_DATA, ""},
                                     {LBM_MSG_REQUEST, "ask"},
                                     {LBM_MSG_BOS, ""},
                                     {LBM_MSG_UNRECOVERABLE_LOSS, ""},
                                     {LBM_MSG_EOS, ""},
                                     {LBM_MSG_NO_SOURCE_NOTIFICATION, ""}}) {
      Deliver(receiver, {data, type});
    }
    lbm_msg_t* const burst = lbm_scripted::MakeMessage({"", LBM_MSG_UNRECOVERABLE_LOSS_BURST});
    burst->len = 40;  // messages
    Receiver::LbmCallback(receiver, burst, &receiver);
    burst->len = 0;
    lbm_msg_delete(burst);
    EXPECT_THAT(OfReceiver(),
                UnorderedElementsAre(Pair("messages", 3), Pair("bytes", 7), Pair("requests", 1), Pair("losses", 2),
                                     Pair("lost_messages", 41), Pair("sessions_begun", 1), Pair("sessions_ended", 1),
                                     Pair("other_events", 1)));
    EXPECT_EQ(Ctx().GetStatistics().Of("receiver")[0]->Label("topic"), "PRICES");
  }
  EXPECT_THAT(RowsOf(Ctx(), "receiver"), IsEmpty());
}

TEST_F(StatisticsTest, ASourceSendsInEveryFormAndCountsWithoutAskingWhyItFailed) {
  Source source(Ctx(), TopicToSend(), [](int, void*) {});
  char data[] = "abcd";
  const std::initializer_list<iovec> pieces{{data, 2}, {data, 1}};
  const lbm_src_send_ex_info_t channel{LBM_SRC_SEND_EX_FLAG_CHANNEL, 5};
  source.Send(data, 4, LBM_SRC_FLUSH);
  source.SendExEC(data, 2, LBM_SRC_FLUSH, &channel);
  source.Sendv(pieces.begin(), 2, LBM_SRC_FLUSH);
  source.SendvEx(pieces.begin(), 2, LBM_SRC_FLUSH, &channel);
  for (const auto& [function, sent, isOnChannel] : {std::tuple{"lbm_src_send", "abcd", false},
                                                    {"lbm_src_send_ex", "ab", true},
                                                    {"lbm_src_sendv", "aba", false},
                                                    {"lbm_src_sendv_ex", "aba", true}}) {
    const auto call = CallsTo(function).at(0);
    EXPECT_EQ(call.Text("data"), sent) << function;
    EXPECT_EQ(call.Number("flags"), LBM_SRC_FLUSH) << function;
    EXPECT_TRUE(!isOnChannel || call.Number("channel_number") == 5) << function;
  }
  for (const int flags : {0, LBM_SRC_NONBLOCK, LBM_SRC_NONBLOCK | LBM_SRC_FLUSH}) {
    Script("lbm_src_send", Failure(LBM_EWOULDBLOCK, "full"));
    EXPECT_EQ(source.SendEC(data, 4, flags), -1);
  }
  EXPECT_THAT(CallsTo("lbm_errnum"), IsEmpty());
  EXPECT_THAT(CallsTo("lbm_errmsg"), IsEmpty());
  for (const int event :
       {LBM_SRC_EVENT_CONNECT, LBM_SRC_EVENT_CONNECT, LBM_SRC_EVENT_DISCONNECT, LBM_SRC_EVENT_WAKEUP}) {
    lbm_scripted::DeliverEvent(source, event);
  }
  EXPECT_THAT(OfSource(),
              UnorderedElementsAre(Pair("messages", 4), Pair("bytes", 12), Pair("failures", 3),
                                   Pair("nonblocking_failures", 2), Pair("receivers", 1), Pair("wakeups", 1)));
  source.Destroy();
  EXPECT_THAT(RowsOf(Ctx(), "source"), IsEmpty());
  EXPECT_EQ(source.SendEC(data, 4, 0), -1) << "after its end, which the provider takes amiss";
  lbm_scripted::Reset();
}

TEST_F(StatisticsTest, ASourceWithoutEventsDoesNotPretendToKnowItsReceivers) {
  Source source({});
  EXPECT_THAT(RowsOf(Ctx(), "source"), IsEmpty());
  const SourceTopic topic = TopicToSend();
  FailureOf("lbm_src_create", [&] { source.DoDeferredRegistration(Ctx(), topic); });
  EXPECT_THAT(RowsOf(Ctx(), "source"), IsEmpty());
  source.DoDeferredRegistration(Ctx(), topic);
  EXPECT_THAT(OfSource(), ElementsAre(Pair("receivers", -1)));
}

TEST_F(StatisticsTest, RequestsAndTheirResponsesCountWithTheirSourceEvenAfterIt) {
  std::optional<Source> source(std::in_place, Ctx(), TopicToSend(), [](int, void*) {});
  FailureOf("lbm_send_request", [&] { auto failed = source->SendRequest("refused", 7, 0, {}); });
  auto request = source->SendRequest("ask", 3, 0, [](const Message&) {});
  Deliver(request, {"yes", LBM_MSG_RESPONSE});
  EXPECT_THAT(OfSource(),
              UnorderedElementsAre(Pair("messages", 1), Pair("bytes", 3), Pair("requests", 1),
                                   Pair("request_failures", 1), Pair("responses", 1), Pair("response_bytes", 3)));
  source.reset();
  Deliver(request, {"again", LBM_MSG_RESPONSE});
}

TEST_F(StatisticsTest, ResponsesCountWithTheContextWhoseRequestIsAnswered) {
  const auto ofNoContext = [] {
    const statistics::Snapshot snapshot = statistics::TakeSnapshot();
    const auto rows = snapshot.Of("response");
    const auto found =
        std::find_if(rows.begin(), rows.end(), [](const auto* row) { return row->Label("handle").empty(); });
    return found == rows.end() ? Numbers() : NumbersOf(**found);
  };
  Message kept;
  Receiver receiver(Ctx(), TopicToReceive(), [&](const Message& request) {
    request.GetResponse().Send("yes", 0);
    Script("lbm_send_response", Failure(LBM_EWOULDBLOCK, "full"), 2);
    EXPECT_TRUE(request.GetResponse().SendWithRetries(request, "again", "id", 3, 0, 0));
    Script("lbm_send_response", Failure(LBM_EINVAL, "no"));
    EXPECT_FALSE(request.GetResponse().SendWithRetries(request, "never", "id", 3, 0, 0));
    FailureOf("lbm_send_response", [&] { request.GetResponse().Send("never", 0); });
    kept = request;
  });
  Numbers before = ofNoContext();
  Deliver(receiver, {"ask", LBM_MSG_REQUEST});
  EXPECT_THAT(RowOf(Ctx(), "response"),
              UnorderedElementsAre(Pair("messages", 2), Pair("bytes", 8), Pair("would_block", 2), Pair("retries", 2),
                                   Pair("failures", 2)));
  EXPECT_EQ(ofNoContext(), before);
  kept.GetResponse().Send("later", 0);
  EXPECT_EQ(RowOf(Ctx(), "response").at("messages"), 2);
  EXPECT_EQ(ofNoContext()["messages"], before["messages"] + 1);
}

TEST_F(StatisticsTest, ALoopTellsThatItCallsBackAndForHowLong) {
  constexpr std::uint64_t kTaken = 3'000'000;
  std::uint64_t called = 0;
  Receiver receiver(Ctx(), TopicToReceive(), [&](const Message& message) {
    if (message.Length() != 0) {
      called = statistics::Now();
      EXPECT_THAT(RowOf(Ctx(), "context")["busy_since"], AllOf(Ge(0), Le(static_cast<std::int64_t>(called))));
      EXPECT_NE(RowOf(Ctx(), "context")["busy_since"], 0);
      Spend(kTaken);
    }
  });
  Ctx().Poll(0);
  const std::uint64_t begin = statistics::Now();
  InPoll(Ctx(), [&] {
    Deliver(receiver, {"slow"});
    for (int i = 0; i < 300; ++i) {
      Deliver(receiver, {""});
    }
  });
  const auto elapsed = static_cast<std::int64_t>(statistics::Now() - begin);
  const Numbers row = RowOf(Ctx(), "context");
  EXPECT_THAT(row, UnorderedElementsAre(Pair("loops", 2), Pair("callbacks", 301),
                                        Pair("callback_time", AllOf(Ge(std::int64_t{kTaken}), Le(elapsed))),
                                        Pair("longest_callback", AllOf(Ge(std::int64_t{kTaken}), Le(elapsed)))))
      << "busy_since is 0 again";
}

TEST_F(StatisticsTest, CallbacksOfALoopInsideACallbackAreCountedThere) {
  Context inner{ContextAttributes()};
  Receiver innerReceiver(inner, {inner, "INNER", {}}, [](const Message&) {});
  Receiver receiver(Ctx(), TopicToReceive(), [&](const Message&) {
    InPoll(inner, [&] { Deliver(innerReceiver, {"data"}); });
    EXPECT_NE(RowOf(Ctx(), "context")["busy_since"], 0);
  });
  InPoll(Ctx(), [&] { Deliver(receiver, {"data"}); });
  for (const Context* ctx : {&inner, &Ctx()}) {
    EXPECT_EQ(RowOf(*ctx, "context")["callbacks"], 1);
    EXPECT_EQ(RowOf(*ctx, "context")["loops"], 1);
  }
  Deliver(innerReceiver, {"in no loop"});
  EXPECT_EQ(RowOf(inner, "context")["callbacks"], 1);
}

TEST_F(StatisticsTest, AnExceptionIsCountedAndEndsTheLoopInOrder) {
  Receiver receiver(Ctx(), TopicToReceive(), [](const Message&) { throw std::runtime_error("callback"); });
  EXPECT_THROW(InPoll(Ctx(), [&] { Deliver(receiver, {"data"}); }), std::runtime_error);
  EXPECT_THAT(CallsTo("lbm_msg_delete"), SizeIs(1)) << "the message is given back";
  EXPECT_EQ(OfReceiver()["failures"], 1);
  EXPECT_EQ(RowOf(Ctx(), "context")["busy_since"], 0);
  Source source(Ctx(), TopicToSend(), [](int, void*) { throw std::runtime_error("callback"); });
  EXPECT_THROW(lbm_scripted::DeliverEvent(source, LBM_SRC_EVENT_CONNECT), std::runtime_error);
  EXPECT_EQ(OfSource()["callback_failures"], 1);
}

// What must not be done is not to be answered by writing where another row is now.
TEST_F(StatisticsTest, ACallbackMayDestroyWhatItBelongsTo) {
  std::unique_ptr<Receiver> receiver;
  receiver = std::make_unique<Receiver>(Ctx(), TopicToReceive(), [&](const Message&) {
    auto* const outside = &receiver;  // the callback's own memory goes
    outside->reset();
    throw std::runtime_error("callback");
  });
  lbm_rcv_t* const handle = *receiver;
  EXPECT_THROW(InPoll(Ctx(), [&] { Deliver(handle, {"data", LBM_MSG_REQUEST}); }), std::runtime_error);
  EXPECT_EQ(receiver, nullptr);

  auto ctx = std::make_unique<Context>(ContextAttributes());
  std::unique_ptr<Receiver> last;
  last = std::make_unique<Receiver>(*ctx, ReceiverTopic(*ctx, "LAST", {}), [&](const Message&) {
    auto* const context = &ctx;
    auto* const outside = &last;
    outside->reset();
    context->reset();
  });
  lbm_rcv_t* const lastHandle = *last;
  InPoll(*ctx, [&] { Deliver(lastHandle, {"data"}); });
  EXPECT_EQ(ctx, nullptr);
}

TEST_F(StatisticsTest, AnEventQueueHasARowOfItsOwn) {
  EventQueue queue{EventQueueAttributes()};
  Receiver receiver(
      Ctx(), TopicToReceive(), [](const Message&) { Spend(1'000'000); }, &queue);
  for (int i = 0; i < 2; ++i) {
    lbm_scripted::Post(static_cast<lbm_event_queue_t*>(queue), [&] { Deliver(receiver, {"data"}); });
  }
  queue.Poll();
  const statistics::Snapshot snapshot = statistics::TakeSnapshot();
  const auto rows = snapshot.Of("event_queue");
  ASSERT_THAT(rows, SizeIs(2)) << "with that of no room";
  EXPECT_THAT(NumbersOf(*rows[1]),
              UnorderedElementsAre(Pair("loops", 1), Pair("callbacks", 2), Pair("callback_time", Ge(2'000'000)),
                                   Pair("longest_callback", Ge(1'000'000))));
  EXPECT_THAT(RowOf(Ctx(), "context"), IsEmpty());
}

TEST(LoopClock, BelievesAnArrivalOnlyShortlyAfterAReading) {
  const auto arrival = [](std::int64_t secondsAgo) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    now.tv_sec -= secondsAgo;
    return now;
  };
  details::LoopClock clock;
  for (const timespec& wrong : {timespec{}, arrival(0), arrival(0), arrival(3600), arrival(-3600)}) {
    const std::uint64_t before = statistics::Now();
    constexpr std::uint64_t kBelieved = 10'000'000;
    EXPECT_THAT(clock.OfArrival(wrong), AllOf(Ge(before - kBelieved), Le(statistics::Now() + kBelieved)));
    EXPECT_THAT(clock.Now(), AllOf(Ge(before - kBelieved), Le(statistics::Now() + kBelieved)));
  }
}

TEST(ProcessRow, TellsWhoProvidesTheMessagingLibrary) {
  const Context ctx{ContextAttributes()};
  const statistics::Snapshot snapshot = statistics::TakeSnapshot();
  EXPECT_EQ(snapshot.Of("process").back()->Label("provider"), "scripted");
  EXPECT_THAT(std::string(snapshot.Of("process").back()->Label("version")), ::testing::MatchesRegex("[0-9.]+"));
}

}  // namespace
}  // namespace lbm
