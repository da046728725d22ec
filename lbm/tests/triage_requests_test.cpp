// How the triage handler treats requests and the other events of its receivers.
#include <set>
#include <stdexcept>
#include <utility>

#include "triage_test.h"
#include "zq/messaging/triage.pb.h"
#include "zq/messaging/triage_requests.h"
#include "zq/messaging/wire.pb.h"

namespace lbm {
namespace {

using namespace std::string_literals;
using lbm_scripted::CallsTo;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;
using zq::messaging::Header;
using zq::messaging::Wire;
namespace triage = zq::messaging::triage;

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

std::string TestRequest(const std::string& id = "id") { return triage::TestRequest(id); }

std::string NakKill(int context, bool enable) {
  return triage::NakKillRequest(static_cast<triage::LBMContext>(context), enable, "id");
}

const std::string kOrigin = std::string(" lbm_topic=") + kEnvTopic + " lbm_src=TOOL lbm_sqn=7 lbm_flags=0";
const std::string kReceived = "17 Received LBM request" + kOrigin;
const std::string kFinished = "17 Finished with LBM request" + kOrigin;

void DeliverRequest(const std::string& data, const char* topic = kEnvTopic) {
  lbm_scripted::Deliver(lbm_scripted::FindReceiver(topic), {data, LBM_MSG_REQUEST, 0, 7, "TOOL"});
}

// The handler's lines about a request, without those that say that it came and went.
std::vector<std::string> LinesAbout(const std::string& data) {
  log_capture::Clear();
  DeliverRequest(data);
  std::vector<std::string> lines = TriageLines();
  EXPECT_THAT(lines, SizeIs(::testing::Ge(2U)));
  EXPECT_EQ(lines.front(), kReceived);
  EXPECT_EQ(lines.back(), kFinished);
  return {lines.begin() + 1, lines.end() - 1};
}

triage::TriageResponse LastResponse() {
  triage::TriageResponse response;
  EXPECT_TRUE(response.ParseFromString(CallsTo("lbm_send_response").back().Text("data")));
  return response;
}

TEST(TriageRequestsTest, ATestRequestIsAnsweredOnBothTopics) {
  InProcessWith(kNames, [] {
    const auto context = MakeContext();
    EXPECT_THAT(LinesAbout(TestRequest("id-1")),
                ElementsAre("17 handling TriageTestRequest request= request_id=id-1 topic="s + kEnvTopic,
                            "17 responding to TriageTestRequest request with request_id=id-1 :status: "
                            "TRIAGE_RESPONSE_STATUS_SUCCESS request_id: \"id-1\" topic="s +
                                kEnvTopic));
    const auto sent = CallsTo("lbm_send_response");
    ASSERT_THAT(sent, SizeIs(1));
    EXPECT_EQ(sent[0].Text("data"), "\x08\x00\x12\x04id-1"s);
    EXPECT_EQ(sent[0].Number("flags"), LBM_SRC_FLUSH | LBM_SRC_NONBLOCK);

    DeliverRequest(TestRequest("id-2"), kEnvDcTopic);
    EXPECT_EQ(LastResponse().request_id(), "id-2");
  });
}

struct NakCase {
  int context;
  std::string pattern;
  std::set<std::string> matching;

