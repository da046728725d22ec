#include <array>
#include <stdexcept>
#include <vector>

#include "lbm_test.h"

namespace lbm {
namespace {

using lbm_scripted::CallsTo;
using lbm_scripted::Deliver;
using lbm_scripted::Failure;
using lbm_scripted::Script;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using zq::logging::ZQLOG_DEBUG;
using zq::logging::ZQLOG_ERROR;
using zq::logging::ZQLOG_INFO;
using zq::logging::ZQLOG_INFO_LOCAL;

class TopicsTest : public LbmTest {};

TEST_F(TopicsTest, AreLookedUpByNameAndShared) {
  const ReceiverTopicAttributes attributes;
  const ReceiverTopic topic(Ctx(), "PRICES", attributes);
  const auto lookup = CallsTo("lbm_rcv_topic_lookup").at(0);
  EXPECT_EQ(lookup.Text("name"), "PRICES");
  EXPECT_EQ(lookup.Pointer("attr"), static_cast<const void*>(attributes));
  EXPECT_EQ(lookup.Pointer("topic"), static_cast<lbm_topic_t*>(topic));
  const ReceiverTopic copy(topic);  // NOLINT(performance-unnecessary-copy-initialization)
  EXPECT_EQ(copy.GetString(), "PRICES");
  EXPECT_EQ(static_cast<lbm_topic_t*>(copy), static_cast<lbm_topic_t*>(topic));

  Script("lbm_rcv_topic_lookup", Failure(LBM_EINVAL, "no"));
  EXPECT_EQ(ErrorOf([&] { TopicToReceive(); }), "Failed to lookup LBM topic: no");
  Script("lbm_src_topic_alloc", Failure(LBM_EINVAL, "no"));
  EXPECT_EQ(ErrorOf([&] { TopicToSend(); }), "Failed to create LBM topic: no");
}

class ReceiverTest : public LbmTest {};

TEST_F(ReceiverTest, SubscribesFromConstructionToDestruction) {
  const auto alive = std::make_shared<int>();
  EventQueue queue{EventQueueAttributes()};
  {
    auto topic = TopicToReceive();
    const Receiver plain(
        Ctx(), topic, [alive](const Message&) {}, nullptr);
    const Receiver queued(
        Ctx(), topic, [](const Message&) {}, &queue);
    const auto created = CallsTo("lbm_rcv_create");
    ASSERT_THAT(created, SizeIs(2));
    EXPECT_EQ(created[0].Function<lbm_rcv_cb_proc>("proc"), &Receiver::LbmCallback);
    EXPECT_EQ(created[0].Pointer("clientd"), &plain);
    EXPECT_EQ(created[0].Pointer("topic"), static_cast<lbm_topic_t*>(topic));
    EXPECT_TRUE(created[0].IsNull("evq"));
    EXPECT_EQ(created[1].Pointer("evq"), static_cast<lbm_event_queue_t*>(queue));
    EXPECT_EQ(plain.GetTopic(), "PRICES");

    lbm_scripted::OnCall("lbm_rcv_delete", [&](const auto&) {
      EXPECT_EQ(alive.use_count(), 2) << "the callback outlives the subscription";
    });
    log_capture::Clear();
  }
  EXPECT_THAT(log_capture::Statements(), ElementsAre(Statement(ZQLOG_INFO, 1162, "Deleting receiver on topic=PRICES"),
                                                     Statement(ZQLOG_INFO, 1162, "Deleting receiver on topic=PRICES")));
  EXPECT_EQ(alive.use_count(), 1);
}

TEST_F(ReceiverTest, ThatCannotBeCreatedSaysSo) {
  const auto topic = TopicToReceive();
  log_capture::Clear();
  Script("lbm_rcv_create", Failure(LBM_EINVAL, "no"));
  EXPECT_EQ(ErrorOf([&] { Receiver(Ctx(), topic, nullptr, nullptr); }), "Failed to create LBM receiver: no");
  EXPECT_THAT(log_capture::Statements(), ElementsAre(Statement(ZQLOG_INFO, 1147, "Creating receiver on topic=PRICES"),
                                                     Statement(ZQLOG_ERROR, 65, "Failed to create LBM receiver: no")));
  EXPECT_THAT(CallsTo("lbm_rcv_delete"), IsEmpty());
}

TEST_F(ReceiverTest, EveryEventIsPassedOnWithOneReference) {
  std::vector<int> types;
  Receiver receiver(Ctx(), TopicToReceive(), [&](const Message& message) {
    EXPECT_EQ(lbm_scripted::References(message), 2U);
    types.push_back(message.Type());
  });
  for (const int type : {LBM_MSG_DATA, LBM_MSG_EOS, LBM_MSG_REQUEST, LBM_MSG_BOS, 99}) {
    EXPECT_EQ(Deliver(receiver, {"data", type}), 0);
  }
  EXPECT_THAT(types, ElementsAre(0, 1, 2, 20, 99));
  EXPECT_THAT(CallsTo("lbm_msg_retain"), SizeIs(5));
  EXPECT_THAT(CallsTo("lbm_msg_delete"), SizeIs(5));
}

TEST_F(ReceiverTest, AKeptMessageLivesAsLongAsItsHolder) {
  std::vector<Message> kept;
  Receiver receiver(Ctx(), TopicToReceive(), [&](Message message) { kept.push_back(std::move(message)); });
  Deliver(receiver, {"kept"});
  EXPECT_THAT(CallsTo("lbm_msg_delete"), IsEmpty());
  EXPECT_EQ(std::string(kept.at(0).Data(), kept.at(0).Length()), "kept");
  kept.clear();
  EXPECT_THAT(CallsTo("lbm_msg_retain"), SizeIs(1));
  EXPECT_THAT(CallsTo("lbm_msg_delete"), SizeIs(1));
}

TEST_F(ReceiverTest, WithoutACallbackMessagesAreNotTouched) {
  Receiver receiver(Ctx(), TopicToReceive(), nullptr);
  EXPECT_EQ(Deliver(receiver, {"data"}), 0);
  lbm_msg_t* const message = lbm_scripted::MakeMessage({"data"});
  EXPECT_EQ(Receiver::LbmCallback(receiver, message, nullptr), 0);
  EXPECT_THAT(CallsTo("lbm_msg_retain"), IsEmpty());
  lbm_msg_delete(message);

  bool called = false;
  Receiver listening(Ctx(), TopicToReceive(), [&](const Message& none) {
    called = true;
    EXPECT_EQ(static_cast<lbm_msg_t*>(none), nullptr);
  });
  EXPECT_EQ(Receiver::LbmCallback(listening, nullptr, &listening), 0);
  EXPECT_TRUE(called);
}

TEST_F(ReceiverTest, AThrowingCallbackStillGivesTheMessageBack) {
  Receiver receiver(Ctx(), TopicToReceive(), [](const Message&) { throw std::runtime_error("callback"); });
  EXPECT_THROW(Deliver(receiver, {"data"}), std::runtime_error);
  EXPECT_THAT(CallsTo("lbm_msg_delete"), SizeIs(1));
}

class MessageTest : public LbmTest {};

TEST_F(MessageTest, CopiesShareAndMovesTakeOver) {
  lbm_msg_t* const raw = lbm_scripted::MakeMessage({"data"});
  Message message(raw);
  lbm_msg_delete(raw);
  Message copy(message);
  EXPECT_EQ(lbm_scripted::References(raw), 2U);
  Message moved(std::move(message));
  EXPECT_EQ(static_cast<lbm_msg_t*>(message), nullptr);
  EXPECT_EQ(message.ToString(), "no message");
  message = moved;
  EXPECT_EQ(lbm_scripted::References(raw), 3U);
  message = std::move(copy);
  moved = Message();
  EXPECT_EQ(lbm_scripted::References(raw), 1U);
  message = *&message;
  EXPECT_EQ(message.Length(), 4U);
}

TEST_F(MessageTest, ReadsWhatWasDelivered) {
  int clientd = 0;
  lbm_scripted::Message sent{"bytes", LBM_MSG_REQUEST, LBM_MSG_FLAG_FRAGMENT | LBM_MSG_FLAG_EXPLICIT_ACK, 4294967295U,
                             "host:1"};
  sent.channel = 7;
  sent.sourceClientd = &clientd;
  sent.timestamp = {12, 34};
  lbm_msg_t* raw = lbm_scripted::MakeMessage(sent, "PRICES");
  {
    const Message message(raw);
    EXPECT_EQ(std::string(message.Data(), message.Length()), "bytes");
    EXPECT_STREQ(message.TopicName(), "PRICES");
    EXPECT_STREQ(message.Source(), "host:1");
    EXPECT_EQ(message.SequenceNumber(), 4294967295U);
    EXPECT_TRUE(message.IsFragment() && message.CanSendExplicitAck() && message.WasSentOnChannel());
    EXPECT_EQ(message.ChannelNumber(), 7U);
    EXPECT_EQ(message.SourceClientd(), &clientd);
    EXPECT_EQ(message.GetTimestamp().tv_sec * 100 + message.GetTimestamp().tv_nsec, 1234);
    EXPECT_EQ(static_cast<lbm_response_t*>(message.GetResponse()), raw->response);
    EXPECT_EQ(message.ToString(), "type=REQUEST(2) topic=PRICES source=host:1 sqn=4294967295 flags=24 length=5");
    message.SendExplicitAck();
  }
  lbm_msg_delete(raw);

  raw = lbm_scripted::MakeMessage({});
  const Message plain(raw);
  lbm_msg_delete(raw);
  EXPECT_FALSE(plain.IsFragment() || plain.CanSendExplicitAck() || plain.WasSentOnChannel());
  EXPECT_EQ(plain.ChannelNumber(), 0U);
  EXPECT_EQ(static_cast<lbm_response_t*>(plain.GetResponse()), nullptr);
  EXPECT_THROW(plain.SendExplicitAck(), LbmError);
}

class SourceTest : public LbmTest {};

TEST_F(SourceTest, EventsAreAskedForOnlyWithACallback) {
  std::vector<std::string> events;
  const Source silent(Ctx(), TopicToSend(), {});
  Source source(Ctx(), TopicToSend(), [&](int event, void* data) {
    events.push_back(std::string(Source::EventToString(event)) + ' ' + static_cast<const char*>(data));
  });
  const auto created = CallsTo("lbm_src_create");
  EXPECT_TRUE(created.at(0).IsNull("proc") && created.at(0).IsNull("evq"));
  EXPECT_EQ(created.at(0).Pointer("clientd"), &silent);
  EXPECT_EQ(created.at(1).Function<lbm_src_cb_proc>("proc"), &Source::LbmCallback);

  char client[] = "client";
  EXPECT_EQ(lbm_scripted::DeliverEvent(source, LBM_SRC_EVENT_CONNECT, client), 0);
  EXPECT_EQ(lbm_scripted::DeliverEvent(source, 99, client), 0);
  EXPECT_EQ(Source::LbmCallback(nullptr, LBM_SRC_EVENT_WAKEUP, nullptr, nullptr), 0);
  EXPECT_THAT(events, ElementsAre("CONNECT client", "UNKNOWN client"));
}

TEST_F(SourceTest, DestroyingTwiceDeletesOnce) {
  Source source(Ctx(), TopicToSend(), {});
  const auto deleting = Statement(ZQLOG_INFO, 2331, "Deleting source on topic=PRICES");
  Script("lbm_src_delete", {3, 0, {}});
  source.Destroy();
  source.Destroy();
  EXPECT_EQ(static_cast<lbm_src_t*>(source), nullptr);
  EXPECT_THAT(log_capture::Statements(),
              ElementsAre(Statement(ZQLOG_INFO, 2027, "Creating source on topic=PRICES"), deleting,
                          Statement(ZQLOG_DEBUG, 2340, "Deleted topic=PRICES ret_code=3"), deleting));
  EXPECT_THAT(CallsTo("lbm_src_delete"), SizeIs(1));

  log_capture::Clear();
  log_capture::SetMinLevel(ZQLOG_INFO);
  { const Source another(Ctx(), TopicToSend(), {}); }
  EXPECT_THAT(log_capture::Texts(), ElementsAre("Creating source on topic=PRICES", "Deleting source on topic=PRICES"));
}

TEST_F(SourceTest, FailuresToCreateAndDeleteAreReported) {
  log_capture::SetMinLevel(ZQLOG_INFO_LOCAL);
  Script("lbm_src_create", Failure(LBM_EINVAL, "no"));
  EXPECT_EQ(ErrorOf([&] { Source(Ctx(), TopicToSend(), {}); }), "Failed to create LBM sender: no");
  EXPECT_THAT(CallsTo("lbm_src_delete"), IsEmpty());

  Source source(Ctx(), TopicToSend(), {});
  log_capture::Clear();
  Script("lbm_src_delete", Failure(LBM_EOP, "no"));
  source.Destroy();
  EXPECT_THAT(log_capture::Statements(), ElementsAre(Statement(ZQLOG_INFO, 2331, "Deleting source on topic=PRICES"),
                                                     Statement(ZQLOG_ERROR, 71, "Failed to delete LBM source: no")));
  EXPECT_EQ(static_cast<lbm_src_t*>(source), nullptr) << "destroyed all the same";
  lbm_scripted::Reset();  // the handle that could not be deleted
}

TEST_F(SourceTest, ADeferredSourceIsRegisteredOnce) {
  int events = 0;
  Source source([&](int, void*) { ++events; });
  EXPECT_THAT(CallsTo("lbm_src_create"), IsEmpty());
  const auto topic = TopicToSend();
  lbm_scripted::Script("lbm_src_create", lbm_scripted::Failure(LBM_EOP, "not yet"));
  EXPECT_THROW(source.DoDeferredRegistration(Ctx(), topic), LbmError) << "which may be tried again";
  EXPECT_EQ(source.GetTopic(), "PRICES");
  source.DoDeferredRegistration(Ctx(), topic);
  lbm_scripted::DeliverEvent(source, LBM_SRC_EVENT_CONNECT);
  EXPECT_EQ(events, 1);
  EXPECT_EQ(source.GetTopic(), "PRICES");
  EXPECT_THROW(source.DoDeferredRegistration(Ctx(), topic), std::logic_error);
  source.Destroy();
  EXPECT_THROW(source.DoDeferredRegistration(Ctx(), topic), std::logic_error) << "there is no way back";

  Source unregistered({});
  unregistered.Destroy();
  EXPECT_THROW(unregistered.DoDeferredRegistration(Ctx(), topic), std::logic_error) << "nor for one never registered";
  EXPECT_THAT(CallsTo("lbm_src_create"), SizeIs(2));

  log_capture::Clear();
  {
    Source failed({});
    Script("lbm_src_create", Failure(LBM_EOP, "no"));
    EXPECT_THROW(failed.DoDeferredRegistration(Ctx(), topic), LbmError);
  }
  EXPECT_EQ(log_capture::Texts().back(), "Deleting source on topic=PRICES");
}

TEST_F(SourceTest, SendsInEveryForm) {
  Source source(Ctx(), TopicToSend(), {});
  char first[] = "ab";
  char second[] = "cd";
  const std::array<iovec, 2> pieces{iovec{first, 2}, iovec{second, 2}};
  const lbm_src_send_ex_info_t channel{LBM_SRC_SEND_EX_FLAG_CHANNEL, 5};
  const std::vector<std::pair<std::string, std::function<void()>>> throwing{
      {"lbm_src_send", [&] { source.Send("abcd", 4, LBM_SRC_FLUSH); }},
      {"lbm_src_send_ex", [&] { source.SendEx("abcd", 4, LBM_SRC_FLUSH, &channel); }},
      {"lbm_src_sendv", [&] { source.Sendv(pieces.data(), 2, LBM_SRC_FLUSH); }},
      {"lbm_src_sendv_ex", [&] { source.SendvEx(pieces.data(), 2, LBM_SRC_FLUSH, &channel); }}};
  for (const auto& [function, send] : throwing) {
    SCOPED_TRACE(function);
    send();
    const auto call = CallsTo(function).at(0);
    EXPECT_EQ(call.Pointer("src"), static_cast<lbm_src_t*>(source));
    EXPECT_EQ(call.Text("data"), "abcd");
    EXPECT_EQ(call.Number("flags"), LBM_SRC_FLUSH);
    if (function.find("_ex") != std::string::npos) {
      EXPECT_EQ(call.Number("channel_number"), 5);
    }
    Script(function, Failure(LBM_EWOULDBLOCK, "full"));
    EXPECT_EQ(ErrorOf(send), "Failed to send LBM message: full");
  }

  log_capture::Clear();
  Script("lbm_src_send", Failure(LBM_EWOULDBLOCK, "full"));
  EXPECT_EQ(source.SendEC("abcd", 4, LBM_SRC_NONBLOCK), -1);
  EXPECT_EQ(lbm_errnum(), LBM_EWOULDBLOCK);
  EXPECT_EQ(source.SendEC("abcd", 4, LBM_SRC_NONBLOCK), 0);
  Script("lbm_src_send_ex", {-2, 0, {}});
  EXPECT_EQ(source.SendExEC("abcd", 4, LBM_SRC_NONBLOCK, nullptr), -2);
  EXPECT_THAT(log_capture::Statements(), IsEmpty());
}

TEST_F(SourceTest, ARequestTakesResponsesUntilItGoes) {
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
  }
  EXPECT_THAT(answers, ElementsAre("one", "two"));
  EXPECT_THAT(CallsTo("lbm_request_delete"), SizeIs(1));
  EXPECT_THAT(CallsTo("lbm_msg_delete"), SizeIs(2));

