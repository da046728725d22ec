#include "options.h"

#include <lbm/lbm.h>

#include <CLI/CLI.hpp>

#include "cli/command_line.h"
#include "zq/messaging/triage.pb.h"
#include "zq/messaging/triage_requests.h"
#include "zq/posix/environment.h"

namespace triage {
namespace {

namespace protocol = zq::messaging::triage;

cli::Manual MakeManual() {
  return {
      .exits = {{cli::ExitCode::kOk, "everybody answered with success"},
                {cli::ExitCode::kUnsatisfied, "fewer answers than listeners or than --expect asks for"},
                {cli::ExitCode::kUsage, "the command line is not usable or was not confirmed"},
                {cli::ExitCode::kFailure, "something failed while running"},
                {cli::ExitCode::kNoAnswer, "nobody answered"},
                {cli::ExitCode::kRefused, "somebody answered with a failure"}},
      .notes = {"Ctrl-C ends the wait; what came by then counts.",
                "LBM_RUNTIME_DIR names the directory in which this tool and the processes meet."},
      .examples = {{"triage test --environment demo --data-center local", "Ask who is there and answers"},
                   {"triage nak-kill --data-center local --context all --disable --dry-run",
                    "Show whom a request would reach"}},
  };
}

// Less time does not let those who listen announce themselves.
constexpr double kMinTimeout = 0.1;

// What the command line says of the target.
struct Target {
  std::optional<std::string> environment;
  std::optional<std::string> dataCenter;
  std::optional<std::string> topicPrefix;
  bool allDataCenters = false;
};

struct NakKillFlags {
  std::string contexts;
  bool enable = false;
  bool disable = false;
};

void AddTarget(CLI::App& command, Target& target) {
  const auto add = [&command](const char* name, std::optional<std::string>& value, const char* help,
                              const char* variable) {
    return command.add_option(name, value, help)->type_name("NAME")->default_str(std::string("$") + variable);
  };
  add("--environment", target.environment, "Environment to ask", protocol::kEnvironmentVariable);
  auto* const dataCenter = add("--data-center", target.dataCenter, "Data centre of it to ask; without any, all of them",
                               protocol::kDataCenterVariable);
  command.add_flag("--all-data-centers", target.allDataCenters, "Ask all data centres of the environment")
      ->excludes(dataCenter);
  add("--topic-prefix", target.topicPrefix, "What stands before the topics", protocol::kTopicPrefixVariable);
}

void Resolve(const Target& target, Options& options) {
  const auto orVariable = [](const std::optional<std::string>& given, const char* variable) {
    return given ? *given : zq::posix::Environment(variable);
  };
  options.environment = orVariable(target.environment, protocol::kEnvironmentVariable);
  options.topicPrefix = orVariable(target.topicPrefix, protocol::kTopicPrefixVariable);
  if (!target.allDataCenters) {
    options.dataCenter = orVariable(target.dataCenter, protocol::kDataCenterVariable);
  }
  if (options.environment.empty()) {
    throw cli::UsageError(std::string("which environment? Give --environment or set ") +
                          protocol::kEnvironmentVariable);
  }
  if (target.dataCenter && target.dataCenter->empty()) {
    throw cli::UsageError("--data-center is empty; --all-data-centers asks the whole environment");
  }
  const auto topic = TopicOf(options);
  if (topic.size() > LBM_TOPIC_NAME_MAX) {
    throw cli::UsageError("the names are too long: their topic has " + std::to_string(topic.size()) +
                          " bytes and at most " + std::to_string(LBM_TOPIC_NAME_MAX) + " are possible");
  }
}

void AddWaiting(CLI::App& command, Options& options) {
  cli::AddSecondsOption(command, "--timeout", options.timeout, "How long to wait for answers", kMinTimeout);
  command.add_option("--expect", options.expected, "End as soon as so many have answered; fewer are not enough")
      ->check(cli::WholeNumber(1, 1'000'000))
      ->type_name("N");
  command.add_flag("--json", options.json, "Print one JSON document instead of the table");
}

// The names of the groups, as the schema has them.
std::string ContextGroups() {
  std::string names;
  const auto* const groups = protocol::LBMContext_descriptor();
  for (int index = 0; index < groups->value_count(); ++index) {
    names += (index > 0 ? "|" : "") + groups->value(index)->name();
  }
  return names;
}

void AddNakKill(CLI::App& command, NakKillFlags& request, Options& options) {
  command
      .add_option("--context", request.contexts, "Contexts to switch NAKs on, by their names: see docs/operations.md")
      ->required()
      ->type_name(ContextGroups());
  auto* const enable = command.add_flag("--enable", request.enable, "Enable NAKs");
  command.add_flag("--disable", request.disable, "Disable NAKs")->excludes(enable);
  command.add_flag("--dry-run", options.dryRun, "Show who would get the request, and send nothing");
  command.add_flag("--yes", options.confirmed, "Address a whole environment without asking");
}

NakKill Read(const NakKillFlags& flags) {
  protocol::LBMContext contexts{};
  if (!protocol::LBMContext_Parse(protocol::UpperCase(flags.contexts), &contexts)) {
    throw cli::UsageError("--context: \"" + flags.contexts + "\" is none of " + ContextGroups());
  }
  if (!flags.enable && !flags.disable) {
    throw cli::UsageError("nak-kill needs --enable or --disable");
  }
  return {contexts, flags.enable};
}

}  // namespace

std::optional<Options> ParseOptions(int argc, const char* const* argv, const cli::Output& output) {
  Options options;
  NakKillFlags nakKill;
  Target target;

  CLI::App app("Asks the processes of an environment for an answer, or to switch NAKs on or off.", "triage");
  app.require_subcommand(1);
  app.fallthrough();
  cli::AddCommonOptions(app, MakeManual());
  auto* const test = app.add_subcommand("test", "Ask for an answer and nothing else");
  auto* const nak = app.add_subcommand("nak-kill", "Switch NAKs on or off on contexts chosen by name");
  AddNakKill(*nak, nakKill, options);
  for (auto* const command : {test, nak}) {
    AddTarget(*command, target);
    AddWaiting(*command, options);
    command->footer(app.get_footer());
  }

  if (!cli::ParseCommandLine(app, argc, argv, output)) {
    return std::nullopt;
  }

  if (nak->parsed()) {
    options.nakKill = Read(nakKill);
  }
  Resolve(target, options);
  return options;
}

bool NeedsConfirmation(const Options& options) {
  return options.nakKill && options.dataCenter.empty() && !options.dryRun && !options.confirmed;
}

std::string TopicOf(const Options& options) {
  return options.dataCenter.empty()
             ? protocol::ActionTopic(options.topicPrefix, options.environment)
             : protocol::ActionTopic(options.topicPrefix, options.environment, options.dataCenter);
}

}  // namespace triage
