#include <filesystem>
#include <fstream>
#include <set>
#include <string>

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
