// One connection between two contexts: what they tell each other beside messages, which go through rings.
//
// Frames leave in the order in which they were given: once one has to wait for the socket, those after it wait behind
// it in the link's queue. Responses are taken only while the queue has room; everything else is taken always, up to a
// bound at which a peer that never reads is cut off.
//
// Threads: receive() and End() are for the thread inside drain(); all else may be called on any thread.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "transport/host/frame_queue.h"
#include "transport/host/wire.h"
#include "zq/posix/descriptor.h"

namespace engine::transport::host {

// Where the peer is. A context is linked to itself by two links, the ends of one connection: it announces its sources
// on the first and finds them on the second, like any other context would.
enum class LinkKind : std::uint8_t { kPeer, kSelfAnnouncing, kSelfFinding };

class Link {
 public:
  // Takes over a connected socket. poller is the epoll descriptor in which the socket is registered for input under the
  // link's id, wakeWord the descriptor that passWakeWord() passes; both stay open until End().
  Link(std::uint64_t id, LinkKind kind, zq::posix::Descriptor socket, int poller, int wakeWord);

  std::uint64_t Id() const noexcept { return m_id; }
  LinkKind Kind() const noexcept { return m_kind; }
  int GetDescriptor() const noexcept { return m_socket.Get(); }

  // Takes a frame that is not a response.
  void SendControl(wire::Bytes frame);
  void SendSignal(wire::Type type) { SendControl(wire::BytesOf(wire::Signal{type})); }

  // Lets the peer see when this context sleeps. Idempotent.
  void PassWakeWord();
  // Lets the peer read the ring. Once.
  void PassRing(zq::posix::Descriptor memory);

  // Takes a response if there is room for it.
  bool SendResponse(const wire::ResponseHeader& header, std::span<const iovec> pieces);

  // Sends what is waiting, as far as the socket takes it. True when nothing is left.
  bool Flush();

  // Waits a moment for the socket to take more.
  void AwaitWritable() const;

  // Looks whether the peer has hung up; broken() tells from then on.
  void LookForHangUp();

  // Gives up on the peer, for the reason told by fault(). The thread inside drain() will find the link hung up.
  void BreakOff(std::string_view fault) noexcept;

  // Whether the peer is out of reach. What it had sent may still be there to receive.
  bool Broken() const;

  enum class Received : std::uint8_t { kFrame, kNothing, kHangUp };
  struct Arrival {
    Received what = Received::kNothing;
    wire::Bytes frame;                 // in the buffer
    zq::posix::Descriptor descriptor;  // that came with the frame
  };
  // Takes in one frame.
  Arrival Receive(std::span<std::byte> buffer);

  // Hangs up.
  void End();

  // Why this side broke the link; empty when it did not.
  std::string FaultText() const;

 private:
  void Take(std::span<const iovec> parts);
  bool Transmit(std::span<const iovec> parts);
  bool FlushQueue();
  bool RoomFor(std::size_t bytes);
  void CutOff(std::string_view fault) noexcept;
  void WatchWritable(bool on);

  const std::uint64_t m_id;
  const LinkKind m_kind;
  const zq::posix::Descriptor m_socket;
  const int m_poller;
  const int m_wakeWord;
  bool m_resetSeen = false;  // for the thread inside drain()

  mutable std::mutex m_mutex;
  // Guarded by m_mutex, as are all private functions:
  FrameQueue m_queue;
  std::size_t m_queueMax;        // more than this, and the peer is cut off
  std::vector<iovec> m_parts;    // of the frame being put together
  zq::posix::Descriptor m_ring;  // until it is passed
  bool m_wakeWordPassed = false;
  bool m_watchingWritable = false;
  bool m_broken = false;
  std::string m_fault;
};

}  // namespace engine::transport::host
