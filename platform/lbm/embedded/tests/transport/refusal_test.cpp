#include <poll.h>

#include <cerrno>
#include <memory>

#include "../options/short_memory.h"
#include "../sweeps/failure.h"
#include "descriptor_limit.h"
#include "engine_testing/holdings.h"
#include "member.h"
#include "transport/host/ring/shared_memory.h"

namespace engine::transport::host {
namespace {

using sweep::Call;
using testing::ElementsAre;
using testing::HasSubstr;

// While it lives, the call fails with the error on every thread, an interrupted one (EINTR) the first time only. One at
// a time.
class Refusal {
 public:
  Refusal(Call call, int error) { sweep::Arm({call, error, ""}, 1, error != EINTR); }
  ~Refusal() { sweep::Disarm(); }
  Refusal(const Refusal&) = delete;
  Refusal& operator=(const Refusal&) = delete;
};

struct Refused {
  Call call;
  int error;
  const char* remedy;  // that the error text names
};

void PrintTo(const Refused& refused, std::ostream* out) { *out << static_cast<int>(refused.call) << refused.remedy; }

const Refused kNoDescriptor{Call::kMemfdCreate, EMFILE, "ulimit -n"};
const Refused kNoMemory{Call::kPosixFallocate, ENOSPC, "free memory"};
const Refused kNoWatch{Call::kEpollControl, ENOSPC, "max_user_watches"};

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
    constexpr int kDrainsMax = 10;
    pollfd entry{m_source.transport->GetDescriptor(), POLLIN, 0};
    ASSERT_EQ(::poll(&entry, 1, 0), 1);
    for (int drains = 0; ::poll(&entry, 1, 0) != 0; ++drains) {
      ASSERT_LT(drains, kDrainsMax) << "the context would keep its thread busy";
      m_source.Drain();
    }
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
  const auto second = m_source.transport->Advertise({"U", Pacing::kReceiver});
  const auto third = m_source.transport->Advertise({"V", Pacing::kReceiver});
  DrainUntil({&m_source, m_late.get()}, "the sources", [&] { return m_late->Heard("up V"); });
  m_late->transport->Unsubscribe(*m_late->sources.at("V"));
  {
    const Refusal refusal(GetParam().call, GetParam().error);
    m_source.Drain();
    m_source.transport->Withdraw(*second);
    DrainTwoAttempts();
  }
  ASSERT_THAT(m_source.Notices(), ElementsAre(HasSubstr(GetParam().remedy)));
  EXPECT_THAT(m_source.Notices()[0], HasSubstr("\"late\""));
  ExpectOtherIsServed();
  EXPECT_FALSE(m_late->Heard("T: still here"));
  ExpectLateIsServed();
  EXPECT_EQ(std::count(m_source.events.begin(), m_source.events.end(), "joined late"), 1);
  EXPECT_TRUE(m_late->Heard("down U"));
  Publish(*m_source.transport, *third, "unwanted");
  Settle({m_late.get()});
  EXPECT_FALSE(m_late->Heard("V: unwanted"));
  EXPECT_EQ(m_source.Notices().size(), 1U);
  EXPECT_TRUE(m_late->Notices().empty());
  ExpectNothingIsLeft();
}

INSTANTIATE_TEST_SUITE_P(Reasons, Ring, testing::Values(kNoDescriptor, kNoMemory));

TEST_F(RefusingSystem, ALinkThatCannotBeWatchedIsTriedAgain) {
  {
    const Refusal refusal(Call::kEpollControl, ENOSPC);
    DrainTwoAttempts();
  }
  EXPECT_THAT(m_source.Notices(), ElementsAre(HasSubstr("max_user_watches")));
  ExpectOtherIsServed();
  ExpectLateIsServed();
  ExpectNothingIsLeft();
}

TEST_F(RefusingSystem, WhoCannotReceiveARingLosesThatLinkAloneAndGetsItBack) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the undefined-behaviour sanitizer takes a descriptor to look at a type, and there is none";
#endif
  DrainUntil({&m_source, m_late.get()}, "the source", [&] { return m_late->Heard("up T"); });
  DrainUntil({&m_source}, "the subscription", [&] { return m_source.Heard("joined late"); });
  {
    const NoDescriptors none;
    Settle({m_late.get()});
  }
  ASSERT_THAT(m_late->Notices(), ElementsAre(HasSubstr("ulimit -n")));
  EXPECT_THAT(m_late->Notices()[0], HasSubstr("\"source\""));
  EXPECT_TRUE(m_late->Heard("down T"));
  ExpectOtherIsServed();
  EXPECT_TRUE(m_source.Heard("left late"));
  m_source.events.clear();
  ExpectLateIsServed();
  ExpectNothingIsLeft();
}

TEST_F(RefusingSystem, WhoCannotReceiveARingForLongLooksForItLessAndLess) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "memory is always mapped";
#endif
  using Clock = std::chrono::steady_clock;
  constexpr long kTimes = 4;
  const auto begin = Clock::now();
  while (std::count(m_late->events.begin(), m_late->events.end(), "down T") < kTimes) {
    ASSERT_LT(Clock::now() - begin, std::chrono::seconds(60));
    m_source.Drain();
    const Refusal refusal(Call::kMmap, ENOMEM);
    m_late->Drain();
  }
  EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(50 + 100 + 200));
  EXPECT_THAT(m_late->Notices(), ElementsAre(HasSubstr("free memory")));
  m_source.events.clear();
  ExpectLateIsServed();
  ExpectNothingIsLeft();
}

