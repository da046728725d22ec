#include <fcntl.h>

#include <functional>
#include <random>

#include "holdings.h"
#include "member.h"
#include "raw_peer.h"

namespace engine::transport::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

using FrameBytes = std::vector<std::byte>;

template <typename T>
FrameBytes FrameOf(const T& value) {
  const Bytes bytes = wire::BytesOf(value);
  return {bytes.begin(), bytes.end()};
}

FrameBytes TopicFrame(wire::Type type, std::uint32_t source, std::string_view topic) {
  FrameBytes frame;
  const auto send = [&](Bytes packet) { frame.assign(packet.begin(), packet.end()); };
  wire::TopicBatch batch(type);
  batch.Add(source, topic, send);
  batch.Finish(send);
  return frame;
}

FrameBytes Advertisement(std::uint32_t id) { return TopicFrame(wire::Type::kAdvertise, id, "raw topic"); }

// To the only source of the test's context.
const wire::Subscribe kSubscription{.source = 1};

class HostilePeer : public testing::Test {
 protected:
  HostilePeer() : m_member(SettingsIn(m_directory)), m_address(m_directory.Sockets().at(0)) {
    m_publication = m_member.transport->Advertise({"T", Pacing::kSource});
    Settle({&m_member});
  }

  void ExpectUnharmed() {
    m_member.events.clear();
    Publish(*m_member.transport, *m_publication, "still here");
    Settle({&m_member});
    EXPECT_THAT(m_member.events, ElementsAre("T: still here"));
  }

  ScratchDirectory m_directory;
  Member m_member;
  std::string m_address;
  std::shared_ptr<Publication> m_publication;
};

TEST_F(HostilePeer, SayingNothingHarmsNobody) {
  const RawPeer silent(m_address);
  Settle({&m_member});
  ExpectUnharmed();
  EXPECT_FALSE(silent.CutOff());
  EXPECT_TRUE(m_member.Notices().empty());
}

TEST_F(HostilePeer, AnotherProtocolOrVersionIsCutOffWithANotice) {
  for (const auto& [hello, text] : {std::pair(wire::Hello{.magic = 1}, "does not speak this engine's protocol"),
                                    {wire::Hello{.version = wire::kVersion + 1}, "run the same release"}}) {
    const RawPeer peer(m_address);
    peer.Send(wire::BytesOf(hello));
    Settle({&m_member});
    EXPECT_TRUE(peer.CutOff());
    ASSERT_FALSE(m_member.Notices().empty());
    EXPECT_THAT(m_member.Notices().back(), HasSubstr(text));
  }
  ExpectUnharmed();
}

TEST_F(HostilePeer, FramesThatMakeNoSenseEndTheLink) {
  FrameBytes longWithdraw = FrameOf(wire::Withdraw{.source = 9});
  longWithdraw.push_back(std::byte{0});
  FrameBytes cutAdvertisement = Advertisement(1);
  cutAdvertisement.pop_back();
  const std::vector<std::vector<FrameBytes>> conversations = {
      {FrameOf(wire::Hello())},
      {longWithdraw},
      {FrameBytes(1)},
      {cutAdvertisement},
      {Advertisement(1), TopicFrame(wire::Type::kAdvertise, 1, "another topic")},
      {FrameOf(kSubscription)},                              // without a parking word
      {FrameOf(wire::ResponseHeader{.total = 10})},          // a fragment of nothing
      {FrameOf(wire::ResponseHeader{.total = 0xffffffff})},  // a response beyond the bound
      {FrameBytes(wire::kPacketMax + 1)},                    // a packet beyond the bound
      {FrameOf(wire::Type::kRing)},                          // without a descriptor
      {FrameOf(wire::Type::kMessage)},                       // not in a ring
  };
  for (std::size_t i = 0; i < conversations.size(); ++i) {
    const RawPeer peer(m_address);
    peer.Greet();
    for (const FrameBytes& frame : conversations[i]) {
      peer.Send(frame);
    }
    Settle({&m_member});
    EXPECT_TRUE(peer.CutOff()) << "conversation " << i;
    EXPECT_EQ(m_member.Notices().size(), i + 1);
  }
  ExpectUnharmed();
}

