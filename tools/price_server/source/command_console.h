// The operator's side of the commands to clients.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "cli/output.h"
#include "command_sender.h"
#include "event_loop.h"
#include "lbm/context.h"
#include "line_reader.h"

namespace price_server {

// Reads commands from standard input, see console_line.h, and writes what becomes of them, the clients' answers and
// help to standard output, and what is wrong with a line to standard error. The end of the input ends nothing else.
//
// Threads: the loop's.
class CommandConsole {
 public:
  // All arguments have to outlive the console; session and timeout as in CommandSender. Throws lbm::LbmError.
  CommandConsole(lbm::Context& ctx, EventLoop& loop, std::uint64_t session, std::chrono::duration<double> timeout,
                 const cli::Output& output);

  // Says which commands are left without an outcome.
  void Close() { m_sender.Close(); }

 private:
  void Execute(const std::string& line);

  const cli::Output& m_output;
  CommandSender m_sender;
  LineReader m_reader;
};

}  // namespace price_server