  friend std::ostream& operator<<(std::ostream& out, const NakCase& given) { return out << given.context; }
};

class TriageNaksTest : public ::testing::TestWithParam<NakCase> {};

TEST_P(TriageNaksTest, AreSwitchedOnMatchingContextsOnly) {
  const NakCase& given = GetParam();
  InProcessWith(kNames, [&] {
    const auto host = MakeContext();
    const auto handler = LbmTriageHandler::getInstance();
    // Only names count, so one context can stand for all.
    const auto switched = [&](bool enable) {
      LinesAbout(NakKill(given.context, enable));
      EXPECT_EQ(LastResponse().status(), triage::TRIAGE_RESPONSE_STATUS_SUCCESS);
      return log_capture::Find(enable ? "Failed to enable NAKs" : "Failed to disable NAKs").size();
    };
    const std::size_t fromHost = given.matching.count("");
    EXPECT_EQ(switched(true), fromHost);
    for (const std::string name : {"PRICE", "PRICEENVIRONMENT", "priceenvironment_a", "X_PRICEENVIRONMENT", "zqNotify",
                                   "ZQ_NOTIFY", "all", "some_Unknown"}) {
      SCOPED_TRACE(name);
      handler->registerContext(name, host.get());
      EXPECT_EQ(switched(true), fromHost + given.matching.count(name));
      EXPECT_EQ(switched(false), fromHost + given.matching.count(name));
      handler->unregisterContext(host.get());
      handler->unregisterContext(host.get());
      handler->registerContext("", host.get());
    }
    const std::string matching = "toggling NAKs for contexts matching " + given.pattern + " enable_naks=0";
    const auto lines = LinesAbout(NakKill(given.context, false));
    ASSERT_THAT(lines, SizeIs(4));
    EXPECT_THAT(lines[0], StartsWith("17 handling TriageNakKillRequest request=context: "));
    EXPECT_THAT(lines[0], HasSubstr(" enable: false request_id=id topic="));
    EXPECT_EQ(lines[1], "17 begin " + matching);
    EXPECT_EQ(lines[2], "17 end " + matching);
    EXPECT_THAT(lines[3], StartsWith("17 responding to TriageNakKillRequest request with request_id=id :status: "));
  });
}

const std::set<std::string> kPrices{"PRICEENVIRONMENT", "priceenvironment_a", "X_PRICEENVIRONMENT"};

INSTANTIATE_TEST_SUITE_P(
    Groups, TriageNaksTest,
    ::testing::Values(NakCase{triage::ORDER, "", {""}}, NakCase{triage::PRICE, "PRICEENVIRONMENT", kPrices},
                      NakCase{triage::ZQNOTIFY, "ZQNOTIFY", {"zqNotify"}},
                      NakCase{triage::ALL,
                              "ALL",
                              {"", "PRICE", "PRICEENVIRONMENT", "priceenvironment_a", "X_PRICEENVIRONMENT", "zqNotify",
                               "ZQ_NOTIFY", "all", "some_Unknown"}},
                      NakCase{4, "unknown", {"some_Unknown"}}, NakCase{-1, "unknown", {"some_Unknown"}}),
    [](const auto& instance) {
      return instance.param.context < 0 ? "Negative" : "Context" + std::to_string(instance.param.context);
    });

TEST(TriageRequestsTest, WhatIsNoRequestIsDroppedUnanswered) {
  const std::string invalid = "20 dropping request. Wire message is not valid topic="s + kEnvTopic + " wire=";
  const std::string noAction = "20 dropping Triage request topic="s + kEnvTopic +
                               " Header must be MSG_OPS_TRIAGE_ACTION_WITH_WIRE wire=header { msg_type: ";
  const std::string unknown =
      "20 dropping Triage request. msg_type must be MSG_OPS_TRIAGE_NAK_KILL_REQUEST or MSG_OPS_TRIAGE_TEST_REQUEST "
      "TriageActionWithWire=wire { header { msg_type: ";
  struct Case {
    const char* name;
    std::string data;
    std::string line;  // how it starts; empty for none
  };
  // Messages in messages, as groups and as bytes.
  const std::string groups(1 << 20, '\x7b');
  std::string nested;
  for (int depth = 0; depth < 100; ++depth) {
    Wire wire;
    wire.add_payload(nested);
    nested = wire.SerializeAsString();
  }
  const Case cases[] = {
      {"empty", "", invalid},
      {"no message", "\xff\xff\xff", invalid},
      {"cut off", TestRequest().substr(0, 12), invalid + "header { msg_type: MSG_OPS_TRIAGE_ACTION_WITH_WIRE }"},
      {"no header", "\x12\x02id", invalid + "payload: \"id\""},
      {"no type", "\x0a\x00\x12\x02id"s, invalid + "header { } payload: \"id\""},
      {"no payload", "\x0a\x03\x08\x95\x0a", invalid + "header { msg_type: MSG_OPS_TRIAGE_ACTION_WITH_WIRE }"},
      {"nested groups", groups, invalid},
      {"nested messages", Enveloped(Header::MSG_OPS_TRIAGE_ACTION_WITH_WIRE, nested), ""},
      {"no action around it", Enveloped(Header::MSG_OPS_TRIAGE_TEST_REQUEST, ""),
       noAction + "MSG_OPS_TRIAGE_TEST_REQUEST }"},
      {"type without a name", Enveloped(9999, ""), noAction + "9999 }"},
      {"type that is zero", Enveloped(0, ""), noAction + "MSG_UNSPECIFIED }"},
      {"no message in the action", Enveloped(Header::MSG_OPS_TRIAGE_ACTION_WITH_WIRE, "\xff"), ""},
      {"inner without header", ActionAround("\x12\x01x"), ""},
      {"inner without type", ActionAround("\x0a\x00\x12\x01x"s), ""},
      {"inner without payload", ActionAround("\x0a\x03\x08\x97\x0a"), ""},
      {"inner response", RequestWith(Header::MSG_OPS_TRIAGE_ACTION_RESPONSE, ""),
       unknown + "MSG_OPS_TRIAGE_ACTION_RESPONSE }"},
      {"inner action", RequestWith(Header::MSG_OPS_TRIAGE_ACTION_WITH_WIRE, ""), unknown},
      {"inner type without a name", RequestWith(-5, ""), unknown + "-5 } payload: \"\" } request_id: \"id\""},
  };
  InProcessWith(kNames, [&] {
    const auto context = MakeContext();
    for (const Case& given : cases) {
      SCOPED_TRACE(given.name);
      const auto lines = LinesAbout(given.data);
      EXPECT_EQ(lines.size(), given.line.empty() ? 0U : 1U);
      if (!lines.empty()) {
        EXPECT_EQ(lines[0].substr(0, given.line.size()), given.line);
      }
    }
    EXPECT_THAT(CallsTo("lbm_send_response"), IsEmpty());
  });
}

TEST(TriageRequestsTest, ABrokenInnermostMessageCountsAsFarAsItCouldBeRead) {
  InProcessWith(kNames, [] {
    const auto context = MakeContext();
    EXPECT_THAT(LinesAbout(RequestWith(Header::MSG_OPS_TRIAGE_NAK_KILL_REQUEST, "\xff")),
                ::testing::Contains("17 begin toggling NAKs for contexts matching  enable_naks=0"));
    EXPECT_THAT(LinesAbout(RequestWith(Header::MSG_OPS_TRIAGE_NAK_KILL_REQUEST, "\x08\x02\x10\x01\xff")),
                ::testing::Contains("17 begin toggling NAKs for contexts matching ZQNOTIFY enable_naks=1"));
    EXPECT_THAT(CallsTo("lbm_send_response"), SizeIs(2));
  });
}

TEST(TriageRequestsTest, NoFailureEscapes) {
  InProcessWith(kNames, [] {
    const auto context = MakeContext();
    lbm_scripted::Script("lbm_send_response", lbm_scripted::Failure(LBM_EWOULDBLOCK, "would block"));
    EXPECT_THAT(LinesAbout(TestRequest()), SizeIs(2)) << "the answer is lost without a word";
    EXPECT_THAT(log_capture::Find("Failed responding"), IsEmpty());

    lbm_scripted::OnCall("lbm_send_response", [](const auto&) { throw std::runtime_error("out of luck"); });
    EXPECT_THAT(LinesAbout(TestRequest()).back(),
                "30 exception parsing Triage Message topic="s + kEnvTopic + " error=out of luck");
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
      SCOPED_TRACE(type);
      log_capture::Clear();
      lbm_scripted::Message message{TestRequest(), type, -2, 4294967295U, "TOOL"};
      EXPECT_EQ(lbm_scripted::Deliver(lbm_scripted::FindReceiver(kEnvDcTopic), message), 0);
      std::vector<std::string> expected;
      if (const auto found = traces.find(type); found != traces.end()) {
        expected.push_back("17 " + found->second + " lbm_topic=" + kEnvDcTopic +
                           " lbm_src=TOOL lbm_sqn=4294967295 lbm_flags=-2");
      }
      EXPECT_THAT(TriageLines(), ElementsAreArray(expected));
    }
    EXPECT_THAT(CallsTo("lbm_send_response"), IsEmpty());
  });
}

TEST(TriageEventsTest, TheLevelIsLookedAtForEachLine) {
  InProcessWith(kNames, [] {
    const auto context = MakeContext();
    log_capture::Clear();
    log_capture::SetMinLevel(zq::logging::ZQLOG_WARNING);
    DeliverRequest(TestRequest());
    EXPECT_THAT(CallsTo("lbm_send_response"), SizeIs(1));
    EXPECT_THAT(TriageLines(), IsEmpty());

    lbm_scripted::OnCall("lbm_send_response", [](const auto&) { log_capture::SetMinLevel(zq::logging::ZQLOG_DEBUG); });
    DeliverRequest(TestRequest());
    EXPECT_THAT(TriageLines(), ElementsAre(kFinished));
  });
}

}  // namespace
}  // namespace lbm
