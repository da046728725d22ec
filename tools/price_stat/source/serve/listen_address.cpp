#include "serve/listen_address.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>
#include <system_error>

#include "cli/exit_code.h"
#include "cli/one_line.h"
#include "zq/posix/error.h"

namespace price_stat {

namespace {

constexpr int kBacklog = 512;

struct HostAndPort {
  std::string host;  // without the brackets that an IPv6 address has
  bool bracketed = false;
  std::string_view port;
};

std::optional<HostAndPort> Split(std::string_view text) {
  HostAndPort parts;
  if (text.starts_with('[')) {
    const auto end = text.find(']');
    if (end == std::string_view::npos) {
      return std::nullopt;
    }
    parts.bracketed = true;
    parts.host = text.substr(1, end - 1);
    text.remove_prefix(end + 1);
  } else {
    const auto end = std::min(text.find(':'), text.size());
    parts.host = text.substr(0, end);
    text.remove_prefix(end);
  }
  if (!text.empty() && text[0] != ':') {
    return std::nullopt;
  }
  parts.port = text.empty() ? text : text.substr(1);
  return parts;
}

std::optional<std::uint16_t> PortOf(std::string_view text) {
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  return error == std::errc() && end == text.data() + text.size() ? std::optional(port) : std::nullopt;
}

bool SameName(std::string_view one, std::string_view other) {
  return one.size() == other.size() && ::strncasecmp(one.data(), other.data(), one.size()) == 0;
}

const sockaddr* Generic(const sockaddr_storage& address) {
  return reinterpret_cast<const sockaddr*>(&address);  // NOLINT(cppcoreguidelines-pro-type-reinterpret-cast)
}

}  // namespace

ListenAddress::ListenAddress(std::string_view text) {
  const auto parts = Split(text);
  const auto number = parts ? PortOf(parts->port) : std::nullopt;
  if (!number) {
    throw cli::UsageError("cannot listen at \"" + cli::OneLine(text) +
                          "\": an address and a port are needed, such as 127.0.0.1:9911 or [::1]:9911");
  }
  const std::uint16_t port = ::htons(*number);
  sockaddr_in v4{.sin_family = AF_INET, .sin_port = port};
  sockaddr_in6 v6{.sin6_family = AF_INET6, .sin6_port = port};
  const std::string host = SameName(parts->host, "localhost") ? "127.0.0.1" : parts->host;
  if (!parts->bracketed && ::inet_pton(AF_INET, host.c_str(), &v4.sin_addr) == 1) {
    std::memcpy(&m_address, &v4, m_length = sizeof v4);
  } else if (parts->bracketed && ::inet_pton(AF_INET6, host.c_str(), &v6.sin6_addr) == 1) {
    std::memcpy(&m_address, &v6, m_length = sizeof v6);
  } else {
    throw cli::UsageError("cannot listen at \"" + cli::OneLine(host) +
                          "\": that is no address of an interface, such as 127.0.0.1 or [::1]");
  }
}

bool ListenAddress::IsLoopback() const {
  if (m_address.ss_family == AF_INET) {
    sockaddr_in v4{};
    std::memcpy(&v4, &m_address, sizeof v4);
    return ::ntohl(v4.sin_addr.s_addr) >> 24U == IN_LOOPBACKNET;
  }
  sockaddr_in6 v6{};
  std::memcpy(&v6, &m_address, sizeof v6);
  return IN6_IS_ADDR_LOOPBACK(&v6.sin6_addr) != 0;
}

zq::posix::Descriptor ListenAddress::Listen() {
  auto socket = zq::posix::Checked(::socket(m_address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0), "creating a socket");
  // Connections of an earlier server that still wind up do not keep a new one from starting.
  const int on = 1;
  ::setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (::bind(socket.Get(), Generic(m_address), m_length) != 0 || ::listen(socket.Get(), kBacklog) != 0) {
    const int error = errno;
    throw cli::UsageError("cannot listen at " + Text() + ": " + zq::posix::ErrorText(error) +
                          (error == EADDRINUSE ? "; choose another port, or 0 for any that is free" : ""));
  }
  socklen_t length = sizeof m_address;
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast)
  if (::getsockname(socket.Get(), reinterpret_cast<sockaddr*>(&m_address), &length) != 0) {
    zq::posix::ThrowErrno("asking for the port");
  }
  return socket;
}

std::string ListenAddress::Text() const {
  std::array<char, INET6_ADDRSTRLEN> host{};
  if (m_address.ss_family == AF_INET) {
    sockaddr_in v4{};
    std::memcpy(&v4, &m_address, sizeof v4);
    ::inet_ntop(AF_INET, &v4.sin_addr, host.data(), host.size());
    return fmt::format("{}:{}", host.data(), ::ntohs(v4.sin_port));
  }
  sockaddr_in6 v6{};
  std::memcpy(&v6, &m_address, sizeof v6);
  ::inet_ntop(AF_INET6, &v6.sin6_addr, host.data(), host.size());
  return fmt::format("[{}]:{}", host.data(), ::ntohs(v6.sin6_port));
}

bool IsKnownHost(std::string_view host, const std::vector<std::string>& names) {
  const auto parts = Split(host);
  if (!parts) {
    return false;
  }
  in6_addr address{};
  if (::inet_pton(parts->bracketed ? AF_INET6 : AF_INET, parts->host.c_str(), &address) == 1) {
    return true;
  }
  return !parts->bracketed &&
         (SameName(parts->host, "localhost") ||
          std::any_of(names.begin(), names.end(), [&](const auto& name) { return SameName(parts->host, name); }));
}

}  // namespace price_stat
