#include <poll.h>
#include <spawn.h>
#include <sys/fsuid.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <random>

#include "descriptor_limit.h"
#include "engine_testing/holdings.h"
#include "engine_testing/raw_peer.h"
#include "flood.h"
#include "member.h"
#include "test_support/pipe.h"

namespace engine::transport::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class Membership : public testing::Test {
 protected:
  ScratchDirectory m_directory;
};

// See peer_process.cpp. output, input: its standard output and input, if not negative.
pid_t StartPeer(const ScratchDirectory& directory, std::string what, int output = -1, int input = -1) {
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  if (output >= 0) {
    ::posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  }
  if (input >= 0) {
    ::posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  }
  std::string program = PEER_PROCESS;
  std::string path = directory.Path();
  char* arguments[] = {program.data(), path.data(), what.data(), nullptr};
  pid_t process = 0;
  EXPECT_EQ(::posix_spawn(&process, program.c_str(), &actions, nullptr, arguments, environ), 0);
  ::posix_spawn_file_actions_destroy(&actions);
  return process;
}

void KillPeer(pid_t process) {
  ::kill(process, SIGKILL);
  ASSERT_EQ(::waitpid(process, nullptr, 0), process);
}

TEST_F(Membership, AKilledProcessIsMissedAfterItsLastWordsAndLeavesNothing) {
  Member a(SettingsIn(m_directory, "a"));
  const auto publication = a.transport->Advertise({"ours", Pacing::kSource});
  test_support::Pipe pipe = test_support::MakePipe();
  const pid_t process = StartPeer(m_directory, "last-words", pipe.writer.Get());
  pipe.writer = {};

  DrainUntil({&a}, "the process", [&] { return a.Heard("up peer") && a.Heard("joined peer"); });
  std::shared_ptr<ReplyPath> replyPath;
  a.onMessage = [&](RemoteSource&, InboundMessage& message) {
    if (message.replyPath) {
      replyPath = message.replyPath;
    }
  };
  Publish(*a.transport, *publication, "speak");
  char told = 0;
  ASSERT_EQ(::read(pipe.reader.Get(), &told, 1), 1);
  KillPeer(process);

  a.events.clear();
  DrainUntil({&a}, "the end of the process", [&] { return a.Heard("left peer"); });
  std::erase(a.events, "ours: speak");  // to itself, at any point
  EXPECT_THAT(a.events,
              ElementsAre("peer: last words", "peer: last words", "peer: last words", "down peer", "left peer"));
  ASSERT_NE(replyPath, nullptr);
  EXPECT_EQ(a.transport->Respond(*replyPath, {}, {}), SendResult::kPeerGone);

  EXPECT_EQ(m_directory.Sockets().size(), 2U);
  {
    Member b(SettingsIn(m_directory), false);
    EXPECT_EQ(m_directory.Sockets().size(), 2U);
    Settle({&a, &b});
    EXPECT_TRUE(b.Heard("up ours"));
  }
  EXPECT_EQ(m_directory.Sockets().size(), 1U);
}

TEST_F(Membership, AKilledProcessIsMissedThoughAChildOfItLivesOn) {
  HostSettings settings = SettingsIn(m_directory, "a");
  settings.ringBytes = kFloodRingBytes;
  Member a(settings);
  const auto publication = a.transport->Advertise({"ours", Pacing::kReceiver});
  test_support::Pipe told = test_support::MakePipe();
  test_support::Pipe alive = test_support::MakePipe();
  const pid_t process = StartPeer(m_directory, "fork", told.writer.Get(), alive.reader.Get());
  told.writer = {};
  alive.reader = {};
  char byte = 0;
  DrainUntil({&a}, "the process", [&] { return a.Heard("up peer") && a.Heard("joined peer"); });
  ASSERT_EQ(::read(told.reader.Get(), &byte, 1), 1);
  const auto send = [&] { return Publish(*a.transport, *publication, std::string(1000, 'x')); };
  while (send() == SendResult::kSent) {
    a.Drain();
  }
  KillPeer(process);

  DrainUntil({&a}, "the end of the process", [&] { return a.Heard("down peer") && a.Heard("left peer"); });
  EXPECT_EQ(send(), SendResult::kSent) << "the publisher still waits for a dead process";
  { const Member clearsUp(SettingsIn(m_directory), false); }
  EXPECT_EQ(m_directory.Sockets().size(), 1U);
  pollfd child{told.reader.Get(), POLLIN, 0};
  EXPECT_EQ(::poll(&child, 1, 0), 0) << "the child has ended";
  alive.writer = {};
  EXPECT_EQ(::read(told.reader.Get(), &byte, 1), 0);
}

// How many processes to kill where TRANSPORT_TEST_KILLS does not say it; more find rarer moments.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kKills = 100;
#else
constexpr int kKills = 500;
#endif

