// A process that found a context's socket and speaks to it without the engine.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "transport/host/ring/parking_word.h"
#include "transport/host/ring/ring_memory.h"
#include "transport/host/wire/frames.h"
#include "zq/posix/descriptor.h"

namespace engine::transport::host {

// A frame, and room for descriptors beside it.
struct RawPacket {
  static constexpr std::size_t kDescriptorsMax = 3;

  iovec part;
  alignas(cmsghdr) std::array<char, CMSG_SPACE(kDescriptorsMax * sizeof(int))> control{};
  msghdr message{nullptr, 0, &part, 1, control.data(), control.size(), 0};
};

// Calls connect or bind with the address of the file.
template <typename Call>
bool AtAddress(Call call, const zq::posix::Descriptor& socket, const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return call(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

class RawPeer {
 public:
  explicit RawPeer(const std::string& path)
      : m_socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
        m_connected(AtAddress(::connect, m_socket, path)) {}
  explicit RawPeer(zq::posix::Descriptor socket) : m_socket(std::move(socket)), m_connected(m_socket.Get() >= 0) {}

  bool Connected() const { return m_connected; }

  // descriptor: to pass with the frame, so many times; none if negative.
  void Send(Bytes frame, int descriptor = -1, std::size_t times = 1) const {
    RawPacket packet{{const_cast<std::byte*>(frame.data()), frame.size()}};
    if (descriptor < 0) {
      packet.message.msg_controllen = 0;
    } else {
      cmsghdr* const header = CMSG_FIRSTHDR(&packet.message);
      header->cmsg_level = SOL_SOCKET;
      header->cmsg_type = SCM_RIGHTS;
      header->cmsg_len = CMSG_LEN(times * sizeof(descriptor));
      for (std::size_t i = 0; i < times; ++i) {
        std::memcpy(CMSG_DATA(header) + i * sizeof(descriptor), &descriptor, sizeof(descriptor));
      }
      packet.message.msg_controllen = header->cmsg_len;
    }
    ::sendmsg(m_socket.Get(), &packet.message, MSG_NOSIGNAL);
  }
  void Send(wire::Type type, int descriptor = -1) const { Send(wire::BytesOf(wire::Signal{type}), descriptor); }
  // As a context that nobody has met.
  void Greet() const {
    static std::uint64_t instance = 0;
    Send(wire::EncodeHello({++instance, 2, "raw"}));
  }

  // Reads frames up to one with a descriptor.
  zq::posix::Descriptor ReceiveDescriptor() const {
    std::vector<std::byte> frame(wire::kPacketMax);
    int descriptor = -1;
    for (ssize_t length = 1; descriptor < 0 && length > 0;) {
      RawPacket packet{{frame.data(), frame.size()}};
      length = ::recvmsg(m_socket.Get(), &packet.message, MSG_CMSG_CLOEXEC);
      if (const cmsghdr* const header = CMSG_FIRSTHDR(&packet.message); length > 0 && header != nullptr) {
        std::memcpy(&descriptor, CMSG_DATA(header), sizeof(descriptor));
      }
    }
    return zq::posix::Descriptor(descriptor);
  }

  // What the context sent before it hung up; nothing when it has not.
  std::optional<std::size_t> BytesUntilHangUp() const {
    std::vector<std::byte> frame(wire::kPacketMax);
    std::size_t bytes = 0;
    ssize_t length = 0;
    while ((length = ::recv(m_socket.Get(), frame.data(), frame.size(), 0)) > 0) {
      bytes += static_cast<std::size_t>(length);
    }
    return length == 0 || errno != EAGAIN ? std::optional(bytes) : std::nullopt;
  }
  bool CutOff() const { return BytesUntilHangUp().has_value(); }

 private:
  zq::posix::Descriptor m_socket;
  bool m_connected = false;
};

// Takes the calls of contexts that believe the file to be the socket of another one.
class RawListener {
 public:
  explicit RawListener(const std::string& path, int type = SOCK_SEQPACKET)
      : m_socket(::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    EXPECT_TRUE(AtAddress(::bind, m_socket, path) && ::listen(m_socket.Get(), 1) == 0) << path;
  }
  RawPeer Accept() const {
    return RawPeer(zq::posix::Descriptor(::accept4(m_socket.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)));
  }

 private:
  zq::posix::Descriptor m_socket;
};

// A ring in which such a process writes what it likes.
class RawRing {
 public:
  explicit RawRing(const RawPeer& peer, wire::Type type = wire::Type::kRing) {
    peer.Send(type, m_created.memory.Get());
  }

  // When there is space.
  void Put(wire::Type type, Bytes content) {
    if (std::byte* const to = m_producer.Reserve(content.size(), static_cast<std::uint32_t>(type)); to != nullptr) {
      std::copy(content.begin(), content.end(), to);
      m_producer.Commit();
    }
  }
  // A header in the ring's first bytes.
  void PutHeader(const RingFrameHeader& header) { std::memcpy(Bytes().data(), &header, sizeof(header)); }
  RingControl<RingCursor>& Control() { return m_created.ring.Control(); }
  std::span<std::byte> Bytes() { return m_created.ring.Bytes(); }

 private:
  RingMemory::Created m_created = RingMemory::Create(kRingBytesMin);
  RingProducer<RingCursor> m_producer{m_created.ring.Control(), m_created.ring.Bytes()};
};

}  // namespace engine::transport::host
