// One connection between two contexts: what they tell each other beside messages, which go through rings.
//
// Frames leave in the order in which they were given: once one has to wait for the socket, those after it wait behind
// it in the link's queue. Responses are taken only while the queue has room; everything else is taken always, up to a
// bound at which a peer that never reads is cut off.
//
// Threads: receive() and end() are for the thread inside drain(); all else may be called on any thread.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "system/descriptor.h"
#include "transport/host/frame_queue.h"
#include "transport/host/wire.h"

namespace engine::transport::host {

// Where the peer is. A context is linked to itself by two links, the ends of one connection: it announces its sources
// on the first and finds them on the second, like any other context would.
enum class LinkKind : std::uint8_t { peer, selfAnnouncing, selfFinding };

class Link {
 public:
  // Takes over a connected socket. poller is the epoll descriptor in which the socket is registered for input under the
  // link's id, wakeWord the descriptor that passWakeWord() passes; both stay open until end().
  Link(std::uint64_t id, LinkKind kind, Descriptor socket, int poller, int wakeWord);

  std::uint64_t id() const noexcept { return m_id; }
  LinkKind kind() const noexcept { return m_kind; }
  int descriptor() const noexcept { return m_socket.get(); }

  // Takes a frame that is not a response.
  void sendControl(wire::Bytes frame);
  void sendSignal(wire::Type type) { sendControl(wire::bytesOf(wire::Signal{type})); }

  // Lets the peer see when this context sleeps. Idempotent.
  void passWakeWord();
  // Lets the peer read the ring. Once.
  void passRing(Descriptor memory);

  // Takes a response if there is room for it.
  bool sendResponse(const wire::ResponseHeader& header, std::span<const iovec> pieces);

  // Sends what is waiting, as far as the socket takes it. True when nothing is left.
  bool flush();

  // Waits a moment for the socket to take more.
  void awaitWritable() const;

  // Looks whether the peer has hung up; broken() tells from then on.
  void lookForHangUp();

  // Gives up on the peer, for the reason told by fault(). The thread inside drain() will find the link hung up.
  void breakOff(std::string_view fault) noexcept;

  // Whether the peer is out of reach. What it had sent may still be there to receive.
  bool broken() const;

  enum class Received : std::uint8_t { frame, nothing, hangUp };
  struct Arrival {
    Received what = Received::nothing;
    wire::Bytes frame;      // in the buffer
    Descriptor descriptor;  // that came with the frame
  };
  // Takes in one frame.
  Arrival receive(std::span<std::byte> buffer);

  // Hangs up.
  void end();

  // Why this side broke the link; empty when it did not.
  std::string fault() const;

 private:
  void take(std::span<const iovec> parts);
  bool transmit(std::span<const iovec> parts);
  bool flushQueue();
  bool roomFor(std::size_t bytes);
  void cutOff(std::string_view fault) noexcept;
  void watchWritable(bool on);

  const std::uint64_t m_id;
  const LinkKind m_kind;
  const Descriptor m_socket;
  const int m_poller;
  const int m_wakeWord;
  bool m_resetSeen = false;  // for the thread inside drain()

  mutable std::mutex m_mutex;
  // Guarded by m_mutex, as are all private functions:
  FrameQueue m_queue;
  std::size_t m_queueMax;      // more than this, and the peer is cut off
  std::vector<iovec> m_parts;  // of the frame being put together
  Descriptor m_ring;           // until it is passed
  bool m_wakeWordPassed = false;
  bool m_watchingWritable = false;
  bool m_broken = false;
  std::string m_fault;
};

}  // namespace engine::transport::host
