#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "zq/messaging/triage.pb.h"
#include "zq/messaging/triage_requests.h"
#include "zq/messaging/wire.pb.h"

namespace zq::messaging {
namespace {

using namespace std::string_literals;

// Tools of any language and age send and expect these bytes.
TEST(MessagingTest, EveryFieldHasItsPlaceOnTheWire) {
  triage::TriageNakKillRequest request;
  request.set_context(triage::ZQNOTIFY);
  request.set_enable(true);
  EXPECT_EQ(request.SerializeAsString(), "\x08\x02\x10\x01");

  EXPECT_EQ(triage::NakKillRequest(triage::ZQNOTIFY, true, "id"),
            "\x0a\x03\x08\x95\x0a\x12\x11\x0a\x0b\x0a\x03\x08\x98\x0a\x12\x04\x08\x02\x10\x01\x12\x02id"s);
  EXPECT_EQ(triage::TestRequest("id"), "\x0a\x03\x08\x95\x0a\x12\x0d\x0a\x07\x0a\x03\x08\x97\x0a\x12\x00\x12\x02id"s);

  triage::TriageResponse response;
  response.set_status(triage::TRIAGE_RESPONSE_STATUS_SUCCESS);
  response.set_request_id("id");
  EXPECT_EQ(response.SerializeAsString(), "\x08\x00\x12\x02id"s) << "a status that is zero is sent too";
}

TEST(MessagingTest, TopicsAreInUpperCaseBehindThePrefix) {
  EXPECT_EQ(triage::ActionTopic("", "int"), "TRIAGE.ACTION.INT.LBM");
  EXPECT_EQ(triage::ActionTopic("site.", "Int-\xe4", "dc 1"), "site.TRIAGE.ACTION.INT-\xe4.LBM.DC 1");
}

TEST(MessagingTest, PresenceIsNotTheDefaultValue) {
  Wire wire;
  ASSERT_TRUE(wire.ParseFromString(""));
  EXPECT_FALSE(wire.has_header());
  ASSERT_TRUE(wire.ParseFromString("\x0a\x00"s));
  EXPECT_TRUE(wire.has_header());
  EXPECT_FALSE(wire.header().has_msg_type());
  ASSERT_TRUE(wire.ParseFromString("\x0a\x02\x08\x00"s));
  EXPECT_TRUE(wire.header().has_msg_type());
}

TEST(MessagingTest, ValuesWithoutANameArriveAsTheyWereSent) {
  Wire wire;
  ASSERT_TRUE(wire.ParseFromString("\x0a\x03\x08\x8f\x4e"s));
  EXPECT_TRUE(wire.header().has_msg_type());
  EXPECT_EQ(static_cast<int>(wire.header().msg_type()), 9999);
  EXPECT_EQ(wire.ShortDebugString(), "header { msg_type: 9999 }");

  triage::TriageNakKillRequest request;
  request.set_context(static_cast<triage::LBMContext>(-1));
  ASSERT_TRUE(request.ParseFromString(request.SerializeAsString()));
  EXPECT_EQ(static_cast<int>(request.context()), -1);
}

TEST(MessagingTest, BytesNeedNotBeText) {
  const std::string bytes = "\xff\xc0\x80\0\xed\xa0\x80"s;
  triage::TriageActionWithWire action;
  action.mutable_wire()->add_payload(bytes);
  action.set_request_id(bytes);
  triage::TriageActionWithWire read;
  ::testing::internal::CaptureStderr();
  ASSERT_TRUE(read.ParseFromString(action.SerializeAsString()));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "") << "the library complains of strings that are no text";
  EXPECT_EQ(read.wire().payload(0), bytes);
  EXPECT_EQ(read.request_id(), bytes);
}

}  // namespace
}  // namespace zq::messaging
