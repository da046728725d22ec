#include "lbm/errors.h"

#include <lbm/lbm.h>

#include "log_statements.h"

namespace lbm {

LbmError::LbmError(const std::string& msg) : std::runtime_error(msg + ": " + lbm_errmsg()) {}

LbmError::~LbmError() = default;

namespace details {

void ThrowLbmError(const std::string& msg) {
  LbmError error(msg);
  LBM_LOG(ZQLOG_ERROR, kErrorThrown, error.what());
  throw error;
}

void LogLbmError(const char* msg) { LBM_LOG(ZQLOG_ERROR, kErrorLogged, msg << ": " << lbm_errmsg()); }

}  // namespace details
}  // namespace lbm
