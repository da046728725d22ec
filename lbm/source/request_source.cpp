#include "lbm/request_source.h"

#include <utility>

#include "open_requests.h"

namespace lbm {

RequestSource::RequestSource(Context& ctx, const SourceTopic& topic, ListenersCallback onListeners, EventQueue* eq)
    : m_requests(std::make_shared<details::OpenRequests>(ctx, eq, std::move(onListeners))),
      m_source(
          ctx, topic, [this](int event, void*) { m_requests->TakeEvent(event); }, eq) {}

// The source's events use the requests, which lasts until it is deleted.
RequestSource::~RequestSource() { m_requests->CancelAll(); }

std::size_t RequestSource::Listeners() const { return m_requests->Listeners(); }

PendingRequest RequestSource::Ask(std::string data, const RequestOptions& options, ResponseCallback onResponse,
                                  OutcomeCallback onOutcome) {
  PendingRequest request(
      m_requests->Open(m_source, std::move(data), options, std::move(onResponse), std::move(onOutcome)));
  m_requests->SendFirst(*request.m_request);
  return request;
}

bool PendingRequest::Cancel() noexcept { return m_request != nullptr && m_request->requests->Cancel(*m_request); }

bool PendingRequest::IsOpen() const { return m_request != nullptr && m_request->requests->IsOpen(*m_request); }

}  // namespace lbm
