// The messages of the network protocol, little-endian. Each NATS message is one of these, and begins with a prologue.
//
// Everybody who may publish on a subject can write anything: each length is checked before it is used, and a malformed
// message throws Fault.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "transport/fault.h"
#include "transport/message.h"

namespace engine::transport::nats::wire {

static_assert(std::endian::native == std::endian::little, "the structures below are sent as they stand in memory");

inline constexpr std::uint32_t kMagic = 0x584c4e50;
inline constexpr std::uint16_t kVersion = 1;

enum class Kind : std::uint16_t {
  kAnnounce = 1,  // a source is there
  kGone,          // a source is not there any more
  kWant,          // who has sources of the subject's topic, or any? Answered with kAnnounce to the asker's inbox
  kInterest,      // subscriptions of the sender to the receiver's sources, and how far it has consumed them
  kAccept,        // a subscription has begun
  kAlive,         // the sender lives; and how far its quiet sources have come
  kBye,           // the sender does not
  kData,          // frames of one source
  kResponse       // a piece of a response
};

struct Prologue {
  std::uint32_t magic = kMagic;
  std::uint16_t version = kVersion;
  Kind kind{};
  std::uint64_t instance = 0;  // of the sender
};

// The identity and the topic follow.
struct Announce {
  std::uint64_t place = 0;  // where contexts of one machine meet; 0: nowhere
  std::uint32_t source = 0;
  std::uint16_t identityLength = 0;
  std::uint16_t topicLength = 0;
};

// How far a source has come.
struct Progress {
  std::uint32_t source = 0;
  std::uint32_t next = 0;      // sequence number of the next message
  std::uint64_t position = 0;  // bytes of frames sent so far
};

// The name follows, then the subscriptions.
struct Interest {
  std::uint32_t nameLength = 0;
  std::uint32_t count = 0;
};

struct Subscription {
  std::uint32_t source = 0;
  std::uint32_t token = 0;     // names the subscription among those of the subscriber to the source; 0: there is none
  std::uint64_t position = 0;  // up to which it has consumed
  std::uint32_t accepted = 0;  // whether it knows that it has begun
  std::uint32_t reserved = 0;
};

struct Accept {
  Progress progress;  // the first message to expect
  std::uint32_t token = 0;
  std::uint32_t creditBytes = 0;  // say how far you are after so many bytes; 0: no need to
};

struct Data {
  std::uint64_t position = 0;  // of the first frame
  std::uint32_t source = 0;
  std::uint32_t audience = 0;  // contexts that have subscribed to it
};

// The sender's identity and a piece of the response follow.
struct Response {
  std::uint64_t request = 0;
  std::uint32_t total = 0;   // bytes of the whole response
  std::uint32_t offset = 0;  // of the piece
  std::uint32_t identityLength = 0;
  std::uint32_t reserved = 0;
};

// A message or a fragment of it. The request's id follows if it is one, then the channel if it has one, then size
// bytes.
struct Frame {
  std::uint32_t size = 0;
  std::uint32_t total = 0;  // bytes of the whole message
  std::uint32_t sequence = 0;
  std::uint32_t flags = 0;
};
inline constexpr std::uint32_t kIsRequest = 1;
inline constexpr std::uint32_t kHasChannel = 2;

template <typename T>
Bytes BytesOf(const T& value) noexcept {
  static_assert(std::has_unique_object_representations_v<T>, "nothing unset leaves the process");
  return std::as_bytes(std::span(&value, 1));
}

inline void Append(std::vector<std::byte>& out, Bytes bytes) { out.insert(out.end(), bytes.begin(), bytes.end()); }
inline void Append(std::vector<std::byte>& out, std::string_view text) { Append(out, std::as_bytes(std::span(text))); }
template <typename T>
void AppendValue(std::vector<std::byte>& out, const T& value) {
  Append(out, BytesOf(value));
}

// Take what they name off the front of bytes. Throw Fault when there is less.
Bytes TakeBytes(Bytes& bytes, std::size_t size);
std::string_view TakeText(Bytes& bytes, std::size_t length);
template <typename T>
T Take(Bytes& bytes) {
  T value;
  std::memcpy(&value, TakeBytes(bytes, sizeof(T)).data(), sizeof(T));
  return value;
}

// Throws Fault for what is not of this protocol and version.
Prologue TakePrologue(Bytes& bytes);

// A new message with its prologue.
std::vector<std::byte> Begin(Kind kind, std::uint64_t instance);

}  // namespace engine::transport::nats::wire
