#include <sched.h>
#include <sys/prctl.h>

#include <array>
#include <atomic>
#include <future>
#include <memory>
#include <stdexcept>

#include "manager_test.h"

namespace ps_ns {
namespace {

using lbm_scripted::Failure;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using zq::logging::ZQLOG_ERROR;
using zq::logging::ZQLOG_INFO;

constexpr const char* kExitText = "Exiting LBM ClientResourceMgr dispatch loop thread.";

using DispatchThread = ManagerTest;

template <typename T>
T Await(std::future<T> future, const char* what) {
  if (future.wait_for(zq::logging::testing::kDefaultDeadline) != std::future_status::ready) {
    throw std::runtime_error(std::string("waited in vain for ") + what);
  }
  return future.get();
}

// Runs ask on the dispatch thread and returns its answer.
template <typename Ask>
auto OnDispatchThread(LbmClientResourceMgr& manager, Ask ask) {
  const auto task = std::make_shared<std::packaged_task<decltype(ask())()>>(ask);
  lbm_scripted::Post(*manager.GetContext(), [task] { (*task)(); });
  return Await(task->get_future(), "an answer of the dispatch thread");
}

cpu_set_t AllowedCPUs() {
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  EXPECT_EQ(sched_getaffinity(0, sizeof(cpus), &cpus), 0);
  return cpus;
}

TEST_F(DispatchThread, BearsItsNameAndGoesOnAfterEachEvent) {
  LbmClientResourceMgr& manager = Start();
  for (int event = 0; event < 3; ++event) {
    const std::string name = OnDispatchThread(manager, [] {
      std::array<char, 16> buffer{};
      prctl(PR_GET_NAME, buffer.data());
      return std::string(buffer.data());
    });
    EXPECT_EQ(name, "lbm_ctx_thread");
  }
}

TEST_F(DispatchThread, StaysOnTheCpuItWasGiven) {
  const cpu_set_t allowed = AllowedCPUs();
  int cpu = CPU_SETSIZE - 1;
  while (!CPU_ISSET(cpu, &allowed)) {
    --cpu;
  }

  const cpu_set_t pinned = OnDispatchThread(Start({.affinity = cpu}), AllowedCPUs);
  EXPECT_EQ(CPU_COUNT(&pinned), 1);
  EXPECT_TRUE(CPU_ISSET(cpu, &pinned));
}

TEST_F(DispatchThread, RunsUnpinnedWithoutACpuOrWithAnImpossibleOne) {
  const cpu_set_t allowed = AllowedCPUs();
  const Statement refused{ZQLOG_ERROR, 0, "Error settign CPU affinity for LBM context thread. error=22"};
  for (const int cpu : {-1, -2, CPU_SETSIZE, CPU_SETSIZE + 1}) {
    log_capture::Clear();
    const cpu_set_t actual = OnDispatchThread(Start({.affinity = cpu}), AllowedCPUs);
    EXPECT_TRUE(CPU_EQUAL(&actual, &allowed)) << cpu;
    EXPECT_THAT(ManagerStatements(), Contains(refused).Times(cpu == -1 ? 0 : 1)) << cpu;
    m_manager->Shutdown();
  }
}

TEST_F(DispatchThread, SpinsOnItsOwnStackWhereOnloadIsPresent) {
  fake_onload::Reset(1);
  LbmClientResourceMgr& manager = Start({.config = R"(<General OnloadStackName="prices"/>)", .shouldOnload = true});
  const std::thread::id thread = OnDispatchThread(manager, [] { return std::this_thread::get_id(); });
  std::vector<std::string> texts;
  for (const auto& call : fake_onload::Calls()) {
    texts.push_back(call.text);
    EXPECT_EQ(call.thread, thread) << call.text;
  }
  EXPECT_THAT(texts,
              ElementsAre("onload_is_present()", "onload_thread_set_spin(0, 1)", "onload_set_stackname(0, 2, prices)"));
  EXPECT_THAT(ManagerStatements(),
              Contains(Statement{ZQLOG_INFO, 0,
                                 "Onload is present. Setting LBM thread to spin. Using Onload stack Name=prices"}));
}

TEST_F(DispatchThread, UsesTheStackNameOfClientsByDefault) {
  fake_onload::Reset(1);
  Start({.shouldOnload = true});
  EXPECT_EQ(fake_onload::Calls().back().text, "onload_set_stackname(0, 2, lbm_pc_ctx)");
}

TEST_F(DispatchThread, LeavesOnloadAloneWhereItIsAbsentOrUnwanted) {
  for (const int answer : {0, -1, 2}) {
    fake_onload::Reset(answer);
    Start({.shouldOnload = true});
    EXPECT_EQ(fake_onload::Calls().size(), 1U) << answer;
    m_manager->Shutdown();
    lbm_scripted::Reset();
  }
  fake_onload::Reset(1);
  Start();
  EXPECT_THAT(fake_onload::Calls(), IsEmpty());
  EXPECT_THAT(log_capture::Find("Onload is present"), IsEmpty());
}

TEST_F(DispatchThread, EndsWithTheFirstEventProcessingError) {
  ScriptEmptyRounds(1);
  lbm_scripted::Script("lbm_context_process_events", Failure(LBM_EOP, "not possible"));
  std::atomic<int> calls = 0;
  const auto task = [&calls] { return ++calls < 0; };
  LbmClientResourceMgr& manager = Start({.task = task, .maxTasks = 5});
  ASSERT_TRUE(log_capture::WaitForText(kExitText));
  EXPECT_THAT(ManagerStatements(),
              Contains(Statement{ZQLOG_ERROR, 13, "Error calling lbm_context_process_events. error=4 not possible"}));
  EXPECT_EQ(lbm_scripted::CallsTo("lbm_context_process_events").size(), 2U);
  EXPECT_EQ(calls, 1);

  manager.Shutdown();
  EXPECT_EQ(lbm_scripted::CallsTo("lbm_context_unblock").size(), 1U);
}

TEST_F(DispatchThread, TakesAnyResultButZeroForAnError) {
  lbm_scripted::Script("lbm_context_process_events", {1, 0, {}});
  Start();
  EXPECT_TRUE(log_capture::WaitForText(kExitText));
}

struct Background {
  const char* name;
  unsigned int maxTasks;
  int worksUntil;  // from this call on the task says that there is nothing more
  int callsInThreeRounds;
};

void PrintTo(const Background& background, std::ostream* out) { *out << background.name; }

class DispatchThreadBackground : public DispatchThread, public testing::WithParamInterface<Background> {};

TEST_P(DispatchThreadBackground, TaskRunsWithinItsBoundInEachRound) {
  std::atomic<int> calls = 0;
  const auto task = [&calls] { return ++calls < GetParam().worksUntil; };
  ScriptEmptyRounds(3);
  Start({.task = task, .maxTasks = GetParam().maxTasks});
  WaitForRounds(4);
  EXPECT_EQ(calls, GetParam().callsInThreeRounds);
  m_manager->Shutdown();  // before what the task uses goes
}

INSTANTIATE_TEST_SUITE_P(, DispatchThreadBackground,
                         testing::Values(Background{"Never", 0, 100, 0}, Background{"OncePerRoundWhenIdle", 5, 0, 3},
                                         Background{"UpToTheBound", 5, 100, 15},
                                         Background{"UntilThereIsNothingMore", 5, 8, 9}),
                         [](const auto& tested) { return tested.param.name; });

TEST_F(DispatchThread, SkipsAnEmptyTask) {
  ScriptEmptyRounds(1);
  Start({.maxTasks = 5});
  WaitForRounds(2);
}

// ---- Sockets

struct SocketEvent {
  int fd = 0;
  lbm_ulong_t event = 0;
};

int OnSocket(lbm_context_t* /*ctx*/, int fd, lbm_ulong_t event, void* clientd) {
  *static_cast<SocketEvent*>(clientd) = {fd, event};
  return 0;
}

void OnCancelled(int fd, void* clientd) { static_cast<std::promise<int>*>(clientd)->set_value(fd); }

TEST_F(DispatchThread, ServesRegisteredSocketsUntilTheyAreCancelled) {
  LbmClientResourceMgr& manager = Start();
  lbm_context_t* const context = *manager.GetContext();
  SocketEvent seen;
  ASSERT_TRUE(manager.RegisterSocketForReadEvents(7, OnSocket, &seen));
  const auto registration = lbm_scripted::CallsTo("lbm_register_fd").front();
  EXPECT_EQ(registration.Number("ev"), LBM_FD_EVENT_READ);
  EXPECT_TRUE(registration.IsNull("evq"));
  OnDispatchThread(manager, [&] { return lbm_scripted::DeliverFdEvent(context, 7, LBM_FD_EVENT_READ); });
  EXPECT_EQ(seen.fd, 7);
  EXPECT_EQ(seen.event, lbm_ulong_t{LBM_FD_EVENT_READ});
  EXPECT_TRUE(manager.UnregisterSocketForReadEvents(7));
  EXPECT_THROW(lbm_scripted::DeliverFdEvent(context, 7, LBM_FD_EVENT_READ), std::logic_error);

  std::promise<int> cancelled;
  ASSERT_TRUE(manager.RegisterSocketForReadEvents(8, OnSocket, &seen));
  ASSERT_TRUE(manager.UnregisterSocketForReadEventsEx(8, nullptr, OnCancelled, &cancelled));
  EXPECT_EQ(Await(cancelled.get_future(), "the end of the registration"), 8);
  const auto cancellation = lbm_scripted::CallsTo("lbm_cancel_fd_ex").front();
  EXPECT_EQ(cancellation.Number("ev"), LBM_FD_EVENT_READ);
}

TEST_F(DispatchThread, SocketFailuresAreLoggedAndReported) {
  LbmClientResourceMgr& manager = Start();
  const auto fails = [](const char* function) { lbm_scripted::Script(function, Failure(LBM_EINVAL, "no")); };
  fails("lbm_register_fd");
  EXPECT_FALSE(manager.RegisterSocketForReadEvents(7, OnSocket, nullptr));
  fails("lbm_cancel_fd");
  EXPECT_FALSE(manager.UnregisterSocketForReadEvents(7));
  fails("lbm_cancel_fd_ex");
  EXPECT_FALSE(manager.UnregisterSocketForReadEventsEx(7, nullptr, OnCancelled, nullptr));
  EXPECT_THAT(
      ManagerStatements(),
      testing::IsSupersetOf(
          {Statement{ZQLOG_ERROR, 13, "Error occured while registering socket with context for read events.ret=-1"},
           Statement{ZQLOG_ERROR, 13, "Error occured while unregistering socket with context for read events"},
           Statement{ZQLOG_ERROR, 13, "Error occured while unregistering socket (ex) with context for read events"}}));
}

}  // namespace
}  // namespace ps_ns
