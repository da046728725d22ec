#include "core/directory.h"

#include <algorithm>
#include <utility>

#include "options/option_keys.h"

namespace engine::core {

Directory::Directory(const Parts& parts)
    : m_parts(parts),
      m_statistics(parts.membership->Statistics().Counters()),
      m_counters(m_statistics.Serial()),
      m_pool(MessagePool::Create()) {
  if (m_parts.resolverNotification.notifyfunc != nullptr) {
    GetTransport().WatchAll();
  }
}

void Directory::CountTopics() noexcept {
  m_statistics.Set(context_field::kTopics, static_cast<std::int64_t>(m_topics.size()));
}

void Directory::ForgetIfEmpty(const std::string& topic) {
  const auto found = m_topics.find(topic);
  if (found != m_topics.end() && !found->second.Wanted() && found->second.streams.empty()) {
    m_topics.erase(found);
    CountTopics();
  }
}

void Directory::AddReceiver(const std::shared_ptr<Receiver>& receiver) {
  if (receiver->Closed()) {
    return;
  }
  const Topic& topic = receiver->GetTopic();
  TopicEntry& entry = m_topics[topic.name];
  if (!entry.Wanted()) {
    GetTransport().Watch(topic.name);
  }
  if (std::find(entry.receivers.begin(), entry.receivers.end(), receiver) == entry.receivers.end()) {
    entry.receivers.push_back(receiver);
    m_queues = m_queues || receiver->Queue() != nullptr;
    m_counters.Add(context_field::kReceivers);
  }
  CountTopics();
  if (topic.options->Get(option::kReceiverSourceNotification).create_func != nullptr) {
    if (std::find(entry.notifying.begin(), entry.notifying.end(), &topic) == entry.notifying.end()) {
      entry.notifying.push_back(&topic);
    }
    for (const auto& stream : entry.streams) {
      NotifyCreate(*stream, topic);
    }
  }
  for (const auto& stream : entry.streams) {
    Subscribe(*stream, receiver);
  }
  if (entry.streams.empty()) {
    WatchForSources(receiver);
  }
}

void Directory::RemoveReceiver(const Receiver& receiver) {
  const auto found = m_topics.find(receiver.GetTopic().name);
  if (found == m_topics.end()) {
    return;
  }
  const auto isOfReceiver = [&](const Subscription& subscription) { return subscription.receiver.get() == &receiver; };
  TopicEntry& entry = found->second;
  const auto isReceiver = [&](const auto& one) { return one.get() == &receiver; };
  for (const auto& stream : entry.streams) {
    if (stream->subscribed && std::all_of(stream->subscriptions.begin(), stream->subscriptions.end(), isOfReceiver)) {
      GetTransport().Unsubscribe(*stream->source);
      stream->subscribed = false;
    }
    std::erase_if(stream->subscriptions, isOfReceiver);
  }
  if (entry.notifying.empty() && std::all_of(entry.receivers.begin(), entry.receivers.end(), isReceiver)) {
    GetTransport().Unwatch(found->first);
  }
  m_counters.Subtract(context_field::kReceivers, std::erase_if(entry.receivers, isReceiver));
  ForgetIfEmpty(receiver.GetTopic().name);
}

void Directory::Subscribe(Stream& stream, const std::shared_ptr<Receiver>& receiver) {
  const auto isOfReceiver = [&](const Subscription& subscription) { return subscription.receiver == receiver; };
  if (std::none_of(stream.subscriptions.begin(), stream.subscriptions.end(), isOfReceiver)) {
    Subscription subscription{.receiver = receiver};
    for (const Notified& notified : stream.notified) {
      if (notified.topic == &receiver->GetTopic()) {
        subscription.sourceClientd = notified.sourceClientd;
      }
    }
    stream.subscriptions.push_back(std::move(subscription));
    receiver->Counters().Add(receiver_field::kSources);
  }
  if (!stream.subscribed) {
    GetTransport().Subscribe(*stream.source);
    stream.subscribed = true;
  }
}

void Directory::WatchForSources(const std::shared_ptr<Receiver>& receiver) {
  const auto delay = receiver->GetTopic().options->Get(option::kNoSourceNotificationDelay);
  if (delay.count() == 0) {
    return;
  }
  m_parts.timers.RunAfter(delay, [this, weak = std::weak_ptr(receiver)] {
    const auto waiting = weak.lock();
    if (waiting == nullptr || waiting->Closed()) {
      return;
    }
    const std::string& topic = waiting->GetTopic().name;
    const auto found = m_topics.find(topic);
    if (found == m_topics.end() || found->second.streams.empty()) {
      const auto nobody = std::make_shared<transport::RemoteSource>(topic, "");
      waiting->Deliver(Blank(LBM_MSG_NO_SOURCE_NOTIFICATION, nobody, 0));
    }
  });
}

void Directory::OnSourceUp(const std::shared_ptr<transport::RemoteSource>& source) {
  if (m_parts.membership->Ended()) {
    return;
  }
  TopicEntry& entry = m_topics[source->Topic()];
  Stream& stream = *entry.streams.emplace_back(std::make_unique<Stream>());
  stream.source = source;
  CountTopics();
  stream.entry = &entry;
  source->listenerData = &stream;
  if (m_parts.resolverNotification.notifyfunc != nullptr) {
    CallApplication([&] {
      m_parts.resolverNotification.notifyfunc(source->Topic().c_str(), source->Session().c_str(),
                                              m_parts.resolverNotification.clientd);
    });
  }
  for (const Topic* topic : entry.notifying) {
    NotifyCreate(stream, *topic);
  }
  for (const auto& receiver : entry.receivers) {
    // A deleted one may still be on its way out, and would pass for a subscriber that hears what is sent to it.
    if (!receiver->Closed()) {
      Subscribe(stream, receiver);
    }
  }
}

void Directory::OnSourceDown(const std::shared_ptr<transport::RemoteSource>& source) {
  Stream* const stream = StreamOf(*source);
  if (stream == nullptr) {
    return;
  }
  for (Subscription& subscription : stream->subscriptions) {
    TellLoss(*stream, subscription);
    if (subscription.begun) {
      DeliverEvent(*stream, subscription, LBM_MSG_EOS, 0);
      subscription.begun = false;
    }
  }
  for (const Subscription& subscription : stream->subscriptions) {
    subscription.receiver->Counters().Subtract(receiver_field::kSources);
  }
  NotifyDelete(*stream);
  source->listenerData = nullptr;
  std::erase_if(stream->entry->streams, [&](const auto& one) { return one.get() == stream; });
  ForgetIfEmpty(source->Topic());
}

void Directory::NotifyCreate(Stream& stream, const Topic& topic) {
  const auto isOfTopic = [&](const Notified& notified) { return notified.topic == &topic; };
  if (m_parts.membership->Ended() || std::any_of(stream.notified.begin(), stream.notified.end(), isOfTopic)) {
    return;
  }
  Notified& notified = stream.notified.emplace_back();  // while it can still fail
  const lbm_rcv_src_notification_func_t function = topic.options->Get(option::kReceiverSourceNotification);
  void* clientd = nullptr;
  CallApplication([&] { clientd = function.create_func(stream.source->Session().c_str(), function.clientd); });
  notified = {&topic, clientd};
  for (Subscription& subscription : stream.subscriptions) {
    if (&subscription.receiver->GetTopic() == &topic) {
      subscription.sourceClientd = clientd;
    }
  }
}

void Directory::NotifyDelete(Stream& stream) {
  for (const Notified& notified : stream.notified) {
    const lbm_rcv_src_notification_func_t function = notified.topic->options->Get(option::kReceiverSourceNotification);
    if (function.delete_func != nullptr) {
      CallApplication(
          [&] { function.delete_func(stream.source->Session().c_str(), function.clientd, notified.sourceClientd); });
    }
  }
}

// A message of the type and origin, with nothing else in it.
MessageRef Directory::Blank(int type, const std::shared_ptr<transport::RemoteSource>& origin, std::uint32_t sequence) {
  MessageRef message = m_pool->Acquire();
  message->type = type;
  message->sequence_number = sequence;
  message->timestamp = m_parts.arrivalClock.Now();
  message->SetSource(origin);
  return message;
}

MessageRef Directory::MakeMessage(const Stream& stream, const transport::InboundMessage& inbound, void* sourceClientd) {
  const bool request = inbound.replyPath != nullptr;
  MessageRef message = Blank(request ? LBM_MSG_REQUEST : LBM_MSG_DATA, stream.source, inbound.sequence);
  message->SetPayload(inbound.payload);
  message->source_clientd = sourceClientd;
  if (inbound.channel) {
    message->SetChannel(*inbound.channel);
  }
  if (request) {
    message->SetResponse(Response(m_parts.membership, inbound.replyPath));
  }
  return message;
}

void Directory::DeliverEvent(Stream& stream, Subscription& subscription, int type, std::uint32_t sequence,
                             std::uint32_t count) {
  MessageRef message = Blank(type, stream.source, sequence);
  message->len = count;
  message->source_clientd = subscription.sourceClientd;
  subscription.receiver->Deliver(message);
  m_pool->Recycle(std::move(message));
}

void Directory::BeginSession(Stream& stream, Subscription& subscription, std::uint32_t sequence) {
  if (!subscription.begun) {
    DeliverEvent(stream, subscription, LBM_MSG_BOS, sequence);
    subscription.begun = true;
  }
}

void Directory::OnMessage(transport::RemoteSource& source, transport::InboundMessage& inbound) {
  Stream* const stream = StreamOf(source);
  if (stream == nullptr) {
    return;
  }
  MessageRef message;
  for (Subscription& subscription : stream->subscriptions) {
    if (inbound.pacing == transport::Pacing::kSource && subscription.receiver->QueueFull()) {
      NoteLoss(subscription, inbound.sequence, 1);
      continue;
    }
    if (subscription.lost != 0) {
      TellLoss(*stream, subscription);
    }
    // One message serves all receivers unless they have to see something of their own in it: the client data of their
    // source notification, or a response that each of them may take over.
    if (!message || inbound.replyPath != nullptr || message->source_clientd != subscription.sourceClientd) {
      if (message) {
        m_pool->Recycle(std::move(message));
      }
      message = MakeMessage(*stream, inbound, subscription.sourceClientd);
    }
    BeginSession(*stream, subscription, inbound.sequence);
    m_counters.Add(context_field::kDelivered);
    subscription.receiver->Counters().Add(receiver_field::kMessages);
    subscription.receiver->Deliver(message);
  }
  if (message) {
    m_pool->Recycle(std::move(message));
  }
}

void Directory::OnLoss(transport::RemoteSource& source, std::uint32_t first, std::uint32_t count) {
  Stream* const stream = StreamOf(source);
  if (stream == nullptr) {
    return;
  }
  for (Subscription& subscription : stream->subscriptions) {
    if (subscription.lost != 0 || subscription.receiver->QueueFull()) {
      NoteLoss(subscription, first, count);
    } else {
      DeliverLoss(*stream, subscription, first, count);
    }
  }
}

bool Directory::Takes(transport::RemoteSource& source) {
  const Stream* const stream = StreamOf(source);
  return stream == nullptr ||
         std::none_of(stream->subscriptions.begin(), stream->subscriptions.end(),
                      [&](const Subscription& subscription) {
                        return subscription.receiver->QueueFull() && m_parts.awaitRoom(*subscription.receiver->Queue());
                      });
}

void Directory::OnRoom() {
  for (auto& [name, entry] : m_topics) {
    for (const auto& stream : entry.streams) {
      for (Subscription& subscription : stream->subscriptions) {
        if (subscription.lost != 0 && !m_parts.awaitRoom(*subscription.receiver->Queue())) {
          TellLoss(*stream, subscription);
        }
      }
    }
  }
}

void Directory::NoteLoss(Subscription& subscription, std::uint32_t first, std::uint32_t count) {
  if (subscription.lost == 0) {
    subscription.firstLost = first;
    m_parts.awaitRoom(*subscription.receiver->Queue());
  }
  subscription.lost += count;
}

void Directory::TellLoss(Stream& stream, Subscription& subscription) {
  constexpr std::uint64_t kOnceMax = std::uint64_t{1} << 20;
  while (subscription.lost != 0) {
    const auto count = static_cast<std::uint32_t>(std::min(subscription.lost, kOnceMax));
    DeliverLoss(stream, subscription, subscription.firstLost, count);
    subscription.firstLost += count;
    subscription.lost -= count;
  }
}

void Directory::DeliverLoss(Stream& stream, Subscription& subscription, std::uint32_t first, std::uint32_t count) {
  BeginSession(stream, subscription, first);
  if (count > subscription.receiver->LossBurstThreshold()) {
    DeliverEvent(stream, subscription, LBM_MSG_UNRECOVERABLE_LOSS_BURST, first, count);
  } else {
    for (std::uint32_t lost = 0; lost < count; ++lost) {
      DeliverEvent(stream, subscription, LBM_MSG_UNRECOVERABLE_LOSS, first + lost);
    }
  }
}

void Directory::OnResponse(std::uint64_t requestId, const std::string& responder, std::span<const std::byte> payload) {
  const auto request = m_parts.requests.Find(requestId);
  if (request == nullptr) {
    return;
  }
  MessageRef message = Blank(LBM_MSG_RESPONSE, request->Origin(responder), 0);
  message->SetPayload(payload);
  request->Dispatch({.message = message});
  m_pool->Recycle(std::move(message));
}

void Directory::OnSubscriberJoined(transport::Publication& publication, const std::string& contextName) {
  NotifySource(publication, LBM_SRC_EVENT_CONNECT, contextName);
}

void Directory::OnSubscriberLeft(transport::Publication& publication, const std::string& contextName) {
  NotifySource(publication, LBM_SRC_EVENT_DISCONNECT, contextName);
}

void Directory::OnWritable(transport::Publication& publication) { NotifySource(publication, LBM_SRC_EVENT_WAKEUP, {}); }

void Directory::NotifySource(const transport::Publication& publication, int event, const std::string& text) {
  if (const auto source = m_parts.sources.Find(publication)) {
    source->Notify(event, text);
  }
}

void Directory::Clear() {
  for (auto& [name, entry] : m_topics) {
    for (const auto& receiver : entry.receivers) {
      receiver->CloseAndWait();
    }
    m_counters.Subtract(context_field::kReceivers, entry.receivers.size());
    for (const auto& stream : entry.streams) {
      for (const Subscription& subscription : stream->subscriptions) {
        subscription.receiver->Counters().Subtract(receiver_field::kSources);
      }
      NotifyDelete(*stream);
      stream->source->listenerData = nullptr;
    }
  }
  m_topics.clear();
  CountTopics();
}

}  // namespace engine::core
