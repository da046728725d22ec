// Lines on standard output, for destructors that may run when the log is gone.
#pragma once

#include <iostream>
#include <sstream>

namespace lbm::details {

// Writes the parts as one line and in one piece, so that the lines of several threads do not mix. A line for which
// there is no memory is lost.
template <class... Parts>
void PrintLine(const Parts&... parts) noexcept {
  try {
    std::ostringstream line;
    (line << ... << parts) << '\n';
    std::cout << line.view() << std::flush;
  } catch (...) {
    // A destructor is not to end the process over it.
  }
}

}  // namespace lbm::details
