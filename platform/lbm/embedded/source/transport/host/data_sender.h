// The publisher's end of the ring to one peer: whatever has to arrive in the order of the messages goes through here.
//
// What the ring has no room for is one of two. The rest of a message that is larger than the ring waits as it is. Of
// everything else only what it comes to is kept, by source: that a subscription was taken, how many messages were
// dropped, that the source was withdrawn. While anything waits no message is taken.
//
// Threads: those that hold the registry's publishing lock (see publications.h), but for awaitRoom().
#pragma once

#include <sys/uio.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "transport/host/frame_queue.h"
#include "transport/host/link.h"
#include "transport/host/ring.h"
#include "transport/host/ring_memory.h"
#include "transport/host/wake_word.h"
#include "transport/host/wire.h"

namespace engine::transport::host {

class DataSender {
 public:
  DataSender(std::shared_ptr<Link> link, RingMemory memory, RemoteWakeWord wakeWord);

  const std::shared_ptr<Link>& GetLink() const noexcept { return m_link; }

  // Whether a message of so many bytes would be taken. Also true when the peer is out of reach and takes nothing.
  bool HasRoom(std::size_t bytes);
  // The same if it can be said without looking; false otherwise.
  bool KnowsOfRoom(std::size_t bytes) const noexcept {
    const std::size_t inOneFrame = bytes + sizeof(wire::FragmentHeader);
    return inOneFrame <= m_contentMax && NothingWaits() && m_ring.KnowsOfRoom(inOneFrame);
  }

  // Takes a message if there is room. If not, the peer will be told of the loss before anything else is taken.
  void SendOrDrop(const wire::FragmentHeader& header, std::span<const iovec> pieces);

  // The source's messages follow, from the sequence number on.
  void Subscribed(std::uint32_t source, std::uint32_t token, std::uint32_t nextSequence);
  // No message of the source follows.
  void Withdrawn(std::uint32_t source);
  // Nothing of the source needs to be told any more.
  void Unsubscribed(std::uint32_t source);

  // Asks to be told of room. Returns what awaitRoom() takes; look for room between the two.
  std::uint32_t WantRoom();
  // Waits a moment until the peer has told of room since, or has gone. Threads: any.
  void AwaitRoom(std::uint32_t told);

  // Notes a publication to be named by takeWaiting().
  void NotifyOfRoom(std::uint32_t publication) { m_publications.push_back(publication); }
  std::vector<std::uint32_t> TakeWaiting() { return std::exchange(m_publications, {}); }

  // Looks whether the peer is still there.
  bool WithinReach();

  // Gives what waits to the ring, as far as there is room. True when nothing is left.
  bool Flush();

 private:
  // What is to be told of a source, in this order.
  struct Notice {
    bool subscribed = false;
    std::uint32_t token = 0;
    std::uint32_t nextSequence = 0;
    std::uint32_t firstLost = 0;
    std::uint64_t lost = 0;  // messages
    bool withdrawn = false;
  };

  bool NothingWaits() const noexcept { return m_rest.Empty() && m_notices.empty(); }
  bool SendNow(const wire::FragmentHeader& header, std::span<const iovec> pieces);
  void SendFragments(const wire::FragmentHeader& header, std::span<const iovec> pieces);
  bool FlushWaiting();
  bool Tell(std::uint32_t source, Notice& notice);
  template <typename T>
  bool Put(wire::Type type, const T& frame);
  void Commit() {
    m_ring.Commit();
    if (!m_wakeWord.Busy()) {
      Wake();
    }
  }
  void Wake();
  void GiveUp(std::string_view fault);

  const std::shared_ptr<Link> m_link;
  const RingMemory m_memory;
  RingWriter<RingCounter> m_ring;
  RemoteWakeWord m_wakeWord;
  const std::size_t m_contentMax;  // bytes of a frame
  std::atomic<bool> m_dead{false};
  FrameQueue m_rest;  // of a message larger than the ring
  std::unordered_map<std::uint32_t, Notice> m_notices;
  std::vector<std::uint32_t> m_publications;  // that wait for room
  std::vector<iovec> m_parts;                 // of the frame being put together
};

}  // namespace engine::transport::host
