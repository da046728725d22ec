// What the sending calls share.
#pragma once

#include <lbm/lbm.h>
#include <sys/uio.h>

#include <cstddef>
#include <string>

#include "api/arguments.h"
#include "api/errors.h"
#include "transport/transport.h"

namespace engine::api {

// The bytes of a message as one piece.
inline iovec PieceOf(const char* data, std::size_t len) {
  if (len != 0) {
    RequireNotNull(data, "data");
  }
  return {const_cast<char*>(data), len};
}

// A send that would block is an expected outcome, so it takes no exception.
inline int ResultOf(const char* function, transport::SendResult result) {
  if (result == transport::SendResult::kSent) {
    return 0;
  }
  return Fail(LBM_EWOULDBLOCK, (std::string(function) + ": no room at the moment; try again later").c_str());
}

}  // namespace engine::api
