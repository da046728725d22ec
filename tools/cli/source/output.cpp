#include "cli/output.h"

#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <iterator>

#include "zq/posix/error.h"
#include "zq/posix/file.h"

namespace cli {
namespace {

constexpr const char* kFailed = "cannot write to standard output";
constexpr int kPatienceMs = 1000;

}  // namespace

void Output::Write(std::string_view text) const {
  // A pipe that is writable takes so much without waiting.
  for (; !text.empty(); text.remove_prefix(std::min<std::size_t>(text.size(), PIPE_BUF))) {
    WaitUntilWritable();
    const auto result = zq::posix::WriteAll(STDOUT_FILENO, text.substr(0, PIPE_BUF));
    if (result.error != 0) {
      zq::posix::ThrowError(result.error, kFailed);
    }
  }
}

void Output::WaitUntilWritable() const {
  pollfd files[] = {{STDOUT_FILENO, POLLOUT, 0}, {m_giveUp, POLLIN, 0}};
  while (::poll(files, std::size(files), -1) < 0 && errno == EINTR) {
  }
  // A reader that is only slow gets the rest, and the tool ends in order.
  if (files[0].revents == 0 && ::poll(files, 1, kPatienceMs) == 0) {
    zq::posix::ThrowError(EINTR, kFailed);
  }
}

bool Output::IsTerminal() const { return ::isatty(STDOUT_FILENO) == 1; }

}  // namespace cli
