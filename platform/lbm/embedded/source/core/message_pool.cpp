#include "core/message_pool.h"

#include <bit>
#include <cstring>

namespace engine::core {

void Message::Release() noexcept {
  if (m_references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    m_pool.PutBack(*this);
  }
}

void Message::SetPayload(std::span<const std::byte> payload) {
  if (payload.size() > m_capacity) {
    const std::size_t capacity = std::bit_ceil(payload.size());
    m_buffer = std::make_unique_for_overwrite<std::byte[]>(capacity);
    m_capacity = capacity;
  }
  if (payload.empty()) {
    data = nullptr;
  } else {
    std::memcpy(m_buffer.get(), payload.data(), payload.size());
    data = reinterpret_cast<const char*>(m_buffer.get());
  }
  len = payload.size();
}

void Message::SetChannel(std::uint32_t number) noexcept {
  m_channel.channel_number = number;
  channel_info = &m_channel;
}

void Message::SetResponse(Response value) {
  m_response.reset(new lbm_response_t{std::move(value)});
  response = m_response.get();
}

void Message::SetSource(const std::shared_ptr<transport::RemoteSource>& value) noexcept {
  if (m_source != value) {
    m_source = value;
  }
  source = value->Session().c_str();
  topic_name = value->Topic().c_str();
}

void Message::Clear() noexcept {
  if (m_response != nullptr) {
    if (response == nullptr) {
      static_cast<void>(m_response.release());  // the receiver took it over
    } else {
      m_response.reset();
    }
  }
  // Whoever takes it next sets all else.
  data = nullptr;
  len = 0;
  response = nullptr;
  source_clientd = nullptr;
  channel_info = nullptr;
}

bool MessagePool::FreeList::Push(Message& message) noexcept {
  if (m_bytes + message.Footprint() > kBytesMax) {
    return false;
  }
  m_bytes += message.Footprint();
  message.m_next = std::exchange(m_first, &message);
  return true;
}

Message* MessagePool::FreeList::Pop() noexcept {
  Message* const message = m_first;
  if (message != nullptr) {
    m_first = std::exchange(message->m_next, nullptr);
    m_bytes -= message->Footprint();
  }
  return message;
}

std::size_t MessagePool::FreeList::Clear() noexcept {
  std::size_t deleted = 0;
  while (Message* const message = Pop()) {
    delete message;
    ++deleted;
  }
  return deleted;
}

MessageRef MessagePool::Acquire() {
  Message* message = m_free.Pop();
  if (message == nullptr) {
    const std::lock_guard lock(m_mutex);
    m_free = std::exchange(m_returned, {});
    m_living -= std::exchange(m_deleted, 0);
    message = m_free.Pop();
  }
  if (message == nullptr) {
    message = new Message(*this);
    ++m_living;
  }
  message->m_references.store(1, std::memory_order_relaxed);
  return MessageRef(message);
}

void MessagePool::Recycle(MessageRef reference) noexcept {
  // With a count of one this reference is the last: nobody is left who could raise it.
  if (reference->m_references.load(std::memory_order_acquire) != 1) {
    return;
  }
  Message* const message = reference.Detach();
  message->Clear();
  if (!m_free.Push(*message)) {
    delete message;
    --m_living;
  }
}

void MessagePool::PutBack(Message& message) noexcept {
  message.Clear();
  bool kept = false;
  bool last = false;
  {
    const std::lock_guard lock(m_mutex);
    if (m_abandoned) {
      last = --m_out == 0;
    } else {
      kept = m_returned.Push(message);
      m_deleted += kept ? 0 : 1;
    }
  }
  if (!kept) {
    delete &message;
  }
  if (last) {
    delete this;
  }
}

void MessagePool::Abandon() noexcept {
  bool empty = false;
  {
    const std::lock_guard lock(m_mutex);
    m_out = m_living - m_deleted - m_free.Clear() - m_returned.Clear();
    m_abandoned = true;
    empty = m_out == 0;
  }
  if (empty) {
    delete this;
  }
}

}  // namespace engine::core
