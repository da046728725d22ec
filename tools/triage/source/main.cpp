// triage: sends operations requests to the processes of an environment and shows who answers.

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>

#include "cli/one_line.h"
#include "cli/signal_wait.h"
#include "cli/tool.h"
#include "enquiry.h"
#include "options.h"
#include "report.h"
#include "zq/messaging/triage.pb.h"
#include "zq/messaging/triage_requests.h"
#include "zq/posix/host_name.h"

namespace triage {
namespace {

// Tells this run from others in the logs of those who answer.
std::string MakeRequestId() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return "triage-" + zq::posix::HostName() + '-' + std::to_string(::getpid()) + '-' +
         std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

Question QuestionOf(const Options& options) {
  using namespace zq::messaging::triage;
  Question question{.topic = TopicOf(options), .requestId = MakeRequestId()};
  question.data = options.nakKill ? NakKillRequest(static_cast<LBMContext>(options.nakKill->contexts),
                                                   options.nakKill->enable, question.requestId)
                                  : TestRequest(question.requestId);
  return question;
}

// What is switched off by mistake everywhere costs more than a question.
void Confirm(const Options& options) {
  using namespace zq::messaging::triage;
  const auto environment = cli::OneLine(UpperCase(options.environment));
  if (::isatty(STDIN_FILENO) != 1 || ::isatty(STDERR_FILENO) != 1) {
    throw cli::UsageError("this would reach all data centres of " + environment +
                          ": give --yes if that is meant, --data-center otherwise; --dry-run shows who is there");
  }
  std::cerr << (options.nakKill->enable ? "Enable" : "Disable") << " NAKs of "
            << LBMContext_Name(static_cast<LBMContext>(options.nakKill->contexts)) << " in all data centres of "
            << environment << "? [y/N] " << std::flush;
  std::string reply;
  std::getline(std::cin, reply);
  if (reply != "y" && reply != "yes") {
    throw cli::UsageError("nothing was sent");
  }
}

cli::ExitCode Run(int argc, const char* const* argv) {
  cli::Output output;
  const auto options = ParseOptions(argc, argv, output);
  if (!options) {
    return cli::ExitCode::kOk;
  }
  if (NeedsConfirmation(*options)) {
    Confirm(*options);
  }

  // This process asks; it is not one of those to be asked.
  ::setenv("DISABLE_LBM_TRIAGE_HANDLER", "this is the triage tool", 1);
  cli::SignalWait signals{SIGINT, SIGTERM, SIGHUP};
  output.GiveUpOn(signals.GetDescriptor());
  cli::DivertLibraryOutput();
  const auto question = QuestionOf(*options);
  const auto start = Enquiry::Clock::now();
  Enquiry enquiry(question, signals);
  const auto timeout = std::chrono::duration_cast<Enquiry::Clock::duration>(options->timeout);
  const auto outcome =
      options->dryRun ? enquiry.Look(timeout, options->expected) : enquiry.Run(timeout, options->expected);
  const Report report{*options, question, outcome, Enquiry::Clock::now() - start};
  output.Write(options->json ? Json(report) : Table(report));
  const auto verdict = Judge(report);
  if (!verdict.complaint.empty()) {
    cli::Complain("triage", verdict.complaint);
  }
  return verdict.code;
}

}  // namespace
}  // namespace triage

int main(int argc, char** argv) {
  return cli::RunTool("triage", [argc, argv] { return triage::Run(argc, argv); });
}