TEST_F(HostilePeer, WrongDescriptorsEndTheLink) {
  const auto memory = [](std::size_t size, bool sealed) {
    zq::posix::Descriptor made = MakeSharedMemory("test", size);
    if (sealed) {
      Seal(made, Sealing::kSize);
    }
    return made;
  };
  const zq::posix::Descriptor plainFile(::open("/dev/null", O_RDWR | O_CLOEXEC));
  const std::size_t control = 4096;
  std::size_t cutOff = 0;
  const auto expectCutOff = [&](std::initializer_list<std::pair<wire::Type, const zq::posix::Descriptor*>> frames) {
    const RawPeer peer(m_address);
    peer.Greet();
    for (const auto& [type, descriptor] : frames) {
      peer.Send(type, descriptor->Get());
    }
    Settle({&m_member});
    EXPECT_TRUE(peer.CutOff());
    EXPECT_EQ(m_member.Notices().size(), ++cutOff);
  };
  const zq::posix::Descriptor ring = memory(control + kRingBytesMin, true);
  const zq::posix::Descriptor unsealed = memory(control + kRingBytesMin, false);
  const zq::posix::Descriptor odd = memory(control + kRingBytesMin + 8, true);
  const zq::posix::Descriptor small = memory(control, true);
  const zq::posix::Descriptor empty = memory(1, true);
  for (const zq::posix::Descriptor* wrong : {&plainFile, &unsealed, &odd, &small, &empty}) {
    expectCutOff({{wire::Type::kRing, wrong}});
  }
  expectCutOff({{wire::Type::kRing, &ring}, {wire::Type::kRing, &ring}});
  for (const zq::posix::Descriptor* wrong : {&plainFile, &unsealed, &ring, &empty}) {
    expectCutOff({{wire::Type::kParkingWord, wrong}});
  }
  expectCutOff({{wire::Type::kParkingWord, &small}, {wire::Type::kParkingWord, &small}});
  expectCutOff({{wire::Type::kDoorbell, &ring}});
  ExpectUnharmed();
}

TEST_F(HostilePeer, DescriptorsThatNothingTakesAreClosed) {
  const Holdings before = Holdings::Now();
  const wire::Signal doorbell{wire::Type::kDoorbell};
  for (const std::size_t count : {1U, 2U, 3U}) {
    const zq::posix::Descriptor passed(::open("/dev/null", O_RDWR | O_CLOEXEC));
    for (const Bytes frame : {Bytes(), wire::BytesOf(doorbell)}) {
      const RawPeer peer(m_address);
      peer.Greet();
      peer.Send(frame, passed.Get(), count);
      Settle({&m_member});
    }
  }
  Settle({&m_member});
  EXPECT_EQ(Holdings::Now(), before);
  ExpectUnharmed();
}

TEST_F(HostilePeer, ItsSourcesAndSubscriptionsEndWithTheLink) {
  const RawPeer peer(m_address);
  const ParkingWord parkingWord;
  peer.Greet();
  peer.Send(Advertisement(4));
  peer.Send(wire::Type::kParkingWord, parkingWord.GetDescriptor());
  peer.Send(wire::BytesOf(kSubscription));
  Settle({&m_member});
  m_member.events.clear();
  peer.Send(wire::BytesOf(kSubscription));  // a second time
  Settle({&m_member});
  EXPECT_THAT(m_member.events, ElementsAre("down raw topic", "left raw"));
  EXPECT_THAT(m_member.Notices(), ElementsAre(HasSubstr("context \"raw\" (process 2")));
}

TEST_F(HostilePeer, RingsThatMakeNoSenseEndTheLink) {
  const auto cutAt = [](auto frame, std::size_t size) {
    FrameBytes bytes = FrameOf(frame);
    bytes.resize(size);
    return bytes;
  };
  using Scribble = std::function<void(RawRing&)>;
  const std::vector<Scribble> scribbles = {
      [](RawRing& ring) { ring.Put(wire::Type::kDoorbell, {}); },
      [&](RawRing& ring) { ring.Put(wire::Type::kMessage, cutAt(wire::MessageHeader{}, 7)); },
      [&](RawRing& ring) { ring.Put(wire::Type::kLoss, cutAt(wire::Loss{}, 13)); },
      [&](RawRing& ring) { ring.Put(wire::Type::kWithdrawn, cutAt(wire::Withdrawn{}, 3)); },
      [](RawRing& ring) { ring.Put(wire::Type::kFragment, wire::BytesOf(wire::FragmentHeader{.total = 10})); },
      [](RawRing& ring) {
        ring.Put(wire::Type::kFragment, wire::BytesOf(wire::FragmentHeader{.total = kMessageMax + 1}));
      },
      [](RawRing& ring) {
        ring.PutHeader({kRingBytesMin, 1});
      },  // a frame that is longer than the ring
      [](RawRing& ring) {
        ring.PutHeader({0xffffffff, 1});
      },
      [](RawRing& ring) {
        ring.PutHeader({0xffffffff, kRingPadding});
      },  // padding of any length
      [](RawRing& ring) {
        ring.PutHeader({8, kRingNothing});
      },  // nothing, but of some length: it would keep the context from parking
  };
  for (std::size_t i = 0; i < scribbles.size(); ++i) {
    const RawPeer peer(m_address);
    peer.Greet();
    RawRing ring(peer);
    Settle({&m_member});
    EXPECT_EQ(m_member.Notices().size(), i);
    scribbles[i](ring);
    Settle({&m_member});
    EXPECT_TRUE(peer.CutOff()) << "scribble " << i;
    EXPECT_EQ(m_member.Notices().size(), i + 1);
  }
  ExpectUnharmed();
}

