// A context that subscribes to sources of this one, seen from here: the producer's end of the ring to it. Whatever has
// to arrive in the order of the messages goes through this ring.
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

class Subscriber {
 public:
  // Whose end it is: Transport::Identity, and the label of its statistics.
  struct Peer {
    std::string identity;
    std::string_view label;
  };

  Subscriber(std::shared_ptr<Link> link, RingMemory memory, PeerParkingWord parkingWord, Sampler& sampler,
             std::shared_ptr<ContextStatistics> statistics, Peer peer);

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
  void NoteUse() noexcept;
  void SendFragments(const wire::FragmentHeader& header, std::span<const iovec> pieces);
  bool FlushPending();
  bool SendReport(std::uint32_t source, Report& report);
  template <typename T>
  bool Put(wire::Type type, const T& frame);
  void Commit() {
    m_ring.Commit();
    if (!m_parkingWord.Busy()) {
      RingIfParked();
    }
  }
  void RingIfParked();
  void GiveUp(std::string_view reason) noexcept;

  const std::shared_ptr<Link> m_link;
  const std::string m_identity;  // of the peer
  const RingMemory m_memory;
  RingProducer<RingCursor> m_ring;
  PeerParkingWord m_parkingWord;
  const std::size_t m_contentMax;  // bytes of a frame
  std::atomic<bool> m_gone{false};
  SendQueue m_rest;  // of a message larger than the ring
  std::unordered_map<std::uint32_t, Report> m_reports;
  std::vector<std::uint32_t> m_blocked;  // publications that wait for space
  std::vector<iovec> m_parts;            // of the frame being put together

  Sampler& m_sampler;
  const std::shared_ptr<ContextStatistics> m_contextStatistics;
  zq::statistics::Row m_statistics;        // of the peer
  const zq::statistics::Cells m_counters;  // of that row
  std::size_t m_highWater = 0;
};

}  // namespace engine::transport::host
