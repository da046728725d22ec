// Triage requests to another process, over the embedded engine: good ones, and what must not harm it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "lbm/lbm_cpp"
#include "test_support/private_domain.h"
#include "zq/logging/testing/log_capture.h"
#include "zq/messaging/triage.pb.h"
#include "zq/messaging/triage_requests.h"
#include "zq/messaging/wire.pb.h"

namespace lbm {
namespace {

using namespace std::string_literals;
using zq::messaging::Header;
using zq::messaging::Wire;
namespace triage = zq::messaging::triage;

ContextAttributes Sequential(const char* name) {
  ContextAttributes attributes;
  attributes.SetString("operational_mode", "sequential");
  attributes.SetString("context_name", name);
  return attributes;
}

// Sends wait for room, so that what stands behind a large request is not dropped.
SourceTopicAttributes Patient() {
  SourceTopicAttributes attributes;
  attributes.SetString("transport_pacing", "receiver");
  return attributes;
}

// A process that does nothing but answer triage requests, in a data centre of its own.
class Served {
 public:
  Served(const char* dataCenter, const char* eventQueue) {
    m_process = ::fork();
    if (m_process == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      ::unsetenv("DISABLE_LBM_TRIAGE_HANDLER");
      ::setenv("TRIAGE_HANDLER_USE_EVENT_QUEUE", eventQueue, 1);
      ::setenv("CHEF_ENVIRONMENT", "engine", 1);
      ::setenv("DATA_CENTER", dataCenter, 1);
      zq::logging::testing::log_capture::SetMinLevel(zq::logging::ZQLOG_INFO_SEARCH);
      Context context(Sequential(""));
      for (;;) {
        context.Poll(100);
      }
    }
  }

  ~Served() {
    int status = 0;
    EXPECT_EQ(::waitpid(m_process, &status, WNOHANG), 0) << "the process ended with status " << status;
    ::kill(m_process, SIGKILL);
    ::waitpid(m_process, &status, 0);
  }

  Served(const Served&) = delete;
  Served& operator=(const Served&) = delete;

 private:
  pid_t m_process;
};

// An operations tool.
class Tool {
 public:
  explicit Tool(const char* dataCenter)
      : m_source(m_context, {m_context, triage::ActionTopic("", "engine", dataCenter), Patient()},
                 [this](int event, void*) { m_connected = m_connected || event == LBM_SRC_EVENT_CONNECT; }) {
    WaitUntil([this] { return m_connected; });
  }

  // The answers to the request by the time that a good one behind it is answered.
  std::vector<std::string> AnswersTo(const std::string& request) {
    std::vector<std::string> answers;
    std::vector<std::string> answersBehind;
    const auto first = Send(request, answers);
    const auto second = Send(triage::TestRequest("behind"), answersBehind);
    WaitUntil([&] { return !answersBehind.empty(); });
    return answers;
  }

 private:
  Request Send(const std::string& data, std::vector<std::string>& answers) {
    return m_source.SendRequest(data.data(), data.size(), LBM_SRC_FLUSH, [&answers](const Message& answer) {
      answers.emplace_back(answer.Data(), answer.Length());
    });
  }

  template <class Condition>
  void WaitUntil(const Condition& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition() && std::chrono::steady_clock::now() < deadline) {
      m_context.Poll(10);
    }
    if (!condition()) {
      throw std::runtime_error("waited in vain for the process or its answer");
    }
  }

