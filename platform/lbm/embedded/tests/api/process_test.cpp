// The engine among what else a process does: forks and signals.
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>

#include "domain.h"
#include "test_support/thread_state.h"
#include "transport_choice.h"

namespace engine_test {
namespace {

class InAProcess : public EngineTest {};

// Runs it in a child of this process, which ends with what it returns, and expects that to be 0.
void InChild(const std::function<int()>& run) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(60);
    ::_exit(run());
  }
  int status = -1;
  ASSERT_EQ(child, ::waitpid(child, &status, 0));
  EXPECT_EQ(0, status);
}

TEST_F(InAProcess, AChildIsToldThatItCannotUseTheObjectsOfItsParent) {
  const Driven context;
  const Queue queue;
  Sender source(context, "FORK");
  Recorder recorder(context, "FORK");
  const Recorder queued(context, "FORK", queue);
  lbm_response_t* response = nullptr;
  recorder.onEvent = [&](lbm_msg_t& message) {
    if (message.type == LBM_MSG_REQUEST) {
      response = std::exchange(message.response, nullptr);
    }
  };
  const auto ignore = [](lbm_request_t*, lbm_msg_t*, void*) { return 0; };
  lbm_request_t* request = nullptr;
  source.AwaitSubscriber({context});
  ASSERT_EQ(0, lbm_send_request(&request, source, "?", 1, ignore, nullptr, nullptr, LBM_SRC_FLUSH));
  PumpUntil({context}, "the request", [&] { return response != nullptr; });

  InChild([&] {
    const std::function<int()> calls[] = {
        [&] { return source.Send("from a child"); },
        [&] { return lbm_send_response(response, "!", 1, 0); },
        [&] { return lbm_context_process_events(context, 1000); },
        [&] { return lbm_event_dispatch(queue, LBM_EVENT_QUEUE_BLOCK); },
        [&] {
          lbm_topic_t* topic = nullptr;
          return lbm_rcv_topic_lookup(&topic, context, "FORK", nullptr);
        },
        [&] { return lbm_cancel_fd(context, STDIN_FILENO, LBM_FD_EVENT_READ); },
        [&] { return lbm_request_delete(request); },
        [&] { return lbm_response_delete(response); },
        [&] { return lbm_src_delete(source); },
        [&] { return lbm_event_queue_delete(queue); },
        [&] { return lbm_context_delete(context); },
    };
    int number = 0;
    for (const auto& call : calls) {
      ++number;
      if (ErrorOf(call()) != LBM_EOP || std::string(lbm_errmsg()).find("a child process has to") == std::string::npos) {
        return number;
      }
    }
    return 0;
  });

  recorder.lines.clear();
  EXPECT_EQ(0, source.Send("from the parent")) << lbm_errmsg();
  PumpUntil({context}, "the message", [&] { return !recorder.lines.empty(); });
  EXPECT_EQ(0, lbm_request_delete(request));
  EXPECT_EQ(0, lbm_response_delete(response));
}

TEST_F(InAProcess, AChildMayMakeAContextOfItsOwn) {
  if (!OnHostOnly()) {
    GTEST_SKIP() << "the network's client library works in no child of a process that has used it";
  }
  const Driven context;
  const Sender source(context, "FAMILY");
  Recorder recorder(context, "ANSWER");
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(60);
    const Driven own;
    const Recorder heard(own, "FAMILY");
    const Sender answer(own, "ANSWER");
    PumpUntil({own}, "the parent", [&] { return heard.lines.size() > 1 && answer.Subscribers() == 1; });
    ::_exit(answer.Send("thanks"));
  }
  source.AwaitSubscriber({context});
  EXPECT_EQ(0, source.Send("hello"));
  PumpUntil({context}, "the child's answer", [&] { return recorder.lines.size() > 1; });
  int status = -1;
  ASSERT_EQ(child, ::waitpid(child, &status, 0));
  EXPECT_EQ(0, status);
}

TEST_F(InAProcess, AChildThatReturnsFromACallbackTakesNothingFromItsParent) {
  const Driven context;
  const Sender source(context, "FORK");
  Recorder recorder(context, "FORK");
  pid_t child = -1;
  recorder.onEvent = [&](lbm_msg_t& message) {
    if (child == -1 && message.type == LBM_MSG_DATA) {
      child = ::fork();
    }
  };
  source.AwaitSubscriber({context});
  EXPECT_EQ(0, source.Send("0"));
  EXPECT_EQ(0, source.Send("1"));
  int result = 0;
  while (child == -1 && result == 0) {
    result = lbm_context_process_events(context, 1000);
  }
  if (child == 0) {
    while (result == 0) {
      result = lbm_context_process_events(context, 1000);
    }
    ::_exit(ErrorOf(result) == LBM_EOP ? 0 : 1);
  }
  EXPECT_EQ(0, result);
  int status = -1;
  ASSERT_EQ(child, ::waitpid(child, &status, 0));
  EXPECT_EQ(0, status);
  EXPECT_EQ(0, source.Send("2"));
  PumpUntil({context}, "the last message", [&] { return recorder.lines.back() == "data 2 2"; });
  EXPECT_THAT(recorder.lines, testing::ElementsAre("BOS 0", "data 0 0", "data 1 1", "data 2 2"));
}

// What others of the machine see of the contexts of the test's domain.
std::size_t Traces() {
  std::size_t found = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(std::getenv("LBM_RUNTIME_DIR"))) {
    found += entry.is_socket() ? 1 : 0;
  }
  return found;
}

TEST_F(InAProcess, AContextIsGoneWhereItsDeletionSaysSo) {
  lbm_context_t* context = MakeContext();
  EXPECT_EQ(OverNetwork(), Traces() == 0);
  const Recorder witness(context, "OTHER");
  Recorder recorder(context, "END");
  const Sender source(context, "END");
  recorder.onEvent = [&](lbm_msg_t&) { EXPECT_EQ(0, lbm_context_delete(std::exchange(context, nullptr))); };
  source.AwaitSubscriber({context});
  EXPECT_EQ(0, source.Send("x"));
  while (context != nullptr) {
    ASSERT_EQ(0, lbm_context_process_events(context, 1000));
  }
  EXPECT_EQ(0U, Traces()) << "after lbm_context_process_events";

  const Queue queue;
  context = MakeContext({});
  Recorder queued(context, "END", queue);
  const Sender other(context, "END");
  queued.onEvent = [&](lbm_msg_t&) {
    EXPECT_EQ(0, lbm_context_delete(std::exchange(context, nullptr)));
    EXPECT_EQ(0U, Traces()) << "after lbm_context_delete";
  };
  while (context != nullptr) {
    static_cast<void>(other.Send("x"));
    ASSERT_NE(-1, lbm_event_dispatch(queue, 10));
  }
}

TEST_F(InAProcess, NoThreadOfTheEngineTakesItsSignals) {
  const Driven context({});
  const Sender source(context, "SIGNALS");
  const Recorder recorder(context, "SIGNALS");
  source.AwaitSubscriber({});  // a thread that is about to start blocks all signals anyhow
  int others = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    const pid_t thread = std::stoi(entry.path().filename());
    EXPECT_EQ(thread == ::getpid(), test_support::TakesSignal(thread, SIGTERM)) << thread;
    others += thread != ::getpid() ? 1 : 0;
  }
  EXPECT_GT(others, 0);
}

}  // namespace
}  // namespace engine_test
