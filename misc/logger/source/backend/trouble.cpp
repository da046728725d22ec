#include "backend/trouble.h"

#include <unistd.h>

#include "zq/posix/file.h"

namespace zq::logging {

void ReportTrouble(const std::string& what) { zq::posix::WriteAll(STDERR_FILENO, "zq::logging: " + what + '\n'); }

}  // namespace zq::logging
