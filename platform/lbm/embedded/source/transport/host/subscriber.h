// A context that subscribes to sources of this one, seen from here: the producer's end of a ring to it. Whatever has to
// arrive in the order of a source's messages goes through this ring. There is one for the sources of each pacing, so
// that those that wait for space do not take the space of those that cannot.
//
// What the ring has no space for is kept in one of two forms. The rest of a message that is larger than the ring waits
// as it is. Of everything else only the outcome is kept, a report for each source: that a subscription was accepted,
// how many messages were dropped, that the source was withdrawn. While anything is pending no message is taken.
//
// Threads: whoever holds the registry's publishing mutex (see publications.h), except for WaitForCredit.
#pragma once

#include <sys/uio.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "statistics/context_statistics.h"
#include "transport/host/link/link.h"
#include "transport/host/link/send_queue.h"
#include "transport/host/ring/parking_word.h"
#include "transport/host/ring/ring.h"
#include "transport/host/ring/ring_memory.h"
#include "transport/host/sampler.h"
#include "transport/host/wire/frames.h"

namespace engine::transport::host {

// What is counted of a peer, in all rings to it. Threads: those of its subscribers.
class PeerStatistics {
 public:
  // label: of the peer.
  PeerStatistics(std::shared_ptr<ContextStatistics> context, std::string_view label)
      : m_context(std::move(context)), m_row(m_context->PeerRow(label)), m_counters(m_row.Serial()) {}

  void NoteRing(std::size_t bytes) { m_row.Add(peer_field::kRingBytes, bytes); }
  // Bytes in use of a ring.
  void NoteUse(std::size_t bytes) noexcept {
    if (bytes > m_highWater) {
      m_highWater = bytes;
      m_row.Set(peer_field::kRingHighWater, static_cast<std::int64_t>(bytes));
    }
  }
  void NoteWait() noexcept { AddWithContext(peer_field::kWaitsForRoom, context_field::kWaitsForRoom); }
  void NoteDrop() noexcept { AddWithContext(peer_field::kDropped, context_field::kDropped); }
  const zq::statistics::Cells& Counters() const noexcept { return m_counters; }

 private:
  void AddWithContext(std::size_t field, std::size_t ofContext) noexcept {
    m_counters.Add(field);
    m_context->Counters().Add(ofContext);
  }

  const std::shared_ptr<ContextStatistics> m_context;
  zq::statistics::Row m_row;
  const zq::statistics::Cells m_counters;  // of the row
  std::size_t m_highWater = 0;
};

class Subscriber {
 public:
  // identity: of the peer, see Transport::Identity. parkingWord and statistics: what the subscribers of a peer share.
  Subscriber(std::shared_ptr<Link> link, std::string identity, RingMemory memory,
             std::shared_ptr<PeerParkingWord> parkingWord, Sampler& sampler,
             std::shared_ptr<PeerStatistics> statistics);

  const std::shared_ptr<Link>& GetLink() const noexcept { return m_link; }
  const std::string& Identity() const noexcept { return m_identity; }

  // Whether a message of so many bytes would be taken. Also true when the peer is gone and nothing is sent to it.
  bool HasSpace(std::size_t bytes);
  // As HasSpace, by what is known here alone: false when that does not tell.
  bool HasSpaceCached(std::size_t bytes) const noexcept {
    const std::size_t inOneFrame = bytes + sizeof(wire::FragmentHeader);
    return inOneFrame <= m_contentMax && NothingPending() && m_ring.HasSpaceCached(inOneFrame);
  }

  // Sends a message if there is space; otherwise the loss will be reported before anything else is sent.
  void SendOrDrop(const wire::FragmentHeader& header, std::span<const iovec> pieces);

  // Counts a message that has to wait for space, or is refused for want of it.
  void NoteWait() noexcept;

  // The source's messages follow, from that sequence number on.
  void Accept(std::uint32_t source, std::uint32_t token, std::uint32_t nextSequence);
  // No message of the source follows.
  void Withdraw(std::uint32_t source) noexcept;
  // Drops the pending report of the source.
  void Forget(std::uint32_t source);

  // Requests credit. Returns what WaitForCredit takes; look for space between the two.
  std::uint32_t RequestCredit();
  // Waits until the peer has granted credit since or has gone, a few milliseconds at most. Threads: any.
  void WaitForCredit(std::uint32_t granted);

  // The publications that wait for space here.
  void AddBlocked(std::uint32_t publication) { m_blocked.push_back(publication); }
  std::vector<std::uint32_t> TakeBlocked() { return std::exchange(m_blocked, {}); }

  // Looks whether the peer is still there.
  bool CheckReachable();

  // Moves what is pending into the ring, as far as there is space. True when nothing is left.
  bool Flush() noexcept;

 private:
  // What is to be reported of a source, in this order.
  struct Report {
    bool accepted = false;
    std::uint32_t token = 0;
    std::uint32_t nextSequence = 0;
    std::uint32_t firstLost = 0;
    std::uint64_t lost = 0;  // messages
    bool withdrawn = false;
  };

  bool NothingPending() const noexcept { return m_rest.Empty() && m_reports.empty(); }
  bool TrySend(const wire::FragmentHeader& header, std::span<const iovec> pieces);
  void NoteUse() noexcept { m_statistics->NoteUse(m_ring.UsedCached()); }
  void SendFragments(const wire::FragmentHeader& header, std::span<const iovec> pieces);
  bool FlushPending();
  bool SendReport(std::uint32_t source, Report& report);
  template <typename T>
  bool Put(wire::Type type, const T& frame);
  void Commit() {
    m_ring.Commit();
    if (!m_parkingWord->Busy()) {
      RingIfParked();
    }
  }
  void RingIfParked();
  void GiveUp(std::string_view reason) noexcept;

  const std::shared_ptr<Link> m_link;
  const std::string m_identity;  // of the peer
  const RingMemory m_memory;
  RingProducer<RingCursor> m_ring;
  const std::shared_ptr<PeerParkingWord> m_parkingWord;
  const std::size_t m_contentMax;  // bytes of a frame
  std::atomic<bool> m_gone{false};
  SendQueue m_rest;  // of a message larger than the ring
  std::unordered_map<std::uint32_t, Report> m_reports;
  std::vector<std::uint32_t> m_blocked;  // publications that wait for space
  std::vector<iovec> m_parts;            // of the frame being put together

  Sampler& m_sampler;
  const std::shared_ptr<PeerStatistics> m_statistics;
};

}  // namespace engine::transport::host
