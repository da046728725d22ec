// What the triage handler reads from the environment, and what it does as contexts come and go.
#include <pthread.h>

#include <algorithm>
#include <future>
#include <thread>
#include <utility>

#include "triage_test.h"

namespace lbm {
namespace {

using lbm_scripted::CallsTo;
using lbm_scripted::Failure;
using lbm_scripted::FindReceiver;
using lbm_scripted::Script;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char kToggle[] = " NAKs. This feature is available in LBM versions 6.16.1 and above";

std::vector<std::string> TopicsLookedUp() {
  std::vector<std::string> topics;
  for (const auto& call : CallsTo("lbm_rcv_topic_lookup")) {
    topics.push_back(call.Text("name"));
  }
  return topics;
}

// How many registered contexts a request for one with an empty name ("ORDER") reaches. The request is made by hand, as
// the tool that sends it would.
std::size_t ContextsWithoutName() {
  log_capture::Clear();
  const std::string wire("\x0a\x03\x08\x95\x0a\x12\x0d\x0a\x0b\x0a\x03\x08\x98\x0a\x12\x04\x08\x00\x10\x01", 20);
  lbm_scripted::Deliver(FindReceiver(kEnvTopic), {wire, LBM_MSG_REQUEST});
  EXPECT_THAT(TriageLines(), ::testing::Contains("17 begin toggling NAKs for contexts matching  enable_naks=1"));
  return log_capture::Find(std::string("Failed to enable") + kToggle).size();
}

TEST(TriageRegistryTest, AVariableDisablesTheHandler) {
  InProcessWith(
      NamesAnd({{"DISABLE_LBM_TRIAGE_HANDLER", "no"}}),
      [] {
        MakeContext();
        EXPECT_THAT(
            TriageLines(),
            ElementsAre(
                "17 triage_handler disabled via environment variable being present DISABLE_LBM_TRIAGE_HANDLER=no"));
        EXPECT_THAT(TopicsLookedUp(), IsEmpty());
        EXPECT_THAT(lbm_scripted::LiveHandles(), IsEmpty());
      },
      "> lbm_triage_handler destructor called\n");
}

TEST(TriageRegistryTest, WithoutBothNamesTheHandlerIsDisabledWithOneError) {
  using Case = std::pair<Variables, std::string>;
  for (const auto& [variables, values] :
       {Case{{{"CHEF_ENVIRONMENT", "int"}}, "CHEF_ENVIRONMENT=INT DATA_CENTER="},
        Case{{{"DATA_CENTER", "dc1"}, {"CHEF_ENVIRONMENT", ""}}, "CHEF_ENVIRONMENT= DATA_CENTER=DC1"},
        Case{{}, "CHEF_ENVIRONMENT= DATA_CENTER="}}) {
    SCOPED_TRACE(values);
    InProcessWith(variables, [&values = values] {
      const auto first = MakeContext();
      const auto second = MakeContext();
      EXPECT_THAT(TriageLines(), ElementsAre("30 CHEF_ENVIRONMENT or DATA_CENTER environment variables are not set. "
                                             "triage_handler will be disabled. " +
                                             values));
      EXPECT_THAT(TopicsLookedUp(), IsEmpty());
    });
  }
}

TEST(TriageRegistryTest, TheFirstContextWithoutANameHasTheReceivers) {
  // A variable that is empty is not set.
  InProcessWith(
      NamesAnd({{"DISABLE_LBM_TRIAGE_HANDLER", ""}, {"TRIAGE_HANDLER_USE_EVENT_QUEUE", ""}}),
      [] {
        const auto named = MakeContext("PRICEENVIRONMENT");
        EXPECT_THAT(TopicsLookedUp(), IsEmpty());
        log_capture::Clear();

        auto first = MakeContext();
        const std::string context = Handle(*first);
        const auto created = [&](const std::string& topic) {
          return "17 created triage_handler receiver topic=" + topic + " on context=" + context + " with context_name=";
        };
        EXPECT_THAT(TriageLines(), ElementsAre("17 registering context=" + context + " with context_name=",
                                               created(kEnvTopic), created(kEnvDcTopic)));
        EXPECT_THAT(TopicsLookedUp(), ElementsAre(kEnvTopic, kEnvDcTopic));
        for (const auto& call : CallsTo("lbm_rcv_create")) {
          EXPECT_EQ(call.Pointer("ctx"), static_cast<lbm_context_t*>(*first));
          EXPECT_TRUE(call.IsNull("evq"));
        }

        const auto second = MakeContext();
        EXPECT_THAT(TopicsLookedUp(), SizeIs(2));
        EXPECT_EQ(ContextsWithoutName(), 2U);

        log_capture::Clear();
        lbm_scripted::OnCall("lbm_context_delete",
                             [](const auto&) { EXPECT_THAT(lbm_scripted::LiveHandles("rcv"), IsEmpty()); });
        first.reset();
        EXPECT_THAT(TriageLines(), ElementsAre("17 destroying triage_handler receivers that were created on context=" +
                                                   context + " because this context is being destroyed",
                                               "17 unregistering context=" + context + " with name="));
        EXPECT_THAT(CallsTo("lbm_rcv_create"), SizeIs(2)) << "the second context gets none";

        ::setenv("LBM_TRIAGE_HANDLER_TOPIC_PREFIX", "site.", 1);
        const auto third = MakeContext();
        EXPECT_THAT(TopicsLookedUp(), ElementsAre(kEnvTopic, kEnvDcTopic, std::string("site.") + kEnvTopic,
                                                  std::string("site.") + kEnvDcTopic));
      },
      "> lbm_triage_handler destructor called\n");
}

TEST(TriageRegistryTest, AnEntryIsOneRegistrationOfAContext) {
  InProcessWith(kNames, [] {
    const auto host = MakeContext();
    const auto other = MakeContext("other");
    const auto handler = LbmTriageHandler::getInstance();
    EXPECT_EQ(ContextsWithoutName(), 1U);
    handler->registerContext("", other.get());
    handler->registerContext("", other.get());
    EXPECT_EQ(ContextsWithoutName(), 3U);
    log_capture::Clear();
    handler->unregisterContext(other.get());
    EXPECT_THAT(TriageLines(), ElementsAre("17 unregistering context=" + Handle(*other) + " with name="));
    EXPECT_EQ(ContextsWithoutName(), 2U);
    handler->unregisterContext(other.get());
    handler->unregisterContext(other.get());
    log_capture::Clear();
    handler->unregisterContext(other.get());
    EXPECT_THAT(TriageLines(), IsEmpty()) << "it was unregistered as often as it was registered";

    Script("lbm_context_create", Failure(LBM_ENOMEM, "no memory"));
    EXPECT_EQ(ErrorOf([] { MakeContext(); }), "Failed to create LBM context: no memory");
    EXPECT_EQ(ContextsWithoutName(), 1U) << "what was not created is not registered";
  });
}

// With the thread sanitizer: the receivers are made and destroyed without a common lock.
TEST(TriageRegistryTest, ContextsComeAndGoOnAnyThread) {
  InProcessWith(kNames, [] {
    const auto remaining = MakeContext("remaining");
    std::vector<std::thread> threads;
    for (const char* const name : {"", "", "", "named"}) {
      threads.emplace_back([name] {
        for (int round = 0; round < 50; ++round) {
          MakeContext(name);
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    EXPECT_THAT(lbm_scripted::LiveHandles("rcv"), IsEmpty());
    const auto last = MakeContext();
    EXPECT_THAT(lbm_scripted::LiveHandles("rcv"), SizeIs(2));
    EXPECT_EQ(ContextsWithoutName(), 1U) << "every other one has unregistered";
  });
}

TEST(TriageRegistryTest, ReceiversThatCannotBeMadeAreTriedOnTheNextContext) {
  InProcessWith(
      kNames,
      [] {
        Script("lbm_rcv_topic_lookup", Failure(LBM_EINVAL, "bad name"));
        const auto first = MakeContext();
        EXPECT_EQ(TriageLines().back(), "30 failed to create triage receivers on context=" + Handle(*first) +
                                            " exception=Failed to lookup LBM topic: bad name");

        Script("lbm_rcv_create", {});
        Script("lbm_rcv_create", Failure(LBM_ENOMEM, "no memory"));
        const auto second = MakeContext();
        EXPECT_EQ(TriageLines().back(), "30 failed to create triage receivers on context=" + Handle(*second) +
                                            " exception=Failed to create LBM receiver: no memory");
        EXPECT_EQ(ContextsWithoutName(), 2U) << "the receiver that could be made is there, and so are the contexts";

        auto third = MakeContext();
        EXPECT_EQ(ContextsWithoutName(), 3U);
        EXPECT_THAT(lbm_scripted::LiveHandles("rcv"), SizeIs(2));
        third.reset();
        EXPECT_THAT(lbm_scripted::LiveHandles("rcv"), IsEmpty());

        Script("lbm_rcv_create", {});
        Script("lbm_rcv_create", Failure(LBM_ENOMEM, "no memory"));
        MakeContext();
      },
      "> lbm_triage_handler destructor called\n"
      "> lbm_triage_handler destructor deleting env receiver\n");
}

struct RetriesCase {
  const char* name;
  Variables variables;
  int maxRetries;
  int timeMs;
  std::vector<std::string> warnings;

  friend std::ostream& operator<<(std::ostream& out, const RetriesCase& given) { return out << given.name; }
};

class TriageRetriesTest : public ::testing::TestWithParam<RetriesCase> {};

TEST_P(TriageRetriesTest, AreReadLeniently) {
  const RetriesCase& given = GetParam();
  InProcessWith(NamesAnd(given.variables), [&] {
    const auto context = MakeContext();
    std::vector<std::string> warnings = TriageLines();
    std::erase_if(warnings, [](const std::string& line) { return line.rfind("20 ", 0) != 0; });
    EXPECT_EQ(warnings, given.warnings);

    Script("lbm_send_response", Failure(LBM_ENOMEM, "no memory"));
    ContextsWithoutName();
    EXPECT_THAT(log_capture::Find("Error responding to requestId="),
                ElementsAre(::testing::Field(
                    &CapturedStatement::text,
                    HasSubstr(" retrySleepMs=" + std::to_string(given.timeMs) +
                              " retriesRemaining=" + std::to_string(given.maxRetries) +
                              " maxRetries=" + std::to_string(given.maxRetries) + " source=scripted topicName="))));
  });
}

RetriesCase Retries(const char* name, const std::string& retries, const std::string& timeMs, int maxRetries, int time,
                    std::vector<std::string> warnings = {}) {
  return {name,
          {{"TRIAGE_HANDLER_MAX_RETRIES", retries}, {"TRIAGE_HANDLER_TIME_BETWEEN_RETRIES_MS", timeMs}},
          maxRetries,
          time,
          std::move(warnings)};
}

RetriesCase WithEventQueue(RetriesCase other) {
  other.variables["TRIAGE_HANDLER_USE_EVENT_QUEUE"] = "1";
  return other;
}

const std::string kRetriesWarning = "20 invalid value for TRIAGE_HANDLER_MAX_RETRIES=";
const std::string kTimeWarning = "20 invalid value for TRIAGE_HANDLER_TIME_BETWEEN_RETRIES_MS=";

INSTANTIATE_TEST_SUITE_P(
    Cases, TriageRetriesTest,
    ::testing::Values(Retries("Unset", "", "", 0, 0), WithEventQueue(Retries("UnsetWithEventQueue", "", "", 1, 55)),
                      Retries("Numbers", "7", "20", 7, 20), Retries("Negative", "-3", "-1", -3, -1),
                      Retries("SignBlanksAndMore", " \t+8 sends", "5ms", 8, 5),
                      Retries("NoNumbers", "x", " ", 0, 0,
                              {kRetriesWarning + "x using default max_retries=0", kTimeWarning +
                                                                                      "  using default time_between_"
                                                                                      "retries_ms=0"}),
                      WithEventQueue(Retries("NoNumbersWithEventQueue", "99999999999999999999", "-", 1, 55,
                                             {kRetriesWarning + "99999999999999999999 using default max_retries=1",
                                              kTimeWarning + "- using default time_between_retries_ms=55"})),
                      WithEventQueue(Retries("UpperBitsAreLost", "4294967298", "4294967295", 2, -1))),
    [](const auto& instance) { return std::string(instance.param.name); });

TEST(TriageEventQueueTest, ItsThreadServesRequestsUntilTheProcessEnds) {
  InProcessWith(
      NamesAnd({{"TRIAGE_HANDLER_USE_EVENT_QUEUE", "yes"}}),
      [] {
        const auto context = MakeContext();
        const auto queue = CallsTo("lbm_event_queue_create").at(0).Pointer("evq");
        for (const auto& call : CallsTo("lbm_rcv_create")) {
          EXPECT_EQ(call.Pointer("evq"), queue);
        }
        const auto started = log_capture::Find("started triage_handler event_queue=");
        ASSERT_THAT(started, SizeIs(1));
        EXPECT_EQ(started[0].level, zq::logging::ZQLOG_INFO);
        EXPECT_THAT(started[0].text, ::testing::ContainsRegex("event_queue=0x[0-9a-f]+ thread_id=[0-9]+$"));
        EXPECT_TRUE(log_capture::WaitForText(" loop starting"));
        EXPECT_THAT(TriageLines(),
                    ::testing::IsSupersetOf({"17 Initializing LbmTriageHandler",
                                             "17 triage_handler using EventQueue because env variable is set "
                                             "TRIAGE_HANDLER_USE_EVENT_QUEUE=yes"}));

        std::promise<void> served;
        lbm_scripted::Post(static_cast<lbm_event_queue_t*>(const_cast<void*>(queue)), [&] {
          char name[16];
          EXPECT_EQ(::pthread_getname_np(::pthread_self(), name, sizeof name), 0);
          EXPECT_STREQ(name, "lbm_th_evq");
          EXPECT_EQ(ContextsWithoutName(), 1U);
          served.set_value();
        });
        EXPECT_EQ(served.get_future().wait_for(zq::logging::testing::kDefaultDeadline), std::future_status::ready)
            << "waited for the request to be served";
      },
      ::testing::MatchesRegex("> lbm_triage_handler destructor called\n"
                              "> lbm_triage_handler destructor cleaning up event_queue=0x[0-9a-f]+\n"
                              "> lbm_triage_handler destructor joining event_queue=0x[0-9a-f]+ thread_id=[0-9]+\n"
                              "> lbm_triage_handler destructor joined event_queue=0x[0-9a-f]+\n"));
}

TEST(TriageEventQueueTest, WithoutItTheContextsThreadServesRequests) {
  InProcessWith(
      NamesAnd({{"TRIAGE_HANDLER_USE_EVENT_QUEUE", "yes"}}),
      [] {
        Script("lbm_event_queue_create", Failure(LBM_ENOMEM, "no memory"));
        const auto context = MakeContext();
        EXPECT_THAT(TriageLines(), ::testing::Contains("30 failed to create event queue thread, triage receivers will "
                                                       "not use an event queue: Failed to create LBM event queue: "
                                                       "no memory"));
        EXPECT_TRUE(CallsTo("lbm_rcv_create").at(0).IsNull("evq"));
        EXPECT_EQ(ContextsWithoutName(), 1U);
        const auto sent = CallsTo("lbm_send_response").at(0);
        EXPECT_EQ(sent.Number("flags"), LBM_SRC_FLUSH | LBM_SRC_NONBLOCK);
      },
      ::testing::Not(HasSubstr("event_queue")));
}

// Of a context that is a static object, made before main or after.
TEST(TriageRegistryTest, OutlivesContextsThatAreStaticObjects) {
  InProcessWith(
      kNames, [] { static const Context context{ContextAttributes()}; },
      ::testing::MatchesRegex("> Destroying LBM context=0x[0-9a-f]+ context_name=\n"
                              "> lbm_triage_handler destructor called\n"));
}

TEST(TriageRegistryTest, HasItsLogSource) {
  EXPECT_EQ(th_log->Name(), "lbm_triage_handler");
  EXPECT_EQ(th_log->Parent(), nullptr);
}

}  // namespace
}  // namespace lbm
