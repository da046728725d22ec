// The first packets on a link, in any form.
#include <fcntl.h>

#include "harness/host.h"

namespace fuzz {
namespace {

std::vector<std::byte> Hello(Input& input) {
  wire::Hello hello;
  hello.instance = input.UpTo<std::uint8_t>(3);
  hello.process = input.UpTo<std::uint8_t>(3);
  const std::string name = input.Name("attacker");
  hello.nameLength =
      input.ConsumeBool() ? input.ConsumeIntegral<std::uint16_t>() : static_cast<std::uint16_t>(name.size());
  std::vector<std::byte> frame;
  Append(frame, hello);
  Append(frame, std::string_view(name));
  if (input.ConsumeBool()) {
    input.Damage(frame);
  }
  return frame;
}

struct Place : HostNeighbours {
  const zq::posix::Descriptor file{::open("/dev/null", O_RDWR | O_CLOEXEC)};
};

void Attack(Input& input, Place& neighbours) {
  std::vector<host::RawPeer> peers;
  while (input.Left() && peers.size() < 4) {
    peers.push_back(neighbours.Connect());
    for (auto packets = input.UpTo<std::uint8_t>(4); packets > 0; --packets) {
      const auto frame = input.ConsumeBool() ? Hello(input) : input.Bytes(200);
      const auto descriptors = input.Plausible<std::uint8_t>(0) % (host::RawPacket::kDescriptorsMax + 1);
      peers.back().Send(frame, descriptors == 0 ? -1 : neighbours.file.Get(), descriptors);
      if (input.ConsumeBool()) {
        neighbours.Settle();
      }
    }
  }
  neighbours.Settle();
}

}  // namespace
}  // namespace fuzz

FUZZ_NEIGHBOURS_WITH(fuzz::Attack)
