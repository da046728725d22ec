// What the triage handler of a process may receive: each request is dropped or answered, once, with its own id.
#include <lbm_scripted/lbm_scripted.h>

#include <cstdarg>
#include <cstdlib>

#include "harness/input.h"
#include "harness/oracle.h"
#include "lbm/lbm_cpp"
#include "zq/logging/backend.h"
#include "zq/messaging/triage.pb.h"
#include "zq/messaging/triage_requests.h"
#include "zq/messaging/wire.pb.h"

// A log back end that has every line put together and keeps none.
namespace zq::logging {

int g_minLogLevel = ZQLOG_DEBUG;

void LogMessage(LogLevel, unsigned int, DecodeType, const std::shared_ptr<const Source>&, const char*, int, std::string,
                const std::string&) {}
void FormatAndLogMessage(LogLevel, unsigned int, DecodeType, const std::shared_ptr<const Source>&, const char*, int,
                         const char*, ...) {}
void ForceLockHandlers() {}

}  // namespace zq::logging

namespace fuzz {
namespace {

namespace messaging = zq::messaging;
namespace triage = zq::messaging::triage;

std::string Wrapped(Input& input, int usualType, const std::string& payload) {
  messaging::Wire wire;
  if (input.UpTo<std::uint8_t>(15) != 0) {
    wire.mutable_header()->set_msg_type(static_cast<messaging::Header::MessageType>(
        input.UpTo<std::uint8_t>(15) != 0 ? usualType : input.ConsumeIntegral<int>()));
  }
  if (input.UpTo<std::uint8_t>(15) != 0) {
    wire.add_payload(payload);
  }
  return wire.SerializeAsString();
}

std::string Request(Input& input) {
  if (input.UpTo<std::uint8_t>(3) == 0) {
    return input.ConsumeRemainingBytesAsString();
  }
  using messaging::Header;
  const auto type = input.ConsumeBool() ? Header::MSG_OPS_TRIAGE_TEST_REQUEST : Header::MSG_OPS_TRIAGE_NAK_KILL_REQUEST;
  triage::TriageNakKillRequest request;
  request.set_context(static_cast<triage::LBMContext>(input.Plausible(4)));
  request.set_enable(input.ConsumeBool());
  triage::TriageActionWithWire action;
  const std::string payload = input.ConsumeBool() ? request.SerializeAsString() : input.Text(20);
  action.mutable_wire()->ParseFromString(Wrapped(input, type, payload));
  action.set_request_id(input.Text(20));
  std::string bytes = Wrapped(input, Header::MSG_OPS_TRIAGE_ACTION_WITH_WIRE, action.SerializeAsString());
  if (input.ConsumeBool()) {
    input.Damage(std::as_writable_bytes(std::span(bytes)));
  }
  return bytes;
}

struct Process {
  Process() {
    ::setenv(triage::kEnvironmentVariable, "int", 1);
    ::setenv(triage::kDataCenterVariable, "dc", 1);
    context = std::make_unique<lbm::Context>(lbm::ContextAttributes());
    receiver = lbm_scripted::FindReceiver("TRIAGE.ACTION.INT.LBM");
  }

  std::unique_ptr<lbm::Context> context;
  lbm_rcv_t* receiver = nullptr;
};

void Handle(Input& input) {
  static Process process;
  lbm_scripted::Reset();
  const std::string request = Request(input);
  lbm_scripted::Deliver(process.receiver, {.data = request, .type = LBM_MSG_REQUEST});
  const auto answers = lbm_scripted::CallsTo("lbm_send_response");
  Require(answers.size() <= 1, "a request has one answer");
  if (!answers.empty()) {
    messaging::Wire wire;
    triage::TriageActionWithWire action;
    triage::TriageResponse response;
    wire.ParseFromString(request);
    action.ParseFromString(wire.payload_size() > 0 ? wire.payload(0) : std::string());
    Require(action.wire().header().has_msg_type() && action.wire().payload_size() > 0,
            "what has no request is dropped");
    Require(response.ParseFromString(answers[0].Text("data")) && response.request_id() == action.request_id(),
            "an answer has the id of its request");
  }
  Require(lbm_scripted::LiveHandles("msg").empty() && lbm_scripted::Problems().empty(), "messages are given back");
}

}  // namespace
}  // namespace fuzz

FUZZ_WITH(fuzz::Handle)
