#include "processes.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>

#include "control.h"
#include "zq/posix/error.h"

namespace compare {

namespace {

sigset_t ChildSignals() {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGCHLD);
  return signals;
}

[[noreturn]] void Run(const std::function<void()>& part) {
  try {
    part();
    std::_Exit(0);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    std::_Exit(1);
  }
}

}  // namespace

Processes::Processes() {
  const sigset_t signals = ChildSignals();
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);
}

Processes::~Processes() {
  for (const pid_t process : m_running) {
    ::kill(process, SIGKILL);
    ::waitpid(process, nullptr, 0);
  }
}

void Processes::Start(const std::function<void()>& part, std::optional<int> processor) {
  const pid_t parent = ::getpid();
  const pid_t process = ::fork();
  if (process < 0) {
    zq::posix::ThrowErrno("cannot start a process");
  }
  if (process > 0) {
    m_running.push_back(process);
    return;
  }
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) {
    std::_Exit(1);
  }
  ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
  if (processor) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<std::size_t>(*processor), &set);
    ::sched_setaffinity(0, sizeof set, &set);
  }
  Run(part);
}

void Processes::ThrowIfAnyEnded() {
  for (auto process = m_running.begin(); process != m_running.end(); ++process) {
    if (::waitpid(*process, nullptr, WNOHANG) != 0) {
      m_running.erase(process);
      throw std::runtime_error("a process of the measurement ended early");
    }
  }
}

void Processes::Wait(std::chrono::milliseconds atMost) {
  const sigset_t signals = ChildSignals();
  const Clock::time_point deadline = Clock::now() + atMost;
  while (!m_running.empty()) {
    for (std::size_t i = 0; i < m_running.size();) {
      int status = 0;
      if (::waitpid(m_running[i], &status, WNOHANG) == 0) {
        ++i;
        continue;
      }
      m_running.erase(m_running.begin() + static_cast<std::ptrdiff_t>(i));
      if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error("a process of the measurement failed");
      }
    }
    if (m_running.empty()) {
      return;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      throw std::runtime_error("the measurement did not end in time");
    }
    const timespec wait{left.count() / 1000, left.count() % 1000 * 1'000'000};
    ::sigtimedwait(&signals, nullptr, &wait);
  }
}

std::optional<int> ProcessorFor(std::size_t number) {
  cpu_set_t set;
  std::vector<int> processors;
  if (::sched_getaffinity(0, sizeof set, &set) == 0) {
    for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
      if (CPU_ISSET(static_cast<std::size_t>(processor), &set)) {
        processors.push_back(processor);
      }
    }
  }
  if (processors.size() < 2) {
    return {};
  }
  return processors[number % processors.size()];
}

}  // namespace compare
