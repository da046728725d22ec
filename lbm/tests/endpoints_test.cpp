#include <stdexcept>
#include <utility>

#include "lbm_test.h"

namespace lbm {
namespace {

class EndpointsTest : public LbmTest {};

TEST_F(EndpointsTest, TopicsAreMadeWithTheirAttributes) {
  const ReceiverTopicAttributes toReceive;
  const ReceiverTopic received(Ctx(), "PRICES", toReceive);
  EXPECT_EQ(CallsTo("lbm_rcv_topic_lookup").at(0).Pointer("attr"), static_cast<const void*>(toReceive));
  const SourceTopicAttributes toSend;
  const SourceTopic sent(Ctx(), "PRICES", toSend);
  EXPECT_EQ(CallsTo("lbm_src_topic_alloc").at(0).Pointer("attr"), static_cast<const void*>(toSend));
}

TEST_F(EndpointsTest, AReceiverSubscribesFromConstructionToDestruction) {
  const auto alive = std::make_shared<int>();
  EventQueue queue{EventQueueAttributes()};
  const auto topic = TopicToReceive();
  {
    const Receiver receiver(
        Ctx(), topic, [alive](const Message&) {}, &queue);
    const auto created = CallsTo("lbm_rcv_create").at(0);
    EXPECT_EQ(created.Function<lbm_rcv_cb_proc>("proc"), &Receiver::LbmCallback);
    EXPECT_EQ(created.Pointer("clientd"), &receiver);
    EXPECT_EQ(created.Pointer("topic"), static_cast<lbm_topic_t*>(topic));
    EXPECT_EQ(created.Pointer("evq"), static_cast<lbm_event_queue_t*>(queue));
    EXPECT_EQ(receiver.GetTopic(), "PRICES");
    lbm_scripted::OnCall("lbm_rcv_delete", [&](const auto&) {
      EXPECT_EQ(alive.use_count(), 2) << "the callback outlives the subscription";
      EXPECT_THAT(Lines(), SizeIs(2));
    });
  }
  EXPECT_EQ(alive.use_count(), 1);
  EXPECT_THAT(Lines(),
              ElementsAre("10 1147 Creating receiver on topic=PRICES", "10 1162 Deleting receiver on topic=PRICES"));
}

TEST_F(EndpointsTest, EveryMessageIsPassedOnAndLivesAsLongAsItIsKept) {
  std::vector<Message> kept;
  Receiver receiver(Ctx(), TopicToReceive(), [&](Message message) {
    EXPECT_EQ(lbm_scripted::References(message), 2U);
    kept.push_back(std::move(message));
  });
  for (const int type : {LBM_MSG_DATA, LBM_MSG_EOS, LBM_MSG_REQUEST, LBM_MSG_BOS, 99}) {
    EXPECT_EQ(Deliver(receiver, {"data", type}), 0);
    EXPECT_EQ(kept.back().Type(), type);
  }
  EXPECT_THAT(CallsTo("lbm_msg_delete"), IsEmpty());
  EXPECT_EQ(std::string(kept.at(0).Data(), kept.at(0).Length()), "data");
  kept.clear();
  EXPECT_THAT(CallsTo("lbm_msg_retain"), SizeIs(5));
  EXPECT_THAT(CallsTo("lbm_msg_delete"), SizeIs(5));
}

TEST_F(EndpointsTest, WithoutACallbackMessagesAreNotTouched) {
  Receiver receiver(Ctx(), TopicToReceive(), nullptr);
  EXPECT_EQ(Deliver(receiver, {"data"}), 0);
  EXPECT_EQ(Receiver::LbmCallback(receiver, nullptr, nullptr), 0);
  EXPECT_THAT(CallsTo("lbm_msg_retain"), IsEmpty());

  bool called = false;
  Receiver listening(Ctx(), TopicToReceive(),
                     [&](const Message& none) { called = static_cast<lbm_msg_t*>(none) == nullptr; });
  EXPECT_EQ(Receiver::LbmCallback(listening, nullptr, &listening), 0);
  EXPECT_TRUE(called) << "with no message";
}

TEST_F(EndpointsTest, CopiesOfAMessageShareItAndMovesTakeItOver) {
  lbm_msg_t* const raw = lbm_scripted::MakeMessage({"data"});
  Message message(raw);
  lbm_msg_delete(raw);
  Message copy(message);
  Message moved(std::move(message));
  EXPECT_EQ(static_cast<lbm_msg_t*>(message), nullptr);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(message.ToString(), "no message");
  message = moved;
  EXPECT_EQ(lbm_scripted::References(raw), 3U);
  message = std::move(copy);
  moved = Message();
  EXPECT_EQ(lbm_scripted::References(raw), 1U);
}

TEST_F(EndpointsTest, AMessageTellsWhatWasDelivered) {
  lbm_scripted::Message sent{"bytes", LBM_MSG_REQUEST, LBM_MSG_FLAG_FRAGMENT | LBM_MSG_FLAG_EXPLICIT_ACK, 4294967295U,
                             "host:1"};
  sent.channel = 7;
  for (const auto& given : {sent, lbm_scripted::Message{}}) {
    lbm_msg_t* const raw = lbm_scripted::MakeMessage(given, "PRICES");
    const Message message(raw);
    lbm_msg_delete(raw);
    const bool rich = given.channel.has_value();
    EXPECT_EQ(message.ToString(), rich ? "type=REQUEST(2) topic=PRICES source=host:1 sqn=4294967295 flags=24 length=5"
                                       : "type=DATA(0) topic=PRICES source=scripted sqn=0 flags=0 length=0");
    EXPECT_TRUE(message.IsFragment() == rich && message.CanSendExplicitAck() == rich);
    EXPECT_EQ(message.ChannelNumber(), rich ? 7U : 0U);
    if (rich) {
      message.SendExplicitAck();
      EXPECT_EQ(CallsTo("lbm_msg_send_explicit_ack").at(0).Pointer("msg"), raw);
    }
    EXPECT_EQ(static_cast<lbm_response_t*>(message.GetResponse()), raw->response);
  }
}

TEST_F(EndpointsTest, ASourceAsksForEventsOnlyWithACallback) {
  std::vector<std::string> events;
  EventQueue queue{EventQueueAttributes()};
  const Source silent(Ctx(), TopicToSend(), {}, &queue);
  Source source(Ctx(), TopicToSend(), [&](int event, void* data) {
    events.push_back(std::string(Source::EventToString(event)) + ' ' + static_cast<const char*>(data));
  });
  const auto created = CallsTo("lbm_src_create");
  EXPECT_TRUE(created.at(0).IsNull("proc") && created.at(1).IsNull("evq"));
  EXPECT_EQ(created.at(0).Pointer("evq"), static_cast<lbm_event_queue_t*>(queue));
  EXPECT_EQ(created.at(0).Pointer("clientd"), &silent);

  char client[] = "client";
  for (const int event : {LBM_SRC_EVENT_CONNECT, LBM_SRC_EVENT_DISCONNECT, LBM_SRC_EVENT_WAKEUP, 99}) {
    EXPECT_EQ(lbm_scripted::DeliverEvent(source, event, client), 0);
  }
  EXPECT_EQ(Source::LbmCallback(nullptr, LBM_SRC_EVENT_WAKEUP, nullptr, nullptr), 0);
  EXPECT_THAT(events, ElementsAre("CONNECT client", "DISCONNECT client", "WAKEUP client", "UNKNOWN client"));
}

TEST_F(EndpointsTest, ASourceIsDestroyedOnceHoweverOften) {
  Source source(Ctx(), TopicToSend(), {});
  lbm_scripted::SetBinaryOption("source", "transport_id", {'\x2a', 0, 0, 0});
  EXPECT_EQ(source.GetTransportId(), 42U);
  EXPECT_EQ(source.GetTransportId(), 42U);
  EXPECT_THAT(CallsTo("lbm_src_getopt"), SizeIs(1)) << "the number is kept";
  Script("lbm_src_delete", {3, 0, {}});
  source.Destroy();
  source.Destroy();
  EXPECT_EQ(static_cast<lbm_src_t*>(source), nullptr);
  Source other(Ctx(), TopicToSend(), {});
  Script("lbm_src_delete", Failure(LBM_EOP, "no"));
  other.Destroy();
  EXPECT_EQ(static_cast<lbm_src_t*>(other), nullptr) << "destroyed all the same";
  const std::string creating = "10 2027 Creating source on topic=PRICES";
  const std::string deleting = "10 2331 Deleting source on topic=PRICES";
  EXPECT_THAT(Lines(), ElementsAre(creating, deleting, "0 2340 Deleted topic=PRICES ret_code=3", deleting, creating,
                                   deleting, "30 71 Failed to delete LBM source: no"));
  EXPECT_THAT(CallsTo("lbm_src_delete"), SizeIs(2));
  EXPECT_THROW(source.GetTransportId(), LbmError) << "it has no transport any more";
  lbm_scripted::Reset();  // the handle that could not be deleted
}

TEST_F(EndpointsTest, ADeferredSourceIsRegisteredOnceAndNotAfterItsEnd) {
  int events = 0;
  EventQueue queue{EventQueueAttributes()};
  const auto topic = TopicToSend();
  Source source([&](int, void*) { ++events; });
  EXPECT_EQ(FailureOf("lbm_src_create", [&] { source.DoDeferredRegistration(Ctx(), topic); }),
            "Failed to create LBM sender: no");
  source.DoDeferredRegistration(Ctx(), topic, &queue);
  EXPECT_EQ(CallsTo("lbm_src_create").back().Pointer("evq"), static_cast<lbm_event_queue_t*>(queue));
  lbm_scripted::DeliverEvent(source, LBM_SRC_EVENT_CONNECT);
  EXPECT_EQ(events, 1);
  EXPECT_THROW(source.DoDeferredRegistration(Ctx(), topic), std::logic_error);
  source.Destroy();
  EXPECT_THROW(source.DoDeferredRegistration(Ctx(), topic), std::logic_error);

  Source neverRegistered({});
  neverRegistered.Destroy();
  EXPECT_THROW(neverRegistered.DoDeferredRegistration(Ctx(), topic), std::logic_error);
  EXPECT_THAT(CallsTo("lbm_src_create"), SizeIs(2));

  {
    Source failed({});
    FailureOf("lbm_src_create", [&] { failed.DoDeferredRegistration(Ctx(), topic); });
  }
  EXPECT_EQ(Lines().back(), "10 2331 Deleting source on topic=PRICES") << "the name is not lost with the failure";
}

TEST_F(EndpointsTest, ARequestTakesResponsesUntilItGoes) {
  Source source(Ctx(), TopicToSend(), {});
  EventQueue queue{EventQueueAttributes()};
  std::vector<std::string> answers;
  {
    auto request = source.SendRequest(
        "ask", 3, LBM_SRC_FLUSH,
        [&](const Message& message) { answers.emplace_back(message.Data(), message.Length()); }, &queue);
    const auto call = CallsTo("lbm_send_request").at(0);
    EXPECT_EQ(call.Text("data"), "ask");
    EXPECT_EQ(call.Pointer("evq"), static_cast<lbm_event_queue_t*>(queue));
    EXPECT_EQ(call.Number("flags"), LBM_SRC_FLUSH);
    EXPECT_EQ(Deliver(request, {"one", LBM_MSG_RESPONSE}), 0);
    EXPECT_EQ(Deliver(request, {"two", LBM_MSG_RESPONSE}), 0);
    Script("lbm_request_delete", Failure(LBM_EOP, "no"));
  }
  EXPECT_THAT(answers, ElementsAre("one", "two"));
  EXPECT_EQ(Lines().back(), "30 71 Failed to delete LBM request: no");
  EXPECT_THAT(LiveHandles("request"), SizeIs(1));
  source.Destroy();
  lbm_scripted::Reset();  // the request that could not be deleted
}

}  // namespace
}  // namespace lbm
