// Sources of the domain's contexts, as this context knows them.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "transport/nats/intake.h"
#include "transport/nats/outbox.h"
#include "transport/nats/settings.h"
#include "transport/nats/subjects.h"
#include "transport/nats/wire.h"
#include "transport/transport.h"
#include "zq/posix/event.h"

namespace engine::transport::nats {

// Threads: where nothing else is said, the one inside Drain.
class NatsRemoteSource final : public RemoteSource {
 public:
  NatsRemoteSource(std::string topic, std::string session, std::uint64_t instance, std::uint32_t id)
      : RemoteSource(std::move(topic), std::move(session)), m_instance(instance), m_id(id) {}

  std::uint64_t Instance() const noexcept { return m_instance; }
  std::uint32_t Id() const noexcept { return m_id; }

  // Threads: any.
  bool Down() const noexcept { return m_down.load(std::memory_order_acquire); }
  wire::Subscription GetSubscription() const noexcept {
    return {.source = m_id, .token = m_wanted, .position = m_consumed, .accepted = Active() ? 1U : 0U};
  }

  // Whether the source waits for this context when it cannot keep up, and so must lose nothing here.
  bool Waits() const noexcept { return m_creditBytes != 0; }

  void GoDown() noexcept { m_down.store(true, std::memory_order_release); }
  bool Active() const noexcept { return m_accepted != 0 && m_accepted == m_wanted; }

  // Contexts that receive it, as far as it has told; 0: it has not.
  std::uint32_t Audience() const noexcept { return m_audience.load(std::memory_order_relaxed); }

  // What the listener is told. Throw Fault.
  void OnAccept(const wire::Accept& accept, Listener& listener);
  void OnProgress(const wire::Progress& progress, Listener& listener);
  void OnData(const std::shared_ptr<NatsRemoteSource>& self, Bytes message, Listener& listener);
  // Whether the source wants to know how far this is.
  bool TakeCreditDue() noexcept;
  // Whether it is not to know, because the listener takes no more for the moment.
  bool Withheld() const noexcept { return m_withheld && Active() && !Down(); }
  // Looks whether the listener does again.
  void GiveWithheld(Listener& listener) { Advance(m_delivered, listener); }

 private:
  friend class SourceTable;

  // The message expected next, of which some fragments have come.
  struct Partial {
    std::uint32_t total = 0;  // 0: there is none
    std::vector<std::byte> bytes;
  };

  void OnFrame(const std::shared_ptr<NatsRemoteSource>& self, Bytes& message, Listener& listener);
  Bytes Assemble(const wire::Frame& frame, Bytes fragment);
  void Advance(std::uint64_t position, Listener& listener);
  void LoseUpTo(std::uint32_t sequence, Listener& listener);
  bool IsAhead(std::uint32_t sequence) const noexcept { return static_cast<std::int32_t>(sequence - m_expected) > 0; }

  const std::uint64_t m_instance;
  const std::uint32_t m_id;
  std::atomic<bool> m_down{false};
  std::atomic<std::uint32_t> m_wanted{0};    // token of the subscription; 0: none
  std::atomic<std::uint64_t> m_consumed{0};  // position
  std::atomic<std::uint32_t> m_accepted{0};  // token
  std::atomic<std::uint32_t> m_audience{0};
  std::uint32_t m_expected = 0;   // sequence number
  std::uint64_t m_credited = 0;   // position that was told
  std::uint64_t m_delivered = 0;  // position
  bool m_withheld = false;        // m_consumed is behind m_delivered
  std::atomic<std::uint32_t> m_creditBytes{0};
  Partial m_partial;

  // Guarded by the table:
  std::shared_ptr<Route> m_route;  // null: not subscribed
};

class NatsReplyPath final : public ReplyPath {
 public:
  NatsReplyPath(std::shared_ptr<const NatsRemoteSource> source, std::uint64_t id)
      : requester(std::move(source)), request(id) {}

