#pragma once

#include <string>

namespace zq::logging {

// Tells the operator about the log itself, on standard error.
void ReportTrouble(const std::string& what);

}  // namespace zq::logging
