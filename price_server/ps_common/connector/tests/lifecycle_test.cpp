#include <pthread.h>
#include <unistd.h>

#include <boost/property_tree/exceptions.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <future>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <type_traits>

#include "manager_test.h"
#include "ps_common/connector/shutdown_guard.h"

namespace ps_ns {
namespace {

constexpr const char* kNotRegistered = "20 9999 register resolver_source_notification_function failed";

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
      options.push_back(call.Text("optname"));
    }
  }
  return options;
}

TEST_F(Lifecycle, AManagerSetsUpItsContextAndTakesItDownInOrder) {
  Start({.config = R"(<Logging lbmNotifications="yes"/><General/>)", .timeoutMs = 20});
  EXPECT_THAT(OptionsSet(), ElementsAre("operational_mode=sequential", "resolver_source_notification_function",
                                        "context_name=a_client"));
  EXPECT_EQ(lbm_scripted::CallsTo("lbm_context_process_events").front().Number("msec"), 20);
  EXPECT_EQ(lbm_scripted::NotifyContext(*m_manager->GetContext(), "PRICES", "TCP:1"), 0);
  m_manager->CreateCommandSourceAndReceivers({}, "host", "id");
  Script("lbm_context_unblock", Failure(LBM_EOP, "no"));  // does not matter

  const std::vector<std::string> lines = Lines();
  ASSERT_THAT(lines, SizeIs(testing::Ge(4U)));
  EXPECT_EQ(lines[0],
            "10 13 Creating LbmClientResourceMgr. shouldOnload=false lbmThreadCPUAffinity=-1 context_name=a_client "
            "lbmProcessEventTimeout_ms=20");
  EXPECT_EQ(lines[1], "10 0 About to start LBM Context thread. Creator thread_id=" + std::to_string(gettid()));
  const std::string started = "10 0 Started LBM Context dispatch loop thread. thread_id=";
  EXPECT_THAT(lines[2], testing::MatchesRegex(started + "[0-9]+"));
  EXPECT_NE(lines[2], started + std::to_string(gettid()));
  EXPECT_EQ(lines[3], "10 9999 context_src_notify topic=PRICES src=TCP:1");

  log_capture::Clear();
  const auto shutdown = CallsOf([this] {
    m_manager->Shutdown();
    m_manager->Shutdown();
  });
  EXPECT_THAT(Functions(shutdown), ElementsAre("lbm_context_unblock"));
  const std::string shuttingDown = "10 13 Shutting down LbmClientResourceMgr";
  EXPECT_THAT(Lines(),
              ElementsAre(shuttingDown, "10 0 Exiting LBM ClientResourceMgr dispatch loop thread.", shuttingDown));
  const auto calls = CallsOf([this] { m_manager.reset(); });
  ASSERT_THAT(Functions(calls), ElementsAre("lbm_src_delete", "lbm_rcv_delete", "lbm_rcv_delete",
                                            "lbm_context_attr_delete", "lbm_context_delete"));
  EXPECT_THAT(calls[1].ToString(), testing::HasSubstr("client_command.host"));
}

TEST_F(Lifecycle, WithoutAContextNameLbmChoosesOneAndWithoutConfigurationNothingIsNotified) {
  Start({.config = "<Logging/><General/>", .contextName = "", .shouldOnload = true, .affinity = 1024});
  EXPECT_THAT(OptionsSet(), ElementsAre("operational_mode=sequential"));
  EXPECT_EQ(Lines().at(0),
            "10 13 Creating LbmClientResourceMgr. shouldOnload=true lbmThreadCPUAffinity=1024 "
            "context_name=<default> lbmProcessEventTimeout_ms=3600000");
  EXPECT_THAT(Lines(), testing::Not(Contains(kNotRegistered)));
}

TEST_F(Lifecycle, TroubleWithNotificationsIsAWarningAndTheManagerStartsAnyway) {
  // No node, a bad value, an option that is refused.
  const struct {
    const char* config;
    const char* reason;
  } cases[] = {
      {"<General/>", "No such node (PSConfig.Logging)"},
      {R"(<Logging lbmNotifications="2"/><General/>)", "Invalid Value 2 for Attribute lbmNotifications"},
      {R"(<Logging lbmNotifications="true"/><General/>)", "Failed to set LBM context attribute: unknown option"}};
  for (const auto& [config, reason] : cases) {
    log_capture::Clear();
    Script("lbm_context_attr_setopt", Failure(LBM_EINVAL, "unknown option"));
    Start({.config = config});
    ASSERT_THAT(Lines(), SizeIs(testing::Ge(3U))) << config;
    EXPECT_EQ(Lines()[1], kNotRegistered) << config;
    EXPECT_EQ(Lines()[2], std::string("0 9999 resolver_source_notification_function reason=") + reason);
    EXPECT_THAT(lbm_scripted::CallsTo("lbm_context_attr_str_setopt"), SizeIs(2));
    End();
  }
}

TEST_F(Lifecycle, MisspeltAttributesAreWarnedAboutAndTheDefaultsHold) {
  Start({.config = "\n<Logging lbmNotification='yes'/>\n<General onloadStackNames='x'/>"});
  const std::string unknown = "20 13 Unknown configuration attribute=";
  EXPECT_THAT(Lines(), testing::IsSupersetOf(
                           {unknown + "lbmNotification file=<memory> line=2 node=Logging meant=lbmNotifications",
                            unknown + "onloadStackNames file=<memory> line=3 node=General meant=OnloadStackName"}));
  EXPECT_THAT(OptionsSet(), testing::Not(Contains("resolver_source_notification_function")));
}

TEST_F(Lifecycle, AFailedConstructionSaysWhyAndLeavesNothingBehind) {
  const auto start = [this] { Start(); };
  EXPECT_EQ(FailureOf("lbm_context_attr_create", start), "Failed to create LBM context attributes: no");
  EXPECT_EQ(FailureOf("lbm_context_attr_str_setopt", start), "Failed to set LBM context attribute: no");
  EXPECT_EQ(FailureOf("lbm_context_attr_str_setopt", start, 1), "Failed to set LBM context attribute: no");
  EXPECT_EQ(FailureOf("lbm_context_create", start), "Failed to create LBM context: no");
  EXPECT_THROW(Start({.config = "<Logging/>"}), boost::property_tree::ptree_bad_path);
  EXPECT_THROW(LbmClientResourceMgr(nullptr, "a_client", false, -1, 0, {}, 0), std::invalid_argument);
  EXPECT_THAT(log_capture::Find("About to start"), IsEmpty());

  // Threads for which there is no room.
  pthread_attr_t usual;
  pthread_getattr_default_np(&usual);
  pthread_attr_t huge;
  pthread_attr_init(&huge);
  pthread_attr_setstacksize(&huge, std::size_t{1} << 60);
  pthread_setattr_default_np(&huge);
  EXPECT_THROW(Start(), std::system_error);
  pthread_setattr_default_np(&usual);
  EXPECT_THAT(LiveHandles(), IsEmpty());
}

TEST_F(Lifecycle, AGuardedScopeMayBeLeftInAnyWay) {
  const auto leave = [](bool byException) {
    LbmClientResourceMgr manager(Config::Parse("<PSConfig><General/></PSConfig>"), "a_client", false, -1, 3'600'000, {},
                                 0);
    const ShutdownGuard guard(manager);
    if (byException) {
      throw std::runtime_error("thrown with the dispatch thread running");
    }
    manager.Shutdown();
  };
  EXPECT_THROW(leave(true), std::runtime_error);
  leave(false);
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
