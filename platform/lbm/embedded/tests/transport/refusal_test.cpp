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

const Refused kNoDescriptor{Call::kMemfdCreate, EMFILE, "ulimit -n"};
const Refused kNoMemory{Call::kPosixFallocate, ENOSPC, "free memory"};
const Refused kNoWatch{Call::kWatch, ENOSPC, "max_user_watches"};

// A publisher with one subscriber whom nothing may touch, and a context that has come but was not taken in yet.
class RefusingSystem : public testing::TestWithParam<Refused> {
 protected:
  RefusingSystem() {
    Settle({&m_source, &m_other});
    m_before = Holdings::Now();
    m_late = std::make_unique<Member>(SettingsIn(m_directory, "late"));
  }

  void ExpectOtherIsServed() {
    Settle({&m_source, &m_other});
    m_other.events.clear();
    Publish(*m_source.transport, *m_publication, "still here");
    Settle({&m_source, &m_other});
    EXPECT_THAT(m_other.events, ElementsAre("T: still here"));
  }

  void ExpectLateIsServed() {
    DrainUntil({&m_source, m_late.get()}, "the subscription", [&] { return m_source.Heard("joined late"); });
    Publish(*m_source.transport, *m_publication, "at last");
    Settle({&m_source, m_late.get()});
    EXPECT_TRUE(m_late->Heard("T: at last"));
    EXPECT_EQ(m_late->lost, 0U);
  }

  void ExpectNothingIsLeft() {
    m_late.reset();
    Settle({&m_source, &m_other});
    EXPECT_EQ(Holdings::Now(), m_before);
  }

