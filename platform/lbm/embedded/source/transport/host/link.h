// One connection between two contexts.
//
// Frames leave in the order in which they were given: once one has to wait for the socket, those after it wait behind
// it in the link's queue. Messages are taken only while the queue has room; everything else is taken always, up to a
// bound at which a peer that never reads is cut off.
//
// Threads: receive() and end() are for the thread inside drain(); all else may be called on any thread.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
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
  // Takes over a connected socket. poller is the epoll descriptor in which the link will be registered under its id.
  Link(std::uint64_t id, LinkKind kind, Descriptor socket, int poller, std::size_t bufferBytes);

  std::uint64_t id() const noexcept { return m_id; }
  LinkKind kind() const noexcept { return m_kind; }
  int descriptor() const noexcept { return m_socket.get(); }

  // Takes a frame that is not part of a message.
  void sendControl(wire::Bytes frame);

  // Whether a message of so many bytes would be taken.
  bool hasRoom(std::size_t bytes);

  // Takes a message whether or not there is room.
  void sendMessage(const wire::DataHeader& header, std::span<const iovec> pieces);

  // Takes a message if there is room. If not, the peer will be told of the loss before anything else is taken.
  void sendMessageOrDrop(const wire::DataHeader& header, std::span<const iovec> pieces);

  // Notes a publication to be named by takeIdle(). False, noting nothing, when no frame is waiting.
  bool notifyWhenIdle(std::uint32_t publication);

  // Sends what is waiting, as far as the socket takes it. True when nothing is left.
  bool flush();

  // When no frame is waiting: ends the interest in a writable socket and names the publications to be told.
  std::vector<std::uint32_t> takeIdle();

  // Waits a moment for the socket to take more.
  void awaitWritable() const;

  // Whether the peer is out of reach. What it had sent may still be there to receive.
  bool broken() const;

  enum class Received : std::uint8_t { frame, nothing, hangUp };
  struct Arrival {
    Received what = Received::nothing;
    wire::Bytes frame;  // in the buffer
  };
  // Takes in one frame.
  Arrival receive(std::span<std::byte> buffer);

  // Hangs up. Returns the publications that waited for room.
  std::vector<std::uint32_t> end();

  // Why this side broke the link; empty when it did not.
  std::string fault() const;

 private:
  struct LostRun {
    std::uint32_t first = 0;
    std::uint32_t count = 0;
  };

  void take(std::span<const iovec> parts);
  void takeMessage(const wire::DataHeader& header, std::span<const iovec> pieces);
  bool transmit(std::span<const iovec> parts);
  bool flushQueue();
  bool roomFor(std::size_t bytes);
  void reportLosses();
  void breakOff(std::string fault);
  void watchWritable(bool on);

  const std::uint64_t m_id;
  const LinkKind m_kind;
  const Descriptor m_socket;
  const int m_poller;
  const std::size_t m_bufferBytes;
  bool m_resetSeen = false;  // for the thread inside drain()

  mutable std::mutex m_mutex;
  // Guarded by m_mutex, as are all private functions:
  FrameQueue m_queue;
  std::size_t m_queueMax;                               // more than this, and the peer is cut off
  std::unordered_map<std::uint32_t, LostRun> m_losses;  // by source; not yet told
  std::vector<std::uint32_t> m_waiting;
  std::vector<iovec> m_parts;  // of the frame being put together
  bool m_watchingWritable = false;
  bool m_broken = false;
  std::string m_fault;
};

// Bytes of a message. Throws std::runtime_error when they are too many to be sent.
std::size_t messageSize(std::span<const iovec> pieces);

}  // namespace engine::transport::host
