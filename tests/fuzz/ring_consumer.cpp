// The consumer's end of a ring whose producer writes anything anywhere, before it and between any two of its steps.
#include <algorithm>

#include "harness/guarded_memory.h"
#include "harness/input.h"
#include "transport/host/ring/ring.h"

namespace fuzz {
namespace {

namespace host = engine::transport::host;
using Cursor = std::uint16_t;  // so that it wraps
using Control = host::RingControl<Cursor>;
constexpr std::size_t kCapacity = 256;

// What the producer does in between.
void Scribble(Input& input, Control& control, std::span<std::byte> bytes) {
  const std::size_t at = input.UpTo<std::size_t>(kCapacity / 8 - 1) * 8;
  switch (input.UpTo<std::uint8_t>(4)) {
    case 0:
      input.Damage(bytes);
      break;
    case 1:
      control.creditRequests = input.Plausible(2U);
      break;
    case 2:
      input.Damage(std::as_writable_bytes(std::span(&control, 1)));
      break;
    default:
      const host::RingFrameHeader header{input.Plausible<std::uint32_t>(kCapacity),
                                         input.ConsumeBool() ? host::kRingPadding : input.Plausible(1U)};
      std::memcpy(bytes.data() + at, &header, sizeof header);
  }
}

void Consume(Input& input) {
  static const GuardedMemory<kCapacity> memory;
  static const GuardedMemory<sizeof(Control)> controlMemory;
  memory.Clear();
  auto& control = *new (controlMemory.Bytes().data()) Control();
  host::RingConsumer<Cursor> consumer(control, memory.Bytes());
  host::RingFrame frame;
  std::size_t bytes = 0;  // since the last poll
  try {
    while (input.Left()) {
      switch (input.UpTo<std::uint8_t>(9)) {
        case 0:
          bytes = 0;
          consumer.Poll();
          break;
        case 1:
          consumer.Release();
          break;
        case 2:
          if (consumer.CreditDue()) {
            consumer.GrantCredit();
            Require(control.creditGranted == control.creditRequests, "what was requested is granted");
          }
          break;
        case 3:
          consumer.PutBack();
          consumer.Poll();
          bytes = 0;
          break;
        case 4:
        case 5:
        case 6:
          if (consumer.Next(frame)) {
            const std::byte* const begin = frame.content.data();
            Require(begin >= memory.Bytes().data() && frame.content.size() <= kCapacity &&
                        begin + frame.content.size() <= memory.Bytes().data() + kCapacity,
                    "frames lie in the ring");
            bytes += host::RingFrameHeader::Footprint(frame.content.size());
            Require(bytes < 2 * kCapacity, "no more is taken at once than the ring holds");
            Require(frame.tag != host::kRingPadding, "padding is no frame");
            Require(std::count(frame.content.begin(), frame.content.end(), std::byte{1}) >= 0, "they can be read");
          }
          break;
        default:
          Scribble(input, control, memory.Bytes());
      }
    }
  } catch (const engine::transport::Fault&) {  // the end of the link
  }
}

}  // namespace
}  // namespace fuzz

FUZZ_WITH(fuzz::Consume)
