#include "cli/output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <system_error>

#include "zq/posix/event.h"

namespace cli {
namespace {

// As in a pipeline whose reader has stopped reading.
[[noreturn]] void WriteToAFullPipe() {
  ::signal(SIGPIPE, SIG_IGN);
  int ends[2];
  if (::pipe(ends) != 0 || ::fcntl(ends[1], F_SETFL, O_NONBLOCK) != 0) {
    std::_Exit(1);
  }
  const std::string page(4096, 'x');
  while (::write(ends[1], page.data(), page.size()) > 0) {
  }
  ::fcntl(ends[1], F_SETFL, 0);
  ::dup2(ends[1], STDOUT_FILENO);

  zq::posix::Event stop;
  Output output;
  output.GiveUpOn(stop.GetDescriptor());
  stop.Notify();
  try {
    output.Write("a result");
  } catch (const std::system_error& error) {
    std::_Exit(error.code() == std::errc::interrupted ? 0 : 2);
  }
  std::_Exit(3);
}

TEST(Output, AReaderThatHasStoppedReadingKeepsNoToolFromEnding) {
  EXPECT_EXIT(WriteToAFullPipe(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace cli