  Script("lbm_send_request", Failure(LBM_EOP, "no"));
  EXPECT_EQ(ErrorOf([&] { auto request = source.SendRequest("ask", 3, 0, {}); }), "Failed to send LBM request: no");
}

TEST_F(SourceTest, OptionsAndTransportComeFromTheLibrary) {
  Source source(Ctx(), TopicToSend(), {});
  Receiver receiver(Ctx(), TopicToReceive(), {});
  source.SetString("option", "s");
  receiver.SetString("option", "r");
  EXPECT_EQ(CallsTo("lbm_src_str_setopt").at(0).Text("optval"), "s");
  EXPECT_EQ(CallsTo("lbm_rcv_str_setopt").at(0).Text("optval"), "r");
  Script("lbm_src_str_setopt", Failure(LBM_EOP, "no"));
  EXPECT_EQ(ErrorOf([&] { source.SetString("option", "s"); }), "Failed to set LBM source option: no");
  Script("lbm_rcv_str_setopt", Failure(LBM_EOP, "no"));
  EXPECT_EQ(ErrorOf([&] { receiver.SetString("option", "r"); }), "Failed to set LBM receiver option: no");

  EXPECT_THROW(source.GetTransportId(), LbmError);
  EXPECT_THROW(source.GetTransportSource(), LbmError);
  lbm_scripted::SetOption("source", "transport_source", "host:1:2");
  lbm_scripted::SetBinaryOption("source", "transport_id", {'\x2a', 0, 0, 0});
  EXPECT_EQ(source.GetTransportSource(), "host:1:2");
  EXPECT_EQ(source.GetTransportId(), 42U);
  EXPECT_EQ(source.GetTransportId(), 42U);
  EXPECT_THAT(CallsTo("lbm_src_getopt"), SizeIs(2)) << "the number is kept";
}

}  // namespace
}  // namespace lbm
