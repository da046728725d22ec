#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <new>

#include "core/dispatcher.h"
#include "domain.h"
#include "transport_choice.h"

namespace engine_test {
namespace {

// What a trapped thread has asked the system for; to be placed in memory that outlives its process.
struct SystemCalls {
  std::atomic<int> looks{0};   // for events on descriptors, none of which it was shown
  std::atomic<int> other{-1};  // the number of the call that ended the process
};

#ifdef __x86_64__

SystemCalls* g_calls = nullptr;

void OnCall(int, siginfo_t* info, void* context) {
  if (info->si_syscall == SYS_epoll_wait || info->si_syscall == SYS_epoll_pwait) {
    ++g_calls->looks;
    static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_RAX] = 0;  // what the call returns
    return;
  }
  g_calls->other = info->si_syscall;
  ::_exit(1);
}

constexpr sock_filter Statement(int code, std::uint32_t value) {
  return {static_cast<std::uint16_t>(code), 0, 0, value};
}

// Goes over the next statement unless the value is equal.
constexpr sock_filter Unless(std::uint32_t value) { return {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, value}; }

// From here on this thread can make no system call but those that SystemCalls counts and the one that ends the process;
// any other ends it. False when the system does not allow traps, or this is no machine for which they are written.
bool TrapSystemCalls(SystemCalls& calls) {
  g_calls = &calls;
  struct sigaction action {};
  action.sa_sigaction = OnCall;
  action.sa_flags = SA_SIGINFO;
  std::array filter{
      Statement(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      Unless(SYS_rt_sigreturn),
      Statement(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      Unless(SYS_exit_group),
      Statement(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      Statement(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
  };
  const sock_fprog program{filter.size(), filter.data()};
  return ::sigaction(SIGSYS, &action, nullptr) == 0 && ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

#else

bool TrapSystemCalls(SystemCalls&) { return false; }

#endif

using SystemCallsTest = EngineTest;

constexpr std::size_t kWarmUp = 5'000;    // messages, until all memory is there that will be needed
constexpr std::size_t kTrapped = 50'000;  // messages
constexpr std::size_t kInFlight = 1'000;  // far from filling half a ring, so that no credit has to be granted
constexpr int kNoTraps = 77;              // exit code

// Answers every message of PING with one of PONG, from the warm-up on without system calls, and exits.
class Answerer {
 public:
  [[noreturn]] static void Run(SystemCalls& calls) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    Answerer answerer;
    // Whoever hears PING being received is listening to PONG by then.
    while (answerer.m_source.Subscribers() == 0) {
      answerer.Process(1);
    }
    lbm_rcv_t* receiver = nullptr;
    Check(lbm_rcv_create(&receiver, answerer.m_context, ReceiverTopic(answerer.m_context, "PING"), &Answer, &answerer,
                         nullptr));
    while (answerer.m_answers < kWarmUp) {
      answerer.Process(answerer.m_answers == 0 ? 1 : 0);
    }
    using Clock = std::chrono::steady_clock;
    const auto begin = Clock::now();
    if (!TrapSystemCalls(calls)) {
      ::_exit(kNoTraps);
    }
    while (answerer.m_answers < kWarmUp + kTrapped) {
      answerer.Process(0);
    }
    const auto looksDue = (Clock::now() - begin) / engine::core::Dispatcher::kPollInterval + 1;
    ::_exit(calls.looks <= looksDue ? 0 : 2);
  }

 private:
  static void Check(int result) {
    if (result != 0) {
      ::_exit(3);
    }
  }

  void Process(lbm_ulong_t msec) { Check(lbm_context_process_events(m_context, msec)); }

  static int Answer(lbm_rcv_t*, lbm_msg_t* message, void* clientd) {
    auto& self = *static_cast<Answerer*>(clientd);
    if (message->type == LBM_MSG_DATA) {
      Check(lbm_src_send(self.m_source, message->data, message->len, LBM_SRC_FLUSH));
      ++self.m_answers;
    }
    return 0;
  }

  const Driven m_context;
  const Sender m_source{m_context, "PONG"};
  std::size_t m_answers = 0;
};

TEST_F(SystemCallsTest, AreNotMadeByPollingAndSendingToContextsThatAreAwake) {
  if (!OnHostOnly()) {
    GTEST_SKIP() << "a socket is not read without";
  }
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers make system calls of their own";
#endif
  void* const shared = ::mmap(nullptr, sizeof(SystemCalls), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(MAP_FAILED, shared);
  SystemCalls& calls = *new (shared) SystemCalls;
  const pid_t answerer = ::fork();
  ASSERT_NE(-1, answerer);
  if (answerer == 0) {
    Answerer::Run(calls);
  }

  const Driven context;
  const Sender source(context, "PING");
  std::size_t answers = 0;
  const auto count = [](lbm_rcv_t*, lbm_msg_t* message, void* clientd) {
    *static_cast<std::size_t*>(clientd) += message->type == LBM_MSG_DATA ? 1 : 0;
    return 0;
  };
  lbm_rcv_t* receiver = nullptr;
  ASSERT_EQ(0, lbm_rcv_create(&receiver, context, ReceiverTopic(context, "PONG"), count, &answers, nullptr));
  const std::string payload(64, 'x');
  int status = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  for (std::size_t sent = 0; ::waitpid(answerer, &status, WNOHANG) == 0;) {
    if (source.Subscribers() == 1 && sent - answers < kInFlight) {
      ASSERT_EQ(0, source.Send(payload)) << lbm_errmsg();
      ++sent;
    }
    // Never waits once there are answers: then this context is awake for the one that sends them.
    ASSERT_EQ(0, lbm_context_process_events(context, answers == 0 ? 1 : 0)) << lbm_errmsg();
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(answerer, SIGKILL);
    }
  }
  if (calls.other == SYS_clock_gettime) {
    GTEST_SKIP() << "this machine's clock takes a system call";
  }
  EXPECT_EQ(-1, calls.other) << "the number of a system call";
  ASSERT_TRUE(WIFEXITED(status)) << "no end after " << answers << " answers";
  if (WEXITSTATUS(status) == kNoTraps) {
    GTEST_SKIP() << "system calls cannot be trapped here";
  }
  EXPECT_EQ(0, WEXITSTATUS(status)) << calls.looks << " looks for events, " << answers << " answers";
  EXPECT_GT(calls.looks, 0);
  EXPECT_EQ(0, lbm_rcv_delete(receiver));
  ::munmap(shared, sizeof(SystemCalls));
}

}  // namespace
}  // namespace engine_test
