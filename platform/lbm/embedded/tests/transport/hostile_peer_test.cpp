#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <functional>

#include "engine_testing/holdings.h"
#include "engine_testing/raw_peer.h"
#include "member.h"

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

FrameBytes Longer(FrameBytes frame, std::size_t bytes) {
  frame.resize(frame.size() + bytes);
  return frame;
}

FrameBytes Response(std::uint64_t request, std::size_t total, std::size_t bytes) {
  return Longer(FrameOf(wire::ResponseHeader{.total = static_cast<std::uint32_t>(total), .request = request}), bytes);
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

  // Has the test's context hear of the peer's source and subscribe to it; what accepts that is not in the ring yet.
  RawRing OfferSource(const RawPeer& peer) {
    peer.Greet();
    peer.Send(Advertisement(1));
    RawRing ring(peer);
    Settle({&m_member});
    m_member.events.clear();
    return ring;
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
  const std::string longName(kNameMax + 1, 'n');
  FrameBytes cutHello = wire::EncodeHello({9, 2, "raw"});
  cutHello.pop_back();
  for (const auto& [hello, text] :
       {std::pair(FrameOf(wire::Hello{.magic = 1}), "does not speak this engine's protocol"),
        {FrameOf(wire::Hello{.type = wire::Type::kWant}), "does not speak this engine's protocol"},
        {FrameOf(wire::Hello{.version = wire::kVersion + 1}), "run the same release"},
        {Longer(wire::EncodeHello({9, 2, "raw"}), 1), "longer than its type"},
        {cutHello, "runs past the end"},
        {wire::EncodeHello({9, 2, longName}), "runs past the end"}}) {
    const RawPeer peer(m_address);
    peer.Send(hello);
    Settle({&m_member});
    EXPECT_TRUE(peer.CutOff());
    ASSERT_FALSE(m_member.Notices().empty());
    EXPECT_THAT(m_member.Notices().back(), HasSubstr(text));
  }
  ExpectUnharmed();
}

TEST_F(HostilePeer, FramesThatMakeNoSenseEndTheLink) {
  FrameBytes cutAdvertisement = Advertisement(1);
  cutAdvertisement.pop_back();
  const std::vector<std::vector<FrameBytes>> conversations = {
      {FrameOf(wire::Hello())},
      {Longer(FrameOf(wire::Withdraw{.source = 9}), 1)},
      {FrameBytes(1)},
      {cutAdvertisement},
      {Advertisement(1), TopicFrame(wire::Type::kAdvertise, 1, "another topic")},
      {TopicFrame(wire::Type::kAdvertise, 1, std::string(kNameMax + 1, 't'))},
      {FrameOf(kSubscription)},                                    // without a parking word
      {Response(1, 10, 0)},                                        // a fragment of nothing
      {Response(1, 10, 6), Response(1, 10, 6)},                    // more than the whole
      {Response(1, 10, 6), Response(2, 10, 4)},                    // one inside another
      {Response(1, kMessageMax + 1, 1)},                           // a response beyond the bound
      {Longer(FrameOf(wire::Type::kDoorbell), wire::kPacketMax)},  // a packet beyond the bound
      {FrameOf(wire::Type::kRing)},                                // without a descriptor
      {FrameOf(wire::Type::kMessage)},                             // not in a ring
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
  const std::size_t control = 4096;
  const zq::posix::Descriptor plainFile(
      ::open((m_directory.Path() + "/plain").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(::ftruncate(plainFile.Get(), control + kRingBytesMin), 0);
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
  const zq::posix::Descriptor half = memory(control + kRingBytesMin / 2, true);
  const zq::posix::Descriptor small = memory(control, true);
  const zq::posix::Descriptor huge(::memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  ASSERT_EQ(::ftruncate(huge.Get(), static_cast<off_t>(control + 2 * kRingBytesMax)), 0);
  Seal(huge, Sealing::kSize);
  const zq::posix::Descriptor empty = memory(1, true);
  for (const zq::posix::Descriptor* wrong : {&plainFile, &unsealed, &odd, &half, &small, &empty, &huge}) {
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

// Whoever made it can take them away although the size is sealed, and who touches them then gets a signal.
TEST_F(HostilePeer, MemoryOfHugePagesIsRefused) {
  const zq::posix::Descriptor memory(::memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING | MFD_HUGETLB));
  if (!memory || ::ftruncate(memory.Get(), 1 << 30) != 0) {
    GTEST_SKIP() << "takes a system with huge pages";
  }
  Seal(memory, Sealing::kSize);
  EXPECT_THROW(SealedSize(memory), Fault);
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
        ring.Put(wire::Type::kFragment, Longer(FrameOf(wire::FragmentHeader{.total = kMessageMax + 1}), 1));
      },
      [](RawRing& ring) {
        ring.Put(wire::Type::kSubscribed, wire::BytesOf(wire::Subscribed{1, 1, 5}));
        ring.Put(wire::Type::kMessage, wire::BytesOf(wire::MessageHeader{1, 4}));
      },  // a sequence number that goes back
      [](RawRing& ring) {
        ring.Put(wire::Type::kSubscribed, wire::BytesOf(wire::Subscribed{1, 1, 5}));
        ring.Put(wire::Type::kLoss, wire::BytesOf(wire::Loss{1, 5, 0x80000000}));
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
        ring.PutHeader({8, 0});
      },  // nothing, but of some length: it would keep the context from parking
  };
  for (std::size_t i = 0; i < scribbles.size(); ++i) {
    const RawPeer peer(m_address);
    RawRing ring = OfferSource(peer);
    EXPECT_EQ(m_member.Notices().size(), i);
    scribbles[i](ring);
    Settle({&m_member});
    EXPECT_TRUE(peer.CutOff()) << "scribble " << i;
    EXPECT_EQ(m_member.Notices().size(), i + 1);
  }
  ExpectUnharmed();
}

TEST_F(HostilePeer, WhatIsSaidOfThingsThatAreNotThereIsIgnored) {
  const RawPeer peer(m_address);
  const ParkingWord parkingWord;
  RawRing ring = OfferSource(peer);
  peer.Send(wire::Type::kParkingWord, parkingWord.GetDescriptor());
  for (const FrameBytes& frame : {FrameOf(wire::Subscribe{.source = 77}), FrameOf(wire::Unsubscribe{.source = 77}),
                                  FrameOf(wire::Withdraw{.source = 77}), TopicFrame(wire::Type::kWant, 0, "nobody's"),
                                  FrameOf(wire::Type::kCredit)}) {
    peer.Send(frame);
  }
  ring.Put(wire::Type::kSubscribed, wire::BytesOf(wire::Subscribed{1, 1, 0}));
  ring.Put(wire::Type::kSubscribed, wire::BytesOf(wire::Subscribed{77, 1, 0}));
  ring.Put(wire::Type::kMessage, wire::BytesOf(wire::MessageHeader{1, 0}));
  ring.Put(wire::Type::kMessage, wire::BytesOf(wire::MessageHeader{77, 1}));
  ring.Put(wire::Type::kLoss, wire::BytesOf(wire::Loss{77, 0, 5}));
  ring.Put(wire::Type::kWithdrawn, wire::BytesOf(wire::Withdrawn{77}));
  ring.Put(wire::Type::kWithdrawn, wire::BytesOf(wire::Withdrawn{1}));
  ring.Put(wire::Type::kMessage, wire::BytesOf(wire::MessageHeader{1, 1}));
  Settle({&m_member});
  EXPECT_THAT(m_member.events, ElementsAre("raw topic: ", "down raw topic"));
  EXPECT_FALSE(peer.CutOff());
  EXPECT_TRUE(m_member.Notices().empty());
}

TEST_F(HostilePeer, AMessageBehindALossIsNotForWhoUnsubscribesWhenTheLossIsTold) {
  const RawPeer peer(m_address);
  RawRing ring = OfferSource(peer);
  m_member.onLoss = [&](RemoteSource& source) { m_member.transport->Unsubscribe(source); };
  ring.Put(wire::Type::kSubscribed, wire::BytesOf(wire::Subscribed{1, 1, 0}));
  ring.Put(wire::Type::kMessage, wire::BytesOf(wire::MessageHeader{1, 5}));
  Settle({&m_member});
  EXPECT_THAT(m_member.events, ElementsAre("loss raw topic"));
}

TEST_F(HostilePeer, SourcesThatNobodyWatchesAreNotHeardOf) {
  Member watcher(SettingsIn(m_directory), true, false);
  std::vector<std::string> sockets = m_directory.Sockets();
  std::erase(sockets, m_address);
  const RawPeer peer(sockets.at(0));
  peer.Greet();
  peer.Send(Advertisement(1));
  Settle({&watcher});
  EXPECT_TRUE(watcher.events.empty());
}

TEST_F(HostilePeer, WhoAnswersForAnotherContextIsCutOff) {
  // Of a process that lives.
  const RawListener listener(m_directory.Path() + "/test/" + std::to_string(::getpid()) + "-1.socket");
  Member caller(SettingsIn(m_directory));
  const RawPeer answering = listener.Accept();
  answering.Greet();
  Settle({&caller});
  EXPECT_TRUE(answering.CutOff());
  EXPECT_THAT(caller.Notices(), ElementsAre(HasSubstr("answers for another context")));
}

// One context may be at two links; when the first ends, so does the other, with what it still had to say.
TEST_F(HostilePeer, WhatWouldBeOfferedOnALinkThatHasEndedIsNotKept) {
  const Holdings before = Holdings::Now();
  {
    std::optional<RawPeer> first(m_address);
    const RawPeer second(m_address);
    for (const RawPeer* link : {&std::as_const(*first), &second}) {
      link->Send(wire::EncodeHello({4711, 2, "twice"}));
    }
    Settle({&m_member});
    first.reset();
    second.Send(wire::Type::kWantAll);
    Settle({&m_member});
    EXPECT_TRUE(second.CutOff());
  }
  Settle({&m_member});
  EXPECT_EQ(Holdings::Now(), before);
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
