// What the manager shows of itself to those who read the process's statistics.
#include <sched.h>

#include <map>
#include <string_view>
#include <utility>

#include "manager_test.h"
#include "zq/statistics/snapshot.h"

namespace ps_ns {
namespace {

namespace statistics = zq::statistics;
using testing::IsSupersetOf;
using testing::Pair;

using Numbers = std::map<std::string, std::int64_t>;

class Statistics : public ManagerTest {
 protected:
  Numbers DispatchThread() const { return DispatchThread(m_manager->GetStatistics()); }

  static Numbers DispatchThread(const statistics::Snapshot& snapshot) {
    Numbers numbers;
    for (const statistics::RowValues* row : snapshot.Of("dispatch_thread")) {
      if (row->Label("context") != "a_client") {
        continue;
      }
      for (std::size_t i = 0; i < row->values.size(); ++i) {
        numbers[row->kind->fields[i].name] = row->values[i].number;
      }
    }
    return numbers;
  }

  // Option, value and origin.
  std::vector<std::string> Options() const {
    const statistics::Snapshot snapshot = m_manager->GetStatistics();
    std::vector<std::string> options;
    for (const statistics::RowValues* row : snapshot.Of("option")) {
      if (row->Label("owner") == "connector") {
        options.push_back(std::string(row->Label("option")) + '=' + std::string(row->Label("value")) + " by " +
                          std::string(row->Label("origin")));
      }
    }
    return options;
  }
};

int IgnoreSocket(lbm_context_t*, int, lbm_ulong_t, void*) { return 0; }

TEST_F(Statistics, TheDispatchThreadTellsWhatItDrives) {
  const int allowed = sched_getcpu();
  std::int64_t inTask = -1;
  Script("lbm_context_process_events", {}, 3);
  Start({.affinity = allowed,
         .task =
             [&] {
               // Begins before the manager's constructor has returned.
               inTask = DispatchThread(statistics::TakeSnapshot())["in_background_task"];
               return true;
             },
         .maxTasks = 2});
  WaitForRounds(4);
  m_manager->RegisterSocketForReadEvents(7, IgnoreSocket, nullptr);
  m_manager->RegisterSocketForReadEvents(8, IgnoreSocket, nullptr);
  m_manager->UnregisterSocketForReadEvents(7);
  Script("lbm_register_fd", Failure(LBM_EINVAL, "no"));
  m_manager->RegisterSocketForReadEvents(9, IgnoreSocket, nullptr);
  EXPECT_THAT(
      DispatchThread(),
      IsSupersetOf({Pair("running", 1), Pair("sockets", 1), Pair("background_tasks", 1), Pair("in_background_task", 0),
                    Pair("task_runs", 6), Pair("cpu_wanted", allowed), Pair("cpu_got", allowed), Pair("spinning", 0)}));
  EXPECT_GT(DispatchThread()["thread"], 0);
  EXPECT_EQ(inTask, 1);
  const statistics::Snapshot snapshot = m_manager->GetStatistics();
  ASSERT_THAT(snapshot.Of("context"), SizeIs(1));
  EXPECT_EQ(snapshot.Of("context")[0]->Find("loops")->Count(), 3U);
  m_manager->Shutdown();
  EXPECT_EQ(DispatchThread()["running"], 0);
  End();
  EXPECT_THAT(statistics::TakeSnapshot().Of("dispatch_thread"), SizeIs(1)) << "that of no room";
}

TEST_F(Statistics, AThreadThatCouldNotBePinnedOrHasEndedSaysSo) {
  Script("lbm_context_process_events", {}, 1);
  Script("lbm_context_process_events", Failure(LBM_EOP, "not possible"));
  Start({.affinity = CPU_SETSIZE});
  ASSERT_TRUE(log_capture::WaitForText("Exiting LBM ClientResourceMgr dispatch loop thread."));
  EXPECT_THAT(DispatchThread(),
              IsSupersetOf({Pair("running", 0), Pair("cpu_wanted", CPU_SETSIZE), Pair("cpu_got", -1)}));
}

TEST_F(Statistics, OptionsTellTheirValueInEffectAndWhereItComesFrom) {
  Start({.config = R"(<General OnloadStackName="prices"/><Logging/>)", .maxTasks = 5});
  EXPECT_THAT(Options(),
              testing::UnorderedElementsAre(
                  "shouldOnload=0 by argument", "lbmThreadCPUAffinity=-1 by argument",
                  "lbmProcessEventTimeout_ms=3600000 by argument", "maxTasksToExecute=5 by argument",
                  "General/OnloadStackName=prices by file <memory>", "Logging/lbmNotifications=0 by default"));
  End();
  Start({.config = R"(<General/><Logging lbmNotifications="2"/>)"});
  EXPECT_THAT(Options(), Contains("Logging/lbmNotifications=0 by default")) << "as the configured one cannot be used";
}

TEST_F(Statistics, TheCommandChannelIsShownWhenItIsComplete) {
  const auto channels = [this] {
    const statistics::Snapshot snapshot = m_manager->GetStatistics();
    std::vector<std::string> topics;
    for (const statistics::RowValues* row : snapshot.Of("command_channel")) {
      topics.emplace_back(row->Label("client_topic"));
    }
    return topics;
  };
  Start();
  EXPECT_THAT(channels(), IsEmpty());
  m_manager->CreateCommandSourceAndReceivers({}, "host", "one");
  EXPECT_THAT(channels(), ElementsAre(TopicNames::CreateClientIDCommandTopic("one")));
  FailureOf("lbm_src_create", [&] { m_manager->CreateCommandSourceAndReceivers({}, "host", "two"); });
  EXPECT_THAT(channels(), IsEmpty());
}

}  // namespace
}  // namespace ps_ns
