#include <fcntl.h>
#include <sched.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "network.h"
#include "zq/posix/descriptor.h"
#include "zq/posix/file.h"

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

  // A server and a context "a" on the one machine, a context "b" on the other, and a source of the publisher's.
  void Start(bool aPublishes = true) {
    On(m_a, [&] {
      m_server.emplace("", "10.99.0.1");
      m_inA.emplace(SettingsFor(m_server->Url(), "a"), !aPublishes);
    });
    On(m_b, [&] { m_inB.emplace(SettingsFor(m_server->Url(), "b"), aPublishes); });
    Member& publisher = aPublishes ? *m_inA : *m_inB;
    m_publication = publisher.transport->Advertise({"T", Pacing::kSource});
    Await("the subscription", [&] { return publisher.Heard(aPublishes ? "joined b" : "joined a"); });
  }
  void Await(const std::string& what, const std::function<bool()>& condition) {
    DrainUntil({&*m_inA, &*m_inB}, what, condition);
  }

  const std::string m_a = "lbma" + std::to_string(::getpid());
  const std::string m_b = "lbmb" + std::to_string(::getpid());
  std::optional<test_support::NatsServer> m_server;
  std::optional<Member> m_inA;
  std::optional<Member> m_inB;
  std::shared_ptr<Publication> m_publication;
};

TEST_F(Machines, FindEachOtherAgainWhenTheLinkBetweenThemWasCut) {
  Start();
  Publish(*m_inA->transport, *m_publication, "before");
  Await("the message", [&] { return m_inB->Heard("T: before"); });

  ASSERT_TRUE(SetLink(false));
  Publish(*m_inA->transport, *m_publication, "meanwhile");
  Await("the far side to notice", [&] { return !m_inB->Notices().empty(); });
  EXPECT_THAT(m_inB->Notices(), Contains(AllOf(HasSubstr("10.99.0.1"), HasSubstr("does not answer"))));
  ASSERT_TRUE(SetLink(true));
  // Gone and found again, or told of the loss: that depends on how long it took.
  Await("messages again", [&] {
    Publish(*m_inA->transport, *m_publication, "after");
    return m_inB->Heard("T: after");
  });
  EXPECT_TRUE(m_inB->Heard("T: meanwhile") || m_inB->Heard("loss T") || m_inB->Heard("down T"));
}

TEST_F(Machines, SendNothingLateOfWhatWasOnItsWayWhenTheServerWasGivenUp) {
  Start(false);
  const auto hasConnection = [&](const std::string& state) {
    std::array<char, 8> port{};
    std::snprintf(port.data(), port.size(), "%04X", static_cast<unsigned>(m_server->Port()));
    std::string sockets;
    On(m_b, [&] { sockets = zq::posix::ReadFile("/proc/thread-self/net/tcp", std::size_t{1} << 20); });
    return sockets.find(std::string(" 0100630A:") + port.data() + ' ' + state + ' ') != std::string::npos;
  };
  ASSERT_TRUE(SetLink(false));
  Publish(*m_inB->transport, *m_publication, "late");
  Await("the server to be given up", [&] { return !m_inB->Notices().empty() && !hasConnection("01"); });
  // The system would go on sending what it has of such a connection, for minutes.
  EXPECT_FALSE(hasConnection("04"));
}

}  // namespace
}  // namespace engine::transport::nats
