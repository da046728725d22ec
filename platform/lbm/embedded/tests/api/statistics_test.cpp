#include <algorithm>
#include <map>

#include "../include/engine_testing/statistics.h"
#include "domain.h"
#include "transport_choice.h"
#include "zq/posix/event.h"

namespace engine_test {
namespace {

namespace statistics = zq::statistics;
using testing::Contains;
using testing::EndsWith;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;
using zq::posix::Event;

std::int64_t NumberOf(const char* kind, const char* context, const char* field, const char* topic = "") {
  return ValueOf(kind, context, field, topic).number;
}

std::size_t RowsOf(const char* kind, const char* context) {
  const statistics::Snapshot snapshot = statistics::TakeSnapshot();
  const auto rows = snapshot.Of(kind);
  return static_cast<std::size_t>(
      std::count_if(rows.begin(), rows.end(), [&](const auto* row) { return row->Label("context") == context; }));
}

// The options of a context: "value (origin)" by owner and option.
std::multimap<std::string, std::string> OptionsOf(const char* context) {
  const statistics::Snapshot snapshot = statistics::TakeSnapshot();
  std::multimap<std::string, std::string> options;
  for (const statistics::RowValues* row : snapshot.Of("option")) {
    if (row->Label("context") == context) {
      options.emplace(std::string(row->Label("owner")) + ' ' + std::string(row->Label("option")),
                      std::string(row->Label("value")) + " (" + std::string(row->Label("origin")) + ')');
    }
  }
  return options;
}

class Statistics : public EngineTest {
 protected:
  const Driven m_publisher{{{"operational_mode", "sequential"}, {"context_name", "publisher"}}};
  Driven m_subscriber{{{"operational_mode", "sequential"}, {"context_name", "subscriber"}}};
};

// What the engine does for them can be told from the host transport alone.
class HostStatistics : public Statistics {
 protected:
  void SetUp() override {
    if (!OnHostOnly()) {
      GTEST_SKIP() << "of rings";
    }
  }
};

TEST_F(Statistics, CountWhatSourcesSendAndReceiversGet) {
  Sender source(m_publisher, "T");
  Recorder first(m_subscriber, "T");
  const Recorder second(m_subscriber, "T");
  source.AwaitSubscriber({m_publisher, m_subscriber});
  for (const char* text : {"one", "two", "three"}) {
    source.Send(text);
  }
  PumpUntil({m_publisher, m_subscriber}, "the messages", [&] { return second.lines.size() == 4; });
  EXPECT_EQ(3, NumberOf("engine_source", "publisher", "messages", "T"));
  EXPECT_EQ(1, NumberOf("engine_source", "publisher", "subscribers", "T"));
  EXPECT_EQ(1, NumberOf("engine_context", "publisher", "sources"));
  EXPECT_EQ(2, NumberOf("engine_context", "subscriber", "receivers"));
  EXPECT_EQ(1, NumberOf("engine_context", "subscriber", "topics"));
  EXPECT_EQ(6, NumberOf("engine_context", "subscriber", "delivered"));
  first.Stop();
  PumpUntil({m_subscriber}, "the receiver to go",
            [&] { return NumberOf("engine_context", "subscriber", "receivers") == 1; });
  EXPECT_EQ(3, NumberOf("engine_receiver", "subscriber", "messages", "T"));
  EXPECT_EQ(1, NumberOf("engine_receiver", "subscriber", "sources", "T"));

  source.Delete();
  EXPECT_EQ(0U, RowsOf("engine_source", "publisher"));
  EXPECT_EQ(0, NumberOf("engine_context", "publisher", "sources"));
  PumpUntil({m_publisher, m_subscriber}, "the source to go",
            [&] { return NumberOf("engine_receiver", "subscriber", "sources", "T") == 0; });
}

TEST_F(Statistics, CountSubscribersOfASourceThatWantsNoEvents) {
  lbm_topic_t* topic = nullptr;
  ASSERT_EQ(0, lbm_src_topic_alloc(&topic, m_publisher, "T", nullptr));
  lbm_src_t* source = nullptr;
  ASSERT_EQ(0, lbm_src_create(&source, m_publisher, topic, nullptr, nullptr, nullptr));
  const auto subscribers = [] { return NumberOf("engine_source", "publisher", "subscribers", "T"); };
  Recorder recorder(m_subscriber, "T");
  PumpUntil({m_publisher, m_subscriber}, "the subscriber", [&] { return subscribers() == 1; });
  recorder.Stop();
  PumpUntil({m_publisher, m_subscriber}, "the subscriber to go", [&] { return subscribers() == 0; });
  EXPECT_EQ(0, lbm_src_delete(source));
}

TEST_F(Statistics, LeaveWithTheirContext) {
  EXPECT_EQ(1U, RowsOf("engine_context", "subscriber"));
  EXPECT_NE(0U, RowsOf("option", "subscriber"));
  m_subscriber.Delete();
  for (const char* kind : {"engine_context", "option", "peer"}) {
    EXPECT_EQ(0U, RowsOf(kind, "subscriber")) << kind;
  }
}

TEST_F(Statistics, OfAReceiverThatOutlivesItsContextShowNothingThatIsThere) {
  const Sender source(m_publisher, "T");
  const Recorder recorder(m_subscriber, "T");
  source.AwaitSubscriber({m_publisher, m_subscriber});
  m_subscriber.Delete();
  EXPECT_EQ(0, NumberOf("engine_receiver", "subscriber", "sources", "T"));
  for (const char* gauge : {"receivers", "topics", "peers"}) {
    EXPECT_EQ(0, NumberOf("engine_context", "subscriber", gauge)) << gauge;
  }
}

TEST_F(Statistics, ShowOptionsThatHoldNowAndWhoSetThem) {
  EXPECT_THAT(OptionsOf("publisher"), Contains(Pair("context operational_mode", "sequential (attribute)")));
  EXPECT_THAT(OptionsOf("publisher"), Contains(Pair("context spin_time", "auto (default)")));
  ASSERT_EQ(0, lbm_context_str_setopt(m_publisher, "spin_time", "7"));
  EXPECT_EQ(1U, OptionsOf("publisher").count("context spin_time"));
  EXPECT_THAT(OptionsOf("publisher"), Contains(Pair("context spin_time", "7 (attribute)")));

  // However many receivers have the same.
  for (const char* topic : {"A", "B"}) {
    for (const char* threshold : {"16", "5", "5"}) {
      ReceiverTopic(m_publisher, topic, {{"loss_burst_threshold", threshold}});
    }
  }
  std::vector<std::string> values;
  const auto options = OptionsOf("publisher");
  for (auto [one, last] = options.equal_range("receiver loss_burst_threshold"); one != last; ++one) {
    values.push_back(one->second);
  }
  EXPECT_THAT(values, UnorderedElementsAre("16 (attribute)", "5 (attribute)"));

  {
    const Queue queue(true);
    EXPECT_THAT(OptionsOf(""), Contains(Pair("event_queue queue_cancellation_callbacks_enabled", "1 (attribute)")));
  }
  EXPECT_THAT(OptionsOf(""), IsEmpty());
}

TEST_F(HostStatistics, TellWhereTheDomainIsByTheEnvironment) {
  EXPECT_THAT(OptionsOf("publisher"),
              Contains(Pair("context domain_directory", EndsWith("(environment LBM_RUNTIME_DIR)"))));
}

TEST_F(HostStatistics, CountWhatIsSentToEachPeerAndTimeSamplesOfIt) {
  const Sender source(m_publisher, "T");
  Recorder recorder(m_subscriber, "T");
  source.AwaitSubscriber({m_publisher, m_subscriber});
  EXPECT_EQ(1, NumberOf("engine_context", "publisher", "peers"));
  constexpr std::size_t kMessages = 1024;
  // Sent while nobody waits, so that none but the first is sampled beyond one in 256; with a channel every other one.
  const lbm_src_send_ex_info_t channel{.flags = LBM_SRC_SEND_EX_FLAG_CHANNEL, .channel_number = 1};
  for (std::size_t i = 0; i < kMessages; ++i) {
    ASSERT_EQ(0, lbm_src_send_ex(source, "12345", 5, 0, i % 2 != 0 ? &channel : nullptr));
  }
  PumpUntil({m_subscriber}, "the messages", [&] { return recorder.lines.size() == kMessages + 1; });
  EXPECT_EQ(kMessages, NumberOf("peer", "publisher", "messages"));
  EXPECT_EQ(5 * kMessages, NumberOf("peer", "publisher", "bytes"));
  EXPECT_EQ(1 << 20, NumberOf("peer", "publisher", "ring_bytes"));
  EXPECT_EQ(0, NumberOf("peer", "publisher", "dropped"));
  const statistics::Value latency = ValueOf("engine_context", "subscriber", "latency");
  EXPECT_EQ(1 + kMessages / 256, latency.all->count);
  EXPECT_GT(latency.all->sum, 0U);
  m_subscriber.Delete();
  PumpUntil({m_publisher}, "the peer to go", [&] { return NumberOf("engine_context", "publisher", "peers") == 0; });
  EXPECT_EQ(0U, RowsOf("peer", "publisher"));
}

TEST_F(HostStatistics, SampleSlowFlowsToo) {
  const auto waits = [] { return NumberOf("engine_context", "thread", "waiting") == 1; };
  std::atomic<int> messages{0};
  lbm_context_t* const context = MakeContext({{"context_name", "thread"}});
  lbm_rcv_t* receiver = nullptr;
  ASSERT_EQ(0, lbm_rcv_create(
                   &receiver, context, ReceiverTopic(context, "T"),
                   [](lbm_rcv_t*, lbm_msg_t* message, void* count) {
                     *static_cast<std::atomic<int>*>(count) += message->type == LBM_MSG_DATA ? 1 : 0;
                     return 0;
                   },
                   &messages, nullptr));
  const Sender source(m_publisher, "T");
  source.AwaitSubscriber({m_publisher});
  // Fewer than 256 in a time that is longer than the interval of samples.
  for (int sent = 1; sent <= 40; ++sent) {
    PumpUntil({m_publisher}, "the receiver to wait", waits);
    source.Send("x");
    PumpUntil({m_publisher}, "the message", [&] { return messages == sent; });
    ASSERT_EQ(0, lbm_context_process_events(m_publisher, 10));
  }
  EXPECT_GE(ValueOf("engine_context", "thread", "latency").all->count, 2U);
  EXPECT_GE(NumberOf("engine_context", "thread", "wakeups"), 40);
  EXPECT_GE(NumberOf("peer", "publisher", "wakeups"), 40);
  EXPECT_EQ(0, lbm_rcv_delete(receiver));
  EXPECT_EQ(0, lbm_context_delete(context));
}

TEST_F(Statistics, TellWhetherAContextSpins) {
  const auto number = [](const char* field) { return NumberOf("engine_context", "publisher", field); };
  // Something comes for every wait, as soon as the context looks for it.
  Event always;
  always.Notify();
  const auto ignore = [](lbm_context_t*, int, lbm_ulong_t, void*) { return 0; };
  const int fd = always.GetDescriptor();
  ASSERT_EQ(0, lbm_register_fd(m_publisher, fd, ignore, nullptr, nullptr, LBM_FD_EVENT_READ)) << lbm_errmsg();
  const auto set = [&](const char* value) {
    ASSERT_EQ(0, lbm_context_str_setopt(m_publisher, "spin_time", value)) << lbm_errmsg();
  };
  set("0");
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(0, lbm_context_process_events(m_publisher, 1));
  }
  EXPECT_EQ(0, number("spins_found") + number("spins_in_vain"));
  EXPECT_EQ(0, number("spin_time"));

