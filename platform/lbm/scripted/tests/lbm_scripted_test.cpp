#include <array>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "scripted_test.h"

namespace lbm_scripted {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;

TEST_F(ScriptedTest, CallsAndErrorsAreThoseOfTheirThread) {
  lbm_src_t* const source = MakeSource();
  Script("lbm_src_send", Failure(LBM_EWOULDBLOCK, "full"));
  EXPECT_EQ(lbm_src_send(source, "a\0b", 3, LBM_SRC_FLUSH), -1);
  std::thread other([&] {
    EXPECT_EQ(lbm_errnum(), 0);
    lbm_src_send(source, "abc", 3, LBM_SRC_FLUSH);
  });
  const auto otherId = other.get_id();
  other.join();
  EXPECT_EQ(lbm_errnum(), LBM_EWOULDBLOCK);

  const auto calls = CallsTo("lbm_src_send");
  ASSERT_THAT(calls, SizeIs(2));
  EXPECT_EQ(calls[0].Text("data"), std::string("a\0b", 3));
  EXPECT_EQ(calls[0].thread, std::this_thread::get_id());
  EXPECT_THAT(calls[1].ToString(), MatchesRegex("lbm_src_send\\(src=src#[0-9]+ \"PRICES\", data=\"abc\", len=3, "
                                                "flags=4\\) = 0"));
  EXPECT_EQ(calls[1].thread, otherId);
}

TEST_F(ScriptedTest, NamesThatNothingHasAreRefused) {
  lbm_src_send(MakeSource(), "a", 1, 0);
  const Call call = CallsTo("lbm_src_send").at(0);
  EXPECT_THROW(call.Number("length"), std::out_of_range);
  EXPECT_THROW(call.Number("data"), std::bad_variant_access);
  EXPECT_THROW(CallsTo("lbm_source_send"), std::invalid_argument);
  EXPECT_THROW(Script("printf", {}), std::invalid_argument);
}

TEST_F(ScriptedTest, OptionsReachWhatIsCreatedWithThem) {
  lbm_context_attr_t* attributes = nullptr;
  lbm_context_attr_create(&attributes);
  lbm_context_attr_str_setopt(attributes, "context_name", "NAME");
  const int number = 5;
  lbm_context_attr_setopt(attributes, "number", &number, sizeof number);
  lbm_context_t* const context = MakeContext(attributes);
  lbm_context_attr_str_setopt(attributes, "context_name", "LATER");

  std::array<char, 5> text{};
  std::size_t length = 3;
  EXPECT_EQ(lbm_context_str_getopt(context, "context_name", text.data(), &length), -1) << "there is too little room";
  length = text.size();
  EXPECT_EQ(lbm_context_str_getopt(context, "context_name", text.data(), &length), 0);
  EXPECT_STREQ(text.data(), "NAME");

  int read = 0;
  length = sizeof read;
  EXPECT_EQ(lbm_context_getopt(context, "number", &read, &length), 0);
  EXPECT_EQ(read, 5);
  EXPECT_EQ(lbm_context_getopt(context, "context_name", &read, &length), -1) << "has no binary form";
  EXPECT_EQ(lbm_context_getopt(m_context, "number", &read, &length), -1) << "was never set";
  EXPECT_THAT(lbm_errmsg(), HasSubstr("number"));
}

TEST_F(ScriptedTest, DescriptorsAreRegisteredOnceForEachEvent) {
  const auto onFd = [](lbm_context_t*, int, lbm_ulong_t event, void*) { return static_cast<int>(event); };
  EXPECT_EQ(lbm_register_fd(m_context, 5, onFd, nullptr, nullptr, LBM_FD_EVENT_READ | LBM_FD_EVENT_WRITE), 0);
  EXPECT_EQ(lbm_register_fd(m_context, 5, onFd, nullptr, nullptr, LBM_FD_EVENT_READ), -1);
  EXPECT_EQ(lbm_cancel_fd(m_context, 5, LBM_FD_EVENT_READ), 0);
  EXPECT_THROW(DeliverFdEvent(m_context, 5, LBM_FD_EVENT_READ), std::logic_error);
  EXPECT_EQ(DeliverFdEvent(m_context, 5, LBM_FD_EVENT_WRITE), LBM_FD_EVENT_WRITE);
  EXPECT_EQ(lbm_cancel_fd(m_context, 5, LBM_FD_EVENT_READ), -1);
}

TEST_F(ScriptedTest, ProcessingEventsWaitsAsARealLibraryDoes) {
  EXPECT_EQ(lbm_context_process_events(m_context, 0), 0);
  lbm_context_unblock(m_context);
  EXPECT_EQ(lbm_context_process_events(m_context, 600'000), 0) << "an unblock is not lost";

  int result = 0;
  std::thread dispatcher([&] {
    while (result == 0) {
      result = lbm_context_process_events(m_context, 600'000);
    }
  });
  EXPECT_TRUE(WaitForCalls("lbm_context_process_events", 3));
  std::promise<std::thread::id> ranOn;
  const auto id = dispatcher.get_id();
  Post(m_context, [&] { ranOn.set_value(std::this_thread::get_id()); });
  EXPECT_EQ(ranOn.get_future().get(), id);
  EXPECT_TRUE(WaitForCalls("lbm_context_process_events", 4));
  Reset();
  Script("lbm_context_process_events", Failure(LBM_EOP, "scripted while it waits"));
  dispatcher.join();
  EXPECT_EQ(result, -1);
  EXPECT_EQ(lbm_context_process_events(m_context, 0), 0) << "Reset left the context alive";

  for (int i = 0; i < 1000; ++i) {
    lbm_context_process_events(m_context, 0);
  }
  const auto idle = CallsTo("lbm_context_process_events");
  EXPECT_EQ(idle.back().times, 1001U) << "polls that find nothing do not fill the memory";
  EXPECT_TRUE(WaitForCalls("lbm_context_process_events", 1001));
}

TEST_F(ScriptedTest, LeaksAndMisuseAreTold) {
  lbm_src_t* const source = MakeSource();
  lbm_rcv_topic_attr_t* attributes = nullptr;
  lbm_rcv_topic_attr_create(&attributes);
  EXPECT_THAT(LiveHandles(), ElementsAre(MatchesRegex("context#[0-9]+"), MatchesRegex("src#[0-9]+ \"PRICES\""),
                                         MatchesRegex("rcv_topic_attr#[0-9]+")));
  EXPECT_THAT(LiveHandles("src"), SizeIs(1));

  EXPECT_EQ(lbm_src_delete(source), 0);
  EXPECT_EQ(lbm_src_delete(source), -1);
  EXPECT_EQ(lbm_src_send(source, "x", 1, 0), -1);
  EXPECT_EQ(lbm_src_delete(nullptr), -1);
  lbm_topic_t* topic = nullptr;
  lbm_src_topic_alloc(&topic, m_context, "NEWS", nullptr);
  lbm_context_delete(m_context);
  lbm_src_t* late = nullptr;
  EXPECT_EQ(lbm_src_create(&late, MakeContext(), topic, nullptr, nullptr, nullptr), -1);
  EXPECT_THAT(Problems(),
              ElementsAre(MatchesRegex("lbm_src_delete: src was deleted: src#[0-9]+ \"PRICES\""),
                          MatchesRegex("lbm_src_send: src was deleted: src#[0-9]+ \"PRICES\""),
                          "lbm_src_delete: src is null", HasSubstr("lbm_src_create: topic was deleted: topic#")));

  Reset();
  EXPECT_THAT(LiveHandles(), IsEmpty()) << "what was made before counts no more";
  EXPECT_EQ(lbm_rcv_topic_attr_delete(attributes), 0) << "and can still be given back";
  EXPECT_EQ(lbm_src_delete(source), -1);
  EXPECT_THAT(Problems(), ElementsAre(HasSubstr("lbm_src_delete: src is not a handle")));
}

TEST_F(ScriptedTest, MessagesLiveByTheirReferences) {
  lbm_msg_t* kept = nullptr;
  lbm_rcv_t* const receiver = MakeReceiver(
      [](lbm_rcv_t*, lbm_msg_t* msg, void* clientd) {
        *static_cast<lbm_msg_t**>(clientd) = msg;
        return lbm_msg_retain(msg);
      },
      &kept);
  EXPECT_THROW(NotifySourceCreated(receiver, "host:1"), std::logic_error) << "it asked for no notifications";
  Message request{"ask", LBM_MSG_REQUEST};
  Deliver(receiver, request);
  EXPECT_EQ(References(kept), 1U);
  lbm_response_t* const response = kept->response;
  EXPECT_EQ(lbm_send_response(response, "answer", 6, 0), 0);
  lbm_msg_delete(kept);
  EXPECT_STREQ(kept->topic_name, "deleted");
  EXPECT_EQ(kept->data, nullptr);
  EXPECT_EQ(lbm_send_response(response, "late", 4, 0), -1) << "the response went with its message";
  EXPECT_EQ(lbm_msg_delete(kept), -1);
  EXPECT_THAT(Problems(), SizeIs(2));

  Deliver(receiver, request);
  lbm_response_t* const taken = std::exchange(kept->response, nullptr);
  lbm_msg_delete(kept);
  EXPECT_EQ(lbm_send_response(taken, "later", 5, 0), 0) << "taken over";
  EXPECT_EQ(lbm_response_delete(taken), 0);
  EXPECT_EQ(lbm_msg_send_explicit_ack(kept), -1);
}

TEST_F(ScriptedTest, NullWhereTheInterfaceTakesNoneIsMisuse) {
  lbm_src_t* const source = MakeSource();
  lbm_event_queue_attr_t* attributes = nullptr;
  lbm_event_queue_attr_create(&attributes);
  lbm_topic_t* topic = nullptr;
  lbm_rcv_topic_lookup(&topic, m_context, "PRICES", nullptr);
  lbm_rcv_t* receiver = nullptr;
  lbm_request_t* request = nullptr;
  char text[8] = {};
  std::size_t room = sizeof text;
  const iovec noBytes{nullptr, 1};
  const lbm_event_queue_cancel_cb_info_t noCallback{};

  const int results[] = {
      lbm_config(nullptr),
      lbm_event_queue_attr_create(nullptr),
      lbm_event_queue_attr_setopt(attributes, nullptr, &room, sizeof room),
      lbm_event_queue_attr_setopt(attributes, "number", nullptr, sizeof room),
      lbm_event_queue_attr_str_setopt(attributes, "name", nullptr),
      lbm_context_str_getopt(m_context, nullptr, text, &room),
      lbm_context_str_getopt(m_context, "context_name", nullptr, &room),
      lbm_context_str_getopt(m_context, "context_name", text, nullptr),
      lbm_context_str_getopt_all(m_context, nullptr, &room),
      lbm_context_create(nullptr, nullptr, nullptr, nullptr),
      lbm_rcv_topic_lookup(&topic, m_context, nullptr, nullptr),
      lbm_rcv_create(&receiver, m_context, topic, nullptr, nullptr, nullptr),
      lbm_src_send(source, nullptr, 1, 0),
      lbm_src_sendv(source, nullptr, 1, 0),
      lbm_src_sendv_ex(source, &noBytes, 1, 0, nullptr),
      lbm_src_sendv(source, &noBytes, -1, 0),
      lbm_send_request(&request, source, "ask", 3, nullptr, nullptr, nullptr, 0),
      lbm_register_fd(m_context, 5, nullptr, nullptr, nullptr, LBM_FD_EVENT_READ),
      lbm_cancel_fd_ex(m_context, 5, LBM_FD_EVENT_READ, nullptr),
      lbm_cancel_fd_ex(m_context, 5, LBM_FD_EVENT_READ, &noCallback),
  };
  EXPECT_THAT(results, ::testing::Each(-1));
  EXPECT_THAT(Problems(), SizeIs(std::size(results)));
  EXPECT_EQ(lbm_errnum(), LBM_EINVAL);
  EXPECT_STREQ(lbm_errmsg(), "cancel_cb is null");
  EXPECT_EQ(lbm_src_send(source, nullptr, 0, 0), 0) << "there are no bytes";
}

}  // namespace
}  // namespace lbm_scripted
