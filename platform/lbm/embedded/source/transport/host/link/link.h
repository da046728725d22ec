// One connection between two contexts, for everything they tell each other beside the data frames in rings.
//
// Frames leave in the order in which they were given: once one has to wait for the socket, those after it wait behind
// it in the link's send queue. Responses are taken only while the queue is short (back-pressure); every other frame is
// always taken, up to a bound at which a peer that never reads is cut off. So is a peer for whose frame there is no
// memory. What the system has no resources for at the moment is sent when the retry timer has gone off.
//
// Threads: Receive and Close are for the thread inside Drain; everything else may be called on any thread.
#pragma once

#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "system/poller.h"
#include "transport/host/link/retry_timer.h"
#include "transport/host/link/send_queue.h"
#include "transport/host/wire/frames.h"
#include "transport/transport.h"
#include "zq/posix/descriptor.h"

namespace engine::transport::host {

// Which context is at the other end. A context is linked to itself by the two ends of one connection: it advertises its
// sources on the first and finds them on the second, as any other context would.
enum class LinkKind : std::uint8_t { kPeer, kSelfAdvertising, kSelfFinding };

class Link {
 public:
  // Takes over a connected socket, which is in the poller for input under the link's id. parkingWord: the descriptor
  // that SendParkingWord passes. Poller, timer and descriptor must stay until Close.
  Link(std::uint64_t id, LinkKind kind, zq::posix::Descriptor socket, Poller& poller, RetryTimer& retryTimer,
       int parkingWord);

  std::uint64_t Id() const noexcept { return m_id; }
  LinkKind Kind() const noexcept { return m_kind; }
  int GetDescriptor() const noexcept { return m_socket.Get(); }

  // Sends a frame that is no response, now or when the socket takes it.
  void SendControl(Bytes frame) noexcept;
  void SendSignal(wire::Type type) noexcept { SendControl(wire::BytesOf(wire::Signal{type})); }

  // Passes this context's parking word to the peer. Idempotent.
  void SendParkingWord() noexcept;
  // Passes the memory of the ring for sources of that pacing to the peer, which will consume from it. Once.
  void SendRing(Pacing pacing, zq::posix::Descriptor memory) noexcept;

  // Takes a response unless too much is waiting already. Throws std::bad_alloc.
  bool TrySendResponse(const wire::ResponseHeader& header, std::span<const iovec> pieces);

  // Sends what is waiting, as far as the socket takes it. True when nothing is left.
  bool Flush();

  // The error with which the system refused to send what is waiting; 0 when it did not. Flush tries again.
  int Shortage() const noexcept { return m_shortage; }

  // Waits until the socket is writable, a few milliseconds at most.
  void WaitWritable() const;

  // Looks whether the peer has hung up; Broken() tells from then on.
  void CheckHangUp();

  // Cuts the peer off, for the reason that AbortReason() tells. The thread inside Drain finds the link hung up.
  void Abort(std::string_view reason) noexcept;

  // Whether the peer is out of reach. What it had sent may still be there to receive.
  bool Broken() const;

  enum class Received : std::uint8_t { kFrame, kNothing, kHangUp };
  struct Arrival {
    Received what = Received::kNothing;
    Bytes frame;                       // in the buffer
    zq::posix::Descriptor descriptor;  // that came with the frame
  };
  // Receives one frame without waiting. Throws Fault.
  Arrival Receive(std::span<std::byte> buffer);

  // Hangs up for good.
  void Close();

  // Why this side cut the peer off; empty when it did not.
  std::string AbortReason() const;

 private:
  void Send(std::span<const iovec> parts) noexcept;
  zq::posix::Descriptor* RingOf(wire::Type type) noexcept;
  bool Transmit(std::span<const iovec> parts);
  bool FlushQueue();
  bool TakesResponse(std::size_t bytes);
  void CutOff(std::string_view reason) noexcept;
  void WatchWritable(bool on);

  const std::uint64_t m_id;
  const LinkKind m_kind;
  const zq::posix::Descriptor m_socket;
  Poller& m_poller;
  RetryTimer& m_retryTimer;
  const int m_parkingWord;
  bool m_resetSeen = false;  // for the thread inside Drain
  std::atomic<int> m_shortage{0};

  mutable std::mutex m_mutex;
  // Guarded by m_mutex, which all private functions expect to be locked:
  SendQueue m_queue;
  std::size_t m_queueMax;                               // bytes; beyond them the peer is cut off
  std::vector<iovec> m_parts;                           // of the frame being put together
  std::array<zq::posix::Descriptor, kPacings> m_rings;  // until they are passed
  bool m_parkingWordSent = false;
  bool m_watchingWritable = false;
  bool m_broken = false;
  std::string m_abortReason;
};

}  // namespace engine::transport::host
