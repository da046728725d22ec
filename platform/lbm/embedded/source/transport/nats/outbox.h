// What is on its way out: messages of all sources and to other contexts, in one order.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "statistics/context_statistics.h"
#include "transport/nats/connection.h"
#include "zq/posix/event.h"

namespace engine::transport::nats {

// An idle connection is written to at once, by the thread that has something to send. While messages follow each other
// closely, or the connection is being written to, they gather here in parcels, which the keeper sends. A parcel is one
// NATS message.
//
// Threads: any. The lock also guards what the publications have to say; it is never held over a call of the client
// library.
class Outbox {
 public:
  using Lock = std::unique_lock<std::mutex>;

  struct Parcel {
    std::shared_ptr<const std::string> subject;
    std::vector<std::byte> bytes;
    Parcel** open = nullptr;  // where somebody keeps it in mind, to add to it; null: nobody may
  };

  // Bytes of small messages that travel together.
  static constexpr std::size_t kParcelBytes = std::size_t{32} << 10;

  // keeper is notified when WriteAll has to be called. bytesMax: of what has not been written. statistics: of the kind
  // network.
  Outbox(std::size_t bytesMax, zq::posix::Event& keeper, zq::statistics::Row& statistics);

  Lock Acquire() { return Lock(m_mutex); }

  // With the lock:
  const zq::statistics::Cells& Counters() const noexcept { return m_counters; }
  bool Closed() const noexcept { return m_closed; }
  bool Connected() const noexcept { return m_connection != nullptr; }
  std::size_t MaxPayload() const noexcept { return m_maxPayload; }
  bool HasRoom(std::size_t size) const noexcept {
    const std::size_t unsent = m_queuedBytes + m_writingBytes;
    return unsent == 0 || unsent + size <= m_bytesMax;
  }
  // A new parcel at the end, at *open. More may be added to it until it is taken; then *open is null again.
  Parcel& Open(const std::shared_ptr<const std::string>& subject, Parcel** open);
  // A parcel of its own.
  void Put(std::string subject, std::vector<std::byte> bytes);
  // The same for what is said again and again: allocates nothing once it has been said.
  void Put(std::shared_ptr<const std::string> subject, Bytes note);
  void Grew(std::size_t size) noexcept { m_queuedBytes += size; }
  static void Seal(Parcel& parcel) noexcept;
  // Waits until there may be room or credit, briefly.
  bool AwaitRoom(Lock& lock) { return m_room.wait_for(lock, kRoomPatience) == std::cv_status::no_timeout; }
  void NoteRoom() { m_room.notify_all(); }

  // Without the lock: so that the sending of a new source's small messages need not allocate.
  void Prepare();

  // Sees to it that what was added goes out. Releases the lock.
  void Send(Lock lock);
  void Send() { Send(Acquire()); }

  // For the keeper: sends all that the socket takes. False when more has to wait until the socket takes it.
  bool WriteAll();

  // What waits is lost with a connection: only what comes after may go out on the next one. Null: there is none. Nobody
  // writes to the last one any more when it returns.
  void SetConnection(std::shared_ptr<Connection> connection);
  bool Empty();

  // From now on nothing more may be sent but what announces the end.
  void Close();

 private:
  // Messages that follow one sent at once within this time gather.
  static constexpr std::chrono::microseconds kBurstGap{20};
  static constexpr std::chrono::milliseconds kRoomPatience{1};
  static constexpr std::size_t kTakenMax = std::size_t{256} << 10;  // bytes taken to be written at a time
  static constexpr std::size_t kPrepared = 2;                       // one parcel fills while another is written
  static constexpr std::size_t kSpareMax = 16;
  static constexpr std::size_t kSpareBytesMax = std::size_t{64} << 10;
  static constexpr std::size_t kSpareNotesMax = 4;
  static constexpr std::size_t kSpareNoteBytesMax = std::size_t{1} << 10;

  bool Write(Lock& lock);
  void Recycle();
  static std::unique_ptr<Parcel> Blank();

  const std::size_t m_bytesMax;
  zq::posix::Event& m_keeper;
  std::condition_variable m_room;
  const zq::statistics::Cells m_counters;

  std::mutex m_mutex;
  // Guarded by m_mutex:
  std::shared_ptr<Connection> m_connection;
  std::size_t m_maxPayload = std::size_t{1} << 20;
  std::vector<std::unique_ptr<Parcel>> m_queue;
  std::size_t m_next = 0;                        // of m_queue, to be taken
  std::vector<std::unique_ptr<Parcel>> m_spare;  // as large as Blank makes them, or larger
  std::vector<std::unique_ptr<Parcel>> m_spareNotes;
  std::size_t m_queuedBytes = 0;
  std::size_t m_writingBytes = 0;  // taken, and not yet in the socket
  bool m_writing = false;          // by some thread
  bool m_blocked = false;          // the socket takes no more
  bool m_keeperCalled = false;
  bool m_closed = false;
  std::chrono::steady_clock::time_point m_lastWrite;

  std::vector<std::unique_ptr<Parcel>> m_taken;  // by the thread that is writing
};

}  // namespace engine::transport::nats
