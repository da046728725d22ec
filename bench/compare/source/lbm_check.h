// Errors of the messaging C interface.
#pragma once

#include <lbm/lbm.h>

#include <stdexcept>

namespace compare {

inline void Check(int result) {
  if (result == -1) {
    throw std::runtime_error(lbm_errmsg());
  }
}

}  // namespace compare
