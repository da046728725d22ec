#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <new>

#include "core/dispatcher.h"
#include "domain.h"
#include "system_call_trap.h"

namespace engine_test {
namespace {

using SystemCallsTest = EngineTest;

constexpr std::size_t kWarmUp = 5'000;    // messages, until all memory is there that will be needed
constexpr std::size_t kTrapped = 50'000;  // messages
constexpr std::size_t kInFlight = 1'000;  // far from filling half a ring, so that no credit has to be granted
constexpr int kNoTraps = 77;              // exit code

lbm_src_t* MakeSource(lbm_context_t* context, const char* name, lbm_src_cb_proc proc, void* clientd) {
  lbm_topic_t* topic = nullptr;
  lbm_src_t* source = nullptr;
  EXPECT_EQ(0, lbm_src_topic_alloc(&topic, context, name, nullptr)) << lbm_errmsg();
  EXPECT_EQ(0, lbm_src_create(&source, context, topic, proc, clientd, nullptr)) << lbm_errmsg();
  return source;
}

// Answers every message of PING with one of PONG, from the warm-up on without system calls, and exits.
class Answerer {
 public:
  [[noreturn]] static void Run(SystemCalls& calls) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    Answerer answerer;
    // Whoever hears PING being received is listening to PONG by then.
    while (!answerer.m_heard) {
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

  static int Connected(lbm_src_t*, int event, void*, void* clientd) {
    static_cast<Answerer*>(clientd)->m_heard = event == LBM_SRC_EVENT_CONNECT;
    return 0;
  }

  static int Answer(lbm_rcv_t*, lbm_msg_t* message, void* clientd) {
    auto& self = *static_cast<Answerer*>(clientd);
    if (message->type == LBM_MSG_DATA) {
      Check(lbm_src_send(self.m_source, message->data, message->len, LBM_SRC_FLUSH));
      ++self.m_answers;
    }
    return 0;
  }

  lbm_context_t* const m_context = MakeContext();
  lbm_src_t* const m_source = MakeSource(m_context, "PONG", &Connected, this);
  bool m_heard = false;
  std::size_t m_answers = 0;
};

TEST_F(SystemCallsTest, AreNotMadeByPollingAndSendingToContextsThatAreAwake) {
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

  lbm_context_t* context = MakeContext();
  bool connected = false;
  const auto onSourceEvent = [](lbm_src_t*, int event, void*, void* clientd) {
    *static_cast<bool*>(clientd) = event == LBM_SRC_EVENT_CONNECT;
    return 0;
  };
  lbm_src_t* source = MakeSource(context, "PING", onSourceEvent, &connected);
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
    if (connected && sent - answers < kInFlight) {
      ASSERT_EQ(0, lbm_src_send(source, payload.data(), payload.size(), LBM_SRC_FLUSH)) << lbm_errmsg();
      ++sent;
    }
    // Never waits once there are answers: then this context is awake for the one that sends them.
    ASSERT_EQ(0, lbm_context_process_events(context, answers == 0 ? 1 : 0)) << lbm_errmsg();
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(answerer, SIGKILL);
    }
  }
  EXPECT_EQ(-1, calls.other) << "the number of a system call";
  ASSERT_TRUE(WIFEXITED(status)) << "no end after " << answers << " answers";
  if (WEXITSTATUS(status) == kNoTraps) {
    GTEST_SKIP() << "system calls cannot be trapped here";
  }
  EXPECT_EQ(0, WEXITSTATUS(status)) << calls.looks << " looks for events, " << answers << " answers";
  EXPECT_GT(calls.looks, 0);
  EXPECT_EQ(0, lbm_rcv_delete(receiver));
  EXPECT_EQ(0, lbm_src_delete(source));
  EXPECT_EQ(0, lbm_context_delete(context));
  ::munmap(shared, sizeof(SystemCalls));
}

}  // namespace
}  // namespace engine_test
