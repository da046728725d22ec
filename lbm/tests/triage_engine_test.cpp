// A triage request between two contexts of the embedded engine.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "lbm/lbm_cpp"
#include "test_support/private_domain.h"
#include "zq/messaging/triage.pb.h"
#include "zq/messaging/wire.pb.h"

namespace lbm {
namespace {

using zq::messaging::Header;
using zq::messaging::Wire;

ContextAttributes Sequential(const char* name) {
  ContextAttributes attributes;
  attributes.SetString("operational_mode", "sequential");
  attributes.SetString("context_name", name);
  return attributes;
}

std::string TestRequest(const std::string& id) {
  zq::messaging::triage::TriageActionWithWire action;
  action.mutable_wire()->mutable_header()->set_msg_type(Header::MSG_OPS_TRIAGE_TEST_REQUEST);
  action.mutable_wire()->add_payload("");
  action.set_request_id(id);
  Wire wire;
  wire.mutable_header()->set_msg_type(Header::MSG_OPS_TRIAGE_ACTION_WITH_WIRE);
  wire.add_payload(action.SerializeAsString());
  return wire.SerializeAsString();
}

TEST(TriageEngineTest, ARequestIsAnsweredAcrossTheEngine) {
  const test_support::PrivateDomain domain;
  ::unsetenv("DISABLE_LBM_TRIAGE_HANDLER");
  ::unsetenv("TRIAGE_HANDLER_USE_EVENT_QUEUE");
  ::unsetenv("LBM_TRIAGE_HANDLER_TOPIC_PREFIX");
  ::setenv("CHEF_ENVIRONMENT", "engine", 1);
  ::setenv("DATA_CENTER", "here", 1);

  Context served(Sequential(""));
  Context tool(Sequential("tool"));
  const auto pumpUntil = [&](const char* what, const auto& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "waited in vain for " << what;
      served.Poll(1);
      tool.Poll(1);
    }
  };

  bool connected = false;
  Source source(tool, SourceTopic(tool, "TRIAGE.ACTION.ENGINE.LBM.HERE", SourceTopicAttributes()),
                [&](int event, void*) { connected = connected || event == LBM_SRC_EVENT_CONNECT; });
  pumpUntil("the receiver", [&] { return connected; });

  const std::string id = "\xff\x01id";
  const std::string data = TestRequest(id);
  std::vector<std::string> answers;
  const Request request = source.SendRequest(data.data(), data.size(), LBM_SRC_FLUSH, [&](const Message& answer) {
    EXPECT_EQ(answer.Type(), LBM_MSG_RESPONSE);
    answers.emplace_back(answer.Data(), answer.Length());
  });
  pumpUntil("the answer", [&] { return !answers.empty(); });

  zq::messaging::triage::TriageResponse response;
  ASSERT_THAT(answers, ::testing::SizeIs(1));
  ASSERT_TRUE(response.ParseFromString(answers[0]));
  EXPECT_TRUE(response.has_status());
  EXPECT_EQ(response.status(), zq::messaging::triage::TRIAGE_RESPONSE_STATUS_SUCCESS);
  EXPECT_EQ(response.request_id(), id);
}

}  // namespace
}  // namespace lbm
