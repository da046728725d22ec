// How the triage handler treats requests and the other events of its receivers.
#include <stdexcept>

#include "triage_test.h"

namespace lbm {
namespace {

using namespace std::string_literals;
using ::testing::StartsWith;
using zq::messaging::Header;
using zq::messaging::Wire;

std::string Enveloped(int type, const std::string& payload) {
  Wire wire;
  wire.mutable_header()->set_msg_type(static_cast<Header::MessageType>(type));
  wire.add_payload(payload);
  return wire.SerializeAsString();
}

// An action around a serialised Wire.
std::string ActionAround(const std::string& wire) {
  triage::TriageActionWithWire action;
  action.mutable_wire()->ParseFromString(wire);
  action.set_request_id("id");
  return Enveloped(Header::MSG_OPS_TRIAGE_ACTION_WITH_WIRE, action.SerializeAsString());
}

std::string RequestWith(int type, const std::string& payload) { return ActionAround(Enveloped(type, payload)); }

const std::string kOrigin = " lbm_topic="s + kEnvTopic + " lbm_src=TOOL lbm_sqn=7 lbm_flags=0";
const std::string kTopic = " topic="s + kEnvTopic;

// The handler's lines about a request, without those that say that it came and went.
std::vector<std::string> LinesAbout(const std::string& data) {
  log_capture::Clear();
  DeliverRequest(data);
  std::vector<std::string> lines = Lines(kTriage);
  EXPECT_THAT(lines, SizeIs(::testing::Ge(2U)));
  EXPECT_EQ(lines.front(), "17 Received LBM request" + kOrigin);
  EXPECT_EQ(lines.back(), "17 Finished with LBM request" + kOrigin);
  return {lines.begin() + 1, lines.end() - 1};
}

TEST(TriageRequestsTest, AreAnsweredWithTheirIdOnBothTopics) {
  InProcessWith(kNames, [] {
    const auto context = MakeContext();
    EXPECT_THAT(LinesAbout(triage::TestRequest("id-1")),
                ElementsAre("17 handling TriageTestRequest request= request_id=id-1" + kTopic,
                            "17 responding to TriageTestRequest request with request_id=id-1 :status: "
                            "TRIAGE_RESPONSE_STATUS_SUCCESS request_id: \"id-1\"" +
                                kTopic));
    DeliverRequest(triage::TestRequest("\xff\xc0\x80\0\n"s), kEnvDcTopic);
    DeliverRequest(triage::TestRequest(std::string(1 << 20, '\xe9')));
    const auto sent = CallsTo("lbm_send_response");
    ASSERT_THAT(sent, SizeIs(3));
    EXPECT_EQ(sent[0].Text("data"), "\x08\x00\x12\x04id-1"s);
    EXPECT_EQ(sent[0].Number("flags"), LBM_SRC_FLUSH | LBM_SRC_NONBLOCK);
    EXPECT_EQ(sent[1].Text("data"), "\x08\x00\x12\x05\xff\xc0\x80\0\n"s);
    EXPECT_THAT(sent[2].Text("data"), SizeIs(6 + (1 << 20)));
  });
  InProcessWith(NamesAnd({{"TRIAGE_HANDLER_MAX_RETRIES", "-1"}}), [] {
    const auto context = MakeContext();
    DeliverRequest(triage::TestRequest("id"));
    EXPECT_EQ(CallsTo("lbm_send_response").at(0).Number("flags"), LBM_SRC_FLUSH);
  });
}

TEST(TriageRequestsTest, NaksAreSwitchedOnMatchingContextsOnly) {
  InProcessWith(kNames, [] {
    std::vector<std::unique_ptr<Context>> contexts;
    for (const char* name : {"", "", "PRICE", "PRICEENVIRONMENT", "priceenvironment_a", "X_PRICEENVIRONMENT",
                             "zqNotify", "ZQ_NOTIFY", "all", "some_Unknown"}) {
      contexts.push_back(MakeContext(name));
    }
    const std::tuple<int, std::size_t, std::string> groups[] = {{triage::ORDER, 2, ""},
                                                                {triage::PRICE, 3, "PRICEENVIRONMENT"},
                                                                {triage::ZQNOTIFY, 1, "ZQNOTIFY"},
                                                                {triage::ALL, 10, "ALL"},
                                                                {4, 1, "unknown"},
                                                                {-1, 1, "unknown"}};
    for (const auto& [group, matching, pattern] : groups) {
      EXPECT_EQ(Switched(group, true), matching) << group;
      EXPECT_EQ(Switched(group, false), matching) << group;
      const std::string toggling = "toggling NAKs for contexts matching " + pattern + " enable_naks=0";
      const auto lines = Lines(kTriage);
      ASSERT_THAT(lines, SizeIs(6));
      EXPECT_THAT(lines[1], StartsWith("17 handling TriageNakKillRequest request=context: "));
      EXPECT_THAT(lines[1], ::testing::EndsWith(" enable: false request_id=id" + kTopic));
      EXPECT_EQ(lines[2], "17 begin " + toggling);
      EXPECT_EQ(lines[3], "17 end " + toggling);
      EXPECT_THAT(lines[4], StartsWith("17 responding to TriageNakKillRequest request with request_id=id :status: "));
    }
    EXPECT_THAT(CallsTo("lbm_send_response"), SizeIs(12));
  });
}

TEST(TriageRequestsTest, WhatIsNoRequestIsDroppedUnanswered) {
  const std::string invalid = "20 dropping request. Wire message is not valid" + kTopic + " wire=";
  const std::string incomplete = invalid + "header { msg_type: MSG_OPS_TRIAGE_ACTION_WITH_WIRE }";
  const std::string noAction = "20 dropping Triage request" + kTopic +
                               " Header must be MSG_OPS_TRIAGE_ACTION_WITH_WIRE wire=header { msg_type: ";
  const std::string unknown =
      "20 dropping Triage request. msg_type must be MSG_OPS_TRIAGE_NAK_KILL_REQUEST or MSG_OPS_TRIAGE_TEST_REQUEST "
      "TriageActionWithWire=wire { header { msg_type: ";
  const std::pair<std::string, std::string> cases[] = {
      // Data, and how the line begins; none for an empty one.
      {"", invalid},
      {triage::TestRequest("id") + '\xff', invalid + "header { msg_type: MSG_OPS_TRIAGE_ACTION_WITH_WIRE } payload: "},
      {"\x0a\x00\x12\x02id"s, invalid + "header { } payload: \"id\""},
      {"\x0a\x03\x08\x95\x0a", incomplete},
      {Enveloped(Header::MSG_OPS_TRIAGE_TEST_REQUEST, ""), noAction + "MSG_OPS_TRIAGE_TEST_REQUEST }"},
      {Enveloped(Header::MSG_OPS_TRIAGE_ACTION_WITH_WIRE, "\xff"), ""},
      {ActionAround("\x0a\x00\x12\x01x"s), ""},
      {ActionAround("\x0a\x03\x08\x97\x0a"), ""},
      {RequestWith(Header::MSG_OPS_TRIAGE_ACTION_RESPONSE, ""), unknown + "MSG_OPS_TRIAGE_ACTION_RESPONSE }"},
  };
  InProcessWith(kNames, [&] {
    const auto context = MakeContext();
    for (const auto& [data, line] : cases) {
      const auto lines = LinesAbout(data);
      EXPECT_THAT(lines, SizeIs(line.empty() ? 0 : 1)) << line;
      EXPECT_TRUE(lines.empty() || lines[0].rfind(line, 0) == 0) << lines[0];
    }
    EXPECT_THAT(CallsTo("lbm_send_response"), IsEmpty());
  });
}

TEST(TriageRequestsTest, ABrokenInnerMessageCountsAsFarAsItCouldBeRead) {
  InProcessWith(kNames, [] {
    const auto context = MakeContext();
    EXPECT_THAT(LinesAbout(RequestWith(Header::MSG_OPS_TRIAGE_NAK_KILL_REQUEST, "\x08\x02\x10\x01\xff")),
                ::testing::Contains("17 begin toggling NAKs for contexts matching ZQNOTIFY enable_naks=1"));
    // A whole action with something behind it that is none.
    Wire wire;
    EXPECT_TRUE(wire.ParseFromString(triage::TestRequest("id")));
    wire.mutable_payload(0)->push_back('\xff');
    LinesAbout(wire.SerializeAsString());
    EXPECT_THAT(CallsTo("lbm_send_response"), SizeIs(2));
  });
}

TEST(TriageRequestsTest, NoFailureEscapes) {
  InProcessWith(kNames, [] {
    const auto context = MakeContext();
    Script("lbm_send_response", Failure(LBM_EWOULDBLOCK, "would block"));
    EXPECT_THAT(LinesAbout(triage::TestRequest("id")), SizeIs(2)) << "the answer is lost without a word";
    EXPECT_THAT(log_capture::Find("Failed responding"), IsEmpty());

    lbm_scripted::OnCall("lbm_send_response", [](const auto&) { throw std::runtime_error("out of luck"); });
    EXPECT_EQ(LinesAbout(triage::TestRequest("id")).back(),
              "30 exception parsing Triage Message" + kTopic + " error=out of luck");
  });
}

TEST(TriageEventsTest, AreTracedByTypeAndOnlyRequestsAreServed) {
  const std::map<int, std::string> traces{{LBM_MSG_DATA, "Received LBM message"},
                                          {LBM_MSG_EOS, "End of Transport Session"},
                                          {LBM_MSG_UNRECOVERABLE_LOSS, "LOST"},
                                          {LBM_MSG_UNRECOVERABLE_LOSS_BURST, "LOSS BURST"},
                                          {LBM_MSG_NO_SOURCE_NOTIFICATION, "no sources found for topic"},
                                          {LBM_MSG_BOS, "Beginning of Transport Session"}};
  InProcessWith(kNames, [&] {
    const auto context = MakeContext();
    for (int type = -1; type <= 21; ++type) {
      if (type == LBM_MSG_REQUEST) {
        continue;
      }
      log_capture::Clear();
      EXPECT_EQ(
          Deliver(lbm_scripted::FindReceiver(kEnvDcTopic), {triage::TestRequest("id"), type, -2, 4294967295U, "TOOL"}),
          0);
      const auto found = traces.find(type);
      EXPECT_THAT(Lines(kTriage), SizeIs(found != traces.end() ? 1 : 0)) << type;
      for (const std::string& line : Lines(kTriage)) {
        EXPECT_EQ(line, "17 " + found->second + " lbm_topic=" + kEnvDcTopic +
                            " lbm_src=TOOL lbm_sqn=4294967295 lbm_flags=-2");
      }
    }
    EXPECT_THAT(CallsTo("lbm_send_response"), IsEmpty());
  });
}

TEST(TriageEventsTest, TheLevelIsLookedAtForEachLine) {
  InProcessWith(kNames, [] {
    const auto context = MakeContext();
    log_capture::Clear();
    log_capture::SetMinLevel(zq::logging::ZQLOG_WARNING);
    lbm_scripted::OnCall("lbm_send_response", [](const auto&) { log_capture::SetMinLevel(zq::logging::ZQLOG_DEBUG); });
    DeliverRequest(triage::TestRequest("id"));
    EXPECT_THAT(CallsTo("lbm_send_response"), SizeIs(1));
    EXPECT_THAT(Lines(kTriage), ElementsAre("17 Finished with LBM request" + kOrigin));
  });
}

TEST(TriageRequestsTest, AreCountedByKindAndResult) {
  InProcessWith(NamesAnd({{"TRIAGE_HANDLER_MAX_RETRIES", "0"}}), [] {
    const auto context = MakeContext();
    DeliverRequest(triage::TestRequest("id"));
    DeliverRequest(triage::TestRequest("id"));
    DeliverRequest(triage::NakKillRequest(triage::ALL, true, "id"));
    Script("lbm_send_response", Failure(LBM_EWOULDBLOCK, "full"));
    DeliverRequest(triage::TestRequest("let go, though the send with retries reports success"));
    DeliverRequest("");
    DeliverRequest(ActionAround(""));
    const zq::statistics::Snapshot snapshot = zq::statistics::TakeSnapshot();
    std::map<std::string, std::uint64_t> requests;
    for (const auto* row : snapshot.Of("triage")) {
      requests[row->labels[0] + ' ' + row->labels[1]] = row->values[0].Count();
    }
    EXPECT_EQ(requests, (std::map<std::string, std::uint64_t>{{"other other", 0},
                                                              {"test answered", 2},
                                                              {"nak_kill answered", 1},
                                                              {"test not_answered", 1},
                                                              {"unknown invalid", 2}}));
  });
}

}  // namespace
}  // namespace lbm
