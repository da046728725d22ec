#include "core/directory.h"

#include <algorithm>
#include <utility>

#include "core/context.h"
#include "options/option_keys.h"

namespace engine::core {

Directory::TopicEntry& Directory::EntryOf(const std::string& topic) { return m_topics[topic]; }

void Directory::ForgetIfEmpty(const std::string& topic) {
  const auto found = m_topics.find(topic);
  if (found != m_topics.end() && found->second.receivers.empty() && found->second.streams.empty() &&
      found->second.notifying.empty()) {
    m_topics.erase(found);
  }
}

void Directory::AddReceiver(const std::shared_ptr<Receiver>& receiver) {
  if (receiver->Closed()) {
    return;
  }
  const Topic& topic = receiver->GetTopic();
  TopicEntry& entry = EntryOf(topic.name);
  entry.receivers.push_back(receiver);
  const bool notifies = topic.options->Get(option::kReceiverSourceNotification).create_func != nullptr;
  if (notifies && std::find(entry.notifying.begin(), entry.notifying.end(), &topic) == entry.notifying.end()) {
    entry.notifying.push_back(&topic);
    for (const auto& stream : entry.streams) {
      NotifyCreate(*stream, topic);
    }
  }
  for (const auto& stream : entry.streams) {
    AddLeg(*stream, receiver);
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
  TopicEntry& entry = found->second;
  std::erase_if(entry.receivers, [&](const auto& one) { return one.get() == &receiver; });
  for (const auto& stream : entry.streams) {
    const std::size_t erased =
        std::erase_if(stream->legs, [&](const Leg& leg) { return leg.receiver.get() == &receiver; });
    if (erased != 0 && stream->legs.empty()) {
      m_context.Transport().Unsubscribe(*stream->source);
    }
  }
  ForgetIfEmpty(receiver.GetTopic().name);
}

void Directory::AddLeg(Stream& stream, const std::shared_ptr<Receiver>& receiver) {
  Leg leg{.receiver = receiver};
  for (const Notified& notified : stream.notified) {
    if (notified.topic == &receiver->GetTopic()) {
      leg.sourceClientd = notified.sourceClientd;
    }
  }
  stream.legs.push_back(std::move(leg));
  if (stream.legs.size() == 1) {
    m_context.Transport().Subscribe(*stream.source);
  }
}

void Directory::WatchForSources(const std::shared_ptr<Receiver>& receiver) {
  const auto delay = receiver->GetTopic().options->Get(option::kNoSourceNotificationDelay);
  if (delay.count() == 0) {
    return;
  }
  m_context.RunAfter(delay, [this, weak = std::weak_ptr(receiver)] {
    const auto waiting = weak.lock();
    if (waiting == nullptr || waiting->Closed()) {
      return;
    }
    const std::string& topic = waiting->GetTopic().name;
    if (EntryOf(topic).streams.empty()) {
      const auto nobody = std::make_shared<transport::RemoteSource>(topic, "");
      waiting->Deliver(Blank(LBM_MSG_NO_SOURCE_NOTIFICATION, nobody, 0));
    }
  });
}

void Directory::OnSourceUp(const std::shared_ptr<transport::RemoteSource>& source) {
  TopicEntry& entry = EntryOf(source->GetTopic());
  Stream& stream = *entry.streams.emplace_back(std::make_unique<Stream>());
  stream.source = source;
  stream.entry = &entry;
  source->listenerData = &stream;
  for (const Topic* topic : entry.notifying) {
    NotifyCreate(stream, *topic);
  }
  for (const auto& receiver : entry.receivers) {
    AddLeg(stream, receiver);
  }
}

void Directory::OnSourceDown(transport::RemoteSource& source) {
  Stream* stream = StreamOf(source);
  if (stream == nullptr) {
    return;
  }
  for (Leg& leg : stream->legs) {
    if (leg.begun) {
      DeliverEvent(*stream, leg, LBM_MSG_EOS, 0);
    }
  }
  NotifyDelete(*stream);
  source.listenerData = nullptr;
  const std::string topic = source.GetTopic();
  std::erase_if(stream->entry->streams, [&](const auto& one) { return one.get() == stream; });
  ForgetIfEmpty(topic);
}

void Directory::NotifyCreate(Stream& stream, const Topic& topic) {
  if (m_context.Deleted()) {
    return;
  }
  const lbm_rcv_src_notification_func_t function = topic.options->Get(option::kReceiverSourceNotification);
  void* clientd = nullptr;
  CallApplication([&] { clientd = function.create_func(stream.source->Session().c_str(), function.clientd); });
  stream.notified.push_back({&topic, clientd});
  for (Leg& leg : stream.legs) {
    if (&leg.receiver->GetTopic() == &topic) {
      leg.sourceClientd = clientd;
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

MessageRef Directory::Blank(int type, const std::shared_ptr<transport::RemoteSource>& origin, std::uint32_t sequence) {
  MessageRef message = m_pool->Acquire();
  message->type = type;
  message->sequence_number = sequence;
  message->timestamp = m_context.ArrivalTime();
  message->SetSource(origin);
  return message;
}

void Directory::DeliverEvent(Stream& stream, Leg& leg, int type, std::uint32_t sequence, std::uint32_t count) {
  MessageRef message = Blank(type, stream.source, sequence);
  message->len = count;
  message->source_clientd = leg.sourceClientd;
  leg.receiver->Deliver(message);
  m_pool->Recycle(std::move(message));
}

void Directory::Deliver(Stream& stream, Leg& leg, MessageRef& message) {
  if (!leg.begun) {
    leg.begun = true;
    DeliverEvent(stream, leg, LBM_MSG_BOS, message->sequence_number);
  }
  leg.receiver->Deliver(message);
}

void Directory::OnMessage(transport::RemoteSource& source, transport::InboundMessage& inbound) {
  Stream* stream = StreamOf(source);
  if (stream == nullptr) {
    return;
  }
  MessageRef message;
  for (Leg& leg : stream->legs) {
    // One message serves all receivers unless they have to see something of their own in it: the client data of their
    // source notification, or a response that each of them may take over.
    if (!message || inbound.replyPath != nullptr || message->source_clientd != leg.sourceClientd) {
      if (message) {
        m_pool->Recycle(std::move(message));
      }
      message = Blank(inbound.replyPath != nullptr ? LBM_MSG_REQUEST : LBM_MSG_DATA, stream->source, inbound.sequence);
      message->SetPayload(inbound.payload);
      message->source_clientd = leg.sourceClientd;
      if (inbound.channel) {
        message->SetChannel(*inbound.channel);
      }
      if (inbound.replyPath != nullptr) {
        message->SetResponse(Response(m_context.shared_from_this(), inbound.replyPath));
      }
    }
    Deliver(*stream, leg, message);
  }
  if (message) {
    m_pool->Recycle(std::move(message));
  }
}

void Directory::OnLoss(transport::RemoteSource& source, std::uint32_t first, std::uint32_t count) {
  Stream* stream = StreamOf(source);
  if (stream == nullptr) {
    return;
  }
  for (Leg& leg : stream->legs) {
    if (!leg.begun) {
      leg.begun = true;
      DeliverEvent(*stream, leg, LBM_MSG_BOS, first);
    }
    if (count > leg.receiver->LossBurstThreshold()) {
      DeliverEvent(*stream, leg, LBM_MSG_UNRECOVERABLE_LOSS_BURST, first, count);
    } else {
      for (std::uint32_t lost = 0; lost < count; ++lost) {
        DeliverEvent(*stream, leg, LBM_MSG_UNRECOVERABLE_LOSS, first + lost);
      }
    }
  }
}

void Directory::Clear() {
  for (auto& [name, entry] : m_topics) {
    for (const auto& receiver : entry.receivers) {
      receiver->CloseAndWait();
    }
    for (const auto& stream : entry.streams) {
      NotifyDelete(*stream);
      stream->source->listenerData = nullptr;
    }
  }
  m_topics.clear();
}

}  // namespace engine::core
