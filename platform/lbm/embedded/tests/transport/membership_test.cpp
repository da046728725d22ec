#include <poll.h>
#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <csignal>
#include <functional>

#include "descriptor_limit.h"
#include "engine_testing/raw_peer.h"
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

// Another process, until it has done this. It inherits what the test has.
pid_t InAnotherProcess(const std::function<void()>& act) {
  const pid_t process = ::fork();
  if (process == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    act();
    ::_exit(testing::Test::HasFailure() ? 1 : 0);
  }
  return process;
}

// Another context, in a process that can be killed: it offers the source "peer", subscribes to the source "ours", does
// this, and waits. To be started before the test has contexts.
pid_t StartPeer(const ScratchDirectory& directory, const std::function<void(Member&, Publication&)>& act) {
  return InAnotherProcess([&] {
    Member self(SettingsIn(directory, "peer"), false);
    const auto publication = self.transport->Advertise({"peer", Pacing::kReceiver});
    DrainUntil({&self}, "the other's source", [&] { return self.Heard("up ours"); });
    self.transport->Subscribe(*self.sources.at("ours"));
    act(self, *publication);
    while (true) {
      ::pause();
    }
  });
}

void KillPeer(pid_t process) {
  ::kill(process, SIGKILL);
  ASSERT_EQ(::waitpid(process, nullptr, 0), process);
}

TEST_F(Membership, AKilledProcessIsMissedAfterItsLastWordsAndLeavesNothing) {
  test_support::Pipe pipe = test_support::MakePipe();
  const pid_t process = StartPeer(m_directory, [&](Member& self, Publication& publication) {
    DrainUntil({&self}, "a message", [&] { return self.messages > 0; });
    for (const std::uint64_t request : {0U, 0U, 5U}) {
      Publish(*self.transport, publication, "last words", false, request);
    }
    EXPECT_EQ(::write(pipe.writer.Get(), "!", 1), 1);
  });
  pipe.writer = {};
  Member a(SettingsIn(m_directory, "a"));
  const auto publication = a.transport->Advertise({"ours", Pacing::kSource});

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
  DrainUntil({&a}, "the end of the process", [&] { return a.Heard("left peer") && a.Heard("down peer"); });
  // Of its source; it may have subscribed on another link.
  std::erase_if(a.events,
                [](const std::string& event) { return event != "down peer" && !event.starts_with("peer: "); });
  EXPECT_THAT(a.events, ElementsAre("peer: last words", "peer: last words", "peer: last words", "down peer"));
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
  char byte = 0;
  test_support::Pipe told = test_support::MakePipe();
  test_support::Pipe alive = test_support::MakePipe();
  const pid_t process = StartPeer(m_directory, [&](Member&, Publication&) {
    if (::fork() == 0) {
      alive.writer = {};
      ::_exit(::write(told.writer.Get(), "!", 1) == 1 && ::read(alive.reader.Get(), &byte, 1) == 0 ? 0 : 1);
    }
  });
  told.writer = {};
  HostSettings settings = SettingsIn(m_directory, "a");
  settings.ringBytes = std::size_t{64} << 10;  // soon full
  Member a(settings);
  const auto publication = a.transport->Advertise({"ours", Pacing::kReceiver});
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

// Named as a context's file, "<process>-<instance>.socket".
wire::Greeting GreetingOf(const std::string& socket) {
  const std::string name = socket.substr(socket.rfind('/') + 1);
  const std::size_t dash = name.find('-');
  return {std::stoull(name.substr(dash + 1), nullptr, 16), static_cast<std::uint32_t>(std::stoul(name)), "impostor"};
}

// As any process of the user may.
TEST_F(Membership, WhoSpeaksInTheNameOfOthersComesBetweenNobody) {
  std::vector<std::unique_ptr<Member>> members;
  for (const char* const name : {"source", "before", "after"}) {
    members.push_back(std::make_unique<Member>(SettingsIn(m_directory, name), true, false));
  }
  const std::vector<Witness*> all = {members[0].get(), members[1].get(), members[2].get()};
  const auto publication = all[0]->transport->Advertise({"T", Pacing::kSource});
  all[1]->transport->Watch("T");
  DrainUntil(all, "the subscriber before", [&] { return all[0]->Heard("joined before"); });

  test_support::Pipe told = test_support::MakePipe();
  test_support::Pipe alive = test_support::MakePipe();
  char byte = 0;
  const pid_t process = InAnotherProcess([&] {
    alive.writer = {};
    const std::vector<std::string> sockets = m_directory.Sockets();
    std::vector<RawPeer> calls;
    for (const std::string& called : sockets) {
      for (const std::string& other : sockets) {
        if (other != called) {
          calls.emplace_back(called).Send(wire::EncodeHello(GreetingOf(other)));
        }
      }
    }
    EXPECT_EQ(::write(told.writer.Get(), "!", 1), 1);
    EXPECT_EQ(::read(alive.reader.Get(), &byte, 1), 0);
  });
  told.writer = {};
  ASSERT_EQ(::read(told.reader.Get(), &byte, 1), 1);
  Settle(all);
  all[2]->transport->Watch("T");
  DrainUntil(all, "the subscriber after", [&] { return all[0]->Heard("joined after"); });
  alive.writer = {};
  int status = -1;
  ASSERT_EQ(::waitpid(process, &status, 0), process);
  EXPECT_EQ(status, 0);
  Settle(all);

  Publish(*all[0]->transport, *publication, "still here");
  Settle(all);
  EXPECT_THAT(all[0]->events, ElementsAre("joined before", "joined after"));
  for (const int subscriber : {1, 2}) {
    EXPECT_THAT(all[subscriber]->events, ElementsAre("up T", "T: still here"));
  }
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
