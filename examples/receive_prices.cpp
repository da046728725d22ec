// Receives the prices of a server instance, and ends after ten.
#include <chrono>
#include <future>
#include <iostream>

#include "feed/price_message.h"
#include "ps_common/config/config.h"
#include "ps_common/connector/lbm_client_resource_mgr.h"
#include "ps_common/connector/shutdown_guard.h"

int main() {
  // What a callback uses stands before what calls it, so that it is there for as long as calls come.
  int updates = 0;
  std::promise<void> tenUpdates;

  const auto config = ps_ns::Config::Parse("<Config><General/><Logging/></Config>");
  ps_ns::LbmClientResourceMgr manager(config, "receive_prices", false, -1, 100, {}, 0);
  const ps_ns::ShutdownGuard guard(manager);

  // On the manager's dispatch thread.
  const auto onMessage = [&](const lbm::Message& message) {
    switch (message.Type()) {
      case LBM_MSG_DATA:
        if (const auto update = feed::DecodePriceMessage({message.Data(), message.Length()})) {
          std::cout << update->symbol.View() << ' ' << update->price.ToString() << " of "
                    << feed::ToString(update->date) << std::endl;
          if (++updates == 10) {
            tenUpdates.set_value();
          }
        }
        break;
      case LBM_MSG_BOS:
        std::cout << "the server is there" << std::endl;
        break;
      case LBM_MSG_EOS:
        std::cout << "the server has gone" << std::endl;
        break;
      case LBM_MSG_UNRECOVERABLE_LOSS:
      case LBM_MSG_UNRECOVERABLE_LOSS_BURST:
        std::cout << "updates were lost" << std::endl;
        break;
      default:
        break;
    }
  };

  const ps_ns::ServerInstance instance{1, 1, 1, 0, "STOCKS"};
  std::string topic;
  const auto prices = manager.CreateClientDataReceiver(instance, 0, onMessage, topic);
  if (tenUpdates.get_future().wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
    std::cerr << "nothing comes on " << topic << ": is a server running?\n";
    return 1;
  }
}
