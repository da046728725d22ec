#include "process.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <system_error>

namespace tools_test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kDeadline = std::chrono::seconds(60);

void Check(bool good, const char* what) {
  if (!good) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

struct Channel {
  int reader = -1;
  int writer = -1;
};

Channel MakePipe() {
  std::array<int, 2> ends{};
  Check(::pipe2(ends.data(), O_CLOEXEC) == 0, "pipe2");
  return {ends[0], ends[1]};
}

Channel MakeTerminal() {
  Channel channel;
  winsize size{};
  size.ws_col = 80;
  size.ws_row = 24;
  Check(::openpty(&channel.reader, &channel.writer, nullptr, nullptr, &size) == 0, "openpty");
  ::fcntl(channel.reader, F_SETFD, FD_CLOEXEC);
  ::fcntl(channel.writer, F_SETFD, FD_CLOEXEC);
  return channel;
}

}  // namespace

Process::Process(std::vector<std::string> command, const Environment& environment, Terminal terminal) {
  std::vector<char*> arguments;
  for (auto& argument : command) {
    arguments.push_back(argument.data());
  }
  arguments.push_back(nullptr);
  std::vector<std::string> assignments;
  for (const auto& [name, value] : environment) {
    assignments.push_back(name + '=' + value);
  }

  const auto input = MakePipe();
  const auto output = terminal == Terminal::kOutput ? MakeTerminal() : MakePipe();
  const auto errors = MakePipe();
  m_process = ::fork();
  Check(m_process >= 0, "fork");
  if (m_process == 0) {
    ::dup2(input.reader, STDIN_FILENO);
    ::dup2(output.writer, STDOUT_FILENO);
    ::dup2(errors.writer, STDERR_FILENO);
    for (auto& assignment : assignments) {
      ::putenv(assignment.data());
    }
    ::execv(arguments[0], arguments.data());
    ::_exit(127);
  }
  ::close(input.reader);
  ::close(output.writer);
  ::close(errors.writer);
  m_inputFile = input.writer;
  m_outputFile = output.reader;
  m_errorFile = errors.reader;
}

Process::~Process() {
  if (m_process > 0) {
    ::kill(m_process, SIGKILL);
    ::waitpid(m_process, nullptr, 0);
  }
  CloseInput();
  if (m_outputFile >= 0) {
    ::close(m_outputFile);
  }
  if (m_errorFile >= 0) {
    ::close(m_errorFile);
  }
}

void Process::Signal(int signal) const { ::kill(m_process, signal); }

void Process::Write(const std::string& input) const {
  const auto written = ::write(m_inputFile, input.data(), input.size());
  Check(written == static_cast<ssize_t>(input.size()), "write");
}

void Process::CloseInput() {
  if (m_inputFile >= 0) {
    ::close(m_inputFile);
  }
  m_inputFile = -1;
}

bool Process::ReadUntil(const std::function<bool()>& done) {
  const auto end = Clock::now() + kDeadline;
  while (!done()) {
    std::array<pollfd, 2> files{{{m_outputFile, POLLIN, 0}, {m_errorFile, POLLIN, 0}}};
    if (m_outputFile < 0 && m_errorFile < 0) {
      return true;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    if (left <= 0 || ::poll(files.data(), files.size(), static_cast<int>(left)) <= 0) {
      return false;
    }
    const auto take = [](const pollfd& ready, int& file, std::string& text) {
      if (ready.revents == 0) {
        return;
      }
      std::array<char, 4096> buffer;
      const auto length = ::read(file, buffer.data(), buffer.size());
      if (length > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(length));
      } else {
        ::close(file);
        file = -1;
      }
    };
    take(files[0], m_outputFile, m_output);
    take(files[1], m_errorFile, m_errors);
  }
  return true;
}

bool Process::WaitForOutput(const std::string& text) {
  std::size_t found = std::string::npos;
  const auto look = [&] { return (found = m_output.find(text, m_passed)) != std::string::npos; };
  if (!ReadUntil(look) || found == std::string::npos) {
    return false;
  }
  m_passed = found + text.size();
  return true;
}

int Process::Wait() {
  if (!ReadUntil([] { return false; })) {
    return -1;
  }
  int status = 0;
  ::waitpid(m_process, &status, 0);
  m_process = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace tools_test
