#include "terminal.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace price_client {
namespace {

// Enters and leaves the alternate screen, hiding and showing the cursor.
constexpr std::string_view kEnter = "\x1b[?1049h\x1b[?25l";
constexpr std::string_view kLeave = "\x1b[0m\x1b[?25h\x1b[?1049l";

constexpr std::array kFatalSignals = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGQUIT};

void Leave() { [[maybe_unused]] const auto written = ::write(STDOUT_FILENO, kLeave.data(), kLeave.size()); }

// Installed for one signal at a time: the default action is back when it runs
// and takes effect when it returns.
void OnFatalSignal(int signal) {
  const int error = errno;
  Leave();
  ::raise(signal);
  errno = error;
}

void HandleFatalSignals(void (*handler)(int), unsigned flags) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = static_cast<int>(flags);
  for (const int signal : kFatalSignals) {
    ::sigaction(signal, &action, nullptr);
  }
}

}  // namespace

Terminal::Terminal(const cli::Output& output) : m_output(output) {
  m_output.Write(kEnter);
  HandleFatalSignals(OnFatalSignal, SA_RESETHAND);
}

Terminal::~Terminal() {
  HandleFatalSignals(SIG_DFL, 0);
  Leave();
}

ScreenSize Terminal::Size() const {
  winsize window{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) != 0 || window.ws_col == 0 || window.ws_row == 0) {
    return {};
  }
  return {window.ws_col, window.ws_row};
}

void Terminal::Suspend() const {
  Leave();
  ::raise(SIGSTOP);
  m_output.Write(kEnter);
}

}  // namespace price_client
