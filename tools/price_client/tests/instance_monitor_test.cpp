#include "instance_monitor.h"

#include <gtest/gtest.h>

#include <string>

namespace price_client {
namespace {

constexpr std::uint64_t kFirstSession = 1000;
constexpr std::uint64_t kSecondSession = 2000;

class InstanceMonitorTest : public testing::Test {
 protected:
  struct Update {
    unsigned segment = 0;
    std::uint64_t session = kFirstSession;
    std::uint64_t sequence = 1;
    std::string symbol = "MSFT";
    const char* price = "1";
    std::int64_t latency = 100;
  };

  bool Receive(const Update& update) {
    feed::PriceMessage message;
    message.session = update.session;
    message.sequence = update.sequence;
    message.sentAt = 5000;
    message.segment = static_cast<std::uint16_t>(update.segment);
    message.symbol = feed::Symbol::Parse(update.symbol).value();
    message.date = feed::ParseDate("2000-01-31").value();
    message.price = feed::Price::Parse(update.price).value();
    return m_monitor.OnData(update.segment, feed::Encode(message), message.sentAt + update.latency);
  }

  void ReceiveSequence(std::uint64_t session, std::initializer_list<std::uint64_t> sequences, unsigned segment = 0) {
    for (const auto sequence : sequences) {
      Receive({.segment = segment, .session = session, .sequence = sequence});
    }
  }

  Totals Read() const { return m_monitor.Prices().totals; }
  unsigned LiveSegments() const { return m_monitor.Prices().liveSegments; }

