// The frames of the host protocol, in the machine's own byte order, since both ends are on one machine.
//
// Control frames travel on a link's socket, one a packet, and begin with their type. Data frames travel in a ring,
// where the type is the frame's tag and is not repeated in its content. A ring and the socket beside it are ordered in
// one direction: what a peer committed to its ring before it sent a control frame is consumed before that frame.
//
// Every frame may come from a faulty peer: each length is checked before it is used, and a malformed frame throws
// Fault.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "transport/fault.h"
#include "transport/message.h"

namespace engine::transport::host::wire {

inline constexpr std::uint64_t kMagic = 0x314b4e494c584350;
inline constexpr std::uint32_t kVersion = 7;

inline constexpr std::size_t kPacketMax = std::size_t{64} << 10;       // bytes of any packet
inline constexpr std::size_t kTopicPacketMax = std::size_t{32} << 10;  // bytes of a packet of topics

enum class Type : std::uint16_t {
  // Control frames, on the socket:
  kHello = 1,
  kWant,     // asks for advertisements of the sources of topics
  kWantAll,  // asks for those of all sources, present and future
  kAdvertise,
  kWithdraw,
  kSubscribe,
  kUnsubscribe,
  kResponse,
  kParkingWord,  // carries the descriptor of the sender's parking word; once, before its first subscription
  kRing,         // carries the descriptor of the ring for messages of sources that do not wait; once, before the first
  kPacedRing,    // the same for messages of sources that wait for space
  kDoorbell,     // wakes the peer, whose parking word says that it is parked
  kCredit,       // grants the credit that the peer requested: half of its ring is free
  // Data frames, in a ring:
  kMessage = 0x100,
  kFragment,
  kSubscribed,
  kLoss,
  kWithdrawn
};

constexpr bool CarriesDescriptor(Type type) {
  return type == Type::kParkingWord || type == Type::kRing || type == Type::kPacedRing;
}

// A control frame of which the type says everything.
struct Signal {
  Type type = Type::kDoorbell;
};

// The handshake: the first frame in either direction. The context's name follows.
struct Hello {
  Type type = Type::kHello;
  std::uint16_t nameLength = 0;
  std::uint32_t version = kVersion;
  std::uint64_t magic = kMagic;
  std::uint64_t instance = 0;
  std::uint32_t process = 0;
  std::uint32_t reserved = 0;
};

// Of a want or advertise frame; any number of topics follow.
struct TopicsHeader {
  Type type = Type::kAdvertise;
  std::uint16_t reserved = 0;
};

// The topic that is wanted, or that of an advertised source. Its name follows.
struct TopicHeader {
  std::uint32_t source = 0;  // 0 where it is wanted
  std::uint16_t length = 0;
  std::uint16_t reserved = 0;
};

// Ends a source for a peer that is not subscribed to it; subscribers find a Withdrawn behind its last message.
struct Withdraw {
  Type type = Type::kWithdraw;
  std::uint16_t reserved = 0;
  std::uint32_t source = 0;
};

// The token comes back in the answer, so that the answer to an earlier subscription of the source is told apart.
struct Subscribe {
  Type type = Type::kSubscribe;
  std::uint16_t reserved = 0;
  std::uint32_t source = 0;
  std::uint32_t token = 0;
};

struct Unsubscribe {
  Type type = Type::kUnsubscribe;
  std::uint16_t reserved = 0;
  std::uint32_t source = 0;
};

// A response, or a fragment of one; the payload follows. What does not fit in the packet follows in the link's next
// response frame.
struct ResponseHeader {
  Type type = Type::kResponse;
  std::uint16_t reserved = 0;
  std::uint32_t total = 0;  // bytes of the whole response
  std::uint64_t request = 0;

  friend bool operator==(const ResponseHeader&, const ResponseHeader&) = default;
};

// A message without channel, request or time that fits in one frame, as most do; the payload follows.
struct MessageHeader {
  std::uint32_t source = 0;
  std::uint32_t sequence = 0;
};

inline constexpr std::uint32_t kHasChannel = 1;

// Any other message, or a fragment of one; the payload follows. The next fragment is in the ring's next fragment frame.
struct FragmentHeader {
  std::uint32_t source = 0;
  std::uint32_t sequence = 0;
  std::uint32_t flags = 0;  // kHasChannel
  std::uint32_t channel = 0;
  std::uint64_t request = 0;  // 0: not a request
  std::uint64_t total = 0;    // bytes of the whole message
  std::uint64_t sent = 0;     // a sample for statistics: when, in nanoseconds of the monotonic clock; 0: none

  friend bool operator==(const FragmentHeader&, const FragmentHeader&) = default;
};

// Answers a subscription: the source's messages follow, from that sequence number on.
struct Subscribed {
  std::uint32_t source = 0;
  std::uint32_t token = 0;
  std::uint32_t nextSequence = 0;
};

// Messages that were dropped for want of space.
struct Loss {
  std::uint32_t source = 0;
  std::uint32_t first = 0;
  std::uint32_t count = 0;
};

struct Withdrawn {
  std::uint32_t source = 0;
};

template <typename T>
concept Frame = std::is_trivially_copyable_v<T> && std::has_unique_object_representations_v<T>;

template <Frame T>
Bytes BytesOf(const T& frame) {
  return std::as_bytes(std::span(&frame, 1));
}

// Takes a T off the front of the bytes.
template <Frame T>
T Take(Bytes& bytes) {
  if (bytes.size() < sizeof(T)) {
    throw Fault("a frame is cut short");
  }
  T value;
  std::memcpy(&value, bytes.data(), sizeof(T));
  bytes = bytes.subspan(sizeof(T));
  return value;
}

// The frame as a T and nothing but a T.
template <Frame T>
T Decode(Bytes frame) {
  const T value = Take<T>(frame);
  if (!frame.empty()) {
    throw Fault("a frame is longer than its type");
  }
  return value;
}

Type TypeOf(Bytes frame);

// Who a context is, as it says in the handshake.
struct Greeting {
  std::uint64_t instance = 0;  // random: tells this context of this run from every other
  std::uint32_t process = 0;
  std::string name;
};

std::vector<std::byte> EncodeHello(const Greeting& greeting);
Greeting DecodeHello(Bytes frame);

// See Transport::Identity and RemoteSource::Session.
std::string IdentityOf(const Greeting& greeting);
std::string SourceSession(const std::string& context, std::uint32_t source);

// Packs topics into as few packets as they need, and gives each that is full to send, which takes Bytes.
class TopicBatch {
 public:
  explicit TopicBatch(Type type) : m_type(type) { Clear(); }

  template <typename Send>
  void Add(std::uint32_t source, std::string_view topic, Send send) {
    if (!HasSpace(topic)) {
      Finish(send);
    }
    Append(source, topic);
  }
  template <typename Send>
  void Finish(Send send) {
    if (m_packet.size() > sizeof(TopicsHeader)) {
      send(Bytes(m_packet));
      Clear();
    }
  }

 private:
  bool HasSpace(std::string_view topic) const noexcept {
    return m_packet.size() + sizeof(TopicHeader) + topic.size() <= kTopicPacketMax;
  }
  void Append(std::uint32_t source, std::string_view topic);
  void Clear();

  const Type m_type;
  std::vector<std::byte> m_packet;
};

using TopicHandler = std::function<void(std::uint32_t source, std::string_view topic)>;
void DecodeTopics(Bytes packet, const TopicHandler& handler);

}  // namespace engine::transport::host::wire
