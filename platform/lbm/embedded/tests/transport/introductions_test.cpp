#include <atomic>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>

#include "../options/short_memory.h"
#include "engine_testing/holdings.h"
#include "engine_testing/raw_peer.h"
#include "member.h"
#include "transport/host/link/rendezvous.h"

namespace engine::transport::host {
namespace {

using testing::ElementsAre;

class Introduced : public testing::Test {
 protected:
  // A context that hears of what it watches.
  Member Context(const std::string& name) const { return Member(SettingsIn(m_directory, name), true, false); }

  ScratchDirectory m_directory;
};

// Another topic whose entries are in the same place.
std::string BesideInTheDirectory(const std::string& topic) {
  std::string other;
  for (int number = 0; KeyOf(other = std::to_string(number)).substr(0, 2) != KeyOf(topic).substr(0, 2); ++number) {
  }
  return other;
}

TEST_F(Introduced, AreOnlyThoseWhoHaveToDoWithEachOther) {
  Member server = Context("server");
  Member client = Context("client");
  Member stranger = Context("stranger");
  const std::vector<Witness*> all = {&server, &client, &stranger};
  const auto offered = server.transport->Advertise({"T", Pacing::kSource});
  const auto unwanted = stranger.transport->Advertise({"U", Pacing::kSource});
  Settle(all);
  const std::size_t before = Holdings::Now().descriptors;
  stranger.transport->Watch(BesideInTheDirectory("T"));
  Settle(all);
  EXPECT_EQ(Holdings::Now().descriptors, before);

  client.transport->Watch("T");
  Settle(all);
  EXPECT_EQ(Holdings::Now().descriptors, before + 2) << "one link has two ends";
  EXPECT_THAT(client.events, ElementsAre("up T"));
  EXPECT_THAT(server.events, ElementsAre("joined client"));
  EXPECT_TRUE(stranger.events.empty());

  stranger.transport->WatchAll();
  Settle(all);
  EXPECT_TRUE(stranger.Heard("up T"));
  EXPECT_TRUE(stranger.Heard("up U"));
}

TEST_F(Introduced, FindEachOtherWhoeverComesFirst) {
  Member a = Context("a");
  a.transport->Watch("later");
  const auto earlier = a.transport->Advertise({"earlier", Pacing::kSource});
  Settle({&a});
  Member b = Context("b");
  const auto later = b.transport->Advertise({"later", Pacing::kSource});
  b.transport->Watch("earlier");
  b.transport->Watch("later");
  Settle({&a, &b});
  EXPECT_THAT(a.events, testing::UnorderedElementsAre("up later", "joined b"));
  EXPECT_THAT(b.events, testing::UnorderedElementsAre("up earlier", "up later", "joined a", "joined b"));
  const auto another = b.transport->Advertise({"later", Pacing::kSource});
  Settle({&a, &b});
  EXPECT_EQ(std::count(a.events.begin(), a.events.end(), "up later"), 2);
  a.events.clear();
  b.transport->Withdraw(*later);
  b.transport->Withdraw(*another);
  Settle({&a, &b});
  EXPECT_THAT(a.events, ElementsAre("down later", "down later"));
}

TEST_F(Introduced, ForgetWhatIsNoLongerWatchedAndFindItAgain) {
  Member a = Context("a");
  Member b = Context("b");
  const auto publication = a.transport->Advertise({"T", Pacing::kSource});
  b.transport->Watch("T");
  Settle({&a, &b});
  b.transport->Unsubscribe(*b.sources.at("T"));
  b.transport->Unwatch("T");
  Settle({&a, &b});
  EXPECT_THAT(b.events, ElementsAre("up T", "down T"));
  const auto second = a.transport->Advertise({"T", Pacing::kSource});
  Settle({&a, &b});
  EXPECT_EQ(b.events.size(), 2U);

  a.transport->Withdraw(*second);
  b.transport->Watch("T");
  Settle({&a, &b});
  Publish(*a.transport, *publication, "hello");
  b.transport->Unwatch("T");
  b.transport->Watch("T");
  Settle({&a, &b});
  EXPECT_THAT(b.events, ElementsAre("up T", "down T", "up T", "T: hello"));
  EXPECT_EQ(b.lost, 0U);
}

TEST_F(Introduced, HearOfEachSourceOnceThoughAllCallAllAtTheSameTime) {
  constexpr std::size_t kContexts = 4;
  constexpr int kRounds = 25;
  for (int round = 0; round < kRounds; ++round) {
    std::atomic<std::size_t> ready{0};
    std::atomic<std::size_t> served{0};
    std::vector<std::jthread> threads;
    for (std::size_t number = 0; number < kContexts; ++number) {
      threads.emplace_back([&, number] {
        Member self(SettingsIn(m_directory, std::to_string(number)), true, false);
        for (std::size_t other = 0; other < kContexts; ++other) {
          self.transport->Watch(std::to_string(other));
        }
        const auto publication = self.transport->Advertise({std::to_string(number), Pacing::kReceiver});
        const auto drainUntil = [&](std::atomic<std::size_t>& all, const auto& own) {
          bool counted = false;
          while (all < kContexts) {
            self.Drain();
            if (!counted && own()) {
              counted = true;
              ++all;
            }
          }
        };
        const auto joined = [&] {
          return std::count_if(self.events.begin(), self.events.end(),
                               [](const std::string& event) { return event.starts_with("joined"); });
        };
        drainUntil(ready, [&] { return joined() == kContexts; });
        Publish(*self.transport, *publication, "hello", true);
        drainUntil(served, [&] { return self.messages >= kContexts; });
        Settle({&self});
        EXPECT_EQ(self.messages, kContexts);
        EXPECT_EQ(self.sources.size(), kContexts);
        EXPECT_EQ(joined(), kContexts);
        EXPECT_TRUE(self.Notices().empty());
      });
    }
  }
  EXPECT_EQ(m_directory.Entries(), 0U);
}

// A context that is killed leaves its socket, but not always an entry that says what it had to do with others.
TEST_F(Introduced, ForgetWhoDiedWithoutAWord) {
  Member a = Context("a");
  a.transport->Watch("T");
  Settle({&a});
  const std::string own = m_directory.Sockets().front();
  constexpr int kDeaths = 4;
  long held = 0;  // after the first death
  for (int death = 0; death < kDeaths; ++death) {
    std::string socket;
    {
      Member b = Context("b");
      const auto publication = b.transport->Advertise({"T", Pacing::kSource});
      Settle({&a, &b});
      const auto sockets = m_directory.Sockets();
      socket = sockets.front() == own ? sockets.back() : sockets.front();
    }
    std::ofstream{socket};
    DrainUntil({&a}, "the end of the source", [&] { return a.Heard("down T"); });
    a.events.clear();
    held = death == 0 ? test::LiveAllocations() : held;
  }
  DrainUntil({&a}, "the names to be forgotten", [&] { return test::LiveAllocations() <= held; });
}

TEST_F(Introduced, OverManyTopics) {
  constexpr std::size_t kTopics = 2'000;
  Member a = Context("a");
  Member b = Context("b");
  std::vector<std::shared_ptr<Publication>> publications;
  for (std::size_t i = 0; i < kTopics; ++i) {
    const std::string topic = "topic." + std::to_string(i);
    if (i % 2 == 0) {
      b.transport->Watch(topic);
    }
    publications.push_back(a.transport->Advertise({topic, Pacing::kSource}));
    if (i % 2 != 0) {
      b.transport->Watch(topic);
    }
  }
  Settle({&a, &b});
  EXPECT_EQ(b.sources.size(), kTopics);
  publications.clear();
  a.transport.reset();
  b.transport.reset();
  EXPECT_EQ(m_directory.Entries(), 0U);
}

TEST_F(Introduced, AreNotConfusedByWhatElseIsInTheDirectory) {
  namespace fs = std::filesystem;
  Member server = Context("server");
  const auto publication = server.transport->Advertise({"T", Pacing::kSource});
  Settle({&server});
  const fs::path domain = m_directory.Path() + "/test";
  const std::string serverName = fs::path(m_directory.Sockets().at(0)).stem();
  const std::string longName(100, 'x');
  const auto place = [](const std::string& topic) { return KeyOf(topic).substr(0, 2); };
  const auto make = [](const fs::path& file) {
    fs::create_directories(file.parent_path());
    std::ofstream(file) << "what a context never writes";
  };
  make(domain / (longName + ".socket"));
  make(domain / ".socket");
  make(domain / "offers" / place("T") / (KeyOf("T") + '.' + longName));
  // Another kind of socket, as a context that offers the topic.
  const RawListener other(domain / "1-1.socket", SOCK_STREAM);
  make(domain / "offers" / place("T") / (KeyOf("T") + ".1-1"));
  // A file where a directory belongs, and a link to a directory.
  make(domain / "offers" / place("topic.two"));
  make(domain / "elsewhere" / (KeyOf("another") + '.' + serverName));
  fs::create_directory_symlink(domain / "elsewhere", domain / "offers" / place("another"));
  ASSERT_EQ(std::set<std::string>({place("T"), place("topic.two"), place("another")}).size(), 3U);

  Member client = Context("client");
  const std::size_t before = Holdings::Now().descriptors;
  client.transport->Watch("topic.two");
  client.transport->Watch("another");
  Settle({&server, &client});
  EXPECT_EQ(Holdings::Now().descriptors, before);
  client.transport->Watch("T");
  Settle({&server, &client});
  client.transport->WatchAll();
  Settle({&server, &client});
  EXPECT_THAT(client.events, ElementsAre("up T"));
  EXPECT_TRUE(client.Notices().empty());
}

TEST_F(Introduced, WhereTheDirectoryWasRemovedAreToldWhatToDo) {
  Member a = Context("a");
  std::filesystem::remove_all(m_directory.Path() + "/test");
  EXPECT_THAT(
      [&] {
        a.transport->Advertise({"T", Pacing::kSource});
      },
      testing::ThrowsMessage<std::runtime_error>(testing::HasSubstr("start them again")));
}

}  // namespace
}  // namespace engine::transport::host
