// What a context that has introduced itself may send on its link.
#include <fcntl.h>

#include "harness/host.h"
#include "transport/host/ring/parking_word.h"

namespace fuzz {
namespace {

constexpr std::uint32_t kSourcesMax = 4;  // the victim has those of the ids 1 and 2

std::vector<std::byte> Topics(Input& input, wire::Type type) {
  std::vector<std::byte> packet;
  Append(packet, wire::TopicsHeader{.type = type});
  for (auto topics = input.UpTo<std::uint8_t>(4); topics > 0; --topics) {
    const std::string topic = input.Name("topic");
    Append(packet, wire::TopicHeader{.source = input.Plausible(kSourcesMax),
                                     .length = static_cast<std::uint16_t>(topic.size())});
    Append(packet, std::string_view(topic));
  }
  return packet;
}

std::vector<std::byte> Frame(Input& input, wire::Type type) {
  std::vector<std::byte> frame;
  switch (type) {
    case wire::Type::kWant:
    case wire::Type::kAdvertise:
      return Topics(input, type);
    case wire::Type::kWithdraw:
      Append(frame, wire::Withdraw{.source = input.Plausible(kSourcesMax)});
      break;
    case wire::Type::kSubscribe:
      Append(frame, wire::Subscribe{.source = input.Plausible(kSourcesMax), .token = input.Plausible(3U)});
      break;
    case wire::Type::kUnsubscribe:
      Append(frame, wire::Unsubscribe{.source = input.Plausible(kSourcesMax)});
      break;
    case wire::Type::kResponse: {
      Append(frame, wire::ResponseHeader{.total = input.Plausible(40U), .request = input.Plausible(std::uint64_t{2})});
      Append(frame, input.Bytes(40));
      break;
    }
    default:
      Append(frame, wire::Signal{type});
  }
  return frame;
}

struct Place : HostNeighbours {
  const zq::posix::Descriptor file{::open("/dev/null", O_RDWR | O_CLOEXEC)};
  const host::ParkingWord parkingWord;
};

// Sends a frame, now and then a damaged one, and what it needs beside it, or something else.
void Send(Input& input, const host::RawPeer& peer, const Place& neighbours) {
  const auto type = input.Plausible<std::uint16_t>(static_cast<std::uint16_t>(wire::Type::kCredit));
  auto frame = Frame(input, static_cast<wire::Type>(type));
  const auto damage = input.UpTo<std::uint8_t>(15);
  if (damage == 0) {
    input.Damage(frame);
  } else if (damage == 1) {
    frame.resize(input.UpTo<std::size_t>(100));
  }
  int descriptor = -1;
  std::size_t count = 1;
  zq::posix::Descriptor ring;
  if (static_cast<wire::Type>(type) == wire::Type::kParkingWord) {
    descriptor = neighbours.parkingWord.GetDescriptor();
  } else if (wire::CarriesDescriptor(static_cast<wire::Type>(type))) {
    ring = std::move(host::RingMemory::Create(host::kRingBytesMin).memory);
    descriptor = ring.Get();
  }
  if (input.UpTo<std::uint8_t>(15) == 0) {
    descriptor = input.ConsumeBool() ? neighbours.file.Get() : -1;
    count = input.ConsumeIntegralInRange<std::size_t>(1, host::RawPacket::kDescriptorsMax);
  }
  peer.Send(frame, descriptor, count);
}

void Attack(Input& input, Place& neighbours) {
  const host::RawPeer peer = neighbours.ConnectAndGreet();
  for (int steps = 0; input.Left() && steps < 60; ++steps) {
    switch (input.UpTo<std::uint8_t>(7)) {
      case 0:
        neighbours.Settle();
        break;
      case 1:
        peer.CutOff();  // reads what there is
        break;
      case 2:
        neighbours.Publish(input.ConsumeBool() ? transport::Pacing::kSource : transport::Pacing::kReceiver,
                           input.UpTo<std::size_t>(3'000));
        break;
      default:
        Send(input, peer, neighbours);
    }
  }
  neighbours.Settle();
}

}  // namespace
}  // namespace fuzz

FUZZ_NEIGHBOURS_WITH(fuzz::Attack)
