#include <fcntl.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>
#include <thread>

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

rlimit descriptorLimit() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  return limit;
}

// Lets the test have as many descriptors as the system allows.
rlim_t raiseDescriptorLimit() {
  rlimit limit = descriptorLimit();
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
  return limit.rlim_cur;
}

TEST_F(Membership, AKilledProcessIsMissedAfterItsLastWordsAndLeavesNothing) {
  Member a(settingsIn(m_directory, "a"));
  const auto publication = a.transport->advertise({"ours", "s", Pacing::source});
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const Descriptor reading(ends[0]);
  Descriptor writing(ends[1]);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, writing.get(), STDOUT_FILENO);
  std::string program = PEER_PROCESS;
  std::string path = m_directory.path();
  char* arguments[] = {program.data(), path.data(), nullptr};
  pid_t process = 0;
  ASSERT_EQ(::posix_spawn(&process, program.c_str(), &actions, nullptr, arguments, environ), 0);
  ::posix_spawn_file_actions_destroy(&actions);
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
  ::kill(process, SIGKILL);
  ASSERT_EQ(::waitpid(process, nullptr, 0), process);

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
  const rlimit usual = descriptorLimit();
  rlimit tight = usual;
  tight.rlim_cur = static_cast<rlim_t>(Descriptor(::dup(STDIN_FILENO)).get());
  ::setrlimit(RLIMIT_NOFILE, &tight);
  settle({&a});
  pollfd entry{a.transport->descriptor(), POLLIN, 0};
  EXPECT_EQ(::poll(&entry, 1, 0), 0) << "the context would keep its thread busy";
  EXPECT_EQ(a.notices.size(), 1U);
  ::setrlimit(RLIMIT_NOFILE, &usual);
  drainUntil({&a, &b}, "the source", [&] { return b.heard("up T"); });
}

}  // namespace
}  // namespace engine::transport::host
