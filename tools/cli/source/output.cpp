#include "cli/output.h"

#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace cli {

void Output::Write(std::string_view text) const {
  while (!text.empty()) {
    const auto written = ::write(STDOUT_FILENO, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "cannot write to standard output");
    }
  }
}

bool Output::IsTerminal() const { return ::isatty(STDOUT_FILENO) == 1; }

}  // namespace cli