  InstanceMonitor m_monitor{2};
};

TEST_F(InstanceMonitorTest, ASegmentIsLiveAsLongAsOneOfItsSources) {
  m_monitor.OnSessionBegin(0);
  m_monitor.OnSessionBegin(0);
  m_monitor.OnSessionBegin(1);
  EXPECT_EQ(LiveSegments(), 2U);
  EXPECT_TRUE(m_monitor.OnSessionEnd(0));
  EXPECT_TRUE(m_monitor.OnSessionEnd(1));
  EXPECT_EQ(LiveSegments(), 1U);
  EXPECT_TRUE(m_monitor.OnSessionEnd(0));
  EXPECT_FALSE(m_monitor.OnSessionEnd(0));
  EXPECT_EQ(LiveSegments(), 0U);
}

TEST_F(InstanceMonitorTest, UpdatesMakeAnUnannouncedSourceKnownOnce) {
  EXPECT_TRUE(Receive({.sequence = 1}));
  EXPECT_FALSE(Receive({.sequence = 2}));
  EXPECT_EQ(LiveSegments(), 1U);
}

TEST_F(InstanceMonitorTest, WhatIsMissedWhileDetachedIsNoGapButARestartIsSeen) {
  m_monitor.OnSessionBegin(0);
  ReceiveSequence(kFirstSession, {1, 2});
  m_monitor.Detach();
  EXPECT_EQ(LiveSegments(), 0U);
  m_monitor.OnSessionBegin(0);
  ReceiveSequence(kFirstSession, {50, 51});
  EXPECT_FALSE(Read().HasGap());
  EXPECT_EQ(Read().restarts, 0U);
  m_monitor.Detach();
  ReceiveSequence(kSecondSession, {7, 8});
  EXPECT_FALSE(Read().HasGap());
  EXPECT_EQ(Read().restarts, 1U);
  EXPECT_EQ(Read().updates, 6U);
}

TEST_F(InstanceMonitorTest, JoiningLateIsNoGap) {
  ReceiveSequence(kFirstSession, {37, 38, 39});
  EXPECT_FALSE(Read().HasGap());
  EXPECT_EQ(Read().updates, 3U);
}

TEST_F(InstanceMonitorTest, CountsMissingUpdatesOfEachSegment) {
  ReceiveSequence(kFirstSession, {1, 2, 5, 6, 8});
  ReceiveSequence(kFirstSession, {1, 2, 3}, 1);
  EXPECT_EQ(Read().gaps, 2U);
  EXPECT_EQ(Read().missed, 3U);
  EXPECT_EQ(Read().restarts, 0U);
}

TEST_F(InstanceMonitorTest, RepeatedUpdatesAreNoGap) {
  ReceiveSequence(kFirstSession, {1, 2, 2, 1, 3});
  EXPECT_EQ(Read().gaps, 0U);
}

TEST_F(InstanceMonitorTest, ARestartIsAGapInEverySegmentAndOneRestart) {
  ReceiveSequence(kFirstSession, {1, 2}, 0);
  ReceiveSequence(kFirstSession, {1, 2}, 1);
  ReceiveSequence(kSecondSession, {4, 5}, 0);
  ReceiveSequence(kSecondSession, {1, 2}, 1);
  EXPECT_EQ(Read().gaps, 2U);
  EXPECT_EQ(Read().missed, 3U);
  EXPECT_EQ(Read().restarts, 1U);
}

TEST_F(InstanceMonitorTest, LateUpdatesOfAKilledServerAreNoSecondRestart) {
  ReceiveSequence(kFirstSession, {1, 2});
  ReceiveSequence(kSecondSession, {1});
  ReceiveSequence(kFirstSession, {3});
  ReceiveSequence(kSecondSession, {2, 3});
  EXPECT_EQ(Read().restarts, 1U);
  EXPECT_EQ(Read().gaps, 1U);
  EXPECT_EQ(Read().updates, 6U);
}

TEST_F(InstanceMonitorTest, ARestartWithTheClockSetBackIsSeen) {
  m_monitor.OnSessionBegin(0);
  ReceiveSequence(kSecondSession, {1});
  m_monitor.OnSessionEnd(0);
  m_monitor.OnSessionBegin(0);
  ReceiveSequence(kFirstSession, {1, 2, 3});
  EXPECT_EQ(Read().restarts, 1U);
  EXPECT_EQ(Read().gaps, 1U);
}

TEST_F(InstanceMonitorTest, ReportedLossesAreGapsToo) {
  m_monitor.OnLoss(1);
  m_monitor.OnLoss(20);
  EXPECT_EQ(Read().lost, 21U);
  EXPECT_TRUE(Read().HasGap());
}

TEST_F(InstanceMonitorTest, KeepsTheLastTwoPricesOfEachSymbol) {
  Receive({.sequence = 1, .symbol = "MSFT", .price = "100"});
  Receive({.sequence = 2, .symbol = "IBM", .price = "50"});
  EXPECT_EQ(m_monitor.Prices().symbols.at(0).Change(), 0);
  Receive({.sequence = 3, .symbol = "MSFT", .price = "99.5"});
  const auto symbols = m_monitor.Prices().symbols;
  ASSERT_EQ(symbols.size(), 2U);
  EXPECT_EQ(symbols[0].symbol.View(), "MSFT");
  EXPECT_EQ(symbols[0].price.ToString(), "99.50");
  EXPECT_EQ(symbols[0].Change(), -0.5);
  EXPECT_EQ(symbols[0].ChangePercent(), -0.5);
  EXPECT_EQ(symbols[0].updates, 2U);
  EXPECT_EQ(symbols[1].symbol.View(), "IBM");
}

TEST_F(InstanceMonitorTest, CountsTheUpdatesOfSymbolsBeyondItsTable) {
  const auto symbols = static_cast<std::uint64_t>(InstanceMonitor::kMaxSymbols) + 10;
  for (std::uint64_t round = 0; round < 2; ++round) {
    for (std::uint64_t i = 0; i < symbols; ++i) {
      Receive({.sequence = round * symbols + i + 1, .symbol = 'S' + std::to_string(i)});
    }
  }
  const auto& snapshot = m_monitor.Prices();
  EXPECT_EQ(snapshot.symbols.size(), InstanceMonitor::kMaxSymbols);
  EXPECT_EQ(snapshot.symbols.back().updates, 2U);
  EXPECT_EQ(snapshot.totals.updates, 2 * symbols);
  EXPECT_EQ(snapshot.totals.untracked, 20U);
}

TEST_F(InstanceMonitorTest, WhatIsNoPriceOfItsSegmentIsMalformed) {
  m_monitor.OnData(0, {}, 1);
  m_monitor.OnData(0, std::as_bytes(std::span("hello")), 1);
  feed::PriceMessage message;
  message.session = message.sequence = 1;
  message.segment = 1;
  message.symbol = feed::Symbol::Parse("A").value();
  message.date = feed::ParseDate("2000-01-31").value();
  m_monitor.OnData(0, feed::Encode(message), 1);
  EXPECT_EQ(Read().malformed, 3U);
  EXPECT_EQ(Read().updates, 0U);
  m_monitor.OnData(1, feed::Encode(message), 1);
  EXPECT_EQ(Read().updates, 1U);
}

TEST_F(InstanceMonitorTest, AnUpdateIsNeverEarly) {
  Receive({.sequence = 1, .latency = -500});
  Receive({.sequence = 2, .latency = 7});
  EXPECT_EQ(Read().latency.Count(), 2U);
  EXPECT_EQ(Read().latency.Max(), 7U);
}

}  // namespace
}  // namespace price_client
