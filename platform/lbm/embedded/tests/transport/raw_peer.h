// A process that found a context's socket and speaks to it without the engine.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string>
#include <vector>

#include "system/descriptor.h"
#include "transport/host/wire.h"

namespace engine::transport::host {

class RawPeer {
 public:
  explicit RawPeer(const std::string& path)
      : m_socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    m_connected = ::connect(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  }

  bool connected() const { return m_connected; }

  void send(wire::Bytes frame) const { ::send(m_socket.get(), frame.data(), frame.size(), MSG_NOSIGNAL); }
  void greet() const { send(wire::encodeHello({1, 2, "raw"})); }

  // Whether the context has hung up, once its frames are read.
  bool cutOff() const {
    std::vector<std::byte> frame(wire::kPacketMax);
    ssize_t length = 0;
    while ((length = ::recv(m_socket.get(), frame.data(), frame.size(), 0)) > 0) {
    }
    return length == 0 || errno != EAGAIN;
  }

 private:
  Descriptor m_socket;
  bool m_connected = false;
};

}  // namespace engine::transport::host
