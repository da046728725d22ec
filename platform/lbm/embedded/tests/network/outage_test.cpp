#include <arpa/inet.h>
#include <sys/socket.h>

#include <atomic>
#include <optional>
#include <thread>

#include "network.h"
#include "zq/posix/error.h"

namespace engine::transport::nats {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

TEST(Outage, AContextMadeWithoutAServerSaysSoOnceAndWorksWhenOneComes) {
  test_support::NatsServer server;
  server.Kill();
  Member a(SettingsFor(server.Url()), false);
  Member b(SettingsFor(server.Url()));
  const auto publication = a.transport->Advertise({"T", Pacing::kSource});
  EXPECT_EQ(Publish(*a.transport, *publication, "to nobody"), SendResult::kSent);
  server.Start();
  DrainUntil({&a, &b}, "the subscription", [&] { return a.events.size() == 2; });
  Publish(*a.transport, *publication, "hello");
  DrainUntil({&a, &b}, "the message", [&] { return b.Heard("T: hello"); });
  EXPECT_THAT(a.Notices(), ElementsAre(HasSubstr("nats_servers"), HasSubstr("again")));
}

class Kills : public testing::TestWithParam<Pacing> {};

TEST_P(Kills, OfTheServerWhileMessagesFlowLeaveAFullAccount) {
  test_support::NatsServer server;
  Member a(SettingsFor(server.Url()), false);
  Member b(SettingsFor(server.Url()));
  const auto publication = a.transport->Advertise({"T", GetParam()});
  DrainUntil({&a, &b}, "the subscription", [&] { return a.events.size() == 2; });
  std::atomic<bool> stop{false};
  std::atomic<std::size_t> sent{0};
  std::jthread sender([&] {
    while (!stop) {
      if (Publish(*a.transport, *publication, std::string(1'000, 'x')) == SendResult::kSent) {
        ++sent;
      }
      std::this_thread::yield();
    }
  });
  for (int kill = 0; kill < 5; ++kill) {
    const std::size_t before = b.messages;
    DrainUntil({&a, &b}, "messages", [&] { return b.messages > before + 100; });
    server.Kill();
    server.Start();
  }
  stop = true;
  sender.join();
  DrainUntil({&a, &b}, "an account", [&] { return b.messages + b.lost == sent; });
  ExpectAccount(b, sent);
  EXPECT_FALSE(b.Heard("down T"));
}

INSTANTIATE_TEST_SUITE_P(Pacings, Kills, testing::Values(Pacing::kSource, Pacing::kReceiver));

// A context that ends while there is no server says good-bye to nobody, as if its process had been killed.
TEST(Outage, ARestartOfThePublisherMeanwhileEndsOneSessionAndBeginsAnother) {
  test_support::NatsServer server;
  NatsSettings settings = SettingsFor(server.Url());
  settings.peerTimeout = std::chrono::milliseconds(500);
  std::optional<Member> a(std::in_place, settings, false);
  Member b(settings);
  auto publication = a->transport->Advertise({"T", Pacing::kSource});
  DrainUntil({&*a, &b}, "the subscription", [&] { return a->events.size() == 2; });
  Publish(*a->transport, *publication, "before");
  DrainUntil({&*a, &b}, "the message", [&] { return b.messages == 1; });
  const std::string session = publication->Session();

  server.Kill();
  publication.reset();
  a.emplace(settings, false);
  publication = a->transport->Advertise({"T", Pacing::kSource});
  server.Start();
  DrainUntil({&*a, &b}, "the new subscription", [&] { return a->events.size() == 2; });
  EXPECT_EQ(b.sources.at("T")->Session(), publication->Session());
  EXPECT_NE(session, publication->Session());
  Publish(*a->transport, *publication, "after");
  DrainUntil({&*a, &b}, "the end of the former", [&] { return b.Heard("down T") && b.Heard("T: after"); });
  EXPECT_EQ(std::count(b.events.begin(), b.events.end(), "up T"), 2);
  EXPECT_EQ(std::count(b.events.begin(), b.events.end(), "down T"), 1);
  EXPECT_THAT(b.sequences, ElementsAre(0, 0));
}

class ClusterOutage : public testing::TestWithParam<int> {};

TEST_P(ClusterOutage, OfOneServerIsSurvivedOnTheOthers) {
  const auto joining = [](const std::string& routes) {
    return "cluster { name: test, listen: \"127.0.0.1:-1\", routes: [" + routes + "] }";
  };
  test_support::NatsServer first(joining(""));
  test_support::NatsServer second(joining(first.RouteUrl()));
  // While the second is away, the context can only choose the first.
  second.Kill();
  Member a(SettingsFor(first.Url() + ", " + second.Url()), false);
  second.Start();
  const test_support::NatsServer third(joining(first.RouteUrl() + ", " + second.RouteUrl()));
  Member b(SettingsFor(third.Url()));
  const auto publication = a.transport->Advertise({"T", Pacing::kSource});
  DrainUntil({&a, &b}, "the subscription", [&] { return a.events.size() == 2; });
  first.Signal(GetParam());
  DrainUntil({&a, &b}, "the context to notice", [&] { return !a.Notices().empty(); });
  DrainUntil({&a, &b}, "messages by way of another server", [&] {
    Publish(*a.transport, *publication, "tick");
    return b.Heard("T: tick");
  });
  first.Signal(SIGCONT);
  ExpectAccount(b, b.messages + b.lost);
}

INSTANTIATE_TEST_SUITE_P(Signals, ClusterOutage, testing::Values(SIGKILL, SIGSTOP));

TEST(Outage, DeletingAContextWhileAServerDoesNotAnswerWaitsForNothing) {
  // Takes connections, and never says a word.
  const zq::posix::Descriptor silent = zq::posix::Checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(0, ::bind(silent.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
  ASSERT_EQ(0, ::listen(silent.Get(), 16));
  socklen_t length = sizeof(address);
  ASSERT_EQ(0, ::getsockname(silent.Get(), reinterpret_cast<sockaddr*>(&address), &length));
  NatsSettings settings = SettingsFor("nats://127.0.0.1:" + std::to_string(ntohs(address.sin_port)));
  settings.server.connectTimeout = std::chrono::milliseconds(300);
  Member a(settings);
  EXPECT_THAT(a.Notices(), Contains(HasSubstr("not connected")));
  const auto begin = std::chrono::steady_clock::now();
  settings.server.connectTimeout = std::chrono::seconds(60);
  a.transport->Close(std::chrono::milliseconds(0));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
}

}  // namespace
}  // namespace engine::transport::nats
