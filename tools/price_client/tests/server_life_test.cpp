#include "server_life.h"

#include <gtest/gtest.h>

namespace price_client {
namespace {

using namespace std::chrono_literals;
using feed::ServerState;
using Topic = ServerLife::Topic;

constexpr std::uint64_t kOld = 1000;
constexpr std::uint64_t kNew = 2000;

class ServerLifeTest : public testing::Test {
 protected:
  void Take(std::uint64_t session, ServerState state = ServerState::kOpen) {
    feed::ServerStatus status;
    status.session = session;
    status.state = state;
    m_life.TakeStatus(status, m_now);
  }
  // Of the last status; 0 without one.
  std::uint64_t Session() const {
    const auto status = m_life.Status(m_now);
    return status ? status->last.session : 0;
  }
  bool HasClosedInOrder() const {
    InstanceSnapshot snapshot;
    snapshot.state = m_life.State();
    snapshot.status = m_life.Status(m_now);
    return snapshot.HasClosedInOrder();
  }
  // A server with one price topic.
  void ComeUp(std::uint64_t session) {
    m_life.SourceCame(Topic::kPrices);
    m_life.SourceCame(Topic::kStatus);
    Take(session);
  }
  void Go() {
    m_life.SourceWent(Topic::kPrices);
    m_life.SourceWent(Topic::kStatus);
  }

  ServerLife m_life{5s};
  ServerLife::Clock::time_point m_now{};
};

TEST_F(ServerLifeTest, FollowsAServerThatIsKilledAndStartedAgain) {
  ComeUp(kOld);
  m_life.SourceWent(Topic::kPrices);
  EXPECT_EQ(m_life.State(), InstanceState::kUp);
  m_life.SourceWent(Topic::kStatus);
  EXPECT_EQ(m_life.State(), InstanceState::kGone);
  EXPECT_EQ(Session(), kOld);
  EXPECT_FALSE(HasClosedInOrder());
  m_life.SourceCame(Topic::kPrices);
  EXPECT_EQ(m_life.State(), InstanceState::kBack);
  EXPECT_EQ(Session(), 0U);  // what the old run said is no news of the new one
  m_life.SourceCame(Topic::kStatus);
  Take(kNew);
  EXPECT_EQ(Session(), kNew);
  EXPECT_EQ(m_life.Run(), 2U);
}

TEST_F(ServerLifeTest, AnOrderlyEndIsToldFromAnother) {
  ComeUp(kOld);
  Take(kOld, ServerState::kClosing);
  EXPECT_FALSE(HasClosedInOrder());
  Go();
  EXPECT_TRUE(HasClosedInOrder());
  // The next one dies before it has said anything.
  m_life.SourceCame(Topic::kPrices);
  m_life.SourceWent(Topic::kPrices);
  EXPECT_FALSE(HasClosedInOrder());
}

TEST_F(ServerLifeTest, ASuccessorMayComeBeforeItsPredecessorGoes) {
  ComeUp(kOld);
  ComeUp(kNew);
  EXPECT_EQ(m_life.Run(), 2U);
  Take(kOld, ServerState::kClosing);
  EXPECT_EQ(Session(), kNew);
  Go();
  EXPECT_EQ(m_life.State(), InstanceState::kUp);
  EXPECT_EQ(Session(), kNew);
  EXPECT_EQ(m_life.Run(), 2U);
  Go();
  EXPECT_EQ(m_life.State(), InstanceState::kGone);
}

TEST_F(ServerLifeTest, WhileNobodyListensToPricesTheStatusTopicTells) {
  ComeUp(kOld);
  m_life.PricesDropped();
  EXPECT_EQ(m_life.State(), InstanceState::kUp);
  m_life.SourceWent(Topic::kStatus);
  EXPECT_EQ(m_life.State(), InstanceState::kGone);
  m_life.SourceCame(Topic::kStatus);
  m_life.SourceCame(Topic::kPrices);
  Go();
  EXPECT_EQ(m_life.State(), InstanceState::kGone);
}

TEST_F(ServerLifeTest, TakesNeitherUnannouncedStatusesNorEndsOfUnknownSourcesAmiss) {
  m_life.SourceWent(Topic::kStatus);
  m_life.SourceWent(Topic::kPrices);
  EXPECT_EQ(m_life.State(), InstanceState::kNeverSeen);
  Take(kOld);
  EXPECT_EQ(m_life.State(), InstanceState::kUp);
  EXPECT_EQ(Session(), kOld);
  m_life.SourceWent(Topic::kStatus);
  EXPECT_EQ(m_life.State(), InstanceState::kGone);
}

}  // namespace
}  // namespace price_client
