#include <unistd.h>

#include <boost/property_tree/exceptions.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <future>
#include <mutex>
#include <stdexcept>
#include <type_traits>

#include "manager_test.h"

namespace ps_ns {
namespace {

using lbm_scripted::Failure;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using zq::logging::ZQLOG_INFO;
using zq::logging::ZQLOG_WARNING;

const Statement kNotRegistered{ZQLOG_WARNING, 9999, "register resolver_source_notification_function failed"};

static_assert(!std::is_copy_constructible_v<LbmClientResourceMgr> &&
              !std::is_move_constructible_v<LbmClientResourceMgr> && !std::is_copy_assignable_v<LbmClientResourceMgr> &&
              !std::is_move_assignable_v<LbmClientResourceMgr> && !std::has_virtual_destructor_v<LbmClientResourceMgr>);

using Lifecycle = ManagerTest;

// The options set on the context's attributes, as "name=value".
std::vector<std::string> OptionsSet() {
  std::vector<std::string> options;
  for (const auto& call : lbm_scripted::Calls()) {
    if (call.function == "lbm_context_attr_str_setopt") {
      options.push_back(call.Text("optname") + '=' + call.Text("optval"));
    } else if (call.function == "lbm_context_attr_setopt") {
      EXPECT_EQ(call.Value<lbm_src_notify_func_t>("optval").notifyfunc, &context_src_notify);
      options.push_back(call.Text("optname"));
    }
  }
  return options;
}

TEST_F(Lifecycle, AManagerSetsUpItsContextAndTakesItDownInOrder) {
  Start({.config = R"(<Logging lbmNotifications="yes"/><General/>)", .timeoutMs = 250});
  EXPECT_THAT(OptionsSet(), ElementsAre("operational_mode=sequential", "resolver_source_notification_function",
                                        "context_name=a_client"));
  EXPECT_EQ(lbm_scripted::CallsTo("lbm_context_process_events").front().Number("msec"), 250);

  const std::size_t before = OwnCalls().size();
  m_manager->Shutdown();
  EXPECT_THAT(Functions(OwnCalls(before)), ElementsAre("lbm_context_unblock"));
  m_manager->Shutdown();
  m_manager.reset();
  EXPECT_THAT(Functions(OwnCalls(before)),
              ElementsAre("lbm_context_unblock", "lbm_context_attr_delete", "lbm_context_delete"));

  const std::string threadID = std::to_string(gettid());
  const std::vector<Statement> statements = ManagerStatements();
  ASSERT_EQ(statements.size(), 6U);
  EXPECT_EQ(statements[0], (Statement{ZQLOG_INFO, 13,
                                      "Creating LbmClientResourceMgr. shouldOnload=false lbmThreadCPUAffinity=-1 "
                                      "context_name=a_client lbmProcessEventTimeout_ms=250"}));
  EXPECT_EQ(statements[1],
            (Statement{ZQLOG_INFO, 0, "About to start LBM Context thread. Creator thread_id=" + threadID}));
  EXPECT_THAT(statements[2].text, testing::MatchesRegex("Started LBM Context dispatch loop thread. thread_id=[0-9]+"));
  EXPECT_THAT(statements[2].text, Not(testing::EndsWith('=' + threadID)));
  EXPECT_EQ(statements[3], (Statement{ZQLOG_INFO, 13, "Shutting down LbmClientResourceMgr"}));
  EXPECT_EQ(statements[4], (Statement{ZQLOG_INFO, 0, "Exiting LBM ClientResourceMgr dispatch loop thread."}));
  EXPECT_EQ(statements[5], statements[3]);
}

TEST_F(Lifecycle, WithoutAContextNameLbmChoosesOne) {
  Start({.contextName = "", .shouldOnload = true, .affinity = 1024});
  EXPECT_THAT(OptionsSet(), ElementsAre("operational_mode=sequential"));
  EXPECT_THAT(log_capture::Texts(),
              Contains("Creating LbmClientResourceMgr. shouldOnload=true lbmThreadCPUAffinity=1024 "
                       "context_name=<default> lbmProcessEventTimeout_ms=3600000"));
}

TEST_F(Lifecycle, FoundSourcesAreLoggedWhenTheConfigurationAsksForIt) {
  Start({.config = R"(<Logging lbmNotifications="1"/><General/>)"});
  lbm_context_t* const context = *m_manager->GetContext();
  EXPECT_EQ(lbm_scripted::NotifyContext(context, "PRICES", "TCP:1"), 0);
  EXPECT_THAT(ManagerStatements(), Contains(Statement{ZQLOG_INFO, 9999, "context_src_notify topic=PRICES src=TCP:1"}));

  log_capture::Clear();
  log_capture::SetMinLevel(ZQLOG_WARNING);
  EXPECT_EQ(lbm_scripted::NotifyContext(context, "PRICES", "TCP:1"), 0);
  EXPECT_THAT(ManagerStatements(), IsEmpty());
}

TEST_F(Lifecycle, NotificationsAreOffUnlessAskedFor) {
  Start({.config = "<Logging/><General/>"});
  EXPECT_THAT(OptionsSet(), ElementsAre("operational_mode=sequential", "context_name=a_client"));
  EXPECT_THAT(ManagerStatements(), Not(Contains(kNotRegistered)));
}

class LifecycleNotification : public Lifecycle, public testing::WithParamInterface<const char*> {};

TEST_P(LifecycleNotification, TroubleIsAWarningAndTheManagerStartsAnyway) {
  lbm_scripted::Script("lbm_context_attr_setopt", Failure(LBM_EINVAL, "unknown option"));
  Start({.config = GetParam()});
  EXPECT_THAT(ManagerStatements(), Contains(kNotRegistered).Times(1));
  EXPECT_THAT(lbm_scripted::CallsTo("lbm_context_attr_str_setopt"), testing::SizeIs(2));
}

INSTANTIATE_TEST_SUITE_P(NoNodeBadValueOrRefusedOption, LifecycleNotification,
                         testing::Values("<General/>", R"(<Logging lbmNotifications="2"/><General/>)",
                                         R"(<Logging lbmNotifications="true"/><General/>)"));

TEST_F(Lifecycle, AFailedConstructionSaysWhyAndLeavesNothingBehind) {
  struct Step {
    const char* function;
    int successesBefore;
    const char* error;
  };
  for (const Step& step : {Step{"lbm_context_attr_create", 0, "Failed to create LBM context attributes: out of luck"},
                           Step{"lbm_context_attr_str_setopt", 0, "Failed to set LBM context attribute: out of luck"},
                           Step{"lbm_context_attr_str_setopt", 1, "Failed to set LBM context attribute: out of luck"},
                           Step{"lbm_context_create", 0, "Failed to create LBM context: out of luck"}}) {
    lbm_scripted::Reset();
    log_capture::Clear();
    if (step.successesBefore > 0) {
      lbm_scripted::Script(step.function, {}, step.successesBefore);
    }
    lbm_scripted::Script(step.function, Failure(LBM_ENOMEM, "out of luck"));
    try {
      Start();
      ADD_FAILURE() << "no error although " << step.function << " failed";
    } catch (const lbm::LbmError& error) {
      EXPECT_STREQ(error.what(), step.error);
    }
    EXPECT_THAT(lbm_scripted::LiveHandles(), IsEmpty()) << step.function;
    EXPECT_THAT(log_capture::Find("About to start"), IsEmpty());
  }

  EXPECT_THROW(Start({.config = "<Logging/>"}), boost::property_tree::ptree_bad_path);
  EXPECT_THAT(lbm_scripted::LiveHandles(), IsEmpty());
  EXPECT_THROW(LbmClientResourceMgr(nullptr, "a_client", false, -1, 0, {}, 0), std::invalid_argument);
}

TEST_F(Lifecycle, EndpointsOfTheCallerMayOutliveTheManager) {
  std::string topicName;
  Start();
  SourcePtr source = m_manager->CreateClientSource({1, 2, 3, 0, {}});
  ReceiverPtr receiver = m_manager->CreateClientReceiver({1, 2, 3, 0, {}}, {}, topicName);
  m_manager->Shutdown();
  m_manager.reset();
  const std::size_t before = OwnCalls().size();
  receiver.reset();
  source.reset();
  EXPECT_THAT(Functions(OwnCalls(before)), ElementsAre("lbm_rcv_delete", "lbm_src_delete"));
}

// ---- Destruction without Shutdown

std::size_t g_callsBefore = 0;

// A terminate handler, as an application may have one: tells what the process did to the messaging library in the end.
[[noreturn]] void TellOfTheEnd() {
  std::string text = "ended:";
  const auto calls = Functions(lbm_scripted::Calls());
  for (std::size_t i = g_callsBefore; i < calls.size(); ++i) {
    text += ' ' + calls[i];
  }
  for (const std::string& problem : lbm_scripted::Problems()) {
    text += " PROBLEM " + problem;
  }
  std::fputs((text + '\n').c_str(), stderr);
  std::abort();
}

class DestroyedRunning : public Lifecycle {
 protected:
  // destroy ends its process, having made these calls.
  void ExpectEnd(const std::function<void()>& destroy, const std::string& calls) {
    EXPECT_EXIT(
        {
          std::set_terminate(TellOfTheEnd);
          Start();
          m_manager->CreateCommandSourceAndReceivers({}, "host", "id");
          g_callsBefore = lbm_scripted::Calls().size();
          destroy();
        },
        testing::KilledBySignal(SIGABRT),
        "^ps_ns::LbmClientResourceMgr: destroyed without a call of Shutdown, which ends the process\nended:" + calls +
            "\n");
  }
};

TEST_F(DestroyedRunning, ReleasesInOrderAndEndsTheProcess) {
  ExpectEnd([this] { m_manager.reset(); },
            " lbm_context_unblock lbm_src_delete lbm_rcv_delete lbm_rcv_delete lbm_context_attr_delete "
            "lbm_context_delete");
}

TEST_F(DestroyedRunning, ByItsOwnThreadEndsTheProcessAtOnce) {
  ExpectEnd(
      [this] {
        lbm_scripted::Post(*m_manager->GetContext(), [this] { m_manager.reset(); });
        pause();
      },
      "");
}

TEST_F(DestroyedRunning, EndsTheProcessAlthoughACallbackWaitsForTheDestroyingThread) {
  ExpectEnd(
      [this] {
        std::mutex mutex;
        const std::lock_guard lock(mutex);
        std::promise<void> entered;
        lbm_scripted::Post(*m_manager->GetContext(), [&] {
          entered.set_value();
          const std::lock_guard wait(mutex);
        });
        entered.get_future().wait();
        m_manager.reset();
      },
      " lbm_context_unblock");
}

}  // namespace
}  // namespace ps_ns
