// The transport between the contexts of one machine and one user.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "transport/transport.h"

namespace engine::transport::host {

// Level of all notices: something an operator should know of, while the context itself goes on. As in the C interface.
inline constexpr int kNoticeWarning = 2;

struct HostSettings {
  std::string runtimeDirectory;     // empty: from the environment, see runtimeDirectory()
  std::string domain;               // a file name: the sub-directory in which the domain's contexts meet
  std::string contextName;          // told to peers; may be empty
  std::size_t ringBytes = 1 << 20;  // of the ring to each subscribed context; taken up to a power of two
  std::uint32_t firstSequence = 0;  // of every publication
  // How long a process that stands still while it joins may keep this one waiting.
  std::chrono::milliseconds joinPatience{10'000};
  std::function<void(int level, const std::string& text)> notice;  // faults of peers, for operators; any thread
};

// The directory that holds the domains: LBM_RUNTIME_DIR, else $XDG_RUNTIME_DIR/lbm, else /tmp/lbm-<uid>.
std::string RuntimeDirectory();

// Joins the domain and returns when every context that was there is connected.
std::unique_ptr<Transport> JoinHostDomain(const HostSettings& settings);

}  // namespace engine::transport::host
