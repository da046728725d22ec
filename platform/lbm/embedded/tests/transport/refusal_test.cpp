#include "refusal.h"

#include <poll.h>

#include <cerrno>
#include <memory>
#include <vector>

#include "../options/short_memory.h"
#include "descriptor_limit.h"
#include "holdings.h"
#include "member.h"

namespace engine::transport::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

struct Refused {
  Call call;
  int error;
  const char* remedy;  // that the error text names
};

void PrintTo(const Refused& refused, std::ostream* out) { *out << static_cast<int>(refused.call) << refused.remedy; }

const Refused kNoDescriptor{Call::memfdCreate, EMFILE, "ulimit -n"};
const Refused kNoMemory{Call::posixFallocate, ENOSPC, "free memory"};
const Refused kNoWatch{Call::watch, ENOSPC, "max_user_watches"};

// A publisher with one subscriber whom nothing may touch, and a context that has come but was not taken in yet.
class RefusingSystem : public testing::TestWithParam<Refused> {
 protected:
  RefusingSystem() {
    settle({&m_source, &m_other});
    m_before = Holdings::now();
    m_late = std::make_unique<Member>(settingsIn(m_directory, "late"));
  }

  void expectOtherIsServed() {
    settle({&m_source, &m_other});
    m_other.events.clear();
    publish(*m_source.transport, *m_publication, "still here");
    settle({&m_source, &m_other});
    EXPECT_THAT(m_other.events, ElementsAre("T: still here"));
  }

  void expectLateIsServed() {
    drainUntil({&m_source, m_late.get()}, "the subscription", [&] { return m_source.heard("joined late"); });
    publish(*m_source.transport, *m_publication, "at last");
    settle({&m_source, m_late.get()});
    EXPECT_TRUE(m_late->heard("T: at last"));
    EXPECT_EQ(m_late->lost, 0U);
  }

  void expectNothingIsLeft() {
    m_late.reset();
    settle({&m_source, &m_other});
    EXPECT_EQ(Holdings::now(), m_before);
  }

