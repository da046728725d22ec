// What the triage handler reads from the environment, and what it does as contexts come and go.
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <future>
#include <thread>

#include "test_support/thread_state.h"
#include "triage_test.h"

namespace lbm {
namespace {

using ::testing::Contains;

constexpr char kCalled[] = "> lbm_triage_handler destructor called\n";

TEST(TriageRegistryTest, WithoutItsNamesOrWhenToldToTheHandlerDoesNothing) {
  const std::string missing =
      "30 CHEF_ENVIRONMENT or DATA_CENTER environment variables are not set. triage_handler will be disabled. ";
  const std::pair<Variables, std::string> cases[] = {
      {{{"CHEF_ENVIRONMENT", "int"}}, missing + "CHEF_ENVIRONMENT=INT DATA_CENTER="},
      {{{"DATA_CENTER", "dc1"}, {"CHEF_ENVIRONMENT", ""}}, missing + "CHEF_ENVIRONMENT= DATA_CENTER=DC1"},
      {NamesAnd({{"DISABLE_LBM_TRIAGE_HANDLER", "no"}}),
       "17 triage_handler disabled via environment variable being present DISABLE_LBM_TRIAGE_HANDLER=no"}};
  for (const auto& [variables, line] : cases) {
    InProcessWith(
        variables,
        [&line = line] {
          MakeContext();
          MakeContext();
          EXPECT_THAT(Lines(kTriage), ElementsAre(line));
          EXPECT_THAT(CallsTo("lbm_rcv_topic_lookup"), IsEmpty());
        },
        kCalled);
  }
}

TEST(TriageRegistryTest, TheFirstContextWithoutANameHasTheReceivers) {
  // Variables that are empty are not set.
  InProcessWith(
      NamesAnd({{"DISABLE_LBM_TRIAGE_HANDLER", ""}, {"TRIAGE_HANDLER_USE_EVENT_QUEUE", ""}}),
      [] {
        const auto topicsLookedUp = [] {
          std::vector<std::string> topics;
          for (const auto& call : CallsTo("lbm_rcv_topic_lookup")) {
            topics.push_back(call.Text("name"));
          }
          return topics;
        };
        const auto named = MakeContext("PRICEENVIRONMENT");
        EXPECT_THAT(topicsLookedUp(), IsEmpty());

        log_capture::Clear();
        auto first = MakeContext();
        const std::string where = " on context=" + Handle(*first);
        const std::string created = "17 created triage_handler receiver topic=";
        EXPECT_THAT(Lines(kTriage), ElementsAre("17 registering context=" + Handle(*first) + " with context_name=",
                                                created + kEnvTopic + where + " with context_name=",
                                                created + kEnvDcTopic + where + " with context_name="));
        for (const auto& call : CallsTo("lbm_rcv_create")) {
          EXPECT_EQ(call.Pointer("ctx"), static_cast<lbm_context_t*>(*first));
          EXPECT_TRUE(call.IsNull("evq"));
        }

        const auto second = MakeContext();
        EXPECT_EQ(Switched(triage::ORDER, true), 2U);
        log_capture::Clear();
        lbm_scripted::OnCall("lbm_context_delete", [](const auto&) { EXPECT_THAT(LiveHandles("rcv"), IsEmpty()); });
        const std::string unregistering = "17 unregistering context=" + Handle(*first) + " with name=";
        first.reset();
        EXPECT_THAT(Lines(kTriage), ElementsAre("17 destroying triage_handler receivers that were created" + where +
                                                    " because this context is being destroyed",
                                                unregistering));
        EXPECT_THAT(topicsLookedUp(), ElementsAre(kEnvTopic, kEnvDcTopic)) << "the second context gets none";

        ::setenv("LBM_TRIAGE_HANDLER_TOPIC_PREFIX", "site.", 1);
        MakeContext();
        EXPECT_EQ(topicsLookedUp().at(2), std::string("site.") + kEnvTopic);
        EXPECT_EQ(topicsLookedUp().at(3), std::string("site.") + kEnvDcTopic);
      },
      kCalled);
}

TEST(TriageRegistryTest, AnEntryIsOneRegistrationOfAContext) {
  InProcessWith(kNames, [] {
    const auto host = MakeContext();
    const auto other = MakeContext("other");
    const auto handler = LbmTriageHandler::getInstance();
    handler->registerContext("", other.get());
    handler->registerContext("", other.get());
    EXPECT_EQ(Switched(triage::ORDER, true), 3U);
    handler->unregisterContext(other.get());
    EXPECT_EQ(Switched(triage::ORDER, true), 2U);
    EXPECT_EQ(Switched(triage::ALL, true), 3U);
    handler->unregisterContext(other.get());
    handler->unregisterContext(other.get());
    log_capture::Clear();
    handler->unregisterContext(other.get());
    EXPECT_THAT(Lines(kTriage), IsEmpty()) << "it was unregistered as often as it was registered";

    EXPECT_EQ(FailureOf("lbm_context_create", [] { MakeContext(); }), "Failed to create LBM context: no");
    EXPECT_EQ(Switched(triage::ORDER, true), 1U) << "what was not created is not registered";
  });
}

TEST(TriageRegistryTest, AContextThatCannotBeRegisteredLeavesItsHandleAlone) {
  InProcessWith(kNames, [] {
    struct NoStandardException {};
    lbm_scripted::OnCall("lbm_rcv_topic_lookup", [](const auto&) { throw NoStandardException(); });
    EXPECT_THROW(MakeContext(), NoStandardException);
    EXPECT_THAT(CallsTo("lbm_context_delete"), IsEmpty());
  });
}

// With the thread sanitizer: the receivers are made and destroyed without a common lock.
TEST(TriageRegistryTest, ContextsComeAndGoOnAnyThread) {
  InProcessWith(kNames, [] {
    std::vector<std::jthread> threads;
    for (const char* const name : {"", "", "", "named"}) {
      threads.emplace_back([name] {
        for (int round = 0; round < 50; ++round) {
          MakeContext(name);
        }
      });
    }
    threads.clear();  // joins them
    EXPECT_THAT(LiveHandles("rcv"), IsEmpty());
    const auto last = MakeContext();
    EXPECT_THAT(LiveHandles("rcv"), SizeIs(2));
    EXPECT_EQ(Switched(triage::ALL, true), 1U) << "every other one has unregistered";
  });
}

TEST(TriageRegistryTest, ReceiversThatCannotBeMadeAreTriedOnTheNextContext) {
  InProcessWith(
      kNames,
      [] {
        const auto failed = [](Context& context) {
          return "30 failed to create triage receivers on context=" + Handle(context) + " exception=Failed to ";
        };
        Script("lbm_rcv_topic_lookup", Failure(LBM_EINVAL, "bad name"));
        const auto first = MakeContext();
        EXPECT_EQ(Lines(kTriage).back(), failed(*first) + "lookup LBM topic: bad name");

        Script("lbm_rcv_create", {});
        Script("lbm_rcv_create", Failure(LBM_ENOMEM, "no memory"));
        const auto second = MakeContext();
        EXPECT_EQ(Lines(kTriage).back(), failed(*second) + "create LBM receiver: no memory");
        EXPECT_EQ(Switched(triage::ORDER, true), 2U) << "the one receiver is there, and so are the contexts";

        auto third = MakeContext();
        EXPECT_EQ(Switched(triage::ORDER, true), 3U);
        EXPECT_THAT(LiveHandles("rcv"), SizeIs(2));
        third.reset();
        EXPECT_THAT(LiveHandles("rcv"), IsEmpty());
      },
      kCalled);
}

TEST(TriageRegistryTest, RetriesAreReadLeniently) {
  const struct {
    std::string retries;
    std::string timeMs;
    const char* eventQueue;
    int retriesTaken;
    int timeTaken;
    std::size_t warnings;  // of each
  } cases[] = {{"", "", "", 0, 0, 0},
               {"", "", "1", 1, 55, 0},
               {"-3", "20", "", -3, 20, 0},
               {" \t+8 sends", "5ms", "1", 8, 5, 0},
               {"4294967298", "4294967295", "", 2, -1, 0},
               {"99999999999999999999", "-", "1", 1, 55, 1}};
  for (const auto& given : cases) {
    InProcessWith(NamesAnd({{"TRIAGE_HANDLER_MAX_RETRIES", given.retries},
                            {"TRIAGE_HANDLER_TIME_BETWEEN_RETRIES_MS", given.timeMs},
                            {"TRIAGE_HANDLER_USE_EVENT_QUEUE", given.eventQueue}}),
                  [&] {
                    const auto context = MakeContext();
                    const std::string invalid = "20 invalid value for TRIAGE_HANDLER_";
                    const auto lines = Lines(kTriage);
                    EXPECT_THAT(lines,
                                Contains(invalid + "MAX_RETRIES=" + given.retries + " using default max_retries=1")
                                    .Times(given.warnings));
                    EXPECT_THAT(lines, Contains(invalid + "TIME_BETWEEN_RETRIES_MS=" + given.timeMs +
                                                " using default time_between_retries_ms=55")
                                           .Times(given.warnings));
                    Script("lbm_send_response", Failure(LBM_ENOMEM, "no memory"));
                    DeliverRequest(triage::TestRequest("id"));
                    const std::string retries = std::to_string(given.retriesTaken);
                    EXPECT_THAT(log_capture::Find("retrySleepMs=" + std::to_string(given.timeTaken) +
                                                  " retriesRemaining=" + retries + " maxRetries=" + retries + ' '),
                                SizeIs(1));
                  });
  }
}

TEST(TriageEventQueueTest, ItsThreadServesRequestsUntilTheProcessEnds) {
  InProcessWith(
      NamesAnd({{"TRIAGE_HANDLER_USE_EVENT_QUEUE", "yes"}}),
      [] {
        const auto context = MakeContext();
        const auto queue = CallsTo("lbm_event_queue_create").at(0).Pointer("evq");
        for (const auto& call : CallsTo("lbm_rcv_create")) {
          EXPECT_EQ(call.Pointer("evq"), queue);
        }
        EXPECT_TRUE(log_capture::WaitForText(" loop starting"));
        const auto lines = Lines(kTriage);
        EXPECT_THAT(lines, ::testing::IsSupersetOf({"17 Initializing LbmTriageHandler",
                                                    "17 triage_handler using EventQueue because env variable is set "
                                                    "TRIAGE_HANDLER_USE_EVENT_QUEUE=yes"}));
        EXPECT_THAT(
            lines,
            Contains(::testing::MatchesRegex("10 started triage_handler event_queue=0x[0-9a-f]+ thread_id=[0-9]+")));

        std::promise<void> served;
        lbm_scripted::Post(static_cast<lbm_event_queue_t*>(const_cast<void*>(queue)), [&] {
          char name[16];
          EXPECT_EQ(::pthread_getname_np(::pthread_self(), name, sizeof name), 0);
          EXPECT_STREQ(name, "lbm_th_evq");
          EXPECT_FALSE(test_support::TakesSignal(::gettid(), SIGTERM));
          EXPECT_EQ(Switched(triage::ORDER, true), 1U);
          served.set_value();
        });
        EXPECT_EQ(served.get_future().wait_for(zq::logging::testing::kDefaultDeadline), std::future_status::ready)
            << "waited for the request to be served";

        // A receiver without the other outlives its context.
        LbmTriageHandler::getInstance()->unregisterContext(context.get());
        Script("lbm_rcv_create", {});
        Script("lbm_rcv_create", Failure(LBM_ENOMEM, "no memory"));
        MakeContext();
        lbm_scripted::OnCall("lbm_rcv_delete", [](const auto&) { std::cout << "deleting\n" << std::flush; });
      },
      ::testing::MatchesRegex(std::string(kCalled) +
                              "> lbm_triage_handler destructor deleting env receiver\n> deleting\n"
                              "> lbm_triage_handler destructor cleaning up event_queue=0x[0-9a-f]+\n"
                              "> lbm_triage_handler destructor joining event_queue=0x[0-9a-f]+ thread_id=[0-9]+\n"
                              "> lbm_triage_handler destructor joined event_queue=0x[0-9a-f]+\n"));
}

TEST(TriageEventQueueTest, WithoutItTheContextsThreadServesRequests) {
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[] { Script("lbm_event_queue_create", Failure(LBM_ENOMEM, "no memory")); },
       "Failed to create LBM event queue: no memory"},
      {[] {
         pthread_attr_t huge;
         ::pthread_attr_init(&huge);
         ::pthread_attr_setstacksize(&huge, std::size_t{1} << 60);
         ::pthread_setattr_default_np(&huge);
       },
       "Resource temporarily unavailable"}};
  for (const auto& [fail, why] : cases) {
    InProcessWith(
        NamesAnd({{"TRIAGE_HANDLER_USE_EVENT_QUEUE", "yes"}}),
        [&fail = fail, &why = why] {
          fail();
          const auto context = MakeContext();
          EXPECT_THAT(Lines(kTriage), Contains("30 failed to create event queue thread, triage receivers "
                                               "will not use an event queue: " +
                                               why));
          EXPECT_TRUE(CallsTo("lbm_rcv_create").at(0).IsNull("evq"));
          EXPECT_EQ(Switched(triage::ORDER, true), 1U);
        },
        kCalled);
  }
}

// Of a context that is a static object, made before main or after.
TEST(TriageRegistryTest, OutlivesContextsThatAreStaticObjects) {
  EXPECT_EQ(th_log->Name(), kTriage);
  InProcessWith(
      kNames, [] { static const Context context{ContextAttributes()}; },
      ::testing::MatchesRegex(std::string("> Destroying LBM context=0x[0-9a-f]+ context_name=\n") + kCalled));
}

}  // namespace
}  // namespace lbm
