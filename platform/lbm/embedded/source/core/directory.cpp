#include "core/directory.h"

#include <algorithm>
#include <utility>

#include "core/context.h"
#include "options/option_keys.h"

namespace engine::core {

Directory::TopicEntry& Directory::entryOf(const std::string& topic) { return m_topics[topic]; }

void Directory::forgetIfEmpty(const std::string& topic) {
  const auto found = m_topics.find(topic);
  if (found != m_topics.end() && found->second.receivers.empty() && found->second.streams.empty() &&
      found->second.notifying.empty()) {
    m_topics.erase(found);
  }
}

void Directory::addReceiver(const std::shared_ptr<Receiver>& receiver) {
  if (receiver->closed()) {
    return;
  }
  const Topic& topic = receiver->topic();
  TopicEntry& entry = entryOf(topic.name);
  entry.receivers.push_back(receiver);
  const bool notifies = topic.options->get(option::receiverSourceNotification).create_func != nullptr;
  if (notifies && std::find(entry.notifying.begin(), entry.notifying.end(), &topic) == entry.notifying.end()) {
    entry.notifying.push_back(&topic);
    for (const auto& stream : entry.streams) {
      notifyCreate(*stream, topic);
    }
  }
  for (const auto& stream : entry.streams) {
    addLeg(*stream, receiver);
  }
  if (entry.streams.empty()) {
    watchForSources(receiver);
  }
}

void Directory::removeReceiver(const Receiver& receiver) {
  const auto found = m_topics.find(receiver.topic().name);
  if (found == m_topics.end()) {
    return;
  }
  TopicEntry& entry = found->second;
  std::erase_if(entry.receivers, [&](const auto& one) { return one.get() == &receiver; });
  for (const auto& stream : entry.streams) {
    const std::size_t erased =
        std::erase_if(stream->legs, [&](const Leg& leg) { return leg.receiver.get() == &receiver; });
    if (erased != 0 && stream->legs.empty()) {
      m_context.transport().unsubscribe(*stream->source);
    }
  }
  forgetIfEmpty(receiver.topic().name);
}

void Directory::addLeg(Stream& stream, const std::shared_ptr<Receiver>& receiver) {
  Leg leg{.receiver = receiver};
  for (const Notified& notified : stream.notified) {
    if (notified.topic == &receiver->topic()) {
      leg.sourceClientd = notified.sourceClientd;
    }
  }
  stream.legs.push_back(std::move(leg));
  if (stream.legs.size() == 1) {
    m_context.transport().subscribe(*stream.source);
  }
}

void Directory::watchForSources(const std::shared_ptr<Receiver>& receiver) {
  const auto delay = receiver->topic().options->get(option::noSourceNotificationDelay);
  if (delay.count() == 0) {
    return;
  }
  m_context.runAfter(delay, [this, weak = std::weak_ptr(receiver)] {
    const auto waiting = weak.lock();
    if (waiting == nullptr || waiting->closed()) {
      return;
    }
    const std::string& topic = waiting->topic().name;
    if (entryOf(topic).streams.empty()) {
      const auto nobody = std::make_shared<transport::RemoteSource>(topic, "");
      waiting->deliver(blank(LBM_MSG_NO_SOURCE_NOTIFICATION, nobody, 0));
    }
  });
}

void Directory::sourceUp(const std::shared_ptr<transport::RemoteSource>& source) {
  TopicEntry& entry = entryOf(source->topic());
  Stream& stream = *entry.streams.emplace_back(std::make_unique<Stream>());
  stream.source = source;
  stream.entry = &entry;
  source->listenerData = &stream;
  for (const Topic* topic : entry.notifying) {
    notifyCreate(stream, *topic);
  }
  for (const auto& receiver : entry.receivers) {
    addLeg(stream, receiver);
  }
}

void Directory::sourceDown(transport::RemoteSource& source) {
  Stream* stream = streamOf(source);
  if (stream == nullptr) {
    return;
  }
  for (Leg& leg : stream->legs) {
    if (leg.begun) {
      deliverEvent(*stream, leg, LBM_MSG_EOS, 0);
    }
  }
  notifyDelete(*stream);
  source.listenerData = nullptr;
  const std::string topic = source.topic();
  std::erase_if(stream->entry->streams, [&](const auto& one) { return one.get() == stream; });
  forgetIfEmpty(topic);
}

void Directory::notifyCreate(Stream& stream, const Topic& topic) {
  if (m_context.deleted()) {
    return;
  }
  const lbm_rcv_src_notification_func_t function = topic.options->get(option::receiverSourceNotification);
  void* clientd = nullptr;
  callApplication([&] { clientd = function.create_func(stream.source->session().c_str(), function.clientd); });
  stream.notified.push_back({&topic, clientd});
  for (Leg& leg : stream.legs) {
    if (&leg.receiver->topic() == &topic) {
      leg.sourceClientd = clientd;
    }
  }
}

void Directory::notifyDelete(Stream& stream) {
  for (const Notified& notified : stream.notified) {
    const lbm_rcv_src_notification_func_t function = notified.topic->options->get(option::receiverSourceNotification);
    if (function.delete_func != nullptr) {
      callApplication(
          [&] { function.delete_func(stream.source->session().c_str(), function.clientd, notified.sourceClientd); });
    }
  }
}

MessageRef Directory::blank(int type, const std::shared_ptr<transport::RemoteSource>& origin, std::uint32_t sequence) {
  MessageRef message = m_pool->acquire();
  message->type = type;
  message->sequence_number = sequence;
  message->timestamp = m_context.arrivalTime();
  message->setSource(origin);
  return message;
}

void Directory::deliverEvent(Stream& stream, Leg& leg, int type, std::uint32_t sequence, std::uint32_t count) {
  MessageRef message = blank(type, stream.source, sequence);
  message->len = count;
  message->source_clientd = leg.sourceClientd;
  leg.receiver->deliver(message);
  m_pool->recycle(std::move(message));
}

void Directory::deliver(Stream& stream, Leg& leg, MessageRef& message) {
  if (!leg.begun) {
    leg.begun = true;
    deliverEvent(stream, leg, LBM_MSG_BOS, message->sequence_number);
  }
  leg.receiver->deliver(message);
}

void Directory::message(transport::RemoteSource& source, transport::InboundMessage& inbound) {
  Stream* stream = streamOf(source);
  if (stream == nullptr) {
    return;
  }
  MessageRef message;
  for (Leg& leg : stream->legs) {
    // One message serves all receivers unless they have to see something of their own in it: the client data of their
    // source notification, or a response that each of them may take over.
    if (!message || inbound.replyPath != nullptr || message->source_clientd != leg.sourceClientd) {
      if (message) {
        m_pool->recycle(std::move(message));
      }
      message = blank(inbound.replyPath != nullptr ? LBM_MSG_REQUEST : LBM_MSG_DATA, stream->source, inbound.sequence);
      message->setPayload(inbound.payload);
      message->source_clientd = leg.sourceClientd;
      if (inbound.channel) {
        message->setChannel(*inbound.channel);
      }
      if (inbound.replyPath != nullptr) {
        message->setResponse(Response(m_context.shared_from_this(), inbound.replyPath));
      }
    }
    deliver(*stream, leg, message);
  }
  if (message) {
    m_pool->recycle(std::move(message));
  }
}

void Directory::loss(transport::RemoteSource& source, std::uint32_t first, std::uint32_t count) {
  Stream* stream = streamOf(source);
  if (stream == nullptr) {
    return;
  }
  for (Leg& leg : stream->legs) {
    if (!leg.begun) {
      leg.begun = true;
      deliverEvent(*stream, leg, LBM_MSG_BOS, first);
    }
    if (count > leg.receiver->lossBurstThreshold()) {
      deliverEvent(*stream, leg, LBM_MSG_UNRECOVERABLE_LOSS_BURST, first, count);
    } else {
      for (std::uint32_t lost = 0; lost < count; ++lost) {
        deliverEvent(*stream, leg, LBM_MSG_UNRECOVERABLE_LOSS, first + lost);
      }
    }
  }
}

void Directory::clear() {
  for (auto& [name, entry] : m_topics) {
    for (const auto& receiver : entry.receivers) {
      receiver->closeAndWait();
    }
    for (const auto& stream : entry.streams) {
      notifyDelete(*stream);
      stream->source->listenerData = nullptr;
    }
  }
  m_topics.clear();
}

}  // namespace engine::core
