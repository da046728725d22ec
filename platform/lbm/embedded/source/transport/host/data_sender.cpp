#include "transport/host/data_sender.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>
#include <utility>

#include "transport/host/fault.h"
#include "transport/host/pieces.h"

namespace engine::transport::host {

namespace {

// Losses that are told at once. A peer that stands still for days misses more than a difference of sequence numbers can
// express.
constexpr std::uint64_t kLossesToldMax = std::uint64_t{1} << 20;

// How long a waiting sender goes without looking at what nobody wakes it for: the peer may have gone or unsubscribed,
// the context may be closing.
constexpr timespec kLookAgain{0, 10'000'000};

constexpr std::uint32_t TagOf(wire::Type type) { return static_cast<std::uint32_t>(type); }

iovec PartOf(wire::Bytes bytes) {
  // The structure serves both directions, hence no const.
  return {const_cast<std::byte*>(bytes.data()), bytes.size()};
}

template <typename T>
std::byte* Append(std::byte* to, const T& value) {
  std::memcpy(to, &value, sizeof(value));
  return to + sizeof(value);
}

}  // namespace

DataSender::DataSender(std::shared_ptr<Link> link, RingMemory memory, RemoteWakeWord wakeWord)
    : m_link(std::move(link)),
      m_memory(std::move(memory)),
      m_ring(m_memory.Control(), m_memory.Bytes()),
      m_wakeWord(std::move(wakeWord)),
      m_contentMax(m_ring.Capacity() / 8 - sizeof(RingFrameHeader)) {}

bool DataSender::HasRoom(std::size_t bytes) {
  if (m_dead) {
    return true;
  }
  try {
    if (!FlushWaiting()) {
      return false;
    }
    const std::size_t inOneFrame = bytes + sizeof(wire::FragmentHeader);
    if (inOneFrame <= m_contentMax) {
      return m_ring.HasRoom(inOneFrame);
    }
    // Half of the ring is what a peer tells of; what does not fit there may wait.
    return m_ring.Room() >= std::min(bytes + m_ring.Capacity() / 4, m_ring.Capacity() / 2);
  } catch (const std::exception& error) {
    GiveUp(TextOf(error));
    return true;
  }
}

void DataSender::SendOrDrop(const wire::FragmentHeader& header, std::span<const iovec> pieces) {
  if (m_dead) {
    return;
  }
  try {
    if (!(NothingWaits() || FlushWaiting()) || !SendNow(header, pieces)) {
      Notice& notice = m_notices[header.source];
      if (notice.lost++ == 0) {
        notice.firstLost = header.sequence;
      }
      // It may have made room meanwhile, which it would not tell of.
      m_ring.WantRoom();
      FlushWaiting();
    }
  } catch (const std::exception& error) {
    GiveUp(TextOf(error));
  }
}

void DataSender::Subscribed(std::uint32_t source, std::uint32_t token, std::uint32_t nextSequence) {
  Notice& notice = m_notices[source];
  notice = {};
  notice.subscribed = true;
  notice.token = token;
  notice.nextSequence = nextSequence;
  Flush();
}

void DataSender::Withdrawn(std::uint32_t source) {
  m_notices[source].withdrawn = true;
  Flush();
}

void DataSender::Unsubscribed(std::uint32_t source) { m_notices.erase(source); }

std::uint32_t DataSender::WantRoom() { return m_ring.WantRoom(); }

void DataSender::AwaitRoom(std::uint32_t told) {
  std::atomic<std::uint32_t>& word = m_memory.Control().roomTold;
  ::syscall(SYS_futex, &word, FUTEX_WAIT, told, &kLookAgain, nullptr, 0);
  WithinReach();
}

bool DataSender::WithinReach() {
  m_link->LookForHangUp();
  if (m_link->Broken()) {
    m_dead = true;
  }
  return !m_dead;
}

bool DataSender::Flush() {
  if (m_dead) {
    return true;
  }
  try {
    if (FlushWaiting()) {
      return true;
    }
    m_ring.WantRoom();
    return FlushWaiting();
  } catch (const std::exception& error) {
    GiveUp(TextOf(error));
    return true;
  }
}

// Gives the message to the ring, as far as there is room in the case of a large one. False when there is none.
bool DataSender::SendNow(const wire::FragmentHeader& header, std::span<const iovec> pieces) {
  const bool plain = header.flags == 0 && header.request == 0;
  const std::size_t headerSize = plain ? sizeof(wire::MessageHeader) : sizeof(wire::FragmentHeader);
  const std::size_t size = headerSize + header.total;
  if (size > m_contentMax) {
    if (!HasRoom(header.total)) {
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

void DataSender::SendFragments(const wire::FragmentHeader& header, std::span<const iovec> pieces) {
  PieceCursor cursor(pieces);
  std::size_t left = header.total;
  while (left > 0) {
    m_parts.assign(1, PartOf(wire::BytesOf(header)));
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

bool DataSender::FlushWaiting() {
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
  while (!m_notices.empty()) {
    const auto first = m_notices.begin();
    if (!Tell(first->first, first->second)) {
      return false;
    }
    m_notices.erase(first);
  }
  return true;
}

// Tells all that the notice says, striking out what is told. False when there was no room for everything.
bool DataSender::Tell(std::uint32_t source, Notice& notice) {
  if (notice.subscribed) {
    if (!Put(wire::Type::kSubscribed, wire::Subscribed{source, notice.token, notice.nextSequence})) {
      return false;
    }
    notice.subscribed = false;
  }
  while (notice.lost > 0) {
    const auto count = static_cast<std::uint32_t>(std::min(notice.lost, kLossesToldMax));
    if (!Put(wire::Type::kLoss, wire::Loss{source, notice.firstLost, count})) {
      return false;
    }
    notice.firstLost += count;
    notice.lost -= count;
  }
  return !notice.withdrawn || Put(wire::Type::kWithdrawn, wire::Withdrawn{source});
}

template <typename T>
bool DataSender::Put(wire::Type type, const T& frame) {
  std::byte* const to = m_ring.Reserve(sizeof(frame), TagOf(type));
  if (to == nullptr) {
    return false;
  }
  Append(to, frame);
  Commit();
  return true;
}

void DataSender::Wake() {
  m_ring.OrderCommit();
  if (m_wakeWord.ToBeRung()) {
    m_link->SendSignal(wire::Type::kBell);
  }
}

// The ring may hold the beginning of a message whose rest will not come.
void DataSender::GiveUp(std::string_view fault) {
  m_dead = true;
  m_link->BreakOff(fault);
}

}  // namespace engine::transport::host