// A subscriber that moves its head beyond the tail.
TEST_F(HostilePeer, AnImpossibleHeadEndsTheLink) {
  const RawPeer peer(m_address);
  const ParkingWord parkingWord;
  peer.Greet();
  peer.Send(wire::Type::kParkingWord, parkingWord.GetDescriptor());
  peer.Send(wire::BytesOf(kSubscription));
  Settle({&m_member});
  const RingMemory ring(peer.ReceiveDescriptor());
  ring.Control().head = RingCursor{1} << 40;
  for (std::size_t i = 0; i < 10'000; ++i) {
    Publish(*m_member.transport, *m_publication, std::string(200, 'x'));
  }
  Settle({&m_member});
  EXPECT_TRUE(peer.CutOff());
  EXPECT_THAT(m_member.Notices(), ElementsAre(HasSubstr("impossible")));
  ExpectUnharmed();
}

TEST_F(HostilePeer, DamagedFramesNeverHarmTheContext) {
  const ParkingWord parkingWord;
  const std::vector<FrameBytes> honest = {wire::EncodeHello({1, 2, "raw"}),        Advertisement(1),
                                          TopicFrame(wire::Type::kWant, 0, "T"),   FrameOf(wire::Type::kWantAll),
                                          FrameOf(wire::Type::kParkingWord),       FrameOf(kSubscription),
                                          FrameOf(wire::Unsubscribe{.source = 1}), FrameOf(wire::Type::kCredit),
                                          FrameOf(wire::Withdraw{.source = 1})};
  FrameBytes fragment = FrameOf(wire::FragmentHeader{.source = 1, .sequence = 3, .total = 200});
  fragment.resize(fragment.size() + 100);
  const std::vector<std::pair<wire::Type, FrameBytes>> inRing = {
      {wire::Type::kSubscribed, FrameOf(wire::Subscribed{1, 1, 0})},
      {wire::Type::kLoss, FrameOf(wire::Loss{1, 0, 3})},
      {wire::Type::kFragment, fragment},
      {wire::Type::kFragment, fragment},
      {wire::Type::kMessage, FrameOf(wire::MessageHeader{1, 4})}};
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
      peer.Send(frame, honest[i] == FrameOf(wire::Type::kParkingWord) ? parkingWord.GetDescriptor() : -1);
      if (i == 1) {
        RawRing ring(peer);
        for (const auto& [type, content] : inRing) {
          ring.Put(type, content);
        }
        if (damaged == honest.size()) {
          damage(ring.Bytes().first(400));
        } else if (damaged == honest.size() + 1) {
          damage(std::as_writable_bytes(std::span(&ring.Control(), 1)));
        }
        Settle({&m_member});
      }
    }
    Settle({&m_member});
  }
  EXPECT_TRUE(m_member.Heard("raw topic: "));
  EXPECT_TRUE(m_member.Heard("down raw topic"));
  EXPECT_FALSE(m_member.Notices().empty());
  ExpectUnharmed();
}

TEST_F(HostilePeer, NeverReadingIsCutOffInTheEnd) {
  const RawPeer peer(m_address);
  peer.Greet();
  peer.Send(wire::Type::kWantAll);
  Settle({&m_member});
  const std::string topic(4000, 't');
  for (int i = 0; i < 40'000 && m_member.Notices().empty(); ++i) {
    const auto publication = m_member.transport->Advertise({topic, Pacing::kSource});
    Settle({&m_member});
    m_member.transport->Withdraw(*publication);
  }
  EXPECT_THAT(m_member.Notices(), ElementsAre(HasSubstr("does not read")));
  Settle({&m_member});
  ExpectUnharmed();
}

}  // namespace
}  // namespace engine::transport::host
