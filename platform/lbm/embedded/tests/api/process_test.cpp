// The engine among what else a process does.
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "domain.h"
#include "test_support/thread_state.h"

namespace engine_test {
namespace {

class InAProcess : public EngineTest {};

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
