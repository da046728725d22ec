#include <fcntl.h>

#include <functional>
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

wire::FragmentHeader fragmentHeader(std::uint32_t source, std::uint32_t sequence, std::uint64_t total) {
  wire::FragmentHeader header;
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
  const wire::Subscribe subscribe;
  const auto responseOf = [](std::uint32_t total) {
    wire::ResponseHeader header;
    header.total = total;
    return header;
  };
  const std::vector<std::vector<FrameBytes>> conversations = {
      {frameOf(withdraw)},
      {frameOf(secondHello)},
      {longWithdraw},
      {FrameBytes(1)},
      {cutAdvertisement},
      {advertisement(1), advertisement(1)},
      {frameOf(subscribe)},                // without a wake word
      {frameOf(responseOf(10))},           // a fragment of nothing
      {frameOf(responseOf(0xffffffff))},   // a response beyond the bound
      {FrameBytes(wire::kPacketMax + 1)},  // a packet beyond the bound
      {frameOf(wire::Type::ring)},         // without a descriptor
      {frameOf(wire::Type::message)},      // not in a ring
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

TEST_F(HostilePeer, WrongDescriptorsEndTheLink) {
  const auto memory = [](std::size_t size, bool sealed) {
    Descriptor made = makeSharedMemory("test", size);
    if (sealed) {
      seal(made, Sealing::size);
    }
    return made;
  };
  const Descriptor plainFile(::open("/dev/null", O_RDWR | O_CLOEXEC));
  const std::size_t control = 4096;
  std::size_t cutOff = 0;
  const auto expectCutOff = [&](std::initializer_list<std::pair<wire::Type, const Descriptor*>> frames) {
    const RawPeer peer(m_address);
    peer.greet();
    for (const auto& [type, descriptor] : frames) {
      peer.send(type, descriptor->get());
    }
    settle({&m_member});
    EXPECT_TRUE(peer.cutOff());
    EXPECT_EQ(m_member.notices.size(), ++cutOff);
  };
  const Descriptor ring = memory(control + kRingBytesMin, true);
  const Descriptor unsealed = memory(control + kRingBytesMin, false);
  const Descriptor odd = memory(control + kRingBytesMin + 8, true);
  const Descriptor small = memory(control, true);
  const Descriptor empty = memory(1, true);
  for (const Descriptor* wrong : {&plainFile, &unsealed, &odd, &small, &empty}) {
    expectCutOff({{wire::Type::ring, wrong}});
  }
  expectCutOff({{wire::Type::ring, &ring}, {wire::Type::ring, &ring}});
  for (const Descriptor* wrong : {&plainFile, &unsealed, &ring, &empty}) {
    expectCutOff({{wire::Type::wakeWord, wrong}});
  }
  expectCutOff({{wire::Type::wakeWord, &small}, {wire::Type::wakeWord, &small}});
  expectCutOff({{wire::Type::bell, &ring}});
  expectUnharmed();
}

TEST_F(HostilePeer, ItsSourcesAndSubscriptionsEndWithTheLink) {
  const RawPeer peer(m_address);
  const WakeWord wakeWord;
  peer.greet();
  peer.send(advertisement(4));
  peer.send(wire::Type::wakeWord, wakeWord.descriptor());
  peer.send(wire::bytesOf(wire::Subscribe{}));
  settle({&m_member});
  m_member.events.clear();
  peer.send(wire::bytesOf(wire::Subscribe{}));  // a second time
  settle({&m_member});
  EXPECT_THAT(m_member.events, ElementsAre("down raw topic", "left raw"));
  EXPECT_THAT(m_member.notices, ElementsAre(HasSubstr("context \"raw\" (process 2")));
}

TEST_F(HostilePeer, RingsThatMakeNoSenseEndTheLink) {
  const auto cutAt = [](auto frame, std::size_t size) {
    FrameBytes bytes = frameOf(frame);
    bytes.resize(size);
    return bytes;
  };
  using Scribble = std::function<void(RawRing&)>;
  const std::vector<Scribble> scribbles = {
      [](RawRing& ring) { ring.put(wire::Type::bell, {}); },
      [&](RawRing& ring) { ring.put(wire::Type::message, cutAt(wire::MessageHeader{}, 7)); },
      [&](RawRing& ring) { ring.put(wire::Type::loss, cutAt(wire::Loss{}, 13)); },
      [](RawRing& ring) { ring.put(wire::Type::withdrawn, wire::bytesOf(wire::Withdrawn{9})); },
      [](RawRing& ring) { ring.put(wire::Type::fragment, wire::bytesOf(fragmentHeader(0, 0, 10))); },
      [](RawRing& ring) { ring.put(wire::Type::fragment, wire::bytesOf(fragmentHeader(0, 0, wire::kMessageMax + 1))); },
      [](RawRing& ring) { ring.control().tail = kRingBytesMin + 8; },  // more than there can be
      [](RawRing& ring) { ring.control().tail = 12; },                 // not at a frame's end
      [](RawRing& ring) { ring.control().tail = ~RingCounter{7}; },    // before the beginning
      [](RawRing& ring) {                                              // a frame that ends behind the tail
        const RingFrameHeader header{16, 1};
        std::memcpy(ring.bytes().data(), &header, sizeof(header));
        ring.control().tail = 16;
      },
      [](RawRing& ring) {  // padding of any length
        const RingFrameHeader header{0xffffffff, kRingPadding};
        std::memcpy(ring.bytes().data(), &header, sizeof(header));
        ring.control().tail = kRingBytesMin;
      },
  };
  for (std::size_t i = 0; i < scribbles.size(); ++i) {
    const RawPeer peer(m_address);
    peer.greet();
    RawRing ring(peer);
    settle({&m_member});
    EXPECT_EQ(m_member.notices.size(), i);
    scribbles[i](ring);
    settle({&m_member});
    EXPECT_TRUE(peer.cutOff()) << "scribble " << i;
    EXPECT_EQ(m_member.notices.size(), i + 1);
  }
  expectUnharmed();
}

// A subscriber that writes its place in the ring where the publisher has not been.
TEST_F(HostilePeer, AnImpossiblePlaceOfTheReaderEndsTheLink) {
  const RawPeer peer(m_address);
  const WakeWord wakeWord;
  peer.greet();
  peer.send(wire::Type::wakeWord, wakeWord.descriptor());
  peer.send(wire::bytesOf(wire::Subscribe{}));
  settle({&m_member});
  const RingMemory ring(peer.receiveDescriptor());
  ring.control().head = RingCounter{1} << 40;
  for (std::size_t i = 0; i < 10'000; ++i) {
    publish(*m_member.transport, *m_publication, std::string(200, 'x'));
  }
  settle({&m_member});
  EXPECT_TRUE(peer.cutOff());
  EXPECT_THAT(m_member.notices, ElementsAre(HasSubstr("impossible")));
  expectUnharmed();
}

TEST_F(HostilePeer, DamagedFramesNeverHarmTheContext) {
  const wire::Subscribe subscribe;
  wire::Unsubscribe unsubscribe;
  wire::Withdraw withdraw;
  withdraw.source = 1;
  const WakeWord wakeWord;
  const std::vector<FrameBytes> honest = {wire::encodeHello({1, 2, "raw"}),
                                          advertisement(1),
                                          frameOf(wire::Type::wakeWord),
                                          frameOf(subscribe),
                                          frameOf(unsubscribe),
                                          frameOf(wire::Type::room),
                                          frameOf(withdraw)};
  FrameBytes fragment = frameOf(fragmentHeader(1, 3, 200));
  fragment.resize(fragment.size() + 100);
  const std::vector<std::pair<wire::Type, FrameBytes>> inRing = {
      {wire::Type::subscribed, frameOf(wire::Subscribed{1, 1, 0})},
      {wire::Type::loss, frameOf(wire::Loss{1, 0, 3})},
      {wire::Type::fragment, fragment},
      {wire::Type::fragment, fragment},
      {wire::Type::message, frameOf(wire::MessageHeader{1, 4})}};
  std::mt19937 random(20240607);
  const auto below = [&](std::size_t bound) {
    return std::uniform_int_distribution<std::size_t>(0, bound - 1)(random);
  };
  const auto damage = [&](std::span<std::byte> bytes) {
    for (std::size_t count = below(4); count > 0; --count) {
      bytes[below(bytes.size())] = static_cast<std::byte>(below(256));
    }
  };
  for (int round = 0; round < 1000; ++round) {
    const RawPeer peer(m_address);
    const std::size_t damaged = below(honest.size() + 4);  // beyond the frames: the ring, or nothing
    for (std::size_t i = 0; i < honest.size(); ++i) {
      FrameBytes frame = honest[i];
      if (i == damaged) {
        damage(frame);
        frame.resize(below(4) == 0 ? 1 + below(frame.size() + 20) : frame.size());
      }
      peer.send(frame, honest[i] == frameOf(wire::Type::wakeWord) ? wakeWord.descriptor() : -1);
      if (i == 1) {
        RawRing ring(peer);
        for (const auto& [type, content] : inRing) {
          ring.put(type, content);
        }
        if (damaged == honest.size()) {
          damage(ring.bytes().first(400));
        } else if (damaged == honest.size() + 1) {
          damage(std::as_writable_bytes(std::span(&ring.control(), 1)));
        }
        settle({&m_member});
      }
    }
    settle({&m_member});
  }
  EXPECT_TRUE(m_member.heard("raw topic: "));
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
