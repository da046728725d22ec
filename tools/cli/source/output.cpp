#include "cli/output.h"

#include <unistd.h>

#include "zq/posix/error.h"
#include "zq/posix/file.h"

namespace cli {

void Output::Write(std::string_view text) const {
  if (const auto result = zq::posix::WriteAll(STDOUT_FILENO, text); result.error != 0) {
    zq::posix::ThrowError(result.error, "cannot write to standard output");
  }
}

bool Output::IsTerminal() const { return ::isatty(STDOUT_FILENO) == 1; }

}  // namespace cli