  set("auto");
  PumpUntil({m_publisher}, "spins that pay", [&] { return number("spins_found") > 0; });
  ASSERT_EQ(0, lbm_cancel_fd(m_publisher, fd, LBM_FD_EVENT_READ)) << lbm_errmsg();

  set("3");
  const std::int64_t before = number("spins_in_vain");
  PumpUntil({m_publisher}, "a spin in vain", [&] { return number("spins_in_vain") > before; });
  EXPECT_EQ(3000, number("spin_time"));
}

TEST_F(HostStatistics, CountWhatAFullRingCosts) {
  const Driven publisher(
      {{"operational_mode", "sequential"}, {"context_name", "small"}, {"transport_ring_size", "65536"}});
  const Sender dropping(publisher, "D");
  const Sender waiting(publisher, "W", {{"transport_pacing", "receiver"}});
  Recorder drops(m_subscriber, "D");
  const Recorder waits(m_subscriber, "W");
  dropping.AwaitSubscriber({publisher, m_subscriber});
  waiting.AwaitSubscriber({publisher, m_subscriber});
  const std::string payload(1000, 'x');
  constexpr std::int64_t kSent = 100;
  for (std::int64_t i = 0; i < kSent; ++i) {
    ASSERT_EQ(0, dropping.Send(payload));
  }
  std::int64_t taken = 0;
  while (waiting.Send(payload, LBM_SRC_NONBLOCK) == 0) {
    ++taken;
  }
  EXPECT_EQ(LBM_EWOULDBLOCK, ErrorOf(waiting.Send(payload, LBM_SRC_NONBLOCK)));
  PumpUntil({publisher, m_subscriber}, "the losses", [&] { return drops.lines.size() > kSent / 2; });
  const auto lost = NumberOf("peer", "small", "dropped");
  EXPECT_GT(lost, 0);
  EXPECT_EQ(kSent + taken, lost + NumberOf("peer", "small", "messages"));
  EXPECT_EQ(lost, NumberOf("engine_context", "small", "dropped"));
  EXPECT_EQ(2, NumberOf("peer", "small", "waits_for_room"));
  EXPECT_EQ(2, NumberOf("engine_context", "small", "waits_for_room"));
  const auto highWater = NumberOf("peer", "small", "ring_high_water");
  EXPECT_GT(highWater, 60'000);
  EXPECT_LE(highWater, NumberOf("peer", "small", "ring_bytes"));
}

}  // namespace
}  // namespace engine_test
