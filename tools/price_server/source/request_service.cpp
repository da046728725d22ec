#include "request_service.h"

#include <algorithm>
#include <string_view>

#include "log_statement.h"
#include "ps_common/connector/topic_names.h"
#include "zq/logging/logger.h"

namespace price_server {
namespace {

// For a client that is slow to take its responses. Others wait meanwhile, so not for long.
constexpr int kMaxRetries = 5;
constexpr int kRetrySleepMs = 10;

feed::ClientResponse Error(std::string text) {
  feed::ClientResponse response;
  response.result = std::move(text);
  return response;
}

feed::ClientResponse Good() { return Error(std::string(feed::kResultOk)); }

}  // namespace

RequestService::RequestService(lbm::Context& ctx, const ps_ns::ServerInstance& instance,
                               const ProductCatalogue& catalogue, const StatusPublisher& status, EventLoop& loop)
    : m_catalogue(catalogue),
      m_status(status),
      m_loop(loop),
      m_receiver(ctx,
                 lbm::ReceiverTopic(ctx, ps_ns::TopicNames::CreateClientRequestTopic(instance),
                                    lbm::ReceiverTopicAttributes()),
                 [this](const lbm::Message& message) { Receive(message); }) {}

void RequestService::Receive(const lbm::Message& message) {
  if (message.Type() == LBM_MSG_REQUEST) {
    m_loop.Post([this, message] { Answer(message); });
  } else if (message.Type() == LBM_MSG_DATA) {
    ZQLOG(ZQLOG_DEBUG, kServerStatement, "Dropped a message that is no request: " << message.ToString());
  }
}

void RequestService::Answer(const lbm::Message& message) const {
  const std::string_view bytes(message.Data(), message.Length());
  const auto request = feed::DecodeClientRequest(bytes);
  const auto id = feed::DecodeMessageID(bytes).value_or(0);
  auto responses = request ? ResponsesTo(*request) : std::vector{Error("not a request that can be read")};
  responses.back().isLast = true;
  for (auto& response : responses) {
    response.id = id;
    if (!message.GetResponse().SendWithRetries(message, feed::Encode(response), std::to_string(id), kMaxRetries,
                                               kRetrySleepMs, LBM_SRC_FLUSH)) {
      return;
    }
  }
}

std::vector<feed::ClientResponse> RequestService::ResponsesTo(const feed::ClientRequest& request) const {
  if (request.request == feed::kProductsRequest) {
    if (!request.symbol) {
      return AllProducts();
    }
    const auto product = m_catalogue.Find(*request.symbol);
    if (!product) {
      return {Error("unknown symbol \"" + std::string(request.symbol->View()) + '"')};
    }
    auto response = Good();
    response.products.push_back(m_catalogue.At(*product));
    return {response};
  }
  if (request.request == feed::kStatusRequest) {
    auto response = Good();
    response.status = m_status.Status();
    return {response};
  }
  return {Error("unknown request \"" + request.request + '"')};
}

std::vector<feed::ClientResponse> RequestService::AllProducts() const {
  std::vector<feed::ClientResponse> responses;
  for (std::uint32_t product = 0; product < m_catalogue.Size(); ++product) {
    if (product % feed::ClientResponse::kMaxProducts == 0) {
      responses.push_back(Good());
      responses.back().isLast = false;
    }
    responses.back().products.push_back(m_catalogue.At(product));
  }
  return responses;
}

}  // namespace price_server
