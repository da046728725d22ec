#include <fcntl.h>
#include <sched.h>

#include <cstdlib>
#include <optional>

#include "network.h"
#include "zq/posix/descriptor.h"

namespace engine::transport::nats {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;

bool Shell(const std::string& command) { return std::system((command + " 2>/dev/null").c_str()) == 0; }

// Two networks, as of two machines, with a link between them that can be cut.
class Machines : public testing::Test {
 protected:
  void SetUp() override {
    const bool made = Shell("ip netns add " + m_a) && Shell("ip netns add " + m_b) &&
                      Shell("ip link add " + m_a + " netns " + m_a + " type veth peer name " + m_b + " netns " + m_b) &&
                      Shell("ip -n " + m_a + " link set lo up") &&
                      Shell("ip -n " + m_a + " addr add 10.99.0.1/24 dev " + m_a) &&
                      Shell("ip -n " + m_b + " addr add 10.99.0.2/24 dev " + m_b) && SetLink(true);
    if (!made) {
      GTEST_SKIP() << "networks of its own need the right of root, and the program ip";
    }
  }
  void TearDown() override {
    Shell("ip netns del " + m_a);
    Shell("ip netns del " + m_b);
  }

  bool SetLink(bool up) const {
    const std::string state = up ? " up" : " down";
    return Shell("ip -n " + m_a + " link set " + m_a + state) && Shell("ip -n " + m_b + " link set " + m_b + state);
  }

  // What work makes, and its threads, are on that machine.
  template <typename Work>
  static void On(const std::string& machine, Work work) {
    const zq::posix::Descriptor home(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    const zq::posix::Descriptor network(::open(("/run/netns/" + machine).c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(0, ::setns(network.Get(), CLONE_NEWNET));
    work();
    ASSERT_EQ(0, ::setns(home.Get(), CLONE_NEWNET));
  }

  const std::string m_a = "lbma" + std::to_string(::getpid());
  const std::string m_b = "lbmb" + std::to_string(::getpid());
};

TEST_F(Machines, FindEachOtherAgainWhenTheLinkBetweenThemWasCut) {
  std::optional<test_support::NatsServer> server;
  std::optional<Member> a;
  std::optional<Member> b;
  On(m_a, [&] {
    server.emplace("", "10.99.0.1");
    a.emplace(SettingsFor(server->Url(), "a"), false);
  });
  On(m_b, [&] { b.emplace(SettingsFor(server->Url(), "b")); });
  const auto publication = a->transport->Advertise({"T", Pacing::kSource});
  DrainUntil({&*a, &*b}, "the subscription", [&] { return a->Heard("joined b"); });
  Publish(*a->transport, *publication, "before");
  DrainUntil({&*a, &*b}, "the message", [&] { return b->Heard("T: before"); });

  ASSERT_TRUE(SetLink(false));
  Publish(*a->transport, *publication, "meanwhile");
  DrainUntil({&*a, &*b}, "the far side to notice", [&] { return !b->Notices().empty(); });
  EXPECT_THAT(b->Notices(), Contains(AllOf(HasSubstr("10.99.0.1"), HasSubstr("does not answer"))));
  ASSERT_TRUE(SetLink(true));
  // Gone and found again, or told of the loss: that depends on how long it took.
  DrainUntil({&*a, &*b}, "messages again", [&] {
    Publish(*a->transport, *publication, "after");
    return b->Heard("T: after");
  });
  EXPECT_TRUE(b->Heard("T: meanwhile") || b->Heard("loss T") || b->Heard("down T"));
}

TEST_F(Machines, CountAsGoneDuringALongCutAndBeginAnewAfterIt) {
  const auto settingsFor = [](const std::string& url, const std::string& name) {
    NatsSettings settings = SettingsFor(url, name);
    settings.peerTimeout = std::chrono::milliseconds(500);
    return settings;
  };
  std::optional<test_support::NatsServer> server;
  std::optional<Member> a;
  std::optional<Member> b;
  On(m_a, [&] {
    server.emplace("", "10.99.0.1");
    a.emplace(settingsFor(server->Url(), "a"), false);
  });
  On(m_b, [&] { b.emplace(settingsFor(server->Url(), "b")); });
  const auto publication = a->transport->Advertise({"T", Pacing::kSource});
  DrainUntil({&*a, &*b}, "the subscription", [&] { return a->Heard("joined b"); });

  ASSERT_TRUE(SetLink(false));
  DrainUntil({&*a, &*b}, "both to give up", [&] { return a->Heard("left b") && b->Heard("down T"); });
  Publish(*a->transport, *publication, "meanwhile");
  a->events.clear();
  ASSERT_TRUE(SetLink(true));
  DrainUntil({&*a, &*b}, "the subscription again", [&] { return a->Heard("joined b"); });
  Publish(*a->transport, *publication, "after");
  DrainUntil({&*a, &*b}, "the message", [&] { return b->Heard("T: after"); });
  EXPECT_THAT(b->events, testing::ElementsAre("up T", "down T", "up T", "T: after"));
}

}  // namespace
}  // namespace engine::transport::nats