// Each time that the publisher has something to do with the late context: when it comes, looks, subscribes and goes.
TEST_F(RefusingSystem, RunningOutOfMemoryHarmsThatLinkAlone) {
  m_source.events.reserve(1000);  // not to be what fails
  constexpr int kOccasions = 4;
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
      m_late->Drain();
      drain(2, allocations);
      const bool joined = m_source.Heard("joined late");
      m_late.reset();
      drain(3, allocations);
      enough = joined && m_source.Heard("left late");
      Settle({&m_source});
      EXPECT_TRUE(m_source.Heard("left late") || !joined);
      ExpectOtherIsServed();
      // Without memory for a warning it keeps what it is about.
      DrainUntil({&m_source}, "what was held for the late context", [&] { return Holdings::Now() == m_before; });
      m_late = std::make_unique<Member>(SettingsIn(m_directory, "late"));
    }
    EXPECT_TRUE(allocations > 1 || occasion == 3) << occasion << ": only that it goes needs no memory";
  }
  EXPECT_THAT(m_source.Notices(), testing::Contains(HasSubstr("out of memory")));
}

// The message is larger than the ring, so its fragments have to wait in memory.
TEST_F(RefusingSystem, RunningOutOfMemoryInsideAMessageLosesThatLinkAlone) {
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
    // One that lost the link may be back for the second message.
    EXPECT_TRUE(whole || m_late->messages == 0 || m_late->Heard("T: next"));
    EXPECT_EQ(m_late->Heard("down T"), !whole);
    EXPECT_EQ(m_source.Heard("left late"), !whole);
    EXPECT_TRUE(m_late->Notices().empty());
    m_late.reset();
    Settle({&m_source});
    m_source.events.clear();
    m_late = std::make_unique<Member>(SettingsIn(m_directory, "late"));
  }
  EXPECT_GT(allocations, 2U);
  EXPECT_THAT(m_source.Notices(), testing::Each(HasSubstr("out of memory")));
  m_other.transport->Subscribe(*m_other.sources.at("T"));
  ExpectOtherIsServed();
}

TEST_F(RefusingSystem, WhatIsOfferedIsRefusedWithARemedyAndWhatIsWantedIsTriedAgain) {
  Settle({&m_source, &m_other, m_late.get()});
  Member watcher(SettingsIn(m_directory), true, false);
  const std::size_t entries = m_directory.Entries();
  {
    const Refusal refusal(Call::kLinkat, ENOSPC);
    EXPECT_THAT(
        [&] {
          m_other.transport->Advertise({"U", Pacing::kSource});
        },
        testing::ThrowsMessage<std::system_error>(HasSubstr("free space")));
    watcher.transport->Watch("T");
    Settle({&watcher});
    ASSERT_THAT(watcher.Notices(), ElementsAre(HasSubstr("free space")));
    pollfd entry{watcher.transport->GetDescriptor(), POLLIN, 0};
    EXPECT_EQ(::poll(&entry, 1, 0), 0) << "the context would keep its thread busy";
    ASSERT_EQ(::poll(&entry, 1, 60'000), 1);
    Settle({&watcher});
    EXPECT_EQ(watcher.Notices().size(), 1U);
    EXPECT_EQ(m_directory.Entries(), entries);
  }
  DrainUntil({&m_source, &watcher}, "the source", [&] { return watcher.Heard("up T"); });
  const auto publication = m_other.transport->Advertise({"U", Pacing::kSource});
  watcher.transport->Watch("U");
  DrainUntil({&m_other, &watcher}, "the source", [&] { return watcher.Heard("up U"); });
}

TEST(Interruption, OfAnAllocationIsNoRefusal) {
  const Refusal interruption(Call::kPosixFallocate, EINTR);
  EXPECT_NO_THROW(MakeSharedMemory("test", 4096));
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
    const std::error_code code(GetParam().error, std::generic_category());
    EXPECT_THAT([&] { JoinHostDomain(settings); },
                testing::Throws<std::system_error>(
                    AllOf(testing::Property(&std::system_error::code, code),
                          testing::Property(&std::system_error::what, HasSubstr(GetParam().remedy)))));
  }
  Settle({&m_source, &m_other, m_late.get()});
  EXPECT_EQ(Holdings::Now(), before);
  EXPECT_EQ(m_directory.Sockets().size(), sockets);
  EXPECT_TRUE(m_source.Notices().empty());
  ExpectOtherIsServed();
}

INSTANTIATE_TEST_SUITE_P(Reasons, Joining,
                         testing::Values(kNoDescriptor, kNoMemory, kNoWatch,
                                         Refused{Call::kMkdirat, ENOSPC, "free space"},
                                         Refused{Call::kMkdirat, EROFS, "make it writable"},
                                         Refused{Call::kMkdirat, EACCES, "make it writable"},
                                         Refused{Call::kBind, ENOSPC, "free space"},
                                         Refused{Call::kBind, EACCES, "make it writable"}));

}  // namespace
}  // namespace engine::transport::host
