// Obeys operators: "report" tells how many updates have come, "quit" ends the program. Whoever runs price_server with
// --console types "client example report".
#include <atomic>
#include <future>
#include <iostream>
#include <string>
#include <utility>

#include "feed/command.h"
#include "feed/command_answer.h"
#include "ps_common/config/config.h"
#include "ps_common/connector/lbm_client_resource_mgr.h"
#include "ps_common/connector/shutdown_guard.h"

int main() {
  std::atomic<int> updates{0};
  std::promise<void> quit;
  bool quitting = false;

  const auto config = ps_ns::Config::Parse("<Config><General/><Logging/></Config>");
  ps_ns::LbmClientResourceMgr manager(config, "commands", false, -1, 100, {}, 0);
  const ps_ns::ShutdownGuard guard(manager);

  const auto obey = [&](const feed::Command& command) -> std::string {
    if (command.name == feed::kReportCommand) {
      return std::to_string(updates) + " updates";
    }
    if (command.name == feed::kQuitCommand) {
      if (!std::exchange(quitting, true)) {
        quit.set_value();
      }
      return "ends";
    }
    return "";
  };

  // On the dispatch thread, for commands to this client and for those to all clients of the host.
  const auto onCommand = [&](const lbm::Message& message) {
    const auto command = feed::DecodeCommand({message.Data(), message.Length()});
    if (!command) {
      return;
    }
    feed::CommandAnswer answer;
    answer.id = command->id;
    answer.clientID = "example";
    answer.host = "desk";
    answer.text = obey(*command);
    answer.result = answer.text.empty() ? "unknown command" : feed::kResultOk;
    const auto bytes = feed::Encode(answer);
    const int flags = LBM_SRC_FLUSH | LBM_SRC_NONBLOCK;
    manager.GetCommandResponseSource()->SendEC(bytes.data(), bytes.size(), flags);
    if (message.Type() == LBM_MSG_REQUEST) {
      lbm_send_response(message.GetResponse(), bytes.data(), bytes.size(), flags);
    }
  };
  manager.CreateCommandSourceAndReceivers(onCommand, "desk", "example");

  std::string topic;
  const auto prices = manager.CreateClientDataReceiver(
      {1, 1, 1, 0, "STOCKS"}, 0,
      [&](const lbm::Message& message) { updates += message.Type() == LBM_MSG_DATA ? 1 : 0; }, topic);
  quit.get_future().wait();
  std::cout << "an operator ended this after " << updates << " updates\n";
}
