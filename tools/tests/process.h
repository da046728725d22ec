// Programs that a test starts and watches.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "zq/posix/descriptor.h"

namespace tools_test {

// How long tests wait for what has to come.
inline constexpr std::chrono::seconds kDeadline{60};

// Environment variables on top of the test's own.
using Environment = std::vector<std::pair<std::string, std::string>>;

// A running program, a pipe to its standard input, and what it has written. It is killed when the object goes.
class Process {
 public:
  enum class Terminal { kNone, kOutput, kAll };

  // Gives it a terminal of 80 columns and 24 rows as its standard output; kAll also as its standard input and error.
  Process(std::vector<std::string> command, const Environment& environment, Terminal terminal = Terminal::kNone);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  void Signal(int signal) const;

  // The program has to be there.
  void Write(const std::string& input) const;
  void CloseInput() { m_inputFile = zq::posix::Descriptor(); }

  // Returns whether the text has come on standard output, in what was not yet passed by, before the deadline; then
  // everything up to its end counts as passed by.
  bool WaitForOutput(const std::string& text);

  // Waits for the end. The exit code, or 128 + the signal that ended it; -1 when it does not end before the deadline.
  int Wait();

  const std::string& Output() const { return m_output; }
  const std::string& Errors() const { return m_errors; }

 private:
  // Takes in what the program writes until done, or until it has closed both streams. False when the deadline passes.
  bool ReadUntil(const std::function<bool()>& done);

  pid_t m_process = -1;
  zq::posix::Descriptor m_inputFile;
  zq::posix::Descriptor m_outputFile;
  zq::posix::Descriptor m_errorFile;
  std::string m_output;
  std::string m_errors;
  std::size_t m_passed = 0;
};

}  // namespace tools_test
