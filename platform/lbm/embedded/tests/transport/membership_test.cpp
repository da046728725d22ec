#include <fcntl.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/fsuid.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <random>
#include <thread>

#include "descriptor_limit.h"
#include "flood.h"
#include "holdings.h"
#include "member.h"
#include "raw_peer.h"

namespace engine::transport::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class Membership : public testing::Test {
 protected:
  ScratchDirectory m_directory;
};

// See peer_process.cpp. output: its standard output, if not negative.
pid_t startPeer(const ScratchDirectory& directory, std::string what, int output = -1) {
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  if (output >= 0) {
    ::posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  }
  std::string program = PEER_PROCESS;
  std::string path = directory.path();
  char* arguments[] = {program.data(), path.data(), what.data(), nullptr};
  pid_t process = 0;
  EXPECT_EQ(::posix_spawn(&process, program.c_str(), &actions, nullptr, arguments, environ), 0);
  ::posix_spawn_file_actions_destroy(&actions);
  return process;
}

void killPeer(pid_t process) {
  ::kill(process, SIGKILL);
  ASSERT_EQ(::waitpid(process, nullptr, 0), process);
}

TEST_F(Membership, AKilledProcessIsMissedAfterItsLastWordsAndLeavesNothing) {
  Member a(settingsIn(m_directory, "a"));
  const auto publication = a.transport->advertise({"ours", "s", Pacing::source});
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const Descriptor reading(ends[0]);
  Descriptor writing(ends[1]);
  const pid_t process = startPeer(m_directory, "last-words", writing.get());
  writing = Descriptor();

  drainUntil({&a}, "the process", [&] { return a.heard("up peer") && a.heard("joined peer"); });
  std::shared_ptr<ReplyPath> replyPath;
  a.onMessage = [&](RemoteSource&, InboundMessage& message) {
    if (message.replyPath) {
      replyPath = message.replyPath;
    }
  };
  publish(*a.transport, *publication, "speak");
  char told = 0;
  ASSERT_EQ(::read(reading.get(), &told, 1), 1);
  killPeer(process);

  a.events.clear();
  drainUntil({&a}, "the end of the process", [&] { return a.heard("left peer"); });
  std::erase(a.events, "ours: speak");  // to itself, at any point
  EXPECT_THAT(a.events,
              ElementsAre("peer: last words", "peer: last words", "peer: last words", "down peer", "left peer"));
  ASSERT_NE(replyPath, nullptr);
  EXPECT_EQ(a.transport->respond(*replyPath, {}, false), SendResult::peerGone);

  EXPECT_EQ(m_directory.sockets().size(), 2U);
  {
    Member b(settingsIn(m_directory), false);
    EXPECT_EQ(m_directory.sockets().size(), 2U);
    settle({&a, &b});
    EXPECT_TRUE(b.heard("up ours"));
  }
  EXPECT_EQ(m_directory.sockets().size(), 1U);
}

// How many processes to kill where TRANSPORT_TEST_KILLS does not say it; more find rarer moments.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kKills = 100;
#else
constexpr int kKills = 2000;
#endif

