#include "lbm/response.h"

#include <time.h>

#include <cerrno>
#include <cstdint>

#include "lbm/errors.h"
#include "lbm/message.h"
#include "log_statements.h"

namespace lbm {
namespace {

// Signals do not shorten the sleep.
void Sleep(int milliseconds) {
  timespec rest{milliseconds / 1000, (milliseconds % 1000) * 1'000'000L};
  while (nanosleep(&rest, &rest) == -1 && errno == EINTR) {
  }
}

}  // namespace

void Response::Send(const char* data, unsigned long length, int flags) const {
  details::ThrowIfFailed(lbm_send_response(m_resp, data, length, flags), "Failed to send LBM response");
}

void Response::Send(const std::string& data, int flags) const { Send(data.data(), data.size(), flags); }

bool Response::SendWithRetries(const char* source, const char* topicName, const char* data, unsigned long length,
                               const std::string& requestId, int maxRetries, int retrySleepMs, int flags) const {
  if (m_resp == nullptr) {
    LBM_LOG(ZQLOG_ERROR, kNoResponse,
            "source=" << source << " topicName=" << topicName << " does not contain a valid response object.");
    return false;
  }
  const int sendFlags = maxRetries == -1 ? flags : LBM_SRC_FLUSH | LBM_SRC_NONBLOCK;
  // Wider than maxRetries, of which the smallest may be given.
  std::int64_t retriesRemaining = maxRetries;
  do {
    if (!details::Failed(lbm_send_response(m_resp, data, length, sendFlags))) {
      return true;
    }
    const int errorCode = lbm_errnum();
    if (errorCode != LBM_EWOULDBLOCK) {
      LBM_LOG(ZQLOG_ERROR, kResponseFailed,
              "Error responding to requestId=" << requestId << " retrySleepMs=" << retrySleepMs
                                               << " retriesRemaining=" << retriesRemaining
                                               << " maxRetries=" << maxRetries << " source=" << source
                                               << " topicName=" << topicName << " errorCode=" << errorCode);
      return false;
    }
    if (retrySleepMs > 0) {
      Sleep(retrySleepMs);
    }
    --retriesRemaining;
    if (retriesRemaining == 0) {
      LBM_LOG(ZQLOG_ERROR, kRetriesUsedUp,
              "Failed responding: requestId=" << requestId << " retrySleepMs=" << retrySleepMs
                                              << " retriesRemaining=" << retriesRemaining
                                              << " maxRetries=" << maxRetries << " source=" << source
                                              << " topicName=" << topicName << " error=" << errorCode);
      return false;
    }
    LBM_LOG(ZQLOG_DEBUG, kWouldBlock,
            "LBMEWouldBlockException responding to requestId=" << requestId << " retrySleepMs=" << retrySleepMs
                                                               << " retriesRemaining=" << retriesRemaining
                                                               << " maxRetries=" << maxRetries << " source=" << source
                                                               << " topicName=" << topicName << " error=" << errorCode);
  } while (retriesRemaining > 0);
  return true;
}

bool Response::SendWithRetries(const Message& request, const std::string& data, const std::string& requestId,
                               int maxRetries, int retrySleepMs, int flags) const {
  return SendWithRetries(request.Source(), request.TopicName(), data.data(), data.size(), requestId, maxRetries,
                         retrySleepMs, flags);
}

}  // namespace lbm
