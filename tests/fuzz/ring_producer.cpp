// The producer's end of a ring, whose consumer releases what it likes. What the consumer has not released stays as it
// is, whatever it writes elsewhere.
#include <deque>

#include "harness/guarded_memory.h"
#include "harness/input.h"
#include "transport/host/ring/ring.h"

namespace fuzz {
namespace {

namespace host = engine::transport::host;
using Cursor = std::uint16_t;  // so that it wraps
using Control = host::RingControl<Cursor>;
constexpr std::size_t kCapacity = 512;

struct Written {
  Cursor end;  // the head that releases it
  std::span<const std::byte> content;
  std::byte filling;
};

class Attack {
 public:
  void Run(Input& input) {
    try {
      for (int steps = 0; input.Left() && steps < 200; ++steps) {
        Step(input);
      }
    } catch (const engine::transport::Fault&) {  // the end of the link
      Require(m_lied, "only an impossible head is a fault");
    }
  }

 private:
  void Step(Input& input) {
    switch (input.UpTo<std::uint8_t>(9)) {
      case 0:
        m_lied = true;
        m_control.head = input.ConsumeIntegral<Cursor>();
        break;
      case 1:
        m_control.creditGranted = input.Plausible(3U);
        m_producer.RequestCredit();
        break;
      case 2:
        m_lied = true;
        input.Damage(std::as_writable_bytes(std::span(&m_control, 1)));
        break;
      case 3:
      case 4:
        if (!m_lied && !m_written.empty()) {
          m_control.head = m_written.front().end;
          m_written.pop_front();
        }
        break;
      case 5:
        Require(m_producer.FreeSpace() <= kCapacity, "a ring has no more space than bytes");
        break;
      default:
        Put(input.UpTo<std::size_t>(input.ConsumeBool() ? 40 : 2 * kCapacity),
            std::byte{input.ConsumeIntegral<std::uint8_t>()});
    }
  }

  void Put(std::size_t size, std::byte filling) {
    const bool hasSpace = m_producer.HasSpace(size);
    std::byte* const to = m_producer.Reserve(size, 1);
    // The head may have moved in between, but nobody moved it.
    Require(hasSpace == (to != nullptr), "space that is told of is there");
    if (to == nullptr) {
      return;
    }
    std::memset(to, static_cast<int>(filling), size);
    m_producer.Commit();
    m_producer.FenceCommit();
    if (!m_lied) {
      m_tail = static_cast<Cursor>(m_tail + TakenSince(to, size));
      m_written.push_back({m_tail, {to, size}, filling});
      for (const Written& written : m_written) {
        for (const std::byte byte : written.content) {
          Require(byte == written.filling, "what was not released is not overwritten");
        }
      }
    }
  }

  // Bytes from the last frame's end to this one's, with the padding before it.
  std::size_t TakenSince(const std::byte* content, std::size_t size) const {
    const auto begin = static_cast<std::size_t>(content - m_memory.Bytes().data()) - sizeof(host::RingFrameHeader);
    return (begin - m_tail) % kCapacity + host::RingFrameHeader::Footprint(size);
  }

  const GuardedMemory<kCapacity> m_memory;
  const GuardedMemory<sizeof(Control)> m_controlMemory;
  Control& m_control = *new (m_controlMemory.Bytes().data()) Control();
  host::RingProducer<Cursor> m_producer{m_control, m_memory.Bytes()};
  std::deque<Written> m_written;  // and not released
  Cursor m_tail = 0;
  bool m_lied = false;  // the head is not what it should be
};

void Produce(Input& input) { Attack().Run(input); }

}  // namespace
}  // namespace fuzz

FUZZ_WITH(fuzz::Produce)
