// A domain of the embedded engine for one benchmark program.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace bench {

// Contexts made while it lives meet in a runtime directory of their own.
class PrivateDomain {
 public:
  PrivateDomain() {
    std::string pattern = (std::filesystem::temp_directory_path() / "bench-XXXXXX").string();
    m_directory = ::mkdtemp(pattern.data());
    ::setenv("LBM_RUNTIME_DIR", m_directory.c_str(), 1);
  }
  ~PrivateDomain() { std::filesystem::remove_all(m_directory); }
  PrivateDomain(const PrivateDomain&) = delete;
  PrivateDomain& operator=(const PrivateDomain&) = delete;

 private:
  std::filesystem::path m_directory;
};

}  // namespace bench
