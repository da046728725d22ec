// Memory of any kind, size and seals in the place of a ring or a parking word, taken away while it is used.
#include <fcntl.h>
#include <sys/mman.h>

#include "harness/host.h"

namespace fuzz {
namespace {

constexpr std::size_t kPage = 4096;

std::size_t SizeOf(Input& input) {
  const std::size_t size = kPage + (host::kRingBytesMin << input.UpTo<std::uint8_t>(3));
  switch (input.UpTo<std::uint8_t>(7)) {
    case 0:
      return input.UpTo(4 * kPage);
    case 1:
      return size - 8 + input.UpTo<std::size_t>(16);
    case 2:
      return input.ConsumeIntegral<std::uint64_t>() >> (1 + input.UpTo<std::uint8_t>(40));
    case 3:
      return kPage;
    default:
      return size;
  }
}

zq::posix::Descriptor Memory(Input& input) {
  const unsigned kind = input.UpTo<std::uint8_t>(15) == 0 ? MFD_HUGETLB : 0;
  zq::posix::Descriptor memory(::memfd_create("fuzz", MFD_CLOEXEC | MFD_ALLOW_SEALING | kind));
  static_cast<void>(::ftruncate(memory.Get(), static_cast<off_t>(SizeOf(input))));
  int seals = F_SEAL_SHRINK | F_SEAL_GROW;
  if (input.UpTo<std::uint8_t>(3) == 0) {
    seals = input.ConsumeIntegral<std::uint8_t>() & (F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_FUTURE_WRITE);
  }
  ::fcntl(memory.Get(), F_ADD_SEALS, seals);
  return memory;
}

// What the passer can still do to it.
void Change(Input& input, const zq::posix::Descriptor& memory) {
  const auto bytes = input.Bytes(64);
  const auto at = static_cast<off_t>(input.UpTo<std::size_t>(3 * kPage));
  switch (input.UpTo<std::uint8_t>(3)) {
    case 0:
      static_cast<void>(::ftruncate(memory.Get(), at));
      break;
    case 1:
      ::fallocate(memory.Get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(kPage) + at);
      break;
    default:
      if (::lseek(memory.Get(), 0, SEEK_END) >= at) {  // not beyond its end, which would make it larger
        static_cast<void>(::pwrite(memory.Get(), bytes.data(), bytes.size(), at));
      }
  }
}

void Attack(Input& input, HostNeighbours& neighbours) {
  const host::RawPeer peer = neighbours.ConnectAndGreet();
  for (int steps = 0; input.Left() && steps < 8; ++steps) {
    const zq::posix::Descriptor memory = Memory(input);
    peer.Send(input.PickValueInArray({wire::Type::kRing, wire::Type::kPacedRing, wire::Type::kParkingWord}),
              memory.Get());
    const wire::Subscribe subscription{.source = input.ConsumeIntegralInRange<std::uint32_t>(1, 2), .token = 1};
    if (input.ConsumeBool()) {
      peer.Send(wire::BytesOf(subscription));
    }
    neighbours.Settle();
    for (auto changes = input.UpTo<std::uint8_t>(3); changes > 0; --changes) {
      Change(input, memory);
      neighbours.Publish(transport::Pacing::kSource, input.UpTo<std::size_t>(1'000));
      neighbours.Settle();
    }
  }
}

}  // namespace
}  // namespace fuzz

FUZZ_NEIGHBOURS_WITH(fuzz::Attack)