  // The publisher finds its system refusing, and once more after it has rested.
  void DrainTwoAttempts() {
    pollfd entry{m_source.transport->GetDescriptor(), POLLIN, 0};
    ASSERT_EQ(::poll(&entry, 1, 0), 1);
    m_source.Drain();
    EXPECT_EQ(::poll(&entry, 1, 0), 0) << "the context would keep its thread busy";
    ASSERT_EQ(::poll(&entry, 1, 60'000), 1);
    m_source.Drain();
  }

  ScratchDirectory m_directory;
  Member m_source{SettingsIn(m_directory, "source"), false};
  std::shared_ptr<Publication> m_publication = m_source.transport->Advertise({"T", Pacing::kReceiver});
  Member m_other{SettingsIn(m_directory, "other")};
  Holdings m_before;
  std::unique_ptr<Member> m_late;
};

class Ring : public RefusingSystem {};

TEST_P(Ring, ThatCannotBeMadeIsTriedAgainAndKeepsNobodyElse) {
  DrainUntil({&m_source, m_late.get()}, "the source", [&] { return m_late->Heard("up T"); });
  const auto second = m_source.transport->Advertise({"U", Pacing::kSource});
  const auto third = m_source.transport->Advertise({"V", Pacing::kSource});
  m_late->Drain();
  m_late->transport->Unsubscribe(*m_late->sources.at("V"));
  {
    const Refusal refusal(GetParam().call, GetParam().error);
    m_source.Drain();
    m_source.transport->Withdraw(*second);
    DrainTwoAttempts();
  }
  ASSERT_THAT(m_source.notices, ElementsAre(HasSubstr(GetParam().remedy)));
  EXPECT_THAT(m_source.notices[0], HasSubstr("\"late\""));
  ExpectOtherIsServed();
  EXPECT_FALSE(m_late->Heard("T: still here"));
  ExpectLateIsServed();
  EXPECT_TRUE(m_late->Heard("down U"));
  Publish(*m_source.transport, *third, "unwanted");
  Settle({m_late.get()});
  EXPECT_FALSE(m_late->Heard("V: unwanted"));
  EXPECT_EQ(m_source.notices.size(), 1U);
  EXPECT_TRUE(m_late->notices.empty());
  ExpectNothingIsLeft();
}

INSTANTIATE_TEST_SUITE_P(Reasons, Ring, testing::Values(kNoDescriptor, kNoMemory));

TEST_F(RefusingSystem, ALinkThatCannotBeWatchedIsTriedAgain) {
  {
    const Refusal refusal(Call::kWatch, ENOSPC);
    DrainTwoAttempts();
  }
  EXPECT_THAT(m_source.notices, ElementsAre(HasSubstr("max_user_watches")));
  ExpectOtherIsServed();
  ExpectLateIsServed();
  ExpectNothingIsLeft();
}

TEST_F(RefusingSystem, ARingThatCannotBeReceivedEndsThatLinkAlone) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the undefined-behaviour sanitizer takes a descriptor to look at a type, and there is none";
#endif
  DrainUntil({&m_source, m_late.get()}, "the source", [&] { return m_late->Heard("up T"); });
  DrainUntil({&m_source}, "the subscription", [&] { return m_source.Heard("joined late"); });
  {
    const NoDescriptors none;
    Settle({m_late.get()});
  }
  ASSERT_THAT(m_late->notices, ElementsAre(HasSubstr("ulimit -n")));
  EXPECT_THAT(m_late->notices[0], HasSubstr("\"source\""));
  EXPECT_TRUE(m_late->Heard("down T"));
  ExpectOtherIsServed();
  EXPECT_TRUE(m_source.Heard("left late"));
  ExpectNothingIsLeft();
}

// Each time that the publisher has something to do with the late context: when it comes, subscribes and goes.
TEST_F(RefusingSystem, RunningOutOfMemoryEndsThatLinkAlone) {
  m_source.events.reserve(1000);  // not to be what fails
  constexpr int kOccasions = 3;
  for (int occasion = 0; occasion < kOccasions; ++occasion) {
    const auto drain = [&](int present, std::size_t allocations) {
      const std::optional<test::AllocationLimit> limit =
          present == occasion ? std::optional<test::AllocationLimit>(allocations) : std::nullopt;
      EXPECT_NO_THROW(m_source.Drain()) << occasion << " with " << allocations;
    };
    std::size_t allocations = 0;
    for (bool enough = false; !enough; ++allocations) {
      ASSERT_LT(allocations, 100U);
      m_source.events.clear();
      drain(0, allocations);
      m_late->Drain();
      drain(1, allocations);
      const bool joined = m_source.Heard("joined late");
      m_late.reset();
      drain(2, allocations);
      enough = joined && m_source.Heard("left late");
      Settle({&m_source});
      EXPECT_TRUE(m_source.Heard("left late") || !joined);
      ExpectOtherIsServed();
      EXPECT_EQ(Holdings::Now(), m_before);
      m_late = std::make_unique<Member>(SettingsIn(m_directory, "late"));
    }
    EXPECT_GT(allocations, 1U) << occasion;
  }
  EXPECT_THAT(m_source.notices, testing::Contains(HasSubstr("out of memory")));
}

// The message is larger than the ring, so its fragments have to wait in memory.
TEST_F(RefusingSystem, RunningOutOfMemoryInsideAMessageEndsThatLinkAlone) {
  m_other.transport->Unsubscribe(*m_other.sources.at("T"));
  std::size_t allocations = 0;
  for (bool whole = false; !whole; ++allocations) {
    ASSERT_LT(allocations, 100U);
    DrainUntil({&m_source, m_late.get()}, "the subscription", [&] { return m_source.Heard("joined late"); });
    std::string text(5'000'000, 'x');
    {
      const test::AllocationLimit limit(allocations);
      EXPECT_NO_THROW(Publish(*m_source.transport, *m_publication, std::move(text))) << allocations;
    }
    Settle({&m_source, m_late.get()});
    Publish(*m_source.transport, *m_publication, "next");
    Settle({&m_source, m_late.get()});
    whole = m_late->messages == 2;
    EXPECT_EQ(m_late->messages, whole ? 2U : 0U);
    EXPECT_EQ(m_late->Heard("down T"), !whole);
    EXPECT_EQ(m_source.Heard("left late"), !whole);
    EXPECT_TRUE(m_late->notices.empty());
    m_late.reset();
    Settle({&m_source});
    m_source.events.clear();
    m_late = std::make_unique<Member>(SettingsIn(m_directory, "late"));
  }
  EXPECT_GT(allocations, 2U);
  EXPECT_THAT(m_source.notices, testing::Each(HasSubstr("out of memory")));
  m_other.transport->Subscribe(*m_other.sources.at("T"));
  ExpectOtherIsServed();
}

class Joining : public RefusingSystem {};

TEST_P(Joining, IsRefusedWithARemedyAndLeavesNothing) {
  Settle({&m_source, &m_other, m_late.get()});
  const Holdings before = Holdings::Now();
  const std::size_t sockets = m_directory.Sockets().size();
  HostSettings settings = SettingsIn(m_directory);
  settings.domain = GetParam().call == Call::kMkdirat ? "new" : settings.domain;
  {
    const Refusal refusal(GetParam().call, GetParam().error);
    try {
      JoinHostDomain(settings);
      ADD_FAILURE() << "joined";
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code().value(), GetParam().error);
      EXPECT_THAT(error.what(), HasSubstr(GetParam().remedy));
    }
  }
  Settle({&m_source, &m_other, m_late.get()});
  EXPECT_EQ(Holdings::Now(), before);
  EXPECT_EQ(m_directory.Sockets().size(), sockets);
  EXPECT_TRUE(m_source.notices.empty());
  ExpectOtherIsServed();
}

INSTANTIATE_TEST_SUITE_P(Reasons, Joining,
                         testing::Values(kNoDescriptor, kNoMemory, kNoWatch,
                                         Refused{Call::kMkdirat, ENOSPC, "free space"},
                                         Refused{Call::kMkdirat, EROFS, "make it writable"},
                                         Refused{Call::kBind, ENOSPC, "free space"},
                                         Refused{Call::kBind, EACCES, "make it writable"}));

}  // namespace
}  // namespace engine::transport::host
