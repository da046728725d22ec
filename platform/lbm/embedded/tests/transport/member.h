// Contexts for the tests of the host transport.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "test_support/temporary_directory.h"
#include "transport/host/host_transport.h"
#include "witness.h"

namespace engine::transport::host {

// A runtime directory of the test's own.
class ScratchDirectory {
 public:
  std::string Path() const { return m_directory.Path(); }

  std::vector<std::string> Sockets() const {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(m_directory.Path() / "test")) {
      if (entry.is_socket()) {
        found.push_back(entry.path());
      }
    }
    return found;
  }

  // How many entries say what contexts offer and want.
  std::size_t Entries() const {
    std::size_t found = 0;
    for (const char* const role : {"offers", "wants"}) {
      for (const auto& entry : std::filesystem::recursive_directory_iterator(m_directory.Path() / "test" / role)) {
        found += entry.is_directory() ? 0 : 1;
      }
    }
    return found;
  }

 private:
  const test_support::TemporaryDirectory m_directory;
};

inline HostSettings SettingsIn(const ScratchDirectory& directory, const std::string& name = "") {
  HostSettings settings;
  settings.runtimeDirectory = directory.Path();
  settings.domain = "test";
  settings.contextName = name;
  return settings;
}

// A context that wants to hear of all sources, unless it is told which.
class Member : public Witness {
 public:
  explicit Member(HostSettings settings, bool subscribes = true, bool watchesAll = true)
      : Witness(
            [&](const WarningHandler& warn) {
              settings.warn = warn;
              return JoinHostDomain(settings);
            },
            subscribes, watchesAll) {}
};

}  // namespace engine::transport::host
