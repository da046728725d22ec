#include <algorithm>
#include <functional>
#include <thread>

#include "network.h"

namespace engine::transport::nats {
namespace {

const std::string kPayload(8'000, 'x');

class NetworkPacing : public testing::Test {
 protected:
  void Start(Pacing pacing, const NatsSettings& settings) {
    m_source = std::make_unique<Member>(SettingsFor(m_server.Url()), false);
    m_publication = m_source->transport->Advertise({"T", pacing});
    m_slow = std::make_unique<Member>(settings);
    DrainUntil({m_source.get(), m_slow.get()}, "the subscription", [&] { return m_source->events.size() == 2; });
  }

  SendResult Send(bool block = false) { return Publish(*m_source->transport, *m_publication, kPayload, block); }

  const test_support::NatsServer m_server;
  std::unique_ptr<Member> m_source;
  std::unique_ptr<Member> m_slow;
  std::shared_ptr<Publication> m_publication;
};

TEST_F(NetworkPacing, AReceiverPacedSourceIsAtMostAWindowAheadAndLosesNothing) {
  Start(Pacing::kReceiver, SettingsFor(m_server.Url()));
  std::size_t sent = 0;
  for (int round = 0; round < 3; ++round) {
    std::size_t inRow = 0;
    while (Send() == SendResult::kSent) {
      ++inRow;
    }
    sent += inRow;
    EXPECT_LE(inRow, (NatsSettings().windowBytes / kPayload.size()) + 1);
    m_source->events.clear();
    DrainUntil({m_source.get(), m_slow.get()}, "room", [&] { return m_source->Heard("writable"); });
  }
  DrainUntil({m_source.get(), m_slow.get()}, "all messages", [&] { return m_slow->messages == sent; });
  EXPECT_EQ(m_slow->lost, 0U);
  ExpectAccount(*m_slow, sent);
}

TEST_F(NetworkPacing, ASendThatWaitsGoesOnWhenTheReceiverDoesAlsoWithNobodyDrainingTheSource) {
  Start(Pacing::kReceiver, SettingsFor(m_server.Url()));
  constexpr std::size_t kMessages = 2'000;
  std::jthread sender([&] {
    for (std::size_t i = 0; i < kMessages; ++i) {
      ASSERT_EQ(Send(true), SendResult::kSent);
    }
  });
  DrainUntil({m_slow.get()}, "all messages", [&] { return m_slow->messages == kMessages; });
  sender.join();
  ExpectAccount(*m_slow, kMessages);
}

TEST_F(NetworkPacing, WhatASourcePacedReceiverCannotKeepIsToldAlsoWhenItWasTheLast) {
  NatsSettings settings = SettingsFor(m_server.Url());
  settings.receiveQueueBytes = 100'000;
  Start(Pacing::kSource, settings);
  constexpr std::size_t kMessages = 5'000;
  for (std::size_t i = 0; i < kMessages; ++i) {
    ASSERT_EQ(Send(), SendResult::kSent);
    m_source->Drain();
  }
  DrainUntil({m_source.get(), m_slow.get()}, "an account of all",
             [&] { return m_slow->messages + m_slow->lost == kMessages; });
  ExpectAccount(*m_slow, kMessages);
}

TEST(SlowConsumer, IsCutOffByTheServerAndComesBackWithAFullAccount) {
  const test_support::NatsServer server("max_payload: 65536\nmax_pending: 65536\nwrite_deadline: \"100ms\"");
  NatsSettings settings = SettingsFor(server.Url());
  settings.peerTimeout = std::chrono::minutes(10);  // however long it takes until it is cut off
  Member a(settings, false);
  settings.announcementInterval = std::chrono::seconds(60);  // nor does its keeper read
  Member b(settings);
  const auto publication = a.transport->Advertise({"T", Pacing::kSource});
  DrainUntil({&a, &b}, "the subscription", [&] { return a.events.size() == 2; });
  std::size_t sent = 0;
  const auto send = [&](const std::string& text) {
    ASSERT_EQ(Publish(*a.transport, *publication, text), SendResult::kSent);
    ++sent;
  };
  const auto isCut = [&] { return server.Log().find("Slow Consumer") != std::string::npos; };
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (sent % 100 != 0 || !isCut()) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline) << server.Log();
    send(kPayload);
    a.Drain();
  }
  // By now it is away.
  send(kPayload);
  DrainUntil({&a, &b}, "the way back", [&] { return b.Notices().size() == 2; });
  EXPECT_THAT(b.Notices().back(), testing::HasSubstr("again"));
  DrainUntil({&a, &b}, "an account of all", [&] { return b.messages + b.lost == sent; });
  EXPECT_GT(b.lost, 0U);
  const std::size_t lost = b.lost;
  for (int i = 0; i < 10; ++i) {
    send("after");  // short: more than the server holds for it would cut it off again
  }
  DrainUntil({&a, &b}, "the next messages", [&] { return b.messages + b.lost == sent; });
  EXPECT_EQ(b.lost, lost);
  // Of a loss this long not every number is noted: nothing came twice, and nothing out of order.
  EXPECT_EQ(std::adjacent_find(b.sequences.begin(), b.sequences.end(), std::greater_equal<>()), b.sequences.end());
  EXPECT_FALSE(b.Heard("down T"));
}

TEST_F(NetworkPacing, ManyThreadsSendOnOneContextWithoutHarm) {
  Start(Pacing::kReceiver, SettingsFor(m_server.Url()));
  const auto other = m_source->transport->Advertise({"U", Pacing::kReceiver});
  DrainUntil({m_source.get(), m_slow.get()}, "the subscription", [&] { return m_source->events.size() == 4; });
  constexpr std::size_t kEach = 20'000;
  std::vector<std::jthread> threads;
  threads.reserve(4);
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      Publication& publication = thread % 2 == 0 ? *m_publication : *other;
      for (std::size_t i = 0; i < kEach; ++i) {
        ASSERT_EQ(Publish(*m_source->transport, publication, "small", true), SendResult::kSent);
      }
    });
  }
  DrainUntil({m_slow.get()}, "all messages", [&] { return m_slow->messages == 4 * kEach; });
  EXPECT_EQ(m_slow->lost, 0U);
}

}  // namespace
}  // namespace engine::transport::nats