  // The publisher finds its system refusing, and once more after it has rested.
  void drainTwoAttempts() {
    pollfd entry{m_source.transport->descriptor(), POLLIN, 0};
    ASSERT_EQ(::poll(&entry, 1, 0), 1);
    m_source.drain();
    EXPECT_EQ(::poll(&entry, 1, 0), 0) << "the context would keep its thread busy";
    ASSERT_EQ(::poll(&entry, 1, 60'000), 1);
    m_source.drain();
  }

  ScratchDirectory m_directory;
  Member m_source{settingsIn(m_directory, "source"), false};
  std::shared_ptr<Publication> m_publication = m_source.transport->advertise({"T", "s1", Pacing::receiver});
  Member m_other{settingsIn(m_directory, "other")};
  Holdings m_before;
  std::unique_ptr<Member> m_late;
};

class Ring : public RefusingSystem {};

TEST_P(Ring, ThatCannotBeMadeIsTriedAgainAndKeepsNobodyElse) {
  drainUntil({&m_source, m_late.get()}, "the source", [&] { return m_late->heard("up T"); });
  const auto second = m_source.transport->advertise({"U", "s2", Pacing::source});
  const auto third = m_source.transport->advertise({"V", "s3", Pacing::source});
  m_late->drain();
  m_late->transport->unsubscribe(*m_late->sources.at("V"));
  {
    const Refusal refusal(GetParam().call, GetParam().error);
    m_source.drain();
    m_source.transport->withdraw(*second);
    drainTwoAttempts();
  }
  ASSERT_THAT(m_source.notices, ElementsAre(HasSubstr(GetParam().remedy)));
  EXPECT_THAT(m_source.notices[0], HasSubstr("\"late\""));
  expectOtherIsServed();
  EXPECT_FALSE(m_late->heard("T: still here"));
  expectLateIsServed();
  EXPECT_TRUE(m_late->heard("down U"));
  publish(*m_source.transport, *third, "unwanted");
  settle({m_late.get()});
  EXPECT_FALSE(m_late->heard("V: unwanted"));
  EXPECT_EQ(m_source.notices.size(), 1U);
  EXPECT_TRUE(m_late->notices.empty());
  expectNothingIsLeft();
}

INSTANTIATE_TEST_SUITE_P(Reasons, Ring, testing::Values(kNoDescriptor, kNoMemory));

TEST_F(RefusingSystem, ALinkThatCannotBeWatchedIsTriedAgain) {
  {
    const Refusal refusal(Call::watch, ENOSPC);
    drainTwoAttempts();
  }
  EXPECT_THAT(m_source.notices, ElementsAre(HasSubstr("max_user_watches")));
  expectOtherIsServed();
  expectLateIsServed();
  expectNothingIsLeft();
}

TEST_F(RefusingSystem, ARingThatCannotBeReceivedEndsThatLinkAlone) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the undefined-behaviour sanitizer takes a descriptor to look at a type, and there is none";
#endif
  drainUntil({&m_source, m_late.get()}, "the source", [&] { return m_late->heard("up T"); });
  drainUntil({&m_source}, "the subscription", [&] { return m_source.heard("joined late"); });
  {
    const NoDescriptors none;
    settle({m_late.get()});
  }
  ASSERT_THAT(m_late->notices, ElementsAre(HasSubstr("ulimit -n")));
  EXPECT_THAT(m_late->notices[0], HasSubstr("\"source\""));
  EXPECT_TRUE(m_late->heard("down T"));
  expectOtherIsServed();
  EXPECT_TRUE(m_source.heard("left late"));
  expectNothingIsLeft();
}

// Each time that the publisher has something to do with the late context: when it comes, subscribes and goes.
TEST_F(RefusingSystem, RunningOutOfMemoryEndsThatLinkAlone) {
  m_source.events.reserve(1000);  // not to be what fails
  constexpr int kOccasions = 3;
  for (int occasion = 0; occasion < kOccasions; ++occasion) {
    const auto drain = [&](int present, std::size_t allocations) {
      const std::optional<test::AllocationLimit> limit =
          present == occasion ? std::optional<test::AllocationLimit>(allocations) : std::nullopt;
      EXPECT_NO_THROW(m_source.drain()) << occasion << " with " << allocations;
    };
    std::size_t allocations = 0;
    for (bool enough = false; !enough; ++allocations) {
      ASSERT_LT(allocations, 100U);
      m_source.events.clear();
      drain(0, allocations);
      m_late->drain();
      drain(1, allocations);
      const bool joined = m_source.heard("joined late");
      m_late.reset();
      drain(2, allocations);
      enough = joined && m_source.heard("left late");
      settle({&m_source});
      EXPECT_TRUE(m_source.heard("left late") || !joined);
      expectOtherIsServed();
      EXPECT_EQ(Holdings::now(), m_before);
      m_late = std::make_unique<Member>(settingsIn(m_directory, "late"));
    }
    EXPECT_GT(allocations, 1U) << occasion;
  }
  EXPECT_THAT(m_source.notices, testing::Contains(HasSubstr("out of memory")));
}

// The message is larger than the ring, so its fragments have to wait in memory.
TEST_F(RefusingSystem, RunningOutOfMemoryInsideAMessageEndsThatLinkAlone) {
  m_other.transport->unsubscribe(*m_other.sources.at("T"));
  std::size_t allocations = 0;
  for (bool whole = false; !whole; ++allocations) {
    ASSERT_LT(allocations, 100U);
    drainUntil({&m_source, m_late.get()}, "the subscription", [&] { return m_source.heard("joined late"); });
    std::string text(5'000'000, 'x');
    {
      const test::AllocationLimit limit(allocations);
      EXPECT_NO_THROW(publish(*m_source.transport, *m_publication, std::move(text))) << allocations;
    }
    settle({&m_source, m_late.get()});
    publish(*m_source.transport, *m_publication, "next");
    settle({&m_source, m_late.get()});
    whole = m_late->messages == 2;
    EXPECT_EQ(m_late->messages, whole ? 2U : 0U);
    EXPECT_EQ(m_late->heard("down T"), !whole);
    EXPECT_EQ(m_source.heard("left late"), !whole);
    EXPECT_TRUE(m_late->notices.empty());
    m_late.reset();
    settle({&m_source});
    m_source.events.clear();
    m_late = std::make_unique<Member>(settingsIn(m_directory, "late"));
  }
  EXPECT_GT(allocations, 2U);
  EXPECT_THAT(m_source.notices, testing::Each(HasSubstr("out of memory")));
  m_other.transport->subscribe(*m_other.sources.at("T"));
  expectOtherIsServed();
}

class Joining : public RefusingSystem {};

TEST_P(Joining, IsRefusedWithARemedyAndLeavesNothing) {
  settle({&m_source, &m_other, m_late.get()});
  const Holdings before = Holdings::now();
  const std::size_t sockets = m_directory.sockets().size();
  HostSettings settings = settingsIn(m_directory);
  settings.domain = GetParam().call == Call::mkdirat ? "new" : settings.domain;
  {
    const Refusal refusal(GetParam().call, GetParam().error);
    try {
      joinHostDomain(settings);
      ADD_FAILURE() << "joined";
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code().value(), GetParam().error);
      EXPECT_THAT(error.what(), HasSubstr(GetParam().remedy));
    }
  }
  settle({&m_source, &m_other, m_late.get()});
  EXPECT_EQ(Holdings::now(), before);
  EXPECT_EQ(m_directory.sockets().size(), sockets);
  EXPECT_TRUE(m_source.notices.empty());
  expectOtherIsServed();
}

INSTANTIATE_TEST_SUITE_P(Reasons, Joining,
                         testing::Values(kNoDescriptor, kNoMemory, kNoWatch,
                                         Refused{Call::mkdirat, ENOSPC, "free space"},
                                         Refused{Call::mkdirat, EROFS, "make it writable"},
                                         Refused{Call::bind, ENOSPC, "free space"},
                                         Refused{Call::bind, EACCES, "make it writable"}));

}  // namespace
}  // namespace engine::transport::host
