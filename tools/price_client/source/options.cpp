#include "options.h"

#include <fmt/format.h>
#include <pwd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <limits>
#include <stdexcept>

#include "cli/command_line.h"
#include "feed/instance_text.h"
#include "ps_common/connector/topic_names.h"
#include "zq/posix/host_name.h"

namespace price_client {
namespace {

cli::Manual MakeManual() {
  return {
      .exits = {{cli::ExitCode::kOk, "ended in order"},
                {cli::ExitCode::kUnsatisfied,
                 "an instance delivered nothing or, with --strict, a gap was seen or a product is of a segment that is "
                 "not received"},
                {cli::ExitCode::kUsage, "the command line or the configuration file is not usable"},
                {cli::ExitCode::kFailure, "something failed while running"}},
      .notes = {"Ctrl-C, or the command \"quit\", ends in order.",
                "LBM_RUNTIME_DIR names the directory in which servers and clients meet."},
      .examples = {{"price_client --instance 1:1:1:STOCKS --segments auto", "Show the prices of an instance, live"},
                   {"price_client --instance 1:1:1 --seconds 10 --json", "Receive for ten seconds, for a script"}},
  };
}

// Readable for operators, and another one for each process of the machine.
std::string DefaultClientID() {
  const auto* user = ::getpwuid(::getuid());
  return (user != nullptr ? std::string(user->pw_name) : std::to_string(::getuid())) + '-' + std::to_string(::getpid());
}

bool IsIdentity(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 0x7f; });
}

void CheckIdentity(const Options& options) {
  if (!IsIdentity(options.clientID) || !IsIdentity(options.host)) {
    throw cli::UsageError("--client-id and --host take visible ASCII characters without blanks");
  }
  try {
    ps_ns::TopicNames::CreateClientCommandResponseTopic(options.host, options.clientID);
  } catch (const std::length_error&) {
    throw cli::UsageError("--client-id and --host are too long: there can be no topic for them");
  }
}

void AddSegments(CLI::App& app, Options& options) {
  constexpr const char* kAuto = "auto";
  const auto set = [&options](const std::string& text) {
    options.segments.reset();
    if (text != kAuto) {
      options.segments = static_cast<unsigned short>(std::stoul(text));
    }
  };
  const auto check = [number = cli::WholeNumber(1, feed::kMaxSegments)](std::string& text) {
    const auto complaint = text == kAuto ? std::string() : number(text);
    return complaint.empty() ? complaint : complaint + ", nor \"" + kAuto + '"';
  };
  app.add_option_function<std::string>("--segments", set,
                                       "Segments of every instance; auto: those that its products name")
      ->check(CLI::Validator(check, ""))
      ->type_name(fmt::format("1..{}|{}", feed::kMaxSegments, kAuto))
      ->default_str("1");
}

}  // namespace

std::optional<Options> ParseOptions(int argc, const char* const* argv, const cli::Output& output) {
  Options options;
  std::vector<std::string> instances;

  CLI::App app("Receives prices from price-server instances.", "price_client");
  app.add_option("--config", options.configFile, "Configuration file (XML); default: all its defaults")
      ->type_name("FILE");
  app.add_option("--instance", instances, "Server instance to receive from; may be repeated")
      ->required()
      ->type_name("MARKET:SUBMARKET:NODE[:NAME]");
  AddSegments(app, options);
  cli::AddSecondsOption(app, "--seconds", options.seconds, "End after this many seconds");
  app.add_option("--count", options.count, "End after at least this many updates")
      ->check(cli::WholeNumber(0, cli::kMaxCount))
      ->type_name("N");
  app.add_flag("--json", options.json, "Print nothing but the summary, as one JSON document");
  app.add_flag("--quiet", options.quiet, "Print nothing but the summary");
  app.add_flag("--plain", options.plain, "Print lines on a terminal, too, instead of the live view");
  app.add_flag("--strict", options.strict,
               "A gap, or a product of a segment that is not received, makes the exit code 1");
  app.add_option("--client-id", options.clientID, "Name by which commands reach this client; default: USER-PROCESS")
      ->type_name("ID");
  app.add_option("--host", options.host, "Name by which commands reach all clients of a machine; default: its own")
      ->type_name("HOST");
  cli::AddSecondsOption(app, "--max-silence", options.maxSilence,
                        "Seconds without a status after which a server counts as silent");
  app.add_option("--context-name", options.contextName,
                 "Name of the messaging context; with one, the client answers no triage requests")
      ->type_name("NAME");
  app.add_option("--cpu", options.cpu, "CPU that the dispatch thread is pinned to")
      ->check(cli::WholeNumber(0, std::numeric_limits<int>::max()))
      ->type_name("N");
  app.add_flag("--onload", options.onload, "Let the dispatch thread spin when the kernel bypass is present");
  cli::AddCommonOptions(app, MakeManual());

  if (!cli::ParseCommandLine(app, argc, argv, output)) {
    return std::nullopt;
  }

  for (const auto& text : instances) {
    const auto instance = feed::ParseServerInstance(text);
    if (std::find(options.instances.begin(), options.instances.end(), instance) != options.instances.end()) {
      throw cli::UsageError("server instance \"" + text + "\" is given twice");
    }
    options.instances.push_back(instance);
  }
  if (options.clientID.empty()) {
    options.clientID = DefaultClientID();
  }
  if (options.host.empty()) {
    options.host = zq::posix::HostName();
  }
  CheckIdentity(options);
  return options;
}

}  // namespace price_client
