#include "statistics.h"

#include <initializer_list>
#include <sstream>

namespace ps_ns {
namespace {

using zq::statistics::FieldType;
using zq::statistics::Kind;

constexpr auto kCounter = FieldType::kCounter;
constexpr auto kGauge = FieldType::kGauge;

const Kind& DispatchThreadKind() {
  static const auto& kind =
      *new Kind{.name = "dispatch_thread",
                .help = "The thread that drives a manager's context.",
                .labels = {"context", "handle"},
                .fields = {{"thread", kGauge, "", "The kernel's number of the thread; 0: it has not begun."},
                           {"running", kGauge, "", "1 while the thread is in its loop."},
                           {"sockets", kGauge, "", "Sockets registered with the manager."},
                           {"background_tasks", kGauge, "", "1 when it has a background task that it may run."},
                           {"in_background_task", kGauge, "", "1 while the background task runs."},
                           {"task_runs", kCounter, "", "Calls of the background task."},
                           {"cpu_wanted", kGauge, "", "The CPU that the thread is to be pinned to; -1: none."},
                           {"cpu_got", kGauge, "", "The CPU that it was pinned to; -1: none."},
                           {"spinning", kGauge, "", "1 when the network stack was told to spin for the thread."}}};
  return kind;
}

const Kind& CommandChannelKind() {
  static const auto& kind =
      *new Kind{.name = "command_channel",
                .help = "The topics of a command channel; its receivers and its source have rows.",
                .labels = {"context", "handle", "host_topic", "client_topic", "response_topic"},
                .fields = {}};
  return kind;
}

// Every library that has options writes rows of this kind.
const Kind& OptionKind() {
  static const auto& kind = *new Kind{.name = "option",
                                      .help = "An option as it is in effect.",
                                      .labels = {"context", "handle", "owner", "option", "value", "origin"},
                                      .fields = {}};
  return kind;
}

std::string Address(const lbm_context_t* context) {
  std::ostringstream text;
  text << context;
  return text.str();
}

}  // namespace

ManagerStatistics::ManagerStatistics(lbm::Context& context)
    : m_context(context.GetName()),
      m_handle(Address(context)),
      m_dispatchThread(DispatchThreadKind(), {m_context, m_handle}) {}

void ManagerStatistics::ShowOption(std::string_view name, const std::string& value, const std::string& origin) {
  m_options.emplace_back(
      OptionKind(), std::initializer_list<std::string_view>{m_context, m_handle, "connector", name, value, origin});
}

void ManagerStatistics::ShowCommandChannel(const std::string& hostTopic, const std::string& clientTopic,
                                           const std::string& responseTopic) {
  m_commandChannel.emplace(CommandChannelKind(), std::initializer_list<std::string_view>{m_context, m_handle, hostTopic,
                                                                                         clientTopic, responseTopic});
}

}  // namespace ps_ns
