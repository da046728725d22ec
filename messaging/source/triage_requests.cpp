#include "zq/messaging/triage_requests.h"

#include <algorithm>
#include <cctype>

#include "zq/messaging/triage.pb.h"
#include "zq/messaging/wire.pb.h"

namespace zq::messaging::triage {
namespace {

void Fill(Wire& wire, Header::MessageType type, const std::string& payload) {
  wire.mutable_header()->set_msg_type(type);
  wire.add_payload(payload);
}

std::string Wrapped(Header::MessageType type, const std::string& request, const std::string& requestId) {
  TriageActionWithWire action;
  Fill(*action.mutable_wire(), type, request);
  action.set_request_id(requestId);
  Wire wire;
  Fill(wire, Header::MSG_OPS_TRIAGE_ACTION_WITH_WIRE, action.SerializeAsString());
  return wire.SerializeAsString();
}

}  // namespace

std::string UpperCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char byte) { return static_cast<char>(std::toupper(byte)); });
  return text;
}

std::string ActionTopic(const std::string& prefix, const std::string& environment) {
  return prefix + "TRIAGE.ACTION." + UpperCase(environment) + ".LBM";
}

std::string ActionTopic(const std::string& prefix, const std::string& environment, const std::string& dataCenter) {
  return ActionTopic(prefix, environment) + '.' + UpperCase(dataCenter);
}

std::string TestRequest(const std::string& requestId) {
  return Wrapped(Header::MSG_OPS_TRIAGE_TEST_REQUEST, TriageTestRequest().SerializeAsString(), requestId);
}

std::string NakKillRequest(LBMContext contexts, bool enable, const std::string& requestId) {
  TriageNakKillRequest request;
  request.set_context(contexts);
  request.set_enable(enable);
  return Wrapped(Header::MSG_OPS_TRIAGE_NAK_KILL_REQUEST, request.SerializeAsString(), requestId);
}

}  // namespace zq::messaging::triage
