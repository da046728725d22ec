#include "cli/tool.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include "cli/one_line.h"
#include "zq/logging/log_level.h"
#include "zq/posix/descriptor.h"
#include "zq/posix/environment.h"

namespace cli {
namespace {

// A standard descriptor that the caller has closed would be given to the next file opened, which then would be taken
// for standard input or output. Reading from what stands in for it gives the end of the input; writing to it is an
// error.
void OccupyStandardDescriptors() {
  for (;;) {
    zq::posix::Descriptor file(::open("/dev/null", O_RDONLY));
    if (!file || file.Get() > STDERR_FILENO) {
      return;
    }
    file.Release();
  }
}

}  // namespace

void Complain(std::string_view toolName, std::string_view what) {
  std::string text(toolName);
  text += ": ";
  for (;;) {
    const auto end = what.find('\n');
    text += OneLine(what.substr(0, end)) + '\n';
    if (end == std::string_view::npos) {
      break;
    }
    what.remove_prefix(end + 1);
  }
  std::cerr << text << std::flush;
}

int RunTool(std::string_view toolName, const std::function<ExitCode()>& body) noexcept {
  const auto end = [toolName](ExitCode code, const char* what) {
    Complain(toolName, what);
    return static_cast<int>(code);
  };
  try {
    OccupyStandardDescriptors();
    if (zq::posix::Environment("CHEF_ENVIRONMENT").empty() && zq::posix::Environment("DATA_CENTER").empty()) {
      // Nobody expects triage outside a deployment, so the triage handler need not complain that it is not there.
      ::setenv("DISABLE_LBM_TRIAGE_HANDLER", "outside a deployment", 0);
    }
    return static_cast<int>(body());
  } catch (const UsageError& error) {
    return end(ExitCode::kUsage, error.what());
  } catch (const std::exception& error) {
    return end(ExitCode::kFailure, error.what());
  }
}

void DivertLibraryOutput() {
  std::cout.rdbuf(zq::logging::IsEnabled(zq::logging::ZQLOG_INFO) ? std::cerr.rdbuf() : nullptr);
}

}  // namespace cli