  const std::shared_ptr<const NatsRemoteSource> requester;  // a source of the context that asked
  const std::uint64_t request;
};

// Threads: any; those with a listener for the thread inside Drain.
class SourceTable {
 public:
  SourceTable(const NatsSettings& settings, const Subjects& subjects, std::uint64_t instance,
              const std::string& subscriberName, Outbox& outbox, Intake& intake, zq::posix::Event& arrived);

  void Watch(const std::string& topic);
  void Unwatch(const std::string& topic);
  void WatchAll();
  void Subscribe(NatsRemoteSource& source);
  void Unsubscribe(NatsRemoteSource& source);

  // Throw Fault.
  void OnAnnounce(std::uint64_t instance, Bytes message, Listener& listener);
  void OnGone(std::uint64_t instance, Bytes message, Listener& listener);
  void OnAccept(std::uint64_t instance, Bytes message, Listener& listener);
  void OnAlive(std::uint64_t instance, Bytes message, Listener& listener);
  void OnBye(std::uint64_t instance, Listener& listener);
  void OnData(const std::shared_ptr<NatsRemoteSource>& source, Bytes message, Listener& listener);

  // Tells sources how far this context is once the listener takes messages again. Returns to how many that came.
  std::size_t GiveWithheld(Listener& listener);

  // Lets go of sources that nobody watches any more, and when intervals have passed, of contexts that were silent.
  // caughtUp: everything that arrived has been handled.
  std::size_t TidyUp(bool caughtUp, Listener& listener);
  bool IsUntidy();

  // For the keeper. Connected: says everything to a new connection.
  void Connected();
  void Tick();
  void SayGoodbye();

  // How many contexts receive the source of this context's that has most of them.
  std::uint32_t Audience();

 private:
  struct Peer {
    std::string identity;
    std::shared_ptr<const std::string> inbox;  // its subject
    std::shared_ptr<Route> alive;
    std::unordered_map<std::uint32_t, std::shared_ptr<NatsRemoteSource>> sources;  // by id
    std::int64_t silentTicks = 0;
  };
  struct Watched {
    std::shared_ptr<Route> route;
    std::int64_t ticks = 0;  // since it was asked for
  };
  using Sources = std::vector<std::shared_ptr<NatsRemoteSource>>;

  void PutCreditDue(NatsRemoteSource& source);
  void NoteWithheld(const std::shared_ptr<NatsRemoteSource>& source);
  std::shared_ptr<NatsRemoteSource> Find(std::uint64_t instance, std::uint32_t id);
  void Heard(std::uint64_t instance);
  void End(const std::shared_ptr<NatsRemoteSource>& source, Listener& listener);
  // With m_mutex:
  void Ask(const std::string& subject);
  void Detach(NatsRemoteSource& source);
  Sources TakeUnwatched();
  Sources TakeSilent();
  void ForgetPeers();
  void PutInterest(const Peer& peer, std::span<const wire::Subscription> subscriptions);
  void PutInterest(const NatsRemoteSource& source);
  void PutAllInterest();
  bool HasSources(const std::string& topic) const;

  const NatsSettings& m_settings;
  const Subjects& m_subjects;
  const std::uint64_t m_instance;
  const std::string& m_subscriberName;
  Outbox& m_outbox;
  Intake& m_intake;
  zq::posix::Event& m_arrived;
  const std::int64_t m_silentTicksMax;

  // For the thread inside Drain: those of which Withheld is true, and perhaps some that have ended since.
  Sources m_withheld;

  std::mutex m_mutex;  // taken before the intake's and the outbox's
  // Guarded by m_mutex:
  std::unordered_map<std::uint64_t, Peer> m_peers;  // by instance
  std::unordered_map<std::string, Watched> m_watched;
  std::shared_ptr<Route> m_allSources;
  std::int64_t m_allTicks = 0;
  // Of all sources, those that were found before too: a publisher may still know a subscription that has ended here.
  std::uint32_t m_lastToken = 0;
  std::int64_t m_ticksDue = 0;        // intervals that TidyUp has not seen
  bool m_unwatched = false;           // sources may be known that nobody watches
  std::vector<std::byte> m_interest;  // the last one that was put, for its memory
};

}  // namespace engine::transport::nats
