// The frames that travel on a link: one to a packet, in the machine's own byte order, since both ends are on one
// machine. Everything read here may come from a faulty peer: a length is checked before it is used, and a frame that is
// wrong throws Fault.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace engine::transport::host::wire {

inline constexpr std::uint64_t kMagic = 0x314b4e494c584350;
inline constexpr std::uint32_t kVersion = 1;

inline constexpr std::size_t kPacketMax = std::size_t{64} << 10;           // bytes of any frame
inline constexpr std::size_t kAdvertisePacketMax = std::size_t{32} << 10;  // bytes of a frame of advertisements
inline constexpr std::size_t kNameMax = 4096;                              // bytes of a topic, session or context name
inline constexpr std::size_t kMessageMax = std::size_t{256} << 20;         // bytes of a message in all its fragments

class Fault : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

using Bytes = std::span<const std::byte>;

enum class Type : std::uint16_t {
  hello = 1,
  advertise,
  withdraw,
  subscribe,
  subscribed,
  unsubscribe,
  data,
  response,
  loss
};

// The first frame in either direction. The context's name follows.
struct Hello {
  Type type = Type::hello;
  std::uint16_t nameLength = 0;
  std::uint32_t version = kVersion;
  std::uint64_t magic = kMagic;
  std::uint64_t session = 0;
  std::uint32_t process = 0;
  std::uint32_t reserved = 0;
};

struct AdvertiseHeader {
  Type type = Type::advertise;
  std::uint16_t reserved = 0;
};

// One source of a frame of advertisements. The topic and the session follow.
struct AdvertiseEntry {
  std::uint32_t source = 0;
  std::uint16_t topicLength = 0;
  std::uint16_t sessionLength = 0;
};

struct Withdraw {
  Type type = Type::withdraw;
  std::uint16_t reserved = 0;
  std::uint32_t source = 0;
};

// The token comes back in the answer, so that the answer to an earlier subscription of the source is not taken for it.
struct Subscribe {
  Type type = Type::subscribe;
  std::uint16_t reserved = 0;
  std::uint32_t source = 0;
  std::uint32_t token = 0;
};

struct Subscribed {
  Type type = Type::subscribed;
  std::uint16_t reserved = 0;
  std::uint32_t source = 0;
  std::uint32_t token = 0;
  std::uint32_t nextSequence = 0;
};

struct Unsubscribe {
  Type type = Type::unsubscribe;
  std::uint16_t reserved = 0;
  std::uint32_t source = 0;
};

inline constexpr std::uint16_t kHasChannel = 1;

// Leads a message or a piece of one; the payload follows. A message that is larger than its packet goes on in the next
// data or response frame of the link. Responses have neither source nor sequence nor channel.
struct DataHeader {
  Type type = Type::data;
  std::uint16_t flags = 0;
  std::uint32_t source = 0;
  std::uint32_t sequence = 0;
  std::uint32_t channel = 0;
  std::uint64_t request = 0;
  std::uint64_t total = 0;  // bytes of the whole message

  friend bool operator==(const DataHeader&, const DataHeader&) = default;
};

struct Loss {
  Type type = Type::loss;
  std::uint16_t reserved = 0;
  std::uint32_t source = 0;
  std::uint32_t first = 0;
  std::uint32_t count = 0;
};

template <typename T>
concept Frame = std::is_trivially_copyable_v<T> && std::has_unique_object_representations_v<T>;

template <Frame T>
Bytes bytesOf(const T& frame) {
  return std::as_bytes(std::span(&frame, 1));
}

// Takes a T off the front of the bytes.
template <Frame T>
T take(Bytes& bytes) {
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
T decode(Bytes frame) {
  const T value = take<T>(frame);
  if (!frame.empty()) {
    throw Fault("a frame is longer than its type");
  }
  return value;
}

Type typeOf(Bytes frame);

struct Greeting {
  std::uint64_t session = 0;
  std::uint32_t process = 0;
  std::string name;
};

// A session as operators read it, in notices and in the names of sockets.
std::string sessionText(std::uint64_t session);

std::vector<std::byte> encodeHello(const Greeting& greeting);
Greeting decodeHello(Bytes frame);

// Collects advertisements into as few frames as they need. Give what frame() holds to the link when add() says that it
// is full, clear() and add again.
class AdvertiseBatch {
 public:
  AdvertiseBatch() { clear(); }
  bool add(std::uint32_t source, std::string_view topic, std::string_view session);
  bool empty() const { return m_frame.size() == sizeof(AdvertiseHeader); }
  Bytes frame() const { return m_frame; }
  void clear();

 private:
  std::vector<std::byte> m_frame;
};

using AdvertiseHandler = std::function<void(std::uint32_t source, std::string_view topic, std::string_view session)>;
void decodeAdvertise(Bytes frame, const AdvertiseHandler& handler);

// Joins the fragments of one link's messages.
class Reassembly {
 public:
  struct Result {
    bool complete = false;
    Bytes message;  // the whole of it, when complete; valid as long as the payload and until the next call
  };
  Result add(const DataHeader& header, Bytes payload);

 private:
  DataHeader m_header;
  std::vector<std::byte> m_message;
  bool m_partial = false;
};

}  // namespace engine::transport::host::wire
