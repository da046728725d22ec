#include "command_console.h"

#include <unistd.h>

#include <iostream>

#include "cli/one_line.h"
#include "console_line.h"
#include "lbm/errors.h"

namespace price_server {

CommandConsole::CommandConsole(lbm::Context& ctx, EventLoop& loop, std::uint64_t session,
                               std::chrono::duration<double> timeout, const cli::Output& output)
    : m_output(output),
      m_sender(ctx, loop, session, timeout, [&output](std::string_view line) { output.Write(line); }),
      m_reader(STDIN_FILENO, [this](const std::string& line) { Execute(line); }) {
  loop.WatchForInput(STDIN_FILENO, [this] { return m_reader.Read(); });
}

void CommandConsole::Execute(const std::string& line) {
  constexpr const char* kBlanks = " \t\r";
  const auto begin = line.find_first_not_of(kBlanks);
  if (begin != std::string::npos && line.substr(begin, line.find_last_not_of(kBlanks) + 1 - begin) == kHelpWord) {
    m_output.Write(kConsoleHelp);
    return;
  }
  const auto refuse = [&line](const char* why) {
    std::cerr << "price_server: bad line \"" << cli::OneLine(line) << "\": " << why << "; \"" << kHelpWord
              << "\" shows how lines are written" << std::endl;
  };
  try {
    if (const auto command = ParseConsoleLine(line)) {
      m_sender.Send(*command);
    }
  } catch (const BadConsoleLine& error) {
    refuse(error.what());
  } catch (const lbm::LbmError& error) {
    refuse(error.what());
  }
}

}  // namespace price_server