TEST_F(Membership, AProcessMayBeKilledAtAnyMoment) {
  const char* const wanted = std::getenv("TRANSPORT_TEST_KILLS");
  const int kills = wanted != nullptr ? std::stoi(wanted) : kKills;
  HostSettings settings = SettingsIn(m_directory);
  settings.ringBytes = kFloodRingBytes;
  Member a(settings);
  const auto publication = a.transport->Advertise({"ours", Pacing::kSource});
  Settle({&a});
  std::uint32_t next = 0;
  std::size_t whole = 0;
  a.onMessage = [&](RemoteSource& source, InboundMessage& message) {
    if (source.Topic() == "peer") {
      EXPECT_TRUE(TextOf(message.payload) == FloodMessage(message.sequence));
      EXPECT_TRUE(next == 0 || message.sequence == next);
      next = message.sequence + 1;
      ++whole;
    }
  };
  Publish(*a.transport, *publication, "to make the context's own ring");
  Settle({&a});
  const Holdings before = Holdings::Now();
  const std::size_t entriesBefore = m_directory.Entries();
  std::mt19937 random(static_cast<unsigned>(kills));
  for (int i = 0; i < kills && !HasFailure(); ++i) {
    next = 0;
    a.events.clear();
    const pid_t process = StartPeer(m_directory, "flood");
    // Half of them at any moment, the others once they are at work.
    const auto moment = [&] { return std::chrono::microseconds(random() % 10'000); };
    auto end = std::chrono::steady_clock::now() + moment();
    if (i % 2 != 0) {
      DrainUntil({&a}, "a message", [&] { return next != 0; });
      end = std::chrono::steady_clock::now() + moment() / 4;
    }
    while (std::chrono::steady_clock::now() < end) {
      Publish(*a.transport, *publication, std::string(random() % 4000, 'x'));
      a.Drain();
    }
    KillPeer(process);
    Settle({&a});
    EXPECT_EQ(a.Heard("up peer"), a.Heard("down peer"));
    EXPECT_EQ(a.lost, 0U);
    EXPECT_EQ(Holdings::Now(), before);
  }
  EXPECT_GT(whole, static_cast<std::size_t>(kills));
  EXPECT_TRUE(a.Notices().empty());
  { const Member clearsUp(SettingsIn(m_directory), false); }
  EXPECT_EQ(m_directory.Sockets().size(), 1U);
  EXPECT_EQ(m_directory.Entries(), entriesBefore);
}

TEST_F(Membership, AnotherUserIsRefusedBeforeAWord) {
  if (::getuid() != 0) {
    GTEST_SKIP() << "takes the rights of the superuser";
  }
  Member a(SettingsIn(m_directory));
  ASSERT_EQ(::seteuid(12345), 0);
  ::setfsuid(0);  // may reach the socket, as a process could that got hold of it
  const RawPeer caller(m_directory.Sockets().at(0));
  ASSERT_EQ(::seteuid(0), 0);
  ASSERT_TRUE(caller.Connected());
  Settle({&a});
  EXPECT_EQ(caller.BytesUntilHangUp(), 0U);
  EXPECT_THAT(a.Notices(), ElementsAre(HasSubstr("another user")));
}

TEST_F(Membership, ALateJoinerLearnsOfThousandsOfSources) {
  constexpr std::size_t kSources = 10'000;
  Member a(SettingsIn(m_directory), false);
  std::vector<std::shared_ptr<Publication>> publications;
  for (std::size_t i = 0; i < kSources; ++i) {
    publications.push_back(a.transport->Advertise({"some.longer.topic.name." + std::to_string(i), Pacing::kSource}));
  }
  Settle({&a});
  EXPECT_EQ(a.sources.size(), kSources);
  Member b(SettingsIn(m_directory));
  Settle({&a, &b});
  EXPECT_EQ(b.sources.size(), kSources);
  for (const auto& publication : publications) {
    Publish(*a.transport, *publication, "hello");
    b.Drain();
  }
  Settle({&a, &b});
  EXPECT_EQ(b.messages, kSources);
}

TEST_F(Membership, AContextWithTooManyCallersIsCalledAgain) {
  if (RaiseDescriptorLimit() < 5'000) {
    GTEST_SKIP() << "a backlog takes more descriptors than this process may have";
  }
  Member a(SettingsIn(m_directory), false);
  const auto publication = a.transport->Advertise({"T", Pacing::kSource});
  const std::string address = m_directory.Sockets().at(0);
  std::vector<RawPeer> callers;
  do {
    callers.emplace_back(address);
  } while (callers.back().Connected());
  ASSERT_EQ(errno, EAGAIN);
  Member b(SettingsIn(m_directory));
  callers.clear();
  DrainUntil({&a, &b}, "the source", [&] { return b.Heard("up T"); });
}

TEST_F(Membership, WhoCallsAContextThatLeavesIsHungUpOn) {
  Member a(SettingsIn(m_directory));
  const RawPeer caller(m_directory.Sockets().at(0));
  ASSERT_TRUE(caller.Connected());
  EXPECT_FALSE(caller.CutOff());
  a.transport->Close(std::chrono::milliseconds(0));
  EXPECT_TRUE(caller.CutOff());
}

TEST_F(Membership, ContextsAreTakenInOnceThereAreDescriptorsAgain) {
  Member a(SettingsIn(m_directory), false);
  const auto publication = a.transport->Advertise({"T", Pacing::kSource});
  Settle({&a});  // also because a sanitizer needs a descriptor for its first look at a type
  Member b(SettingsIn(m_directory));
  {
    const NoDescriptors none;
    Settle({&a});
    pollfd entry{a.transport->GetDescriptor(), POLLIN, 0};
    EXPECT_EQ(::poll(&entry, 1, 0), 0) << "the context would keep its thread busy";
    EXPECT_EQ(::poll(&entry, 1, 60'000), 1) << "it would not try again";
    Settle({&a});
    EXPECT_EQ(a.Notices().size(), 1U);
  }
  DrainUntil({&a, &b}, "the source", [&] { return b.Heard("up T"); });
}

}  // namespace
}  // namespace engine::transport::host
