#include "lbm/response.h"

#include <time.h>

#include <cerrno>
#include <cstdint>

#include "answer.h"
#include "lbm/errors.h"
#include "lbm/message.h"
#include "log_statements.h"
#include "statistics.h"

namespace lbm {
namespace {

namespace field = details::response_field;

void CountSent(details::Row& row, unsigned long length) noexcept {
  const zq::statistics::Cells cells = row.Mine();
  cells.Add(field::kMessages);
  cells.Add(field::kBytes, length);
}

// Signals do not shorten the sleep.
void Sleep(int milliseconds) {
  timespec rest{milliseconds / 1000, (milliseconds % 1000) * 1'000'000L};
  while (nanosleep(&rest, &rest) == -1 && errno == EINTR) {
  }
}

}  // namespace

details::Answer details::SendAnswer(lbm_response_t* response, const AnswerText& text, int maxRetries, int retrySleepMs,
                                    int flags) {
  Row& row = ResponsesOfThisThread();
  if (response == nullptr) {
    row.Add(field::kFailures);
    LBM_LOG(
        ZQLOG_ERROR, kNoResponse,
        "source=" << text.source << " topicName=" << text.topicName << " does not contain a valid response object.");
    return Answer::kFailed;
  }
  const int sendFlags = maxRetries == -1 ? flags : LBM_SRC_FLUSH | LBM_SRC_NONBLOCK;
  // Wider than maxRetries, of which the smallest may be given.
  std::int64_t retriesRemaining = maxRetries;
  while (Failed(lbm_send_response(response, text.data, text.length, sendFlags))) {
    const int errorCode = lbm_errnum();
    if (errorCode != LBM_EWOULDBLOCK) {
      row.Add(field::kFailures);
      LBM_LOG(ZQLOG_ERROR, kResponseFailed,
              "Error responding to requestId=" << text.requestId << " retrySleepMs=" << retrySleepMs
                                               << " retriesRemaining=" << retriesRemaining
                                               << " maxRetries=" << maxRetries << " source=" << text.source
                                               << " topicName=" << text.topicName << " errorCode=" << errorCode);
      return Answer::kFailed;
    }
    row.Add(field::kWouldBlock);
    if (retrySleepMs > 0) {
      Sleep(retrySleepMs);
    }
    --retriesRemaining;
    if (retriesRemaining == 0) {
      row.Add(field::kFailures);
      LBM_LOG(ZQLOG_ERROR, kRetriesUsedUp,
              "Failed responding: requestId=" << text.requestId << " retrySleepMs=" << retrySleepMs
                                              << " retriesRemaining=" << retriesRemaining
                                              << " maxRetries=" << maxRetries << " source=" << text.source
                                              << " topicName=" << text.topicName << " error=" << errorCode);
      return Answer::kFailed;
    }
    LBM_LOG(ZQLOG_DEBUG, kWouldBlock,
            "LBMEWouldBlockException responding to requestId="
                << text.requestId << " retrySleepMs=" << retrySleepMs << " retriesRemaining=" << retriesRemaining
                << " maxRetries=" << maxRetries << " source=" << text.source << " topicName=" << text.topicName
                << " error=" << errorCode);
    if (retriesRemaining < 0) {
      return Answer::kLetGo;
    }
    row.Add(field::kRetries);
  }
  CountSent(row, text.length);
  return Answer::kSent;
}

void Response::Send(const char* data, unsigned long length, int flags) const {
  const int result = lbm_send_response(m_resp, data, length, flags);
  details::Row& row = details::ResponsesOfThisThread();
  if (details::Failed(result)) {
    row.Add(field::kFailures);
    details::ThrowLbmError("Failed to send LBM response");
  }
  CountSent(row, length);
}

void Response::Send(const std::string& data, int flags) const { Send(data.data(), data.size(), flags); }

bool Response::SendWithRetries(const char* source, const char* topicName, const char* data, unsigned long length,
                               const std::string& requestId, int maxRetries, int retrySleepMs, int flags) const {
  return details::SendAnswer(m_resp, {source, topicName, data, length, requestId}, maxRetries, retrySleepMs, flags) !=
         details::Answer::kFailed;
}

bool Response::SendWithRetries(const Message& request, const std::string& data, const std::string& requestId,
                               int maxRetries, int retrySleepMs, int flags) const {
  return SendWithRetries(request.Source(), request.TopicName(), data.data(), data.size(), requestId, maxRetries,
                         retrySleepMs, flags);
}

}  // namespace lbm
