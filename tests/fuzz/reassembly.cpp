// Fragments in any order and of any sizes: what comes out is what went in, or the link ends.
#include <optional>

#include "harness/input.h"
#include "harness/oracle.h"
#include "transport/host/wire/reassembly.h"

namespace fuzz {
namespace {

namespace wire = engine::transport::host::wire;
using engine::transport::Bytes;

void Reassemble(Input& input) {
  wire::Reassembly<wire::FragmentHeader> reassembly;
  std::optional<wire::FragmentHeader> open;  // of the message that has begun
  std::vector<std::byte> expected;
  try {
    while (input.Left()) {
      const wire::FragmentHeader header =
          open && input.UpTo<std::uint8_t>(15) != 0
              ? *open
              : wire::FragmentHeader{.sequence = input.Plausible(2U), .total = input.Plausible(std::uint64_t{64})};
      const std::vector<std::byte> fragment = input.Bytes(40);
      const bool whole = !open && fragment.size() == header.total;
      bool completed = false;
      reassembly.Add(header, fragment, [&](Bytes message) {
        completed = true;
        expected.insert(expected.end(), fragment.begin(), fragment.end());
        Require(message.size() == header.total, "a message has the size that it says");
        Require(std::equal(message.begin(), message.end(), expected.begin(), expected.end()), "a message is its parts");
      });
      Require(!open || *open == header, "a message that begins in another is a fault");
      Require(whole || !fragment.empty(), "an empty fragment is a fault");
      if (completed) {
        open.reset();
        expected.clear();
      } else {
        open = header;
        expected.insert(expected.end(), fragment.begin(), fragment.end());
        Require(expected.size() < header.total, "a whole message is complete");
        Require(header.total <= engine::transport::kMessageMax, "messages have a bound");
      }
    }
  } catch (const engine::transport::Fault&) {  // the end of the link
  }
}

}  // namespace
}  // namespace fuzz

FUZZ_WITH(fuzz::Reassemble)
