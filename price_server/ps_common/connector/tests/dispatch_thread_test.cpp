#include <onload/extensions.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <future>
#include <stdexcept>

#include "manager_test.h"
#include "test_support/thread_state.h"

namespace {

// Stands in for Onload: what the test wants it to say, and what was asked of it. All of a test's calls are those of one
// thread, which the test waits for.
struct FakeOnload {
  int present = 0;
  std::vector<std::string> calls;
  std::thread::id callingThread;

  int Record(std::string call, int result) {
    calls.push_back(std::move(call));
    callingThread = std::this_thread::get_id();
    return result;
  }
};
FakeOnload g_onload;

}  // namespace

int onload_is_present(void) { return g_onload.Record("onload_is_present()", g_onload.present); }

// Their callers are not to care for the results of these.
int onload_thread_set_spin(int type, int spin) {
  return g_onload.Record("onload_thread_set_spin(" + std::to_string(type) + ", " + std::to_string(spin) + ')', -1);
}

int onload_set_stackname(int who, int scope, const char* name) {
  return g_onload.Record(
      "onload_set_stackname(" + std::to_string(who) + ", " + std::to_string(scope) + ", " + name + ')', -1);
}

namespace ps_ns {
namespace {

constexpr const char* kExitText = "Exiting LBM ClientResourceMgr dispatch loop thread.";

class DispatchThread : public ManagerTest {
 protected:
  DispatchThread() { g_onload = {}; }
};

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

TEST_F(DispatchThread, BearsItsNameAndLeavesSignalsToTheApplicationsThreads) {
  LbmClientResourceMgr& manager = Start();
  const std::string name = OnDispatchThread(manager, [] {
    std::array<char, 16> buffer{};
    prctl(PR_GET_NAME, buffer.data());
    return std::string(buffer.data());
  });
  EXPECT_EQ(name, "lbm_ctx_thread");
  EXPECT_FALSE(OnDispatchThread(manager, [] { return test_support::TakesSignal(::gettid(), SIGTERM); }));
  EXPECT_TRUE(test_support::TakesSignal(::gettid(), SIGTERM));
}

TEST_F(DispatchThread, StaysOnTheCpuItWasGivenAndAnywhereWhenThatIsImpossible) {
  const cpu_set_t allowed = AllowedCPUs();
  int last = CPU_SETSIZE - 1;
  while (!CPU_ISSET(last, &allowed)) {
    --last;
  }
  cpu_set_t onlyLast;
  CPU_ZERO(&onlyLast);
  CPU_SET(last, &onlyLast);
  for (const int cpu : {last, -1, -2, CPU_SETSIZE, CPU_SETSIZE + 1}) {
    log_capture::Clear();
    const cpu_set_t actual = OnDispatchThread(Start({.affinity = cpu}), AllowedCPUs);
    EXPECT_TRUE(CPU_EQUAL(&actual, cpu == last ? &onlyLast : &allowed)) << cpu;
    EXPECT_THAT(Lines(), Contains("30 0 Error settign CPU affinity for LBM context thread. error=22")
                             .Times(cpu == last || cpu == -1 ? 0 : 1))
        << cpu;
    End();
  }
}

TEST_F(DispatchThread, SpinsOnItsOwnStackWhereOnloadIsPresentAndWanted) {
  const std::string isPresent = "onload_is_present()";
  const std::string spin = "onload_thread_set_spin(0, 1)";
  const std::string stack = "onload_set_stackname(0, 2, ";
  const struct {
    int present;
    bool wanted;
    const char* config;
    std::vector<std::string> calls;
  } cases[] = {{1, true, R"(<General OnloadStackName="prices"/>)", {isPresent, spin, stack + "prices)"}},
               {1, true, "<General/>", {isPresent, spin, stack + "lbm_pc_ctx)"}},
               {0, true, "<General/>", {isPresent}},
               {-1, true, "<General/>", {isPresent}},
               {2, true, "<General/>", {isPresent}},
               {1, false, "<General/>", {}}};
  for (const auto& given : cases) {
    g_onload = {.present = given.present};
    log_capture::Clear();
    LbmClientResourceMgr& manager = Start({.config = given.config, .shouldOnload = given.wanted});
    EXPECT_EQ(g_onload.calls, given.calls);
    const auto thread = OnDispatchThread(manager, [] { return std::this_thread::get_id(); });
    EXPECT_TRUE(given.calls.empty() || g_onload.callingThread == thread);
    EXPECT_THAT(Lines(), Contains(testing::StartsWith("10 0 Onload is present. Setting LBM thread to spin. Using "
                                                      "Onload stack Name="))
                             .Times(given.calls.size() == 3 ? 1 : 0));
    End();
  }
}

TEST_F(DispatchThread, EndsWithTheFirstResultOfEventProcessingThatIsNotZero) {
  Script("lbm_context_process_events", {}, 1);
  Script("lbm_context_process_events", Failure(LBM_EOP, "not possible"));
  std::atomic<int> calls = 0;
  LbmClientResourceMgr& manager = Start({.task = [&calls] { return ++calls < 0; }, .maxTasks = 5});
  ASSERT_TRUE(log_capture::WaitForText(kExitText));
  EXPECT_THAT(Lines(), Contains("30 13 Error calling lbm_context_process_events. error=4 not possible"));
  EXPECT_THAT(lbm_scripted::CallsTo("lbm_context_process_events"), SizeIs(2));
  EXPECT_EQ(calls, 1);
  manager.Shutdown();
  EXPECT_THAT(lbm_scripted::CallsTo("lbm_context_unblock"), SizeIs(1));
  End();

  log_capture::Clear();
  Script("lbm_context_process_events", {1, 0, {}});
  Start();
  EXPECT_TRUE(log_capture::WaitForText(kExitText));
}

TEST_F(DispatchThread, TheBackgroundTaskRunsWithinItsBoundInEachRound) {
  const struct {
    unsigned int maxTasks;
    int worksUntil;  // from this call on the task says that there is nothing more
    int calls;       // in three rounds
    int lastCalls;   // in the round that Shutdown ends
  } cases[] = {{0, 100, 0, 0}, {5, 0, 3, 1}, {5, 100, 15, 5}, {5, 8, 9, 1}};
  for (const auto& given : cases) {
    std::atomic<int> calls = 0;
    Script("lbm_context_process_events", {}, 3);
    Start({.task = [&] { return ++calls < given.worksUntil; }, .maxTasks = given.maxTasks});
    WaitForRounds(4);
    EXPECT_EQ(calls, given.calls);
    End();
    EXPECT_EQ(calls, given.calls + given.lastCalls);
  }
  Script("lbm_context_process_events", {}, 1);
  Start({.maxTasks = 5});  // without a task
  WaitForRounds(2);
}

// ---- Sockets

int OnSocket(lbm_context_t* /*ctx*/, int fd, lbm_ulong_t event, void* clientd) {
  *static_cast<std::pair<int, lbm_ulong_t>*>(clientd) = {fd, event};
  return 0;
}

void OnCancelled(int fd, void* clientd) { static_cast<std::promise<int>*>(clientd)->set_value(fd); }

TEST_F(DispatchThread, ServesRegisteredSocketsUntilTheyAreCancelled) {
  LbmClientResourceMgr& manager = Start();
  lbm_context_t* const context = *manager.GetContext();
  std::pair<int, lbm_ulong_t> seen;
  ASSERT_TRUE(manager.RegisterSocketForReadEvents(7, OnSocket, &seen));
  const auto registration = lbm_scripted::CallsTo("lbm_register_fd").front();
  EXPECT_EQ(registration.Number("ev"), LBM_FD_EVENT_READ);
  EXPECT_TRUE(registration.IsNull("evq"));
  OnDispatchThread(manager, [&] { return lbm_scripted::DeliverFdEvent(context, 7, LBM_FD_EVENT_READ); });
  EXPECT_EQ(seen, (std::pair<int, lbm_ulong_t>{7, LBM_FD_EVENT_READ}));
  EXPECT_TRUE(manager.UnregisterSocketForReadEvents(7));
  EXPECT_THROW(lbm_scripted::DeliverFdEvent(context, 7, LBM_FD_EVENT_READ), std::logic_error);

  std::promise<int> cancelled;
  ASSERT_TRUE(manager.RegisterSocketForReadEvents(8, OnSocket, &seen));
  ASSERT_TRUE(manager.UnregisterSocketForReadEventsEx(8, nullptr, OnCancelled, &cancelled));
  EXPECT_EQ(Await(cancelled.get_future(), "the end of the registration"), 8);

  lbm::EventQueue queue{lbm::EventQueueAttributes()};
  std::promise<int> onQueue;
  ASSERT_TRUE(manager.RegisterSocketForReadEvents(9, OnSocket, &seen));
  ASSERT_TRUE(manager.UnregisterSocketForReadEventsEx(9, queue, OnCancelled, &onQueue));
  EXPECT_EQ(lbm_scripted::CallsTo("lbm_cancel_fd_ex").back().Number("ev"), LBM_FD_EVENT_READ);
  EXPECT_EQ(queue.Poll(), 1);
  EXPECT_EQ(onQueue.get_future().get(), 9);
}

TEST_F(DispatchThread, AnyResultForASocketButZeroIsLoggedAndReported) {
  LbmClientResourceMgr& manager = Start();
  log_capture::Clear();
  const auto results = {lbm_scripted::Result{2, 0, {}}, Failure(LBM_EINVAL, "no")};
  for (const auto& result : results) {
    Script("lbm_register_fd", result);
    EXPECT_FALSE(manager.RegisterSocketForReadEvents(7, OnSocket, nullptr));
    Script("lbm_cancel_fd", result);
    EXPECT_FALSE(manager.UnregisterSocketForReadEvents(7));
    Script("lbm_cancel_fd_ex", result);
    EXPECT_FALSE(manager.UnregisterSocketForReadEventsEx(7, nullptr, OnCancelled, nullptr));
  }
  const std::string occured = "30 13 Error occured while ";
  EXPECT_THAT(Lines(), SizeIs(6));
  EXPECT_THAT(Lines(), testing::IsSupersetOf({occured + "registering socket with context for read events.ret=2",
                                              occured + "registering socket with context for read events.ret=-1",
                                              occured + "unregistering socket with context for read events",
                                              occured + "unregistering socket (ex) with context for read events"}));
}

}  // namespace
}  // namespace ps_ns
