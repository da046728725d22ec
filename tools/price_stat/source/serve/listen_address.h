// Where a server listens, and by which names it may be called.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "zq/posix/descriptor.h"

namespace price_stat {

class ListenAddress {
 public:
  // "127.0.0.1:9911", "[::1]:9911" or "localhost:9911"; port 0 is any free one. Throws cli::UsageError.
  explicit ListenAddress(std::string_view text);

  // Whether only programs of this machine can reach it.
  bool IsLoopback() const;

  // A socket that listens there; what cannot be is said with cli::UsageError. With port 0 this address gets the port.
  zq::posix::Descriptor Listen();

  // As it stands in a URL: host and port.
  std::string Text() const;

 private:
  sockaddr_storage m_address{};
  socklen_t m_length = 0;
};

// Whether a request that was sent to this host (with or without a port) may be answered. A web page elsewhere can make
// a browser send requests here under a name of its own, so names have to be known: localhost, or one of those given.
// Addresses are nobody's own.
bool IsKnownHost(std::string_view host, const std::vector<std::string>& names);

}  // namespace price_stat