TEST_F(Membership, AProcessMayBeKilledAtAnyMoment) {
  const char* const wanted = std::getenv("TRANSPORT_TEST_KILLS");
  const int kills = wanted != nullptr ? std::atoi(wanted) : kKills;
  HostSettings settings = settingsIn(m_directory);
  settings.ringBytes = kFloodRingBytes;
  Member a(settings);
  const auto publication = a.transport->advertise({"ours", "s", Pacing::source});
  settle({&a});
  std::uint32_t next = 0;
  std::size_t whole = 0;
  a.onMessage = [&](RemoteSource& source, InboundMessage& message) {
    if (source.topic() == "peer") {
      const auto content = floodMessage(message.sequence);
      EXPECT_TRUE(std::equal(content.begin(), content.end(), message.payload.begin(), message.payload.end()));
      EXPECT_TRUE(next == 0 || message.sequence == next);
      next = message.sequence + 1;
      ++whole;
    }
  };
  publish(*a.transport, *publication, "to make the context's own ring");
  settle({&a});
  const Holdings before = Holdings::now();
  std::mt19937 random(static_cast<unsigned>(kills));
  for (int i = 0; i < kills && !HasFailure(); ++i) {
    next = 0;
    a.events.clear();
    const pid_t process = startPeer(m_directory, "flood");
    // Half of them at any moment, the others once they are at work.
    const auto moment = [&] { return std::chrono::microseconds(random() % 10'000); };
    auto end = std::chrono::steady_clock::now() + moment();
    if (i % 2 != 0) {
      drainUntil({&a}, "a message", [&] { return next != 0; });
      end = std::chrono::steady_clock::now() + moment() / 4;
    }
    while (std::chrono::steady_clock::now() < end) {
      publish(*a.transport, *publication, std::string(random() % 4000, 'x'));
      a.drain();
    }
    killPeer(process);
    settle({&a});
    EXPECT_EQ(a.heard("up peer"), a.heard("down peer"));
    EXPECT_EQ(a.lost, 0U);
    EXPECT_EQ(Holdings::now(), before);
  }
  EXPECT_GT(whole, static_cast<std::size_t>(kills));
  EXPECT_TRUE(a.notices.empty());
  Member(settingsIn(m_directory), false);
  EXPECT_EQ(m_directory.sockets().size(), 1U);
}

TEST_F(Membership, AnotherUserIsRefusedBeforeAWord) {
  if (::getuid() != 0) {
    GTEST_SKIP() << "takes the rights of the superuser";
  }
  Member a(settingsIn(m_directory));
  ASSERT_EQ(::seteuid(12345), 0);
  ::setfsuid(0);  // may reach the socket, as a process could that got hold of it
  const RawPeer caller(m_directory.sockets().at(0));
  ASSERT_EQ(::seteuid(0), 0);
  ASSERT_TRUE(caller.connected());
  settle({&a});
  EXPECT_EQ(caller.bytesUntilHangUp(), 0U);
  EXPECT_THAT(a.notices, ElementsAre(HasSubstr("another user")));
}

TEST_F(Membership, ContextsThatJoinAtTheSameTimeFindEachOther) {
  constexpr std::size_t kThreads = 8;
  std::vector<std::unique_ptr<Member>> members(kThreads);
  std::vector<std::shared_ptr<Publication>> publications(kThreads);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      members[i] = std::make_unique<Member>(settingsIn(m_directory));
      publications[i] = members[i]->transport->advertise({std::to_string(i), "s", Pacing::source});
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::vector<Member*> all;
  for (const auto& member : members) {
    all.push_back(member.get());
  }
  settle(all);
  for (std::size_t i = 0; i < kThreads; ++i) {
    publish(*members[i]->transport, *publications[i], "hello");
  }
  settle(all);
  for (const Member* member : all) {
    EXPECT_EQ(member->sources.size(), kThreads);
    EXPECT_EQ(member->messages, kThreads);
  }
}

TEST_F(Membership, AHundredContextsFindEachOther) {
  constexpr std::size_t kContexts = 100;
  if (raiseDescriptorLimit() < kContexts * (kContexts + 10)) {
    GTEST_SKIP() << "the limit of open files is too low";
  }
  std::vector<std::unique_ptr<Member>> members;
  std::vector<std::shared_ptr<Publication>> publications;
  std::vector<Member*> all;
  for (std::size_t i = 0; i < kContexts; ++i) {
    members.push_back(std::make_unique<Member>(settingsIn(m_directory), i == 0));
    publications.push_back(members[i]->transport->advertise({std::to_string(i), "s", Pacing::source}));
    all.push_back(members[i].get());
  }
  settle(all);
  for (const Member* member : all) {
    ASSERT_EQ(member->sources.size(), kContexts);
  }
  for (std::size_t i = 0; i < kContexts; ++i) {
    publish(*members[i]->transport, *publications[i], "hello");
  }
  settle(all);
  EXPECT_EQ(members[0]->messages, kContexts);
}

TEST_F(Membership, ALateJoinerLearnsOfThousandsOfSources) {
  constexpr std::size_t kSources = 10'000;
  Member a(settingsIn(m_directory), false);
  std::vector<std::shared_ptr<Publication>> publications;
  for (std::size_t i = 0; i < kSources; ++i) {
    publications.push_back(
        a.transport->advertise({"some.longer.topic.name." + std::to_string(i), "s", Pacing::source}));
  }
  settle({&a});
  EXPECT_EQ(a.sources.size(), kSources);
  const auto begin = std::chrono::steady_clock::now();
  Member b(settingsIn(m_directory));
  settle({&a, &b});
  EXPECT_EQ(b.sources.size(), kSources);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  RecordProperty("seconds", std::to_string(took.count()));
  for (const auto& publication : publications) {
    publish(*a.transport, *publication, "hello");
    b.drain();
  }
  settle({&a, &b});
  EXPECT_EQ(b.messages, kSources);
}

TEST_F(Membership, AContextWithTooManyCallersIsCalledAgain) {
  raiseDescriptorLimit();
  Member a(settingsIn(m_directory), false);
  const auto publication = a.transport->advertise({"T", "s", Pacing::source});
  const std::string address = m_directory.sockets().at(0);
  std::vector<RawPeer> callers;
  do {
    callers.emplace_back(address);
  } while (callers.back().connected());
  ASSERT_EQ(errno, EAGAIN);
  Member b(settingsIn(m_directory));
  callers.clear();
  drainUntil({&a, &b}, "the source", [&] { return b.heard("up T"); });
}

TEST_F(Membership, WhoCallsAContextThatLeavesIsHungUpOn) {
  Member a(settingsIn(m_directory));
  const RawPeer caller(m_directory.sockets().at(0));
  ASSERT_TRUE(caller.connected());
  EXPECT_FALSE(caller.cutOff());
  a.transport->close(std::chrono::milliseconds(0));
  EXPECT_TRUE(caller.cutOff());
}

TEST_F(Membership, AProcessThatStopsWhileItJoinsKeepsOthersNotForEver) {
  HostSettings settings = settingsIn(m_directory);
  settings.joinPatience = std::chrono::milliseconds(20);
  { const Member a(settings); }
  const Descriptor stopped(::open((m_directory.path() + "/test/lock").c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(stopped.get(), LOCK_EX), 0);
  try {
    joinHostDomain(settings);
    FAIL() << "joined without the lock";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("process " + std::to_string(::getpid()))) << "the last one to join";
    EXPECT_THAT(error.what(), HasSubstr("kill -CONT"));
  }
  ASSERT_EQ(::flock(stopped.get(), LOCK_UN), 0);
  EXPECT_EQ(Member(settings).notices.size(), 0U);
}

TEST_F(Membership, ContextsAreTakenInOnceThereAreDescriptorsAgain) {
  Member a(settingsIn(m_directory), false);
  const auto publication = a.transport->advertise({"T", "s", Pacing::source});
  settle({&a});  // also because a sanitizer needs a descriptor for its first look at a type
  Member b(settingsIn(m_directory));
  {
    const NoDescriptors none;
    settle({&a});
    pollfd entry{a.transport->descriptor(), POLLIN, 0};
    EXPECT_EQ(::poll(&entry, 1, 0), 0) << "the context would keep its thread busy";
    EXPECT_EQ(::poll(&entry, 1, 60'000), 1) << "it would not try again";
    settle({&a});
    EXPECT_EQ(a.notices.size(), 1U);
  }
  drainUntil({&a, &b}, "the source", [&] { return b.heard("up T"); });
}

}  // namespace
}  // namespace engine::transport::host
