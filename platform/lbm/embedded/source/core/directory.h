// What a context does with what its transport finds: which receivers hear which of the domain's sources, and who is
// told of responses and of the context's own sources' subscribers.
#pragma once

#include <lbm/lbm.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/arrival_clock.h"
#include "core/membership.h"
#include "core/message_pool.h"
#include "core/receiver.h"
#include "core/request.h"
#include "core/source.h"
#include "core/tasks.h"
#include "transport/transport.h"

namespace engine::core {

// Threads: the context's dispatching one only, so it needs no lock; other threads post tasks to it.
class Directory : public transport::Listener {
 public:
  // What it works with; everything but the membership must outlive it.
  struct Parts {
    std::shared_ptr<Membership> membership;
    SourceTable& sources;
    RequestTable& requests;
    Timers& timers;
    ArrivalClock& arrivalClock;
    lbm_src_notify_func_t resolverNotification;  // told of every source of the domain
    std::function<bool(EventQueue&)> awaitRoom;  // has OnRoom called; as EventQueue::AwaitRoom
  };

  explicit Directory(const Parts& parts);

  // These two, and OnSourceDown, may be called again when they have thrown, and do then what is left to be done.
  void AddReceiver(const std::shared_ptr<Receiver>& receiver);
  void RemoveReceiver(const Receiver& receiver);

  // Closes all receivers and returns when no callback of them runs; the source notifications that are due by then are
  // given.
  void Clear();

  // Some queue for which it was waiting has room.
  void OnRoom();

  void OnSourceUp(const std::shared_ptr<transport::RemoteSource>& source) override;
  void OnSourceDown(const std::shared_ptr<transport::RemoteSource>& source) override;
  bool Takes(transport::RemoteSource& source) override;
  bool MayRefuse() const noexcept override { return m_queues; }
  void OnMessage(transport::RemoteSource& source, transport::InboundMessage& inbound) override;
  void OnLoss(transport::RemoteSource& source, std::uint32_t first, std::uint32_t count) override;
  void OnResponse(std::uint64_t requestId, const std::string& responder, std::span<const std::byte> payload) override;
  void OnSubscriberJoined(transport::Publication& publication, const std::string& contextName) override;
  void OnSubscriberLeft(transport::Publication& publication, const std::string& contextName) override;
  void OnWritable(transport::Publication& publication) override;

 private:
  struct TopicEntry;

  // What one receiver gets from a source.
  struct Subscription {
    std::shared_ptr<Receiver> receiver;
    void* sourceClientd = nullptr;
    bool begun = false;  // its beginning of session was delivered
    // Messages that will not come, of which it has not been told because its queue is full.
    std::uint32_t firstLost = 0;
    std::uint64_t lost = 0;
  };

  // What a topic's notification functions were told of a source.
  struct Notified {
    const Topic* topic = nullptr;
    void* sourceClientd = nullptr;
  };

  // A source of the domain as this context knows it. In transport::RemoteSource::listenerData.
  struct Stream {
    std::shared_ptr<transport::RemoteSource> source;
    TopicEntry* entry = nullptr;
    std::vector<Subscription> subscriptions;
    std::vector<Notified> notified;
    bool subscribed = false;  // at the transport
  };

  struct TopicEntry {
    std::vector<std::shared_ptr<Receiver>> receivers;
    std::vector<std::unique_ptr<Stream>> streams;
    std::vector<const Topic*> notifying;  // topics of receivers, past ones too, that want source notifications

    bool Wanted() const noexcept { return !receivers.empty() || !notifying.empty(); }
  };

  static Stream* StreamOf(const transport::RemoteSource& source) { return static_cast<Stream*>(source.listenerData); }

  transport::Transport& GetTransport() const noexcept { return m_parts.membership->GetTransport(); }
  void CountTopics() noexcept;
  void ForgetIfEmpty(const std::string& topic);
  void Subscribe(Stream& stream, const std::shared_ptr<Receiver>& receiver);
  void NotifyCreate(Stream& stream, const Topic& topic);
  void NotifyDelete(Stream& stream);
  void WatchForSources(const std::shared_ptr<Receiver>& receiver);
  MessageRef Blank(int type, const std::shared_ptr<transport::RemoteSource>& origin, std::uint32_t sequence);
  MessageRef MakeMessage(const Stream& stream, const transport::InboundMessage& inbound, void* sourceClientd);
  void BeginSession(Stream& stream, Subscription& subscription, std::uint32_t sequence);
  void NoteLoss(Subscription& subscription, std::uint32_t first, std::uint32_t count);
  void TellLoss(Stream& stream, Subscription& subscription);
  void DeliverLoss(Stream& stream, Subscription& subscription, std::uint32_t first, std::uint32_t count);
  void DeliverEvent(Stream& stream, Subscription& subscription, int type, std::uint32_t sequence,
                    std::uint32_t count = 0);
  void NotifySource(const transport::Publication& publication, int event, const std::string& text);

  const Parts m_parts;
  zq::statistics::Row& m_statistics;       // of the context
  const zq::statistics::Cells m_counters;  // of the row
  MessagePool::Owner m_pool;
  bool m_queues = false;  // some receiver, it may be a past one, has an event queue
  std::unordered_map<std::string, TopicEntry> m_topics;
};

}  // namespace engine::core
