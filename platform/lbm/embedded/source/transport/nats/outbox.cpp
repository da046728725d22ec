#include "transport/nats/outbox.h"

#include <utility>

namespace engine::transport::nats {

Outbox::Outbox(std::size_t bytesMax, zq::posix::Event& keeper, zq::statistics::Row& statistics)
    : m_bytesMax(bytesMax), m_keeper(keeper), m_counters(statistics.Serial()) {
  m_queue.reserve(kSpareMax);
  m_taken.reserve(kSpareMax);
  m_spare.reserve(kSpareMax);
  m_spareNotes.reserve(kSpareNotesMax);
}

void Outbox::Prepare() {
  const Lock lock = Acquire();
  while (m_spare.size() < kPrepared) {
    m_spare.push_back(Blank());
  }
}

std::unique_ptr<Outbox::Parcel> Outbox::Blank() {
  auto parcel = std::make_unique<Parcel>();
  parcel->bytes.reserve(kParcelBytes);
  return parcel;
}

Outbox::Parcel& Outbox::Open(const std::shared_ptr<const std::string>& subject, Parcel** open) {
  if (m_spare.empty()) {
    m_spare.push_back(Blank());
  }
  m_queue.push_back(std::move(m_spare.back()));
  m_spare.pop_back();
  Parcel& parcel = *m_queue.back();
  parcel.subject = subject;
  parcel.open = open;
  *open = &parcel;
  return parcel;
}

void Outbox::Put(std::string subject, std::vector<std::byte> bytes) {
  if (!Connected()) {
    return;  // everything is said anew to the next connection
  }
  auto parcel = std::make_unique<Parcel>();
  parcel->subject = std::make_shared<const std::string>(std::move(subject));
  parcel->bytes = std::move(bytes);
  m_queue.push_back(std::move(parcel));
  Grew(m_queue.back()->bytes.size());
}

void Outbox::Put(std::shared_ptr<const std::string> subject, Bytes note) {
  if (!Connected()) {
    return;
  }
  if (m_spareNotes.empty()) {
    m_spareNotes.push_back(std::make_unique<Parcel>());
  }
  m_queue.push_back(std::move(m_spareNotes.back()));
  m_spareNotes.pop_back();
  Parcel& parcel = *m_queue.back();
  parcel.subject = std::move(subject);
  parcel.bytes.assign(note.begin(), note.end());
  Grew(note.size());
}

void Outbox::Seal(Parcel& parcel) noexcept {
  if (parcel.open != nullptr) {
    *std::exchange(parcel.open, nullptr) = nullptr;
  }
}

void Outbox::Send(Lock lock) {
  if (m_writing || m_blocked || m_keeperCalled || !Connected()) {
    return;  // somebody will see to it
  }
  if (std::chrono::steady_clock::now() - m_lastWrite >= kBurstGap) {
    if (Write(lock) && m_next == m_queue.size() && !m_connection->WantsFlush()) {
      return;
    }
  }
  m_keeperCalled = true;
  lock.unlock();
  m_keeper.Notify();
}

bool Outbox::WriteAll() {
  Lock lock = Acquire();
  m_keeperCalled = false;
  while (!m_writing && Connected() && (m_next < m_queue.size() || m_connection->WantsFlush())) {
    if (!Write(lock)) {
      return false;
    }
  }
  return !m_blocked;
}

// Takes some of the queue and writes it, without the lock.
bool Outbox::Write(Lock& lock) {
  std::size_t bytes = 0;
  while (!m_blocked && m_next < m_queue.size() && bytes < kTakenMax) {
    Seal(*m_queue[m_next]);
    bytes += m_queue[m_next]->bytes.size();
    m_taken.push_back(std::move(m_queue[m_next++]));
  }
  if (m_next == m_queue.size()) {
    m_queue.clear();
    m_next = 0;
  }
  m_queuedBytes -= bytes;
  m_writingBytes += bytes;
  m_writing = true;  // so m_connection stays as it is
  Connection& connection = *m_connection;
  lock.unlock();
  for (const auto& parcel : m_taken) {
    static_cast<void>(connection.Send(*parcel->subject, parcel->bytes));
  }
  const bool flushed = connection.Flush();
  lock.lock();
  m_counters.Add(network_field::kBatches, m_taken.size());
  m_counters.Add(network_field::kBatchBytes, bytes);
  Recycle();
  m_writing = false;
  m_lastWrite = std::chrono::steady_clock::now();
  m_blocked = !flushed;
  if (flushed) {
    m_writingBytes = 0;
  }
  NoteRoom();
  return flushed;
}

void Outbox::Recycle() {
  for (auto& parcel : m_taken) {
    const std::size_t capacity = parcel->bytes.capacity();
    if (m_spare.size() < kSpareMax && capacity >= kParcelBytes && capacity <= kSpareBytesMax) {
      parcel->bytes.clear();
      m_spare.push_back(std::move(parcel));
    } else if (m_spareNotes.size() < kSpareNotesMax && capacity <= kSpareNoteBytesMax) {
      m_spareNotes.push_back(std::move(parcel));
    }
  }
  m_taken.clear();
}

void Outbox::SetConnection(std::shared_ptr<Connection> connection) {
  Lock lock = Acquire();
  // Ending a connection takes time, which the keeper has and a sender has not.
  while (m_writing) {
    AwaitRoom(lock);
  }
  for (; m_next < m_queue.size(); ++m_next) {
    Seal(*m_queue[m_next]);
  }
  m_queue.clear();
  m_next = 0;
  m_queuedBytes = 0;
  m_writingBytes = 0;
  m_blocked = false;
  m_connection.swap(connection);
  if (m_connection != nullptr) {
    m_maxPayload = m_connection->MaxPayload();
  }
  NoteRoom();
}

bool Outbox::Empty() {
  const Lock lock = Acquire();
  return !Connected() || (m_next == m_queue.size() && !m_writing && !m_blocked);
}

void Outbox::Close() {
  const Lock lock = Acquire();
  m_closed = true;
  NoteRoom();
}

}  // namespace engine::transport::nats
