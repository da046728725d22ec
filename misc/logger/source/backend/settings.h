// What the environment says about the log.
#pragma once

#include "zq/logging/default_backend.h"

namespace zq::logging {

// Bad values are reported on standard error, and their defaults taken.
BackendOptions ReadEnvironment();

}  // namespace zq::logging
