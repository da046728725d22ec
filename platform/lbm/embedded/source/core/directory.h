// Who gets what: the receivers of a context by topic, and the domain's sources that they hear.
#pragma once

#include <lbm/lbm.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/message_pool.h"
#include "core/receiver.h"
#include "transport/transport.h"

namespace engine::core {

class Context;

// Threads: the context's dispatching one only, so it needs no lock; other threads post tasks to it.
class Directory {
 public:
  explicit Directory(Context& context) : m_context(context), m_pool(MessagePool::Create()) {}

  void AddReceiver(const std::shared_ptr<Receiver>& receiver);
  void RemoveReceiver(const Receiver& receiver);

  // See transport::Listener.
  void OnSourceUp(const std::shared_ptr<transport::RemoteSource>& source);
  void OnSourceDown(transport::RemoteSource& source);
  void OnMessage(transport::RemoteSource& source, transport::InboundMessage& inbound);
  void OnLoss(transport::RemoteSource& source, std::uint32_t first, std::uint32_t count);

  // A blank message of the type and origin.
  MessageRef Blank(int type, const std::shared_ptr<transport::RemoteSource>& origin, std::uint32_t sequence);

  MessagePool& Pool() noexcept { return *m_pool; }

  // Closes all receivers and returns when no callback of them runs; the source notifications that are due by then are
  // given.
  void Clear();

 private:
  struct TopicEntry;

  // One receiver's share of a source.
  struct Leg {
    std::shared_ptr<Receiver> receiver;
    void* sourceClientd = nullptr;
    bool begun = false;  // its beginning of session was delivered
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
    std::vector<Leg> legs;
    std::vector<Notified> notified;
  };

  struct TopicEntry {
    std::vector<std::shared_ptr<Receiver>> receivers;
    std::vector<std::unique_ptr<Stream>> streams;
    std::vector<const Topic*> notifying;  // topics of receivers, past ones too, that want source notifications
  };

  static Stream* StreamOf(const transport::RemoteSource& source) { return static_cast<Stream*>(source.listenerData); }

  TopicEntry& EntryOf(const std::string& topic);
  void ForgetIfEmpty(const std::string& topic);
  void AddLeg(Stream& stream, const std::shared_ptr<Receiver>& receiver);
  void NotifyCreate(Stream& stream, const Topic& topic);
  void NotifyDelete(Stream& stream);
  void WatchForSources(const std::shared_ptr<Receiver>& receiver);
  void Deliver(Stream& stream, Leg& leg, MessageRef& message);
  void DeliverEvent(Stream& stream, Leg& leg, int type, std::uint32_t sequence, std::uint32_t count = 0);

  Context& m_context;
  MessagePool::Owner m_pool;
  std::unordered_map<std::string, TopicEntry> m_topics;
};

}  // namespace engine::core
