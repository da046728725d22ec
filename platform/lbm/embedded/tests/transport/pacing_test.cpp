#include <thread>

#include "member.h"

namespace engine::transport::host {
namespace {

const std::string kPayload(8000, 'x');

// More than the sockets and the buffer of a link hold.
constexpr std::size_t kTooMany = 4000;

// A publisher and a subscriber that does not take anything in unless it is drained.
class PacedLink : public testing::Test {
 protected:
  void Start(Pacing pacing, std::uint32_t firstSequence = 0) {
    HostSettings settings = SettingsIn(m_directory);
    settings.ringBytes = 100'000;
    settings.firstSequence = firstSequence;
    m_source = std::make_unique<Member>(settings, false);
    m_publication = m_source->transport->Advertise({"T", pacing});
    m_slow = std::make_unique<Member>(SettingsIn(m_directory, "slow"));
    Settle({m_source.get(), m_slow.get()});
  }

  SendResult Send(bool block = false) { return Publish(*m_source->transport, *m_publication, kPayload, block); }

  std::size_t SendUntilFull() {
    std::size_t sent = 0;
    while (Send() == SendResult::kSent) {
      ++sent;
    }
    return sent;
  }

  ScratchDirectory m_directory;
  std::unique_ptr<Member> m_source;
  std::unique_ptr<Member> m_slow;
  std::shared_ptr<Publication> m_publication;
};

class Losses : public PacedLink, public testing::WithParamInterface<std::uint32_t> {};

TEST_P(Losses, AreDroppedForTheSlowSubscriberAloneAndToldEvenWhenTheLast) {
  Start(Pacing::kSource, GetParam());
  Member fast(SettingsIn(m_directory));
  Settle({m_source.get(), m_slow.get(), &fast});
  for (std::size_t i = 0; i < kTooMany; ++i) {
    ASSERT_EQ(Send(i % 2 != 0), SendResult::kSent);
    fast.Drain();
  }
  Settle({m_source.get(), m_slow.get(), &fast});
  EXPECT_GT(m_slow->lost, 0U);
  EXPECT_EQ(m_slow->events.back(), "loss T");
  ExpectAccount(*m_slow, kTooMany, GetParam());
  EXPECT_EQ(fast.messages, kTooMany);

  const std::size_t lostBefore = m_slow->lost;
  ASSERT_EQ(Send(), SendResult::kSent);
  Settle({m_source.get(), m_slow.get()});
  EXPECT_EQ(m_slow->lost, lostBefore);
  ExpectAccount(*m_slow, kTooMany + 1, GetParam());
}

INSTANTIATE_TEST_SUITE_P(Sequences, Losses, testing::Values(0U, 0xffffff00U, 0xffffffffU - kTooMany / 2));

TEST_F(PacedLink, ALongRunOfLossesIsToldInPortionsThatSequenceArithmeticTakes) {
  Start(Pacing::kSource);
  constexpr std::size_t kMany = 3'000'000;
  for (std::size_t i = 0; i < kMany; ++i) {
    Publish(*m_source->transport, *m_publication, "x");
  }
  Settle({m_source.get(), m_slow.get()});
  EXPECT_EQ(m_slow->lost + m_slow->messages, kMany);
  EXPECT_LE(m_slow->longestLoss, std::size_t{1} << 20);
  EXPECT_TRUE(m_slow->Notices().empty());
}

TEST_F(PacedLink, LossesAreToldBeforeTheEndOfTheSource) {
  Start(Pacing::kSource);
  for (std::size_t i = 0; i < kTooMany; ++i) {
    Send();
  }
  m_source->transport->Withdraw(*m_publication);
  Settle({m_source.get(), m_slow.get()});
  ASSERT_GE(m_slow->events.size(), 2U);
  EXPECT_EQ(m_slow->events.back(), "down T");
  EXPECT_EQ(*(m_slow->events.end() - 2), "loss T");
  ExpectAccount(*m_slow, kTooMany);
}

TEST_F(PacedLink, WouldBlockSendsToNobodyAndIsFollowedByOneWritable) {
  Start(Pacing::kReceiver);
  Member fast(SettingsIn(m_directory));
  Settle({m_source.get(), m_slow.get(), &fast});
  std::size_t sent = 0;
  while (Send() == SendResult::kSent) {
    ++sent;
    fast.Drain();
  }
  EXPECT_EQ(Send(), SendResult::kWouldBlock);
  Settle({m_source.get(), &fast});
  EXPECT_EQ(fast.messages, sent);
  EXPECT_FALSE(m_source->Heard("writable"));

  Settle({m_source.get(), m_slow.get()});
  EXPECT_EQ(std::count(m_source->events.begin(), m_source->events.end(), "writable"), 1);
  EXPECT_EQ(Send(), SendResult::kSent);
  Settle({m_source.get(), m_slow.get(), &fast});
  EXPECT_EQ(std::count(m_source->events.begin(), m_source->events.end(), "writable"), 1);
  ExpectAccount(*m_slow, sent + 1);
  EXPECT_EQ(m_slow->lost, 0U);
  EXPECT_EQ(fast.messages, sent + 1);
}

// Each has space of its own at the subscriber, who takes in both.
TEST_F(PacedLink, ASourceThatWaitsTakesNoSpaceFromOneThatCannot) {
  Start(Pacing::kReceiver);
  const auto prices = m_source->transport->Advertise({"PRICES", Pacing::kSource});
  Settle({m_source.get(), m_slow.get()});
  const std::string large(2'000'000, 'x');
  constexpr std::size_t kRounds = 50;
  constexpr std::size_t kPrices = 200;  // a round
  for (std::size_t round = 0; round < kRounds; ++round) {
    while (Publish(*m_source->transport, *m_publication, large) == SendResult::kSent) {
    }
    for (std::size_t i = 0; i < kPrices; ++i) {
      Publish(*m_source->transport, *prices, "101.25");
    }
    m_slow->Drain();
    m_source->Drain();
  }
  EXPECT_EQ(m_slow->lost, 0U);
  Settle({m_source.get(), m_slow.get()});
  EXPECT_GT(m_slow->messages, kRounds * kPrices);
}

TEST_F(PacedLink, TheSlowSubscribersLeavingMakesSpace) {
  Start(Pacing::kReceiver);
  SendUntilFull();
  m_slow.reset();
  Settle({m_source.get()});
  EXPECT_THAT(m_source->events, testing::UnorderedElementsAre("up T", "joined slow", "left slow", "writable"));
  EXPECT_EQ(Send(), SendResult::kSent);
}

TEST_F(PacedLink, BlockedPublishersReturnWhenTheSubscriberGoesOrTheContextCloses) {
  Start(Pacing::kReceiver);
  SendUntilFull();
  std::thread forSubscriber([&] { EXPECT_EQ(Send(true), SendResult::kSent); });
  m_slow.reset();
  forSubscriber.join();

  m_slow = std::make_unique<Member>(SettingsIn(m_directory));
  Settle({m_source.get(), m_slow.get()});
  SendUntilFull();
  const std::jthread forSpace([&] { EXPECT_EQ(Send(true), SendResult::kClosed); });
  m_source->transport->Close(std::chrono::milliseconds(0));
}

TEST_F(PacedLink, WaitingInsideACallbackIsRefusedWhereItWouldBeForEver) {
  Start(Pacing::kReceiver);
  std::optional<SendResult> result;
  m_source->onMessage = [&](RemoteSource&, InboundMessage&) {
    m_source->onMessage = nullptr;
    SendUntilFull();
    result = Send(true);
  };
  m_source->transport->Subscribe(*m_source->sources.at("T"));
  Settle({m_source.get()});
  ASSERT_EQ(Send(), SendResult::kSent);
  DrainUntil({m_source.get()}, "the callback", [&] { return result.has_value(); });
  EXPECT_EQ(result, SendResult::kWouldBlock);
}

TEST_F(PacedLink, ClosingLingersUntilThePeerHasTakenEverything) {
  Start(Pacing::kReceiver);
  const std::size_t sent = SendUntilFull();
  std::thread closing([&] { m_source->transport->Close(std::chrono::seconds(60)); });
  DrainUntil({m_slow.get()}, "the end of the source", [&] { return m_slow->Heard("down T"); });
  closing.join();
  EXPECT_EQ(m_slow->messages, sent);
}

TEST_F(PacedLink, PublishersOfSeveralThreadsWaitForTheSubscriberAndKeepTheirSourcesInOrder) {
  Start(Pacing::kReceiver);
  const auto other = m_source->transport->Advertise({"U", Pacing::kReceiver});
  Settle({m_source.get(), m_slow.get()});
  ExpectOrderAmongThreads(*m_source->transport, {m_publication.get(), m_publication.get(), other.get()}, *m_slow,
                          {m_source.get(), m_slow.get()});
}

}  // namespace
}  // namespace engine::transport::host
