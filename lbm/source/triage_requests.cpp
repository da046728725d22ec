// What the handler does with what its receivers deliver.
#include <exception>

#include "answer.h"
#include "lbm/context.h"
#include "lbm/triage_handler.h"
#include "log_statements.h"
#include "statistics.h"
#include "zq/messaging/triage.pb.h"
#include "zq/messaging/triage_requests.h"
#include "zq/messaging/wire.pb.h"

namespace lbm {
namespace {

using zq::messaging::Header;
using zq::messaging::Wire;
using zq::messaging::triage::TriageActionWithWire;
using zq::messaging::triage::TriageNakKillRequest;
using zq::messaging::triage::TriageResponse;
using zq::messaging::triage::TriageTestRequest;
using zq::messaging::triage::UpperCase;

bool IsComplete(const Wire& wire) { return wire.header().has_msg_type() && wire.payload_size() > 0; }

// Counts a request when it has been dealt with.
struct Outcome {
  const char* request = "unknown";
  const char* result = "error";

  Outcome() = default;
  Outcome(const Outcome&) = delete;
  Outcome& operator=(const Outcome&) = delete;
  ~Outcome() { details::CountTriageRequest(request, result); }
};

// What toggleNaks is to look for in the names of contexts.
const char* PatternOf(zq::messaging::triage::LBMContext context) {
  switch (context) {
    case zq::messaging::triage::ORDER:
      return "";
    case zq::messaging::triage::PRICE:
      return "PRICEENVIRONMENT";
    case zq::messaging::triage::ZQNOTIFY:
      return "ZQNOTIFY";
    case zq::messaging::triage::ALL:
      return "ALL";
    default:
      return "unknown";
  }
}

// The request inside an action. Of a broken one counts what could be read.
template <class Request>
Request TakeRequest(const TriageActionWithWire& action, const char* topic) {
  Request request;
  request.ParseFromString(action.wire().payload(0));
  TRIAGE_LOG(ZQLOG_INFO_SEARCH, kTriageHandling,
             "handling " << Request::descriptor()->name() << " request=" << request.ShortDebugString()
                         << " request_id=" << action.request_id() << " topic=" << topic);
  return request;
}

TriageResponse Success(const TriageActionWithWire& action) {
  TriageResponse response;
  response.set_request_id(action.request_id());
  response.set_status(zq::messaging::triage::TRIAGE_RESPONSE_STATUS_SUCCESS);
  return response;
}

void Trace(int line, const char* event, const Message& message) {
  ZQLOG_AT(zq::logging::ZQLOG_INFO_SEARCH, 0, details::TriageLogSource(), statement::kFile, line,
           event << " lbm_topic=" << message.TopicName() << " lbm_src=" << message.Source()
                 << " lbm_sqn=" << message.SequenceNumber() << " lbm_flags=" << message.Flags());
}

}  // namespace

int LbmTriageHandler::handleLbmMessage(const Message& message) {
  switch (message.Type()) {
    case LBM_MSG_DATA:
      Trace(statement::kTriageData, "Received LBM message", message);
      break;
    case LBM_MSG_EOS:
      Trace(statement::kTriageEndOfSession, "End of Transport Session", message);
      break;
    case LBM_MSG_REQUEST:
      Trace(statement::kTriageRequest, "Received LBM request", message);
      handleTriageMessage(message);
      Trace(statement::kTriageRequestDone, "Finished with LBM request", message);
      break;
    case LBM_MSG_UNRECOVERABLE_LOSS:
      Trace(statement::kTriageLoss, "LOST", message);
      break;
    case LBM_MSG_UNRECOVERABLE_LOSS_BURST:
      Trace(statement::kTriageLossBurst, "LOSS BURST", message);
      break;
    case LBM_MSG_NO_SOURCE_NOTIFICATION:
      Trace(statement::kTriageNoSource, "no sources found for topic", message);
      break;
    case LBM_MSG_BOS:
      Trace(statement::kTriageBeginningOfSession, "Beginning of Transport Session", message);
      break;
    default:
      break;
  }
  return 0;
}

void LbmTriageHandler::toggleNaks(bool enable, std::string pattern) {
  TRIAGE_LOG(ZQLOG_INFO_SEARCH, kTriageToggleBegin,
             "begin toggling NAKs for contexts matching " << pattern << " enable_naks=" << enable);
  const std::string upperPattern = UpperCase(pattern);
  const auto matches = [&](const std::string& name) {
    if (pattern == "ALL") {
      return true;
    }
    return pattern.empty() ? name.empty() : UpperCase(name).find(upperPattern) != std::string::npos;
  };
  const std::lock_guard lock(m_contextMapLock);
  for (const auto& [name, ctx] : m_contextMap) {
    if (matches(name)) {
      if (enable) {
        ctx->EnableNAKs();
      } else {
        ctx->DisableNAKs();
      }
    }
  }
  TRIAGE_LOG(ZQLOG_INFO_SEARCH, kTriageToggleEnd,
             "end toggling NAKs for contexts matching " << pattern << " enable_naks=" << enable);
}

void LbmTriageHandler::handleTriageMessage(const Message& message) {
  const char* const topic = message.TopicName();
  Outcome outcome;
  try {
    Wire wire;
    if (!wire.ParseFromString(std::string(message.Data(), message.Length())) || !IsComplete(wire)) {
      outcome.result = "invalid";
      TRIAGE_LOG(ZQLOG_WARNING, kTriageWireInvalid,
                 "dropping request. Wire message is not valid topic=" << topic << " wire=" << wire.ShortDebugString());
      return;
    }
    if (wire.header().msg_type() != Header::MSG_OPS_TRIAGE_ACTION_WITH_WIRE) {
      outcome.result = "invalid";
      TRIAGE_LOG(ZQLOG_WARNING, kTriageNoAction,
                 "dropping Triage request topic=" << topic << " Header must be MSG_OPS_TRIAGE_ACTION_WITH_WIRE wire="
                                                  << wire.ShortDebugString());
      return;
    }
    TriageActionWithWire action;
    // What a broken action lacks shows in its wire.
    action.ParseFromString(wire.payload(0));
    if (!IsComplete(action.wire())) {
      outcome.result = "invalid";
      return;
    }
    const auto respond = [&](const std::string& request) {
      const TriageResponse response = Success(action);
      const std::string data = response.SerializeAsString();
      TRIAGE_LOG(ZQLOG_INFO_SEARCH, kTriageResponding,
                 "responding to " << request << " request with request_id=" << action.request_id() << " :"
                                  << response.ShortDebugString() << " topic=" << topic);
      const details::Answer answer = details::SendAnswer(
          message.GetResponse(), {message.Source(), topic, data.data(), data.size(), action.request_id()}, m_maxRetries,
          m_timeBetweenRetriesMs, LBM_SRC_FLUSH);
      outcome.result = answer == details::Answer::kSent ? "answered" : "not_answered";
    };
    switch (action.wire().header().msg_type()) {
      case Header::MSG_OPS_TRIAGE_NAK_KILL_REQUEST: {
        outcome.request = "nak_kill";
        const auto request = TakeRequest<TriageNakKillRequest>(action, topic);
        toggleNaks(request.enable(), PatternOf(request.context()));
        respond(TriageNakKillRequest::descriptor()->name());
        break;
      }
      case Header::MSG_OPS_TRIAGE_TEST_REQUEST:
        outcome.request = "test";
        TakeRequest<TriageTestRequest>(action, topic);
        respond(TriageTestRequest::descriptor()->name());
        break;
      default:
        outcome.result = "invalid";
        TRIAGE_LOG(ZQLOG_WARNING, kTriageUnknownRequest,
                   "dropping Triage request. msg_type must be MSG_OPS_TRIAGE_NAK_KILL_REQUEST or "
                   "MSG_OPS_TRIAGE_TEST_REQUEST TriageActionWithWire="
                       << action.ShortDebugString());
        break;
    }
  } catch (const std::exception& error) {
    TRIAGE_LOG(ZQLOG_ERROR, kTriageException,
               "exception parsing Triage Message topic=" << topic << " error=" << error.what());
  }
}

}  // namespace lbm
