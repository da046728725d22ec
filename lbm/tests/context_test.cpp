// Contexts and event queues, and what all of the layer says of failures.
#include <functional>
#include <iostream>
#include <optional>
#include <thread>

#include "lbm_test.h"

namespace lbm {
namespace {

class ContextTest : public LbmTest {
 protected:
  // What the context's destruction writes to standard output, with a mark before each piece.
  static std::string Destroy(std::unique_ptr<Context> context) {
    MarkedPieces pieces;
    std::streambuf* const usual = std::cout.rdbuf(&pieces);
    ::testing::internal::CaptureStderr();
    context.reset();
    std::cout.rdbuf(usual);
    return ::testing::internal::GetCapturedStderr();
  }
};

TEST_F(ContextTest, LearnsItsNameAndTellsItsBeginningAndEnd) {
  const std::string longest(1023, 'n');
  for (const auto& [option, name] : {std::pair{longest, longest}, {std::string("PRICES\0hidden", 13), "PRICES"}}) {
    log_capture::Clear();
    lbm_scripted::SetOption("context", "context_name", option);
    ContextAttributes attributes;
    auto context = std::make_unique<Context>(attributes);
    const std::string address = Handle(*context);
    EXPECT_THAT(Lines(),
                ElementsAre("17 616 Created LBM context=" + address + " with attributes context_name=" + name));

    const auto created = CallsTo("lbm_context_create").back();
    EXPECT_EQ(created.Pointer("attr"), static_cast<const void*>(attributes));
    EXPECT_TRUE(created.IsNull("proc") && created.IsNull("clientd"));
    EXPECT_EQ(CallsTo("lbm_context_str_getopt").back().Number("optlen"), 1023);

    log_capture::SetMinLevel(zq::logging::ZQLOG_WALL);
    EXPECT_EQ(Destroy(std::move(context)), "> Destroying LBM context=" + address + " context_name=" + name + "\n");
  }
}

TEST_F(ContextTest, ANameThatCannotBeReadStaysEmpty) {
  Script("lbm_context_str_getopt", Failure(LBM_EINVAL, "bad option"));
  auto context = std::make_unique<Context>(ContextAttributes());
  const std::string failed = "Failed to get context string option: bad option";
  EXPECT_THAT(Lines(),
              ElementsAre("30 65 " + failed, "20 613 Failed to get context name from context " + failed,
                          "17 616 Created LBM context=" + Handle(*context) + " with attributes context_name="));
  EXPECT_THAT(Destroy(std::move(context)), ::testing::EndsWith(" context_name=\n"));
}

TEST_F(ContextTest, NaksCannotBeSwitched) {
  Context& context = Ctx();
  EXPECT_EQ(context.EnableNAKs(), -1);
  EXPECT_EQ(context.DisableNAKs(), -1);
  const std::string why = " NAKs. This feature is available in LBM versions 6.16.1 and above";
  EXPECT_THAT(Lines(), ElementsAre("30 733 Failed to enable" + why, "30 713 Failed to disable" + why));
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

  lbm_scripted::OnCall("lbm_event_queue_delete",
                       [](const auto&) { EXPECT_THAT(CallsTo("lbm_event_queue_shutdown"), SizeIs(1)); });
  queue.reset();
}

class FailuresTest : public LbmTest {};

TEST_F(FailuresTest, SayWhatFailedAndLeaveNothingBehind) {
  Context& context = Ctx();
  Source source(context, TopicToSend(), {});
  EventQueue queue{EventQueueAttributes()};
  const auto makeQueue = [] { EventQueue{EventQueueAttributes()}; };
  const struct {
    const char* function;
    std::string text;
    std::function<void()> call;
  } cases[] = {
      {"lbm_src_topic_attr_create", "Failed to create LBM source topic attributes", [] { SourceTopicAttributes(); }},
      {"lbm_context_attr_str_getopt", "Failed to get LBM context attribute", [] { ContextAttributes().GetString(""); }},
      {"lbm_context_create", "Failed to create LBM context", [] { Context{ContextAttributes()}; }},
      {"lbm_context_process_events", "Failed to process LBM context events", [&] { context.Poll(60'000); }},
      {"lbm_context_unblock", "Failed to unblock LBM context", [&] { context.Unblock(); }},
      {"lbm_event_queue_attr_dup", "Failed to duplicate LBM event queue attributes", makeQueue},
      {"lbm_event_queue_attr_setopt", "Failed to set LBM topic attribute", makeQueue},
      {"lbm_event_queue_create", "Failed to create LBM event queue", makeQueue},
      {"lbm_event_dispatch", "Failed to run LBM event queue", [&] { queue.Run(); }},
      {"lbm_event_dispatch", "Failed to poll LBM event queue", [&] { queue.Poll(); }},
      {"lbm_rcv_topic_lookup", "Failed to lookup LBM topic", [&] { TopicToReceive(); }},
      {"lbm_rcv_create", "Failed to create LBM receiver", [&] { Receiver(context, TopicToReceive(), {}); }},
      {"lbm_src_topic_alloc", "Failed to create LBM topic", [&] { TopicToSend(); }},
      {"lbm_src_create", "Failed to create LBM sender", [&] { Source(context, TopicToSend(), {}); }},
      {"lbm_src_send", "Failed to send LBM message", [&] { source.Send("data", 4, 0); }},
      {"lbm_src_send_ex", "Failed to send LBM message", [&] { source.SendEx("data", 4, 0, nullptr); }},
      {"lbm_src_sendv", "Failed to send LBM message", [&] { source.Sendv(nullptr, 0, 0); }},
      {"lbm_src_sendv_ex", "Failed to send LBM message", [&] { source.SendvEx(nullptr, 0, 0, nullptr); }},
      {"lbm_send_request", "Failed to send LBM request", [&] { auto none = source.SendRequest("data", 4, 0, {}); }}};
  const auto before = LiveHandles();
  for (const auto& [function, text, call] : cases) {
    EXPECT_EQ(FailureOf(function, call), text + ": no");
    EXPECT_EQ(Lines().back(), "30 65 " + text + ": no");
  }
  EXPECT_EQ(LiveHandles(), before);
}

TEST_F(FailuresTest, ToUnblockOrToDeleteAreNobodysBusiness) {
  const auto functions = {"lbm_event_dispatch_unblock", "lbm_event_queue_shutdown", "lbm_event_queue_delete",
                          "lbm_rcv_delete", "lbm_context_delete"};
  {
    const Context context{ContextAttributes()};
    EventQueue queue{EventQueueAttributes()};
    const Receiver receiver(Ctx(), TopicToReceive(), {});
    log_capture::Clear();
    for (const char* function : functions) {
      Script(function, Failure(LBM_EOP, "no"));
    }
    queue.Unblock();
  }
  EXPECT_THAT(Lines(), ElementsAre("10 1162 Deleting receiver on topic=PRICES"));
  for (const char* function : functions) {
    EXPECT_THAT(CallsTo(function), SizeIs(1));
  }
  lbm_scripted::Reset();
}

}  // namespace
}  // namespace lbm
