// The shutdown of a resource manager as part of a scope.
#pragma once

#include "ps_common/connector/lbm_resource_mgr.h"

#pragma GCC visibility push(default)

namespace ps_ns {

// Shuts the manager down when the scope is left, by an exception too. To be made right behind the manager: endpoints
// that are made behind it go first, while the dispatch thread still runs. Does no harm when the manager is shut down
// already.
//
// Threads: as for LbmResourceMgr::Shutdown. The manager has to outlive it.
class ShutdownGuard {
 public:
  explicit ShutdownGuard(LbmResourceMgr& manager) noexcept : m_manager(manager) {}
  ~ShutdownGuard() { m_manager.Shutdown(); }

  ShutdownGuard(const ShutdownGuard&) = delete;
  ShutdownGuard& operator=(const ShutdownGuard&) = delete;

 private:
  LbmResourceMgr& m_manager;
};

}  // namespace ps_ns

#pragma GCC visibility pop
