// Delivered messages and the pool they come from.
#pragma once

#include <lbm/lbm.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <utility>

#include "core/response.h"
#include "transport/transport.h"

namespace engine::core {

class MessagePool;

// A message with its own copy of the payload, counted by whoever holds it. Made by MessagePool only.
class Message : public lbm_msg_t_stct {
 public:
  static Message& Of(lbm_msg_t& message) noexcept { return static_cast<Message&>(message); }

  void Retain() noexcept { m_references.fetch_add(1, std::memory_order_relaxed); }
  // Threads: any.
  void Release() noexcept;

  // Bytes of memory that it takes up.
  std::size_t Footprint() const noexcept { return sizeof(Message) + m_capacity; }

  // Copies the payload in; allocates only when it is larger than any that this message carried before.
  void SetPayload(std::span<const std::byte> payload);
  void SetChannel(std::uint32_t number) noexcept;
  void SetResponse(Response value);
  // Keeps the source's strings for as long as the message needs them.
  void SetSource(const std::shared_ptr<transport::RemoteSource>& value) noexcept;

 private:
  friend class MessagePool;

  explicit Message(MessagePool& pool) noexcept : lbm_msg_t_stct{}, m_pool(pool) {}
  ~Message() { Clear(); }

  void Clear() noexcept;

  MessagePool& m_pool;
  std::atomic<std::uint32_t> m_references{0};
  Message* m_next = nullptr;  // in a list of free messages
  std::size_t m_capacity = 0;
  std::unique_ptr<std::byte[]> m_buffer;
  std::shared_ptr<transport::RemoteSource> m_source;
  std::unique_ptr<lbm_response_t> m_response;
  lbm_msg_channel_info_t m_channel{};
};

// One reference to a message.
class MessageRef {
 public:
  MessageRef() noexcept = default;
  // Takes over a reference that is already counted.
  explicit MessageRef(Message* counted) noexcept : m_message(counted) {}
  MessageRef(const MessageRef& other) noexcept : m_message(other.m_message) {
    if (m_message != nullptr) {
      m_message->Retain();
    }
  }
  MessageRef(MessageRef&& other) noexcept : m_message(std::exchange(other.m_message, nullptr)) {}
  MessageRef& operator=(MessageRef other) noexcept {
    std::swap(m_message, other.m_message);
    return *this;
  }
  ~MessageRef() {
    if (m_message != nullptr) {
      m_message->Release();
    }
  }

  Message* Get() const noexcept { return m_message; }
  Message* operator->() const noexcept { return m_message; }
  Message& operator*() const noexcept { return *m_message; }
  explicit operator bool() const noexcept { return m_message != nullptr; }

  // Gives the counted reference out of this object's hands.
  Message* Detach() noexcept { return std::exchange(m_message, nullptr); }

 private:
  Message* m_message = nullptr;
};

// Hands out messages and takes them back for the next use, so that steady traffic allocates nothing. Of a burst it
// keeps a few megabytes only. A pool whose owner goes while messages are out stays until the last of them comes back.
class MessagePool {
 public:
  struct Abandon {
    void operator()(MessagePool* pool) const noexcept { pool->Abandon(); }
  };
  using Owner = std::unique_ptr<MessagePool, Abandon>;

  static Owner Create() { return Owner(new MessagePool); }

  // A message with one reference. Type, source, sequence number and time are for the caller to set, all else is blank.
  // Threads: the context's dispatcher only.
  MessageRef Acquire();

  // Gives a reference back; takes no lock when nobody else holds the message. Threads: the context's dispatcher only.
  void Recycle(MessageRef reference) noexcept;

 private:
  friend class Message;

  // Messages that nobody holds.
  class FreeList {
   public:
    // Takes over the message, which is blank, unless enough are kept already.
    bool Push(Message& message) noexcept;
    Message* Pop() noexcept;       // null when there is none
    std::size_t Clear() noexcept;  // returns how many there were

   private:
    static constexpr std::size_t kBytesMax = std::size_t{4} << 20;

    Message* m_first = nullptr;
    std::size_t m_bytes = 0;
  };

  MessagePool() = default;
  ~MessagePool() = default;

  void Abandon() noexcept;
  void PutBack(Message& message) noexcept;  // threads: any

  // The dispatcher's own:
  FreeList m_free;
  std::size_t m_living = 0;  // messages, those of m_deleted included

  std::mutex m_mutex;
  // Guarded by m_mutex:
  FreeList m_returned;
  std::size_t m_deleted = 0;
  bool m_abandoned = false;
  std::size_t m_out = 0;  // messages still held by somebody, once abandoned
};

}  // namespace engine::core
