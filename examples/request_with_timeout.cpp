// Asks a server instance for its products, and says what became of the request.
#include <chrono>
#include <future>
#include <iostream>

#include "feed/client_request.h"
#include "feed/client_response.h"
#include "ps_common/config/config.h"
#include "ps_common/connector/lbm_client_resource_mgr.h"
#include "ps_common/connector/shutdown_guard.h"

int main() {
  std::promise<lbm::RequestOutcome> promise;

  const auto config = ps_ns::Config::Parse("<Config><General/><Logging/></Config>");
  ps_ns::LbmClientResourceMgr manager(config, "request", false, -1, 100, {}, 0);
  const ps_ns::ShutdownGuard guard(manager);
  const ps_ns::ServerInstance instance{1, 1, 1, 0, "STOCKS"};

  lbm::Context& context = *manager.GetContext();
  lbm::RequestSource requests(context, {context, manager.CreateClientRequestTopic(instance), {}});

  feed::ClientRequest request;
  request.id = 1;
  request.request = feed::kProductsRequest;
  lbm::RequestOptions options;
  options.timeout = std::chrono::seconds(10);

  // Both callbacks run on the dispatch thread. A server may answer in several parts.
  const auto pending = requests.Ask(
      feed::Encode(request), options,
      [](const lbm::Message& message) {
        const auto response = feed::DecodeClientResponse({message.Data(), message.Length()});
        if (!response || response->id != 1) {
          return lbm::Answer::kPartial;
        }
        for (const auto& product : response->products) {
          std::cout << product.symbol.View() << " on segment " << product.segment << '\n';
        }
        return response->isLast ? lbm::Answer::kComplete : lbm::Answer::kPartial;
      },
      [&promise](lbm::RequestOutcome outcome) { promise.set_value(outcome); });

  switch (promise.get_future().get()) {
    case lbm::RequestOutcome::kAnswered:
      return 0;
    case lbm::RequestOutcome::kTimedOut:
      std::cerr << "the server listens, and does not answer\n";
      return 1;
    case lbm::RequestOutcome::kNobodyListened:
      std::cerr << "no server listens on " << requests.GetTopic() << '\n';
      return 1;
  }
}
