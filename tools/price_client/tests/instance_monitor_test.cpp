#include "instance_monitor.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

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

  static feed::PriceMessage Message(const Update& update) {
    feed::PriceMessage message;
    message.session = update.session;
    message.sequence = update.sequence;
    message.sentAt = 5000;
    message.segment = static_cast<std::uint16_t>(update.segment);
    message.symbol = feed::Symbol::Parse(update.symbol).value();
    message.date = feed::ParseDate("2000-01-31").value();
    message.price = feed::Price::Parse(update.price).value();
    return message;
  }
  static std::string BytesOf(const feed::PriceMessage& message) {
    const auto bytes = feed::Encode(message);
    return {bytes.begin(), bytes.end()};
  }
  bool Receive(const Update& update) {
    const auto message = Message(update);
    return m_monitor.OnData(update.segment, BytesOf(message), message.sentAt + update.latency);
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
  // Updates make a source known that was not announced.
  EXPECT_TRUE(Receive({.sequence = 1}));
  EXPECT_FALSE(Receive({.sequence = 2}));
  EXPECT_EQ(LiveSegments(), 1U);
}

TEST_F(InstanceMonitorTest, WhatIsMissedWhileDetachedIsNoGapButARestartIsSeen) {
  m_monitor.OnSessionBegin(0);
  ReceiveSequence(kFirstSession, {1, 2});
  m_monitor.Detach();
  EXPECT_EQ(LiveSegments(), 0U);
  ReceiveSequence(kFirstSession, {50, 51});
  EXPECT_EQ(Read().restarts, 0U);
  m_monitor.Detach();
  ReceiveSequence(kSecondSession, {7, 8});
  EXPECT_EQ(Read().restarts, 1U);
  EXPECT_FALSE(Read().HasGap());
  EXPECT_EQ(Read().updates, 6U);
}

TEST_F(InstanceMonitorTest, CountsWhatIsMissingOfEverySegment) {
  struct Arrival {
    unsigned segment;
    std::uint64_t session;
    std::uint64_t sequence;
  };
  const struct {
    const char* what;
    std::vector<Arrival> arrivals;
    std::uint64_t gaps;
    std::uint64_t missed;
    std::uint64_t restarts;
  } cases[] = {
      {"joining late", {{0, 1, 37}, {0, 1, 38}, {1, 1, 5}}, 0, 0, 0},
      {"two gaps", {{0, 1, 1}, {0, 1, 4}, {1, 1, 1}, {0, 1, 6}, {1, 1, 2}}, 2, 3, 0},
      {"repeated and late updates", {{0, 1, 1}, {0, 1, 2}, {0, 1, 2}, {0, 1, 1}, {0, 1, 3}}, 0, 0, 0},
      {"a restart", {{0, 1, 1}, {1, 1, 1}, {0, 2, 4}, {0, 2, 5}, {1, 2, 1}}, 2, 3, 1},
      {"last updates of a killed server", {{0, 1, 1}, {0, 2, 1}, {0, 1, 2}, {0, 2, 2}}, 1, 0, 1},
  };
  for (const auto& [what, arrivals, gaps, missed, restarts] : cases) {
    m_monitor = InstanceMonitor(2);
    for (const auto& [segment, session, sequence] : arrivals) {
      Receive({.segment = segment, .session = session, .sequence = sequence});
    }
    EXPECT_EQ(Read().updates, arrivals.size()) << what;
    EXPECT_EQ(Read().gaps, gaps) << what;
    EXPECT_EQ(Read().missed, missed) << what;
    EXPECT_EQ(Read().restarts, restarts) << what;
  }
}

TEST_F(InstanceMonitorTest, ARestartWithTheClockSetBackIsSeen) {
  m_monitor.OnSessionBegin(0);
  ReceiveSequence(kSecondSession, {1});
  m_monitor.OnSessionEnd(0);
  ReceiveSequence(kFirstSession, {1, 2});
  EXPECT_EQ(Read().restarts, 1U);
}

TEST_F(InstanceMonitorTest, KeepsTheLastTwoPricesOfEachSymbol) {
  Receive({.sequence = 1, .symbol = "MSFT", .price = "100"});
  Receive({.sequence = 2, .symbol = "IBM", .price = "50"});
  Receive({.sequence = 3, .symbol = "MSFT", .price = "99.5"});
  const auto& symbols = m_monitor.Prices().symbols;
  ASSERT_EQ(symbols.size(), 2U);
  EXPECT_EQ(symbols[0].Change(), -0.5);
  EXPECT_EQ(symbols[0].ChangePercent(), -0.5);
  EXPECT_EQ(symbols[0].updates, 2U);
  EXPECT_EQ(symbols[1].Change(), 0);
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
  m_monitor.OnData(0, "hello", 1);
  m_monitor.OnData(0, BytesOf(Message({.segment = 1})), 1);
  EXPECT_EQ(Read().malformed, 3U);
  EXPECT_EQ(Read().updates, 0U);
  Receive({.segment = 1});
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
