// The frames that travel on a link and in a ring, in the machine's own byte order, since both ends are on one machine.
// Everything read here may come from a faulty peer: a length is checked before it is used, and a frame that is wrong
// throws Fault.
//
// A link's socket carries one frame a packet, which begins with its type. In a ring the type is the frame's tag and not
// repeated in its content. What a peer put in its ring before it sent a frame over the socket is taken in before that
// frame.
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

#include "transport/host/fault.h"

namespace engine::transport::host::wire {

inline constexpr std::uint64_t kMagic = 0x314b4e494c584350;
inline constexpr std::uint32_t kVersion = 3;

inline constexpr std::size_t kPacketMax = std::size_t{64} << 10;           // bytes of any frame
inline constexpr std::size_t kAdvertisePacketMax = std::size_t{32} << 10;  // bytes of a frame of advertisements
inline constexpr std::size_t kNameMax = 4096;                              // bytes of a topic, session or context name
inline constexpr std::size_t kMessageMax = std::size_t{256} << 20;         // bytes of a message in all its fragments

using Bytes = std::span<const std::byte>;

enum class Type : std::uint16_t {
  // On the socket:
  kHello = 1,
  kAdvertise,
  kWithdraw,
  kSubscribe,
  kUnsubscribe,
  kResponse,
  kWakeWord,  // with the descriptor of the sender's; once, before the first subscription
  kRing,      // with the descriptor of the ring in which the sender will write; once, before anything is in it
  kBell,      // wakes the peer because its wake word says that it sleeps
  kRoom,      // half of the peer's ring is free, as it wanted to be told
  // In a ring:
  kMessage = 0x100,
  kFragment,
  kSubscribed,
  kLoss,
  kWithdrawn
};

// Whether a descriptor goes along with frames of the type.
constexpr bool CarriesDescriptor(Type type) { return type == Type::kWakeWord || type == Type::kRing; }

// A frame that says everything with its type.
struct Signal {
  Type type = Type::kBell;
};

// The first frame in either direction. The context's name follows.
struct Hello {
  Type type = Type::kHello;
  std::uint16_t nameLength = 0;
  std::uint32_t version = kVersion;
  std::uint64_t magic = kMagic;
  std::uint64_t session = 0;
  std::uint32_t process = 0;
  std::uint32_t reserved = 0;
};

struct AdvertiseHeader {
  Type type = Type::kAdvertise;
  std::uint16_t reserved = 0;
};

// One source of a frame of advertisements. The topic and the session follow.
struct AdvertiseEntry {
  std::uint32_t source = 0;
  std::uint16_t topicLength = 0;
  std::uint16_t sessionLength = 0;
};

// To whom the source's messages do not go; subscribers find it behind the last of them in the ring.
struct Withdraw {
  Type type = Type::kWithdraw;
  std::uint16_t reserved = 0;
  std::uint32_t source = 0;
};

// The token comes back in the answer, so that the answer to an earlier subscription of the source is not taken for it.
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

// Leads a response or a fragment of one; the payload follows. A response that is larger than its packet goes on in the
// next response frame of the link.
struct ResponseHeader {
  Type type = Type::kResponse;
  std::uint16_t reserved = 0;
  std::uint32_t total = 0;  // bytes of the whole response
  std::uint64_t request = 0;

  friend bool operator==(const ResponseHeader&, const ResponseHeader&) = default;
};

// Leads a message that is plain and in one frame, as most are; the payload follows.
struct MessageHeader {
  std::uint32_t source = 0;
  std::uint32_t sequence = 0;
};

inline constexpr std::uint32_t kHasChannel = 1;

// Leads any other message or a fragment of one; the payload follows. A message in fragments goes on in the ring's next
// fragment frame.
struct FragmentHeader {
  std::uint32_t source = 0;
  std::uint32_t sequence = 0;
  std::uint32_t flags = 0;
  std::uint32_t channel = 0;
  std::uint64_t request = 0;
  std::uint64_t total = 0;  // bytes of the whole message

  friend bool operator==(const FragmentHeader&, const FragmentHeader&) = default;
};

struct Subscribed {
  std::uint32_t source = 0;
  std::uint32_t token = 0;
  std::uint32_t nextSequence = 0;
};

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

struct Greeting {
  std::uint64_t session = 0;
  std::uint32_t process = 0;
  std::string name;
};

// A session as operators read it, in notices and in the names of sockets.
std::string SessionText(std::uint64_t session);

std::vector<std::byte> EncodeHello(const Greeting& greeting);
Greeting DecodeHello(Bytes frame);

// Collects advertisements into as few frames as they need. Give what frame() holds to the link when add() says that it
// is full, clear() and add again.
class AdvertiseBatch {
 public:
  AdvertiseBatch() { Clear(); }
  bool Add(std::uint32_t source, std::string_view topic, std::string_view session);
  bool Empty() const { return m_frame.size() == sizeof(AdvertiseHeader); }
  Bytes Frame() const { return m_frame; }
  void Clear();

 private:
  std::vector<std::byte> m_frame;
};

using AdvertiseHandler = std::function<void(std::uint32_t source, std::string_view topic, std::string_view session)>;
void DecodeAdvertise(Bytes frame, const AdvertiseHandler& handler);

// Joins the fragments of one link's messages, or of its responses.
template <typename Header>
class Reassembly {
 public:
  // Calls complete(Bytes) when this is the last fragment of a message, or all of it.
  template <typename Complete>
  void Add(const Header& header, Bytes payload, Complete complete) {
    if (!m_partial) {
      if (payload.size() == header.total) {
        return complete(payload);
      }
      if (header.total > kMessageMax) {
        throw Fault("a message is larger than allowed");
      }
      m_header = header;
      m_message.reserve(header.total);
      m_partial = true;
    } else if (header != m_header) {
      throw Fault("another message begins inside a message");
    }
    if (payload.empty() || payload.size() > header.total - m_message.size()) {
      throw Fault("the fragments of a message do not add up");
    }
    m_message.insert(m_message.end(), payload.begin(), payload.end());
    if (m_message.size() < header.total) {
      return;
    }
    m_partial = false;
    complete(Bytes(m_message));
    m_message.clear();
    if (m_message.capacity() > kKept) {
      m_message.shrink_to_fit();
    }
  }

 private:
  // Bytes of memory that wait for the next message: enough for any that fits in a ring of the default size.
  static constexpr std::size_t kKept = std::size_t{1} << 20;

  Header m_header;
  std::vector<std::byte> m_message;
  bool m_partial = false;
};

}  // namespace engine::transport::host::wire
