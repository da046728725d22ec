// price_stat: shows what the processes that use the price connector count.

#include <cstdlib>

#include "call.h"
#include "cli/tool.h"

namespace price_stat {
namespace {

cli::ExitCode Run(int argc, const char* const* argv) {
  const cli::Output output;
  Call call;
  if (!ParseCall(argc, argv, output, call)) {
    return cli::ExitCode::kOk;
  }
  // Who looks has no page.
  ::setenv("ZQ_STATISTICS_DIR", "off", 1);
  return call.run(output);
}

}  // namespace
}  // namespace price_stat

int main(int argc, char** argv) {
  return cli::RunTool("price_stat", [argc, argv] { return price_stat::Run(argc, argv); });
}
