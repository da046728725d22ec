// A subscriber whose side of a ring, its head and the credit, and whose parking word say anything at any time.
#include "harness/host.h"
#include "transport/host/ring/parking_word.h"
#include "transport/host/ring/ring_memory.h"

namespace fuzz {
namespace {

using transport::Pacing;

class Subscriber {
 public:
  explicit Subscriber(HostNeighbours& neighbours) : m_neighbours(neighbours), m_peer(neighbours.ConnectAndGreet()) {
    host::Seal(m_wordMemory, host::Sealing::kSize);
    m_peer.Send(wire::Type::kParkingWord, m_wordMemory.Get());
  }

  void Subscribe(std::uint32_t source) {
    m_peer.Send(wire::BytesOf(wire::Subscribe{.source = source, .token = ++m_token}));
    m_neighbours.Settle();
    if (zq::posix::Descriptor passed = m_peer.ReceiveDescriptor()) {
      if (host::SealedSize(passed) == kParkingWordBytes) {  // the victim's own word comes when it subscribes
        passed = m_peer.ReceiveDescriptor();
      }
      if (passed) {
        m_rings.emplace_back(passed);
      }
    }
  }

  void Step(Input& input) {
    host::RingMemory* const ring = m_rings.empty() ? nullptr : &m_rings[input.UpTo<std::size_t>(1) % m_rings.size()];
    switch (input.UpTo<std::uint8_t>(9)) {
      case 0:
        Word() = input.Plausible<host::ParkingState>(host::kNextEpoch + host::kBusy + host::kParked);
        break;
      case 1:
        if (ring != nullptr) {
          ring->Control().head = input.Plausible<host::RingCursor>(kRingBytes) & ~host::RingCursor{7};
        }
        break;
      case 2:
        if (ring != nullptr) {
          ring->Control().head += input.UpTo<std::uint32_t>(kRingBytes / 8) * std::uint64_t{8};
        }
        break;
      case 3:
        if (ring != nullptr) {
          ring->Control().creditGranted = input.Plausible(3U);
          m_peer.Send(wire::Type::kCredit);
        }
        break;
      case 4:
        if (ring != nullptr) {
          input.Damage(ring->Bytes());
        }
        break;
      case 5:
        m_peer.Send(wire::BytesOf(wire::Unsubscribe{.source = input.ConsumeIntegralInRange<std::uint32_t>(1, 2)}));
        break;
      case 6:
        Subscribe(input.ConsumeIntegralInRange<std::uint32_t>(1, 2));
        break;
      case 7:
        m_neighbours.Settle();
        break;
      default:
        m_neighbours.Publish(input.ConsumeBool() ? Pacing::kSource : Pacing::kReceiver,
                             input.UpTo<std::size_t>(input.ConsumeBool() ? 3 * kRingBytes : kRingBytes / 16));
    }
  }

 private:
  static constexpr std::size_t kParkingWordBytes = 4096;

  std::atomic<host::ParkingState>& Word() {
    return *static_cast<std::atomic<host::ParkingState>*>(m_wordMapping.Address());
  }

  HostNeighbours& m_neighbours;
  const host::RawPeer m_peer;
  const zq::posix::Descriptor m_wordMemory = host::MakeSharedMemory("lbm_fuzz", kParkingWordBytes);
  const host::Mapping m_wordMapping{m_wordMemory, kParkingWordBytes, host::Mapping::Access::kReadAndWrite};
  std::vector<host::RingMemory> m_rings;
  std::uint32_t m_token = 0;
};

void Attack(Input& input, HostNeighbours& neighbours) {
  Subscriber subscriber(neighbours);
  subscriber.Subscribe(1);
  subscriber.Subscribe(2);
  for (int steps = 0; input.Left() && steps < 200; ++steps) {
    subscriber.Step(input);
  }
  neighbours.Settle();
}

}  // namespace
}  // namespace fuzz

FUZZ_NEIGHBOURS_WITH(fuzz::Attack)
