#include <algorithm>
#include <random>

#include "member.h"
#include "raw_peer.h"

namespace engine::transport::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

using FrameBytes = std::vector<std::byte>;

template <typename T>
FrameBytes frameOf(const T& value) {
  const wire::Bytes bytes = wire::bytesOf(value);
  return {bytes.begin(), bytes.end()};
}

FrameBytes advertisement(std::uint32_t id) {
  wire::AdvertiseBatch batch;
  batch.add(id, "raw topic", "raw session");
  return {batch.frame().begin(), batch.frame().end()};
}

wire::DataHeader dataHeader(std::uint32_t source, std::uint32_t sequence, std::uint64_t total) {
  wire::DataHeader header;
  header.source = source;
  header.sequence = sequence;
  header.total = total;
  return header;
}

class HostilePeer : public testing::Test {
 protected:
  HostilePeer() : m_member(settingsIn(m_directory)), m_address(m_directory.sockets().at(0)) {
    m_publication = m_member.transport->advertise({"T", "s", Pacing::source});
    settle({&m_member});
  }

  void expectUnharmed() {
    m_member.events.clear();
    publish(*m_member.transport, *m_publication, "still here");
    settle({&m_member});
    EXPECT_THAT(m_member.events, ElementsAre("T: still here"));
  }

  ScratchDirectory m_directory;
  Member m_member;
  std::string m_address;
  std::shared_ptr<Publication> m_publication;
};

TEST_F(HostilePeer, SayingNothingHarmsNobody) {
  const RawPeer silent(m_address);
  settle({&m_member});
  expectUnharmed();
  EXPECT_FALSE(silent.cutOff());
  EXPECT_TRUE(m_member.notices.empty());
}

TEST_F(HostilePeer, AnotherProtocolOrVersionIsCutOffWithANotice) {
  wire::Hello otherProtocol;
  otherProtocol.magic = 1;
  wire::Hello otherVersion;
  otherVersion.version = wire::kVersion + 1;
  for (const auto& [hello, text] : {std::pair(otherProtocol, "does not speak this engine's protocol"),
                                    std::pair(otherVersion, "run the same release")}) {
    const RawPeer peer(m_address);
    peer.send(wire::bytesOf(hello));
    settle({&m_member});
    EXPECT_TRUE(peer.cutOff());
    ASSERT_FALSE(m_member.notices.empty());
    EXPECT_THAT(m_member.notices.back(), HasSubstr(text));
  }
  expectUnharmed();
}

TEST_F(HostilePeer, FramesThatMakeNoSenseEndTheLink) {
  wire::Withdraw withdraw;
  withdraw.source = 9;
  wire::Hello secondHello;
  FrameBytes longWithdraw = frameOf(withdraw);
  longWithdraw.push_back(std::byte{0});
  FrameBytes cutAdvertisement = advertisement(1);
  cutAdvertisement.pop_back();
  wire::Subscribe subscribe;
  const std::vector<std::vector<FrameBytes>> conversations = {
      {frameOf(withdraw)},
      {frameOf(secondHello)},
      {longWithdraw},
      {FrameBytes(1)},
      {cutAdvertisement},
      {advertisement(1), advertisement(1)},
      {frameOf(subscribe), frameOf(subscribe)},
      {frameOf(dataHeader(7, 0, 0))},
      {frameOf(dataHeader(0, 0, 10))},                     // a fragment of nothing
      {frameOf(dataHeader(0, 0, wire::kMessageMax + 1))},  // a message beyond the bound
      {FrameBytes(wire::kPacketMax + 1)},                  // a packet beyond the bound
  };
  for (std::size_t i = 0; i < conversations.size(); ++i) {
    const RawPeer peer(m_address);
    peer.greet();
    for (const FrameBytes& frame : conversations[i]) {
      peer.send(frame);
    }
    settle({&m_member});
    EXPECT_TRUE(peer.cutOff()) << "conversation " << i;
    EXPECT_EQ(m_member.notices.size(), i + 1);
  }
  expectUnharmed();
}

TEST_F(HostilePeer, ItsSourcesAndSubscriptionsEndWithTheLink) {
  const RawPeer peer(m_address);
  peer.greet();
  peer.send(advertisement(4));
  peer.send(wire::bytesOf(wire::Subscribe{}));
  settle({&m_member});
  m_member.events.clear();
  peer.send(FrameBytes(3));
  settle({&m_member});
  EXPECT_THAT(m_member.events, ElementsAre("down raw topic", "left raw"));
  EXPECT_THAT(m_member.notices, ElementsAre(HasSubstr("context \"raw\" (process 2")));
}

TEST_F(HostilePeer, DamagedFramesNeverHarmTheContext) {
  wire::Subscribe subscribe;
  wire::Subscribed subscribed;
  subscribed.source = 1;
  subscribed.token = 1;
  wire::Loss loss;
  loss.source = 1;
  loss.count = 3;
  wire::Unsubscribe unsubscribe;
  wire::Withdraw withdraw;
  withdraw.source = 1;
  FrameBytes fragment = frameOf(dataHeader(1, 3, 200));
  fragment.resize(fragment.size() + 100);
  const std::vector<FrameBytes> honest = {wire::encodeHello({1, 2, "raw"}),
                                          advertisement(1),
                                          frameOf(subscribe),
                                          frameOf(subscribed),
                                          frameOf(loss),
                                          fragment,
                                          fragment,
                                          frameOf(unsubscribe),
                                          frameOf(withdraw)};
  std::mt19937 random(20240607);
  const auto below = [&](std::size_t bound) {
    return std::uniform_int_distribution<std::size_t>(0, bound - 1)(random);
  };
  for (int round = 0; round < 1000; ++round) {
    const RawPeer peer(m_address);
    const std::size_t damaged = below(honest.size() + 1);  // one more: a round without damage
    for (std::size_t i = 0; i < honest.size(); ++i) {
      FrameBytes frame = honest[i];
      if (i == damaged) {
        for (std::size_t count = below(4); count > 0; --count) {
          frame[below(frame.size())] = static_cast<std::byte>(below(256));
        }
        frame.resize(below(4) == 0 ? 1 + below(frame.size() + 20) : frame.size());
      }
      peer.send(frame);
    }
    settle({&m_member});
  }
  EXPECT_TRUE(m_member.heard("down raw topic"));
  EXPECT_FALSE(m_member.notices.empty());
  expectUnharmed();
}

TEST_F(HostilePeer, NeverReadingIsCutOffInTheEnd) {
  const RawPeer peer(m_address);
  peer.greet();
  settle({&m_member});
  const std::string topic(4000, 't');
  for (int i = 0; i < 40'000 && m_member.notices.empty(); ++i) {
    m_member.transport->withdraw(*m_member.transport->advertise({topic, "s", Pacing::source}));
    m_member.drain();
  }
  EXPECT_THAT(m_member.notices, ElementsAre(HasSubstr("does not read")));
  settle({&m_member});
  expectUnharmed();
}

}  // namespace
}  // namespace engine::transport::host