  bool m_connected = false;
  Context m_context{Sequential("tool")};
  Source m_source;
};

std::string Enveloped(int type, const std::string& payload) {
  Wire wire;
  wire.mutable_header()->set_msg_type(static_cast<Header::MessageType>(type));
  wire.add_payload(payload);
  return wire.SerializeAsString();
}

std::string Action(const std::string& wire, const std::string& id = "id") {
  triage::TriageActionWithWire action;
  EXPECT_TRUE(action.mutable_wire()->ParseFromString(wire));
  action.set_request_id(id);
  return Enveloped(Header::MSG_OPS_TRIAGE_ACTION_WITH_WIRE, action.SerializeAsString());
}

std::string Nested(int depth) {
  std::string nested;
  for (; depth > 0; --depth) {
    nested = Enveloped(Header::MSG_OPS_TRIAGE_ACTION_WITH_WIRE, nested);
  }
  return nested;
}

const std::string kLarge(10 << 20, '\xff');

constexpr char kPlain[] = "plain";
constexpr char kWithEventQueue[] = "with_event_queue";

class TriageEngineTest : public ::testing::TestWithParam<const char*> {
 protected:
  // The processes start before this one has a context, and with it a triage handler that they would inherit.
  struct Others {
    test_support::PrivateDomain domain;
    Served plain{kPlain, ""};
    Served withEventQueue{kWithEventQueue, "1"};
  };
  static void SetUpTestSuite() { g_s_others = std::make_unique<Others>(); }
  static void TearDownTestSuite() { g_s_others.reset(); }

  Tool m_tool{GetParam()};

 private:
  static inline std::unique_ptr<Others> g_s_others;
};

TEST_P(TriageEngineTest, RequestsAreAnsweredWithTheirIdWhateverItIs) {
  const auto unknownGroup = [](int group) {
    return triage::NakKillRequest(static_cast<triage::LBMContext>(group), true, "id");
  };
  const std::pair<std::string, std::string> cases[] = {
      {triage::TestRequest("id"), "id"},
      {triage::TestRequest(""), ""},
      {triage::TestRequest("\xff\xc0\x80\0\n"s), "\xff\xc0\x80\0\n"s},
      {triage::TestRequest(std::string(1 << 20, '\xe9')), std::string(1 << 20, '\xe9')},
      {triage::NakKillRequest(triage::ALL, false, "id"), "id"},
      {unknownGroup(99), "id"},
      {unknownGroup(-1), "id"},
      // Of an innermost message that cannot be read counts what could be.
      {Action(Enveloped(Header::MSG_OPS_TRIAGE_TEST_REQUEST, kLarge)), "id"},
      {Action(Enveloped(Header::MSG_OPS_TRIAGE_NAK_KILL_REQUEST, kLarge)), "id"},
      {Action(Enveloped(Header::MSG_OPS_TRIAGE_NAK_KILL_REQUEST, std::string(1 << 20, '\x7b'))), "id"},
  };
  for (const auto& [request, id] : cases) {
    SCOPED_TRACE(request.substr(0, 20));
    const auto answers = m_tool.AnswersTo(request);
    ASSERT_EQ(answers.size(), 1U);
    triage::TriageResponse response;
    ASSERT_TRUE(response.ParseFromString(answers[0]));
    EXPECT_TRUE(response.has_status());
    EXPECT_EQ(response.status(), triage::TRIAGE_RESPONSE_STATUS_SUCCESS);
    EXPECT_TRUE(response.request_id() == id);
  }
}

TEST_P(TriageEngineTest, WhatIsNoRequestIsDroppedAndTheNextOneAnswered) {
  const std::string cases[] = {
      "",
      "\xff\xff\xff",
      kLarge,
      Enveloped(9999, kLarge),
      Enveloped(Header::MSG_OPS_TRIAGE_ACTION_WITH_WIRE, kLarge),
      std::string(10 << 20, '\x7b'),  // the beginnings of groups
      Nested(100),
      Nested(1000),
      triage::TestRequest("id").substr(0, 12),
      Action(Enveloped(9999, "")),
      Action(Enveloped(-1, std::string(1 << 20, '\xff')), std::string(1 << 20, '\xff')),
  };
  for (const auto& request : cases) {
    SCOPED_TRACE(&request - cases);
    EXPECT_THAT(m_tool.AnswersTo(request), ::testing::IsEmpty());
  }
}

INSTANTIATE_TEST_SUITE_P(Processes, TriageEngineTest, ::testing::Values(kPlain, kWithEventQueue),
                         [](const auto& instance) { return instance.param; });

}  // namespace
}  // namespace lbm
