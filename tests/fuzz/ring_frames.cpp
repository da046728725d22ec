// The ring from which a context reads: frames that make sense one by one or not at all, and bytes and counters that
// change at any time.
#include <array>

#include "harness/host.h"

namespace fuzz {
namespace {

constexpr std::uint32_t kSourcesMax = 3;  // advertised are the ids 1 and 2

std::vector<std::byte> Content(Input& input, wire::Type type) {
  std::vector<std::byte> content;
  const std::uint32_t source = input.Plausible(kSourcesMax);
  const std::uint32_t sequence = input.Plausible(8U);
  switch (type) {
    case wire::Type::kMessage:
      Append(content, wire::MessageHeader{source, sequence});
      break;
    case wire::Type::kFragment:
      Append(content, wire::FragmentHeader{.source = source,
                                           .sequence = sequence,
                                           .flags = input.Plausible(1U),
                                           .request = input.Plausible(std::uint64_t{1}),
                                           .total = input.Plausible(std::uint64_t{40}),
                                           .sent = input.Plausible(std::uint64_t{1})});
      break;
    case wire::Type::kSubscribed:
      Append(content, wire::Subscribed{source, input.Plausible(2U), sequence});
      break;
    case wire::Type::kLoss:
      Append(content, wire::Loss{source, sequence, input.Plausible(4U)});
      break;
    case wire::Type::kWithdrawn:
      Append(content, wire::Withdrawn{source});
      break;
    default:
      break;
  }
  if (type == wire::Type::kMessage || type == wire::Type::kFragment || input.UpTo<std::uint8_t>(15) == 0) {
    Append(content, input.Bytes(40));
  }
  return content;
}

void Put(Input& input, host::RawRing& ring) {
  constexpr auto kFirst = static_cast<std::uint16_t>(wire::Type::kMessage);
  const auto type = static_cast<wire::Type>(kFirst + input.Plausible<std::uint8_t>(4));
  const auto content = Content(input, type);
  // The consumer may have been told of space that there is not.
  try {
    ring.Put(type, content);
  } catch (const engine::transport::Fault&) {
  }
}

void Attack(Input& input, HostNeighbours& neighbours) {
  const host::RawPeer peer = neighbours.ConnectAndGreet();
  wire::TopicBatch batch(wire::Type::kAdvertise);
  const auto send = [&](transport::Bytes packet) { peer.Send(packet); };
  batch.Add(1, "attack", send);
  batch.Add(2, "attack", send);
  batch.Finish(send);
  std::array<host::RawRing, 2> rings{host::RawRing(peer), host::RawRing(peer, wire::Type::kPacedRing)};
  for (std::uint32_t source = 1; input.UpTo<std::uint8_t>(7) != 0 && source <= 2; ++source) {
    rings[source - 1].Put(wire::Type::kSubscribed, wire::BytesOf(wire::Subscribed{source, 1, 0}));
  }
  neighbours.Settle();
  for (int steps = 0; input.Left() && steps < 100; ++steps) {
    host::RawRing& ring = rings[input.ConsumeBool() ? 1 : 0];
    switch (input.UpTo<std::uint8_t>(9)) {
      case 0:
        neighbours.Settle();
        break;
      case 1:
        input.Damage(ring.Bytes().first(input.ConsumeBool() ? 256 : ring.Bytes().size()));
        break;
      case 2:
        input.Damage(std::as_writable_bytes(std::span(&ring.Control(), 1)));
        break;
      case 3:
        neighbours.Victim().takes = input.ConsumeBool();
        break;
      case 4:
        ring.Control().creditRequests = input.Plausible(3U);
        break;
      default:
        Put(input, ring);
    }
  }
  neighbours.Settle();
}

}  // namespace
}  // namespace fuzz

FUZZ_NEIGHBOURS_WITH(fuzz::Attack)
