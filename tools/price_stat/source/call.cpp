#include "call.h"

#include "cli/command_line.h"
#include "zq/statistics/snapshot.h"

namespace price_stat {
namespace {

cli::Manual MakeManual() {
  return {
      .exits = {{cli::ExitCode::kOk, "done"},
                {cli::ExitCode::kUnsatisfied, "there is nothing to show"},
                {cli::ExitCode::kUsage, "the command line or a file that it names is not usable"},
                {cli::ExitCode::kFailure, "something failed while running"}},
      .notes = {"Only pages are read: processes that hang or are stopped are seen like all others, and none notices.",
                "ZQ_STATISTICS_DIR names the directory of the pages."},
      .examples = {{"price_stat list", "Show who is there, and who hangs"},
                   {"price_stat watch --view receivers", "Watch the rates of all receivers"},
                   {"price_stat options --changed price_client", "Show which options somebody has set"}},
  };
}

}  // namespace

void AddJsonOption(CLI::App& command, Call& call) {
  command.add_flag("--json", call.json, "Print one JSON document instead of tables");
}

std::shared_ptr<std::vector<std::string>> AddNames(CLI::App& command) {
  auto names = std::make_shared<std::vector<std::string>>();
  command.add_option("process", *names, "Programs or process numbers; without any, all")->type_name("PROCESS");
  return names;
}

bool ParseCall(int argc, const char* const* argv, const cli::Output& output, Call& call) {
  CLI::App app("Shows what the processes that use the price connector count.", "price_stat");
  app.require_subcommand(1);
  app.fallthrough();
  cli::AddCommonOptions(app, MakeManual());
  call.directory = zq::statistics::PageDirectory();
  app.add_option("--directory", call.directory, "Where the pages are")->type_name("DIR")->capture_default_str();
  AddList(app, call);
  AddShow(app, call);
  AddWatch(app, call);
  AddTopics(app, call);
  AddOptions(app, call);
  AddThreads(app, call);
  AddDiff(app, call);
  AddServe(app, call);
  for (auto* const command : app.get_subcommands({})) {
    command->footer(app.get_footer());
  }
  if (!cli::ParseCommandLine(app, argc, argv, output)) {
    return false;
  }
  if (call.directory.empty()) {
    throw cli::UsageError("ZQ_STATISTICS_DIR is \"off\": say with --directory where the pages are");
  }
  return true;
}

}  // namespace price_stat
