#include <array>
#include <memory>
#include <tuple>

#include "../options/short_memory.h"
#include "domain.h"
#include "transport_choice.h"

namespace {

using engine_test::Driven;
using engine_test::OverNetwork;
using engine_test::Sender;

// Sizes of messages, and what their source waits for.
class Allocations : public engine_test::EngineTest,
                    public testing::WithParamInterface<std::tuple<std::size_t, const char*>> {};

// Keeps the last messages, as an application with a history does.
class Keeper {
 public:
  static int Receive(lbm_rcv_t*, lbm_msg_t* message, void* clientd) {
    Keeper& self = *static_cast<Keeper*>(clientd);
    if (message->type == LBM_MSG_DATA) {
      lbm_msg_retain(message);
      self.m_kept[self.count++ % self.m_kept.size()].reset(message);
    }
    return 0;
  }

  std::size_t count = 0;

 private:
  struct Release {
    void operator()(lbm_msg_t* message) const { lbm_msg_delete(message); }
  };
  std::array<std::unique_ptr<lbm_msg_t, Release>, 8> m_kept;
};

TEST_P(Allocations, AreNotMadeBySteadySendingDeliveringAndRetaining) {
  const auto [size, pacing] = GetParam();
  if (OverNetwork() && size > 64) {
    GTEST_SKIP() << "large messages travel in memory of their own";
  }
  const std::string payload(size, 'x');
  Keeper keeper;
  // A window so small that the receiver gives credit several times.
  const Driven publisher({{"operational_mode", "sequential"}, {"nats_window_size", "65536"}});
  const Driven subscriber;
  const Sender source(publisher, "T", {{"transport_pacing", pacing}});
  lbm_rcv_t* receiver = nullptr;
  ASSERT_EQ(0, lbm_rcv_create(&receiver, subscriber, engine_test::ReceiverTopic(subscriber, "T"), &Keeper::Receive,
                              &keeper, nullptr));
  source.AwaitSubscriber({publisher, subscriber});
  // In turns: a message larger than the ring's half goes in several.
  const auto exchange = [&](std::size_t messages) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (std::size_t wanted = keeper.count + 1; messages != 0; ++wanted, --messages) {
      ASSERT_EQ(0, lbm_src_send(source, payload.data(), payload.size(), LBM_SRC_FLUSH)) << lbm_errmsg();
      for (std::size_t turn = 0; turn == 0 || keeper.count < wanted; ++turn) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "waited in vain for a message";
        ASSERT_EQ(0, lbm_context_process_events(subscriber, (messages + turn) % 3 == 0 ? 1 : 0));
        ASSERT_EQ(0, lbm_context_process_events(publisher, turn == 0 ? 0 : 1));
      }
      ASSERT_EQ(wanted, keeper.count);
    }
  };
  // More than there are places for messages and bytes in the ring.
  const std::size_t messages = payload.size() > 100'000 ? 50 : 1000;
  exchange(messages);
  {
    const engine::test::AllocationLimit none(0);
    exchange(messages);
  }
  EXPECT_EQ(0, lbm_rcv_delete(receiver));
}

INSTANTIATE_TEST_SUITE_P(Bytes, Allocations,
                         testing::Combine(testing::Values(0, 64, 100'000, 300'000, 1'000'000),
                                          testing::Values("source", "receiver")));

}  // namespace
