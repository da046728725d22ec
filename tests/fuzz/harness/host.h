// Neighbours on one machine, and what processes that attack them there have in common.
#pragma once

#include <algorithm>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "engine_testing/raw_peer.h"
#include "harness/input.h"
#include "harness/neighbours.h"
#include "test_support/temporary_directory.h"
#include "transport/host/host_transport.h"

namespace fuzz {

namespace host = engine::transport::host;
namespace wire = host::wire;

// Small, so that rings wrap.
inline constexpr std::size_t kRingBytes = std::size_t{16} << 10;

// What is there before the contexts, and after them.
struct HostPlace {
  const test_support::TemporaryDirectory directory;

  host::HostSettings SettingsFor(const std::string& name) const {
    host::HostSettings settings;
    settings.runtimeDirectory = directory.Path();
    settings.domain = "test";
    settings.contextName = name;
    settings.ringBytes = kRingBytes;
    return settings;
  }
};

class HostNeighbours : public HostPlace, public Neighbours {
 public:
  HostNeighbours() : Neighbours([this](const std::string& name) { return host::JoinHostDomain(SettingsFor(name)); }) {
    // An identity has the parts of the socket's name: "host:<process>.<instance>".
    std::string name = Victim().Context().Identity().substr(sizeof "host:" - 1);
    std::replace(name.begin(), name.end(), '.', '-');
    m_address = directory.Path() / "test" / (name + ".socket");
  }

  // The attacker's way to the victim.
  host::RawPeer Connect() const { return host::RawPeer(m_address); }
  // The same as a context that nobody has met.
  host::RawPeer ConnectAndGreet() const {
    host::RawPeer peer = Connect();
    peer.Greet();
    return peer;
  }

 private:
  std::string m_address;
};

// Add to a frame.
inline void Append(std::vector<std::byte>& frame, transport::Bytes bytes) {
  frame.insert(frame.end(), bytes.begin(), bytes.end());
}
inline void Append(std::vector<std::byte>& frame, std::string_view text) {
  Append(frame, std::as_bytes(std::span(text)));
}
template <wire::Frame T>
void Append(std::vector<std::byte>& frame, const T& value) {
  Append(frame, wire::BytesOf(value));
}

}  // namespace fuzz
