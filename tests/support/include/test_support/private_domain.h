// A domain of the embedded engine that nobody else is in.
#pragma once

#include <stdlib.h>

#include "test_support/temporary_directory.h"

namespace test_support {

// Contexts that this process makes while it lives meet in a runtime directory of their own.
class PrivateDomain {
 public:
  PrivateDomain() { ::setenv("LBM_RUNTIME_DIR", m_directory.Path().c_str(), 1); }
  ~PrivateDomain() { ::unsetenv("LBM_RUNTIME_DIR"); }
  PrivateDomain(const PrivateDomain&) = delete;
  PrivateDomain& operator=(const PrivateDomain&) = delete;

  const std::filesystem::path& Directory() const noexcept { return m_directory.Path(); }

 private:
  TemporaryDirectory m_directory;
};

}  // namespace test_support
