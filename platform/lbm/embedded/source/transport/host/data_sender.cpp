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

constexpr std::uint32_t tagOf(wire::Type type) { return static_cast<std::uint32_t>(type); }

iovec partOf(wire::Bytes bytes) {
  // The structure serves both directions, hence no const.
  return {const_cast<std::byte*>(bytes.data()), bytes.size()};
}

template <typename T>
std::byte* append(std::byte* to, const T& value) {
  std::memcpy(to, &value, sizeof(value));
  return to + sizeof(value);
}

}  // namespace

DataSender::DataSender(std::shared_ptr<Link> link, RingMemory memory, RemoteWakeWord wakeWord)
    : m_link(std::move(link)),
      m_memory(std::move(memory)),
      m_ring(m_memory.control(), m_memory.bytes()),
      m_wakeWord(std::move(wakeWord)),
      m_contentMax(m_ring.capacity() / 8 - sizeof(RingFrameHeader)) {}

bool DataSender::hasRoom(std::size_t bytes) {
  if (m_dead) {
    return true;
  }
  try {
    if (!flushWaiting()) {
      return false;
    }
    const std::size_t inOneFrame = bytes + sizeof(wire::FragmentHeader);
    if (inOneFrame <= m_contentMax) {
      return m_ring.hasRoom(inOneFrame);
    }
    // Half of the ring is what a peer tells of; what does not fit there may wait.
    return m_ring.room() >= std::min(bytes + m_ring.capacity() / 4, m_ring.capacity() / 2);
  } catch (const std::exception& error) {
    giveUp(textOf(error));
    return true;
  }
}

void DataSender::sendOrDrop(const wire::FragmentHeader& header, std::span<const iovec> pieces) {
  if (m_dead) {
    return;
  }
  try {
    if (!(nothingWaits() || flushWaiting()) || !sendNow(header, pieces)) {
      Notice& notice = m_notices[header.source];
      if (notice.lost++ == 0) {
        notice.firstLost = header.sequence;
      }
      // It may have made room meanwhile, which it would not tell of.
      m_ring.wantRoom();
      flushWaiting();
    }
  } catch (const std::exception& error) {
    giveUp(textOf(error));
  }
}

void DataSender::subscribed(std::uint32_t source, std::uint32_t token, std::uint32_t nextSequence) {
  Notice& notice = m_notices[source];
  notice = {};
  notice.subscribed = true;
  notice.token = token;
  notice.nextSequence = nextSequence;
  flush();
}

void DataSender::withdrawn(std::uint32_t source) {
  m_notices[source].withdrawn = true;
  flush();
}

void DataSender::unsubscribed(std::uint32_t source) { m_notices.erase(source); }

std::uint32_t DataSender::wantRoom() { return m_ring.wantRoom(); }

void DataSender::awaitRoom(std::uint32_t told) {
  std::atomic<std::uint32_t>& word = m_memory.control().roomTold;
  ::syscall(SYS_futex, &word, FUTEX_WAIT, told, &kLookAgain, nullptr, 0);
  withinReach();
}

bool DataSender::withinReach() {
  m_link->lookForHangUp();
  if (m_link->broken()) {
    m_dead = true;
  }
  return !m_dead;
}

bool DataSender::flush() {
  if (m_dead) {
    return true;
  }
  try {
    if (flushWaiting()) {
      return true;
    }
    m_ring.wantRoom();
    return flushWaiting();
  } catch (const std::exception& error) {
    giveUp(textOf(error));
    return true;
  }
}

// Gives the message to the ring, as far as there is room in the case of a large one. False when there is none.
bool DataSender::sendNow(const wire::FragmentHeader& header, std::span<const iovec> pieces) {
  const bool plain = header.flags == 0 && header.request == 0;
  const std::size_t headerSize = plain ? sizeof(wire::MessageHeader) : sizeof(wire::FragmentHeader);
  const std::size_t size = headerSize + header.total;
  if (size > m_contentMax) {
    if (!hasRoom(header.total)) {
      return false;
    }
    sendFragments(header, pieces);
    return true;
  }
  std::byte* to = m_ring.reserve(size, tagOf(plain ? wire::Type::message : wire::Type::fragment));
  if (to == nullptr) {
    return false;
  }
  to = plain ? append(to, wire::MessageHeader{header.source, header.sequence}) : append(to, header);
  copyPieces(pieces, to);
  commit();
  return true;
}

void DataSender::sendFragments(const wire::FragmentHeader& header, std::span<const iovec> pieces) {
  PieceCursor cursor(pieces);
  std::size_t left = header.total;
  while (left > 0) {
    m_parts.assign(1, partOf(wire::bytesOf(header)));
    const std::size_t size =
        cursor.take(std::min(left, m_contentMax - sizeof(header)), std::numeric_limits<std::size_t>::max(), m_parts);
    left -= size;
    std::byte* const to = m_rest.empty() ? m_ring.reserve(sizeof(header) + size, tagOf(wire::Type::fragment)) : nullptr;
    if (to != nullptr) {
      copyPieces(m_parts, to);
      commit();
    } else {
      m_rest.push(m_parts);
    }
  }
  flush();
}

bool DataSender::flushWaiting() {
  while (!m_rest.empty()) {
    const std::span<const std::byte> frame = m_rest.front();
    std::byte* const to = m_ring.reserve(frame.size(), tagOf(wire::Type::fragment));
    if (to == nullptr) {
      return false;
    }
    std::memcpy(to, frame.data(), frame.size());
    commit();
    m_rest.pop();
  }
  while (!m_notices.empty()) {
    const auto first = m_notices.begin();
    if (!tell(first->first, first->second)) {
      return false;
    }
    m_notices.erase(first);
  }
  return true;
}

// Tells all that the notice says, striking out what is told. False when there was no room for everything.
bool DataSender::tell(std::uint32_t source, Notice& notice) {
  if (notice.subscribed) {
    if (!put(wire::Type::subscribed, wire::Subscribed{source, notice.token, notice.nextSequence})) {
      return false;
    }
    notice.subscribed = false;
  }
  while (notice.lost > 0) {
    const auto count = static_cast<std::uint32_t>(std::min(notice.lost, kLossesToldMax));
    if (!put(wire::Type::loss, wire::Loss{source, notice.firstLost, count})) {
      return false;
    }
    notice.firstLost += count;
    notice.lost -= count;
  }
  return !notice.withdrawn || put(wire::Type::withdrawn, wire::Withdrawn{source});
}

template <typename T>
bool DataSender::put(wire::Type type, const T& frame) {
  std::byte* const to = m_ring.reserve(sizeof(frame), tagOf(type));
  if (to == nullptr) {
    return false;
  }
  append(to, frame);
  commit();
  return true;
}

void DataSender::wake() {
  m_ring.orderCommit();
  if (m_wakeWord.toBeRung()) {
    m_link->sendSignal(wire::Type::bell);
  }
}

// The ring may hold the beginning of a message whose rest will not come.
void DataSender::giveUp(std::string_view fault) {
  m_dead = true;
  m_link->breakOff(fault);
}

}  // namespace engine::transport::host
