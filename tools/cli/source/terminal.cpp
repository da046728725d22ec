#include "cli/terminal.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace cli {
namespace {

// Enters and leaves the alternate screen, hiding and showing the cursor.
constexpr std::string_view kEnter = "\x1b[?1049h\x1b[?25l";
constexpr std::string_view kLeave = "\x1b[0m\x1b[?25h\x1b[?1049l";

constexpr std::array kFatalSignals = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGQUIT};

// How standard input was before it gave its keys one by one; valid while it does. Signal handlers read both.
termios userInput;
volatile sig_atomic_t inputTaken = 0;

void TakeInput() {
  if (::tcgetattr(STDIN_FILENO, &userInput) != 0) {
    return;
  }
  inputTaken = 1;
  termios keys = userInput;
  keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  keys.c_cc[VMIN] = 1;
  keys.c_cc[VTIME] = 0;
  ::tcsetattr(STDIN_FILENO, TCSADRAIN, &keys);
}

void Leave() {
  [[maybe_unused]] const auto written = ::write(STDOUT_FILENO, kLeave.data(), kLeave.size());
  if (inputTaken != 0) {
    ::tcsetattr(STDIN_FILENO, TCSANOW, &userInput);
    inputTaken = 0;
  }
}

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

Terminal::Terminal(const Output& output, Keys keys) : m_output(output), m_keys(keys) {
  Enter();
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
  Enter();
}

void Terminal::Enter() const {
  if (m_keys == Keys::kOneByOne) {
    TakeInput();
  }
  m_output.Write(kEnter);
}

}  // namespace cli
