#include "process.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <utility>

#include "test_support/pipe.h"
#include "zq/posix/error.h"
#include "zq/posix/file.h"

namespace tools_test {
namespace {

using Clock = std::chrono::steady_clock;
using test_support::MakePipe;
using test_support::Pipe;
using zq::posix::Descriptor;

Pipe MakeTerminal() {
  int reader = -1;
  int writer = -1;
  winsize size{};
  size.ws_col = 80;
  size.ws_row = 24;
  if (::openpty(&reader, &writer, nullptr, nullptr, &size) != 0) {
    zq::posix::ThrowErrno("openpty");
  }
  ::fcntl(reader, F_SETFD, FD_CLOEXEC);
  ::fcntl(writer, F_SETFD, FD_CLOEXEC);
  return {Descriptor(reader), Descriptor(writer)};
}

}  // namespace

Process::Process(std::vector<std::string> command, const Environment& environment, Terminal terminal) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (auto& argument : command) {
    arguments.push_back(argument.data());
  }
  arguments.push_back(nullptr);
  std::vector<std::string> assignments;
  for (const auto& [name, value] : environment) {
    assignments.emplace_back(name).append("=").append(value);
  }

  const bool isAll = terminal == Terminal::kAll;
  auto input = MakePipe();
  auto output = terminal == Terminal::kNone ? MakePipe() : MakeTerminal();
  auto errors = MakePipe();
  m_process = ::fork();
  if (m_process < 0) {
    zq::posix::ThrowErrno("fork");
  }
  if (m_process == 0) {
    ::dup2((isAll ? output.writer : input.reader).Get(), STDIN_FILENO);
    ::dup2(output.writer.Get(), STDOUT_FILENO);
    ::dup2((isAll ? output : errors).writer.Get(), STDERR_FILENO);
    for (auto& assignment : assignments) {
      ::putenv(assignment.data());
    }
    ::execv(arguments[0], arguments.data());
    ::_exit(127);
  }
  m_inputFile = isAll ? Descriptor(::fcntl(output.reader.Get(), F_DUPFD_CLOEXEC, 0)) : std::move(input.writer);
  m_outputFile = std::move(output.reader);
  m_errorFile = std::move(errors.reader);
}

Process::~Process() {
  if (m_process > 0) {
    ::kill(m_process, SIGKILL);
    ::waitpid(m_process, nullptr, 0);
  }
}

void Process::Signal(int signal) const { ::kill(m_process, signal); }

void Process::Write(const std::string& input) const {
  if (const auto result = zq::posix::WriteAll(m_inputFile.Get(), input); result.error != 0) {
    zq::posix::ThrowError(result.error, "write");
  }
}

bool Process::ReadUntil(const std::function<bool()>& done) {
  const auto end = Clock::now() + kDeadline;
  while (!done()) {
    std::array<pollfd, 2> files{{{m_outputFile.Get(), POLLIN, 0}, {m_errorFile.Get(), POLLIN, 0}}};
    if (!m_outputFile && !m_errorFile) {
      return true;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    if (left <= 0 || ::poll(files.data(), files.size(), static_cast<int>(left)) <= 0) {
      return false;
    }
    const auto take = [](const pollfd& ready, Descriptor& file, std::string& text) {
      if (ready.revents == 0) {
        return;
      }
      std::array<char, 4096> buffer;
      const auto length = ::read(file.Get(), buffer.data(), buffer.size());
      if (length > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(length));
      } else {
        file = Descriptor();
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
