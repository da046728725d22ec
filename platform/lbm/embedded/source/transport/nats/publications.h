// Sources of this context, and who has subscribed to them.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "transport/nats/outbox.h"
#include "transport/nats/settings.h"
#include "transport/nats/subjects.h"
#include "transport/nats/wire.h"
#include "transport/transport.h"
#include "zq/posix/event.h"

namespace engine::transport::nats {

// Whether what is repeated ever more seldom is due, so many intervals after its beginning.
bool IsRepetitionDue(std::int64_t ticks);

// After so many intervals without a word a context is taken for gone.
std::int64_t SilentTicksMax(const NatsSettings& settings);

// A context that subscribed to a publication.
struct Subscriber {
  std::uint32_t token = 0;
  wire::Progress beginning;    // of the publication when it subscribed
  std::uint64_t consumed = 0;  // position
  std::string name;
  std::int64_t silentTicks = 0;
};

// Guarded by the outbox's lock.
class NatsPublication final : public Publication {
 public:
  NatsPublication(std::uint32_t id, std::string session, PublicationInfo given, std::string dataSubject,
                  std::uint32_t first)
      : Publication(id, std::move(session)),
        info(std::move(given)),
        subject(std::make_shared<const std::string>(std::move(dataSubject))),
        next(first) {}

  wire::Progress GetProgress() const noexcept { return {Id(), next, position}; }

  const PublicationInfo info;
  const std::shared_ptr<const std::string> subject;
  std::uint32_t next;
  std::uint64_t position = 0;
  std::uint64_t slowest = 0;                                  // position of the subscriber that has consumed least
  Outbox::Parcel* open = nullptr;                             // takes more
  std::unordered_map<std::uint64_t, Subscriber> subscribers;  // by instance
  std::int64_t quietTicks = 0;                                // since the last message
  std::int64_t announcedTicks = 0;                            // since it was advertised, or the connection was made
  std::atomic<bool> wanted{false};                            // has subscribers; read without the lock
  bool blocked = false;                                       // a send gave kWouldBlock
  bool withdrawn = false;
};

// Threads: any. Nothing calls the listener but Report.
class PublicationTable {
 public:
  // arrived is notified when Report has something to report.
  PublicationTable(const NatsSettings& settings, const Subjects& subjects, std::uint64_t instance,
                   const std::string& identity, Outbox& outbox, zq::posix::Event& arrived);

  // id: 0 lets the table choose. Nobody hears of it until Announce, so that questions can be answered first.
  std::shared_ptr<NatsPublication> Advertise(const PublicationInfo& info, std::uint32_t id);
  void Announce(NatsPublication& publication);
  // False: it was withdrawn before.
  bool Withdraw(NatsPublication& publication);
  std::vector<std::shared_ptr<NatsPublication>> All();

  // read is called while waiting for credit, to look whether it has come.
  template <typename Read>
  SendResult Publish(NatsPublication& publication, const OutboundMessage& message, const SendWait& wait, Read read) {
    std::size_t size = 0;
    Outbox::Lock lock = m_outbox.Acquire();
    const Attempt attempt = Try(publication, message, size);
    if (attempt != Attempt::kNoRoom) {
      return Conclude(attempt, std::move(lock));
    }
    return PublishPatiently(publication, message, wait, size, std::move(lock), read);
  }

  // See Transport and FarTransport.
  bool HasSubscriber(const NatsPublication& publication, std::string_view identity);
  bool HasRoom(NatsPublication& publication, const OutboundMessage& message);
  void PublishRegardless(NatsPublication& publication, const OutboundMessage& message);

  // Answers a question for sources: of the publication, or of all when it is 0.
  void OnWant(std::uint64_t asker, std::uint32_t publication);
  // Throws Fault.
  void OnInterest(std::uint64_t instance, Bytes message);

  // For the keeper. Connected: says everything to a new connection. Written: there may be room.
  void Connected();
  void Tick();
  void Written();
  void SayGoodbye();

  // Tells what happened since the last call.
  std::size_t Report(Listener& listener);
  bool HasNews();

 private:
  enum class Attempt : std::uint8_t { kDone, kAdded, kNoRoom, kClosed };
  enum class NewsKind : std::uint8_t { kJoined, kLeft, kWritable };
  struct News {
    NewsKind kind;
    std::shared_ptr<NatsPublication> publication;
    std::string name;
  };

  template <typename Read>
  SendResult PublishPatiently(NatsPublication& publication, const OutboundMessage& message, const SendWait& wait,
                              std::size_t size, Outbox::Lock lock, Read read) {
    m_settings.statistics->Counters().Add(context_field::kWaitsForRoom);
    for (;;) {
      if (!wait.GoesOn()) {
        publication.blocked = true;
        m_someBlocked = true;
        return SendResult::kWouldBlock;
      }
      if (!m_outbox.AwaitRoom(lock)) {
        lock.unlock();
        read();
        lock.lock();
      }
      const Attempt attempt = Try(publication, message, size);
      if (attempt != Attempt::kNoRoom) {
        return Conclude(attempt, std::move(lock));
      }
    }
  }

  // With the outbox's lock:
  Attempt Try(NatsPublication& publication, const OutboundMessage& message, std::size_t& size);
  static void CountSent(const NatsPublication& publication) noexcept;
  void CountDropped() noexcept;
  SendResult Conclude(Attempt attempt, Outbox::Lock lock);
  bool HasRoomFor(const NatsPublication& publication, std::size_t size) const;
  void AddMessage(NatsPublication& publication, const OutboundMessage& message, std::size_t size);
  std::vector<std::byte>& ParcelFor(NatsPublication& publication, std::size_t size);
  std::size_t FragmentMax() const noexcept;
  void OnSubscription(const wire::Subscription& subscription, std::uint64_t instance, std::string_view name);
  using Subscribers = std::unordered_map<std::uint64_t, Subscriber>;

  void Join(const std::shared_ptr<NatsPublication>& publication, std::uint64_t instance, Subscriber subscriber);
  void PutAcceptance(const NatsPublication& publication, std::uint64_t instance, const Subscriber& subscriber);
  Subscribers::iterator Leave(const std::shared_ptr<NatsPublication>& publication, Subscribers::iterator subscriber);
  void Credited(const std::shared_ptr<NatsPublication>& publication);
  void Note(NewsKind kind, const std::shared_ptr<NatsPublication>& publication, std::string name);
  void WakeBlocked();
  void PutAnnouncement(const NatsPublication& publication, std::string subject);
  void PutProgress(wire::Kind kind, const NatsPublication& publication, std::string subject);
  void PutAlive();

  const NatsSettings& m_settings;
  const Subjects& m_subjects;
  const std::uint64_t m_instance;
  const std::string& m_identity;
  Outbox& m_outbox;
  zq::posix::Event& m_arrived;
  const std::int64_t m_silentTicksMax;

  // Guarded by the outbox's lock:
  std::unordered_map<std::uint32_t, std::shared_ptr<NatsPublication>> m_publications;
  std::uint32_t m_lastId = 0;
  bool m_someBlocked = false;
  std::vector<News> m_news;
};

}  // namespace engine::transport::nats
