#include "transport/host/subscriber.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>
#include <utility>

#include "transport/fault.h"
#include "transport/gather.h"

namespace engine::transport::host {

namespace {

// Losses reported in one frame. A peer that is stopped for days misses more than a difference of sequence numbers can
// express.
constexpr std::uint64_t kLossesMax = std::uint64_t{1} << 20;

// How long a blocked publisher waits before it looks at what no credit wakes it for: the peer may have gone or ended
// its subscription, the context may be closing.
constexpr timespec kBlockedPoll{0, 10'000'000};

constexpr std::uint32_t TagOf(wire::Type type) { return static_cast<std::uint32_t>(type); }

template <typename T>
std::byte* Append(std::byte* to, const T& value) {
  std::memcpy(to, &value, sizeof(value));
  return to + sizeof(value);
}

}  // namespace

Subscriber::Subscriber(std::shared_ptr<Link> link, std::string identity, RingMemory memory,
                       std::shared_ptr<PeerParkingWord> parkingWord, Sampler& sampler,
                       std::shared_ptr<PeerStatistics> statistics)
    : m_link(std::move(link)),
      m_identity(std::move(identity)),
      m_memory(std::move(memory)),
      m_ring(m_memory.Control(), m_memory.Bytes()),
      m_parkingWord(std::move(parkingWord)),
      m_contentMax(m_ring.Capacity() / 8 - sizeof(RingFrameHeader)),
      m_sampler(sampler),
      m_statistics(std::move(statistics)) {
  m_statistics->NoteRing(m_ring.Capacity());
}

bool Subscriber::HasSpace(std::size_t bytes) {
  if (m_gone) {
    return true;
  }
  try {
    if (!FlushPending()) {
      return false;
    }
    const std::size_t inOneFrame = bytes + sizeof(wire::FragmentHeader);
    if (inOneFrame <= m_contentMax) {
      return m_ring.HasSpace(inOneFrame);
    }
    // Credit is granted for half of the ring, so more cannot be demanded; the rest of the message waits here.
    return m_ring.FreeSpace() >= std::min(bytes + m_ring.Capacity() / 4, m_ring.Capacity() / 2);
  } catch (const std::exception& error) {
    GiveUp(TextOf(error));
    return true;
  }
}

void Subscriber::SendOrDrop(const wire::FragmentHeader& header, std::span<const iovec> pieces) {
  if (m_gone) {
    return;
  }
  try {
    if ((NothingPending() || FlushPending()) && TrySend(header, pieces)) {
      m_statistics->Counters().Add(peer_field::kMessages);
      m_statistics->Counters().Add(peer_field::kBytes, header.total);
    } else {
      m_statistics->NoteDrop();
      NoteUse();
      Report& report = m_reports[header.source];
      if (report.lost++ == 0) {
        report.firstLost = header.sequence;
      }
      m_ring.RequestCredit();
      FlushPending();  // space made before the request is granted to nobody
    }
  } catch (const std::exception& error) {
    GiveUp(TextOf(error));
  }
}

void Subscriber::Accept(std::uint32_t source, std::uint32_t token, std::uint32_t nextSequence) {
  Report& report = m_reports[source];
  report = {};
  report.accepted = true;
  report.token = token;
  report.nextSequence = nextSequence;
  Flush();
}

void Subscriber::Withdraw(std::uint32_t source) noexcept {
  try {
    m_reports[source].withdrawn = true;
    Flush();
  } catch (const std::bad_alloc&) {
    GiveUp(kOutOfMemory);
  }
}

void Subscriber::Forget(std::uint32_t source) { m_reports.erase(source); }

std::uint32_t Subscriber::RequestCredit() { return m_ring.RequestCredit(); }

void Subscriber::WaitForCredit(std::uint32_t granted) {
  std::atomic<std::uint32_t>& word = m_memory.Control().creditGranted;
  ::syscall(SYS_futex, &word, FUTEX_WAIT, granted, &kBlockedPoll, nullptr, 0);
  CheckReachable();
}

bool Subscriber::CheckReachable() {
  m_link->CheckHangUp();
  if (m_link->Broken()) {
    m_gone = true;
  }
  return !m_gone;
}

bool Subscriber::Flush() noexcept {
  if (m_gone) {
    return true;
  }
  try {
    if (FlushPending()) {
      return true;
    }
    m_ring.RequestCredit();
    return FlushPending();
  } catch (const std::exception& error) {
    GiveUp(TextOf(error));
    return true;
  }
}

void Subscriber::NoteWait() noexcept {
  m_statistics->NoteWait();
  NoteUse();
}

// Puts the message into the ring, a large one as far as there is space. False when there is none.
bool Subscriber::TrySend(const wire::FragmentHeader& header, std::span<const iovec> pieces) {
  if (header.sent != 0) {
    static_cast<void>(m_ring.FreeSpace());  // takes the head from the consumer's cache, so for samples only
    NoteUse();
  }
  const bool plain = header.flags == 0 && header.request == 0 && header.sent == 0;
  const std::size_t headerSize = plain ? sizeof(wire::MessageHeader) : sizeof(wire::FragmentHeader);
  const std::size_t size = headerSize + header.total;
  if (size > m_contentMax) {
    if (!HasSpace(header.total)) {
      return false;
    }
    SendFragments(header, pieces);
    return true;
  }
  std::byte* to = m_ring.Reserve(size, TagOf(plain ? wire::Type::kMessage : wire::Type::kFragment));
  if (to == nullptr) {
    return false;
  }
  to = plain ? Append(to, wire::MessageHeader{header.source, header.sequence}) : Append(to, header);
  CopyPieces(pieces, to);
  Commit();
  return true;
}

void Subscriber::SendFragments(const wire::FragmentHeader& header, std::span<const iovec> pieces) {
  PieceCursor cursor(pieces);
  std::size_t left = header.total;
  while (left > 0) {
    m_parts.assign(1, PieceOf(wire::BytesOf(header)));
    const std::size_t size =
        cursor.Take(std::min(left, m_contentMax - sizeof(header)), std::numeric_limits<std::size_t>::max(), m_parts);
    left -= size;
    std::byte* const to =
        m_rest.Empty() ? m_ring.Reserve(sizeof(header) + size, TagOf(wire::Type::kFragment)) : nullptr;
    if (to != nullptr) {
      CopyPieces(m_parts, to);
      Commit();
    } else {
      m_rest.Push(m_parts);
    }
  }
  Flush();
}

bool Subscriber::FlushPending() {
  while (!m_rest.Empty()) {
    const std::span<const std::byte> frame = m_rest.Front();
    std::byte* const to = m_ring.Reserve(frame.size(), TagOf(wire::Type::kFragment));
    if (to == nullptr) {
      return false;
    }
    std::memcpy(to, frame.data(), frame.size());
    Commit();
    m_rest.Pop();
  }
  while (!m_reports.empty()) {
    const auto first = m_reports.begin();
    if (!SendReport(first->first, first->second)) {
      return false;
    }
    m_reports.erase(first);
  }
  return true;
}

// Sends everything that the report says, and strikes out what is sent. False when there was no space for all of it.
bool Subscriber::SendReport(std::uint32_t source, Report& report) {
  if (report.accepted) {
    if (!Put(wire::Type::kSubscribed, wire::Subscribed{source, report.token, report.nextSequence})) {
      return false;
    }
    report.accepted = false;
  }
  while (report.lost > 0) {
    const auto count = static_cast<std::uint32_t>(std::min(report.lost, kLossesMax));
    if (!Put(wire::Type::kLoss, wire::Loss{source, report.firstLost, count})) {
      return false;
    }
    report.firstLost += count;
    report.lost -= count;
  }
  return !report.withdrawn || Put(wire::Type::kWithdrawn, wire::Withdrawn{source});
}

template <typename T>
bool Subscriber::Put(wire::Type type, const T& frame) {
  std::byte* const to = m_ring.Reserve(sizeof(frame), TagOf(type));
  if (to == nullptr) {
    return false;
  }
  Append(to, frame);
  Commit();
  return true;
}

void Subscriber::RingIfParked() {
  m_ring.FenceCommit();
  if (m_parkingWord->NeedsDoorbell()) {
    m_link->SendSignal(wire::Type::kDoorbell);
    m_statistics->Counters().Add(peer_field::kWakeups);
    m_sampler.NoteWakeUp();
  }
}

// For good: the ring may hold the beginning of a message whose rest will not come.
void Subscriber::GiveUp(std::string_view reason) noexcept {
  m_gone = true;
  m_link->Abort(reason);
}

}  // namespace engine::transport::host
