// The argument about memory order at CallbackGate, tried in every execution that a machine with late stores allows.
#include <gtest/gtest.h>

#include <optional>

#include "core/callback_gate.h"
#include "machine.h"

namespace engine::core {
namespace {

TEST(CallbackGateOrder, NobodyThinksTheCalleeDoneWhileItsCallbackRunsNorWaitsForEver) {
  std::optional<CallbackGate> gate;
  std::optional<Callee> callee;
  std::optional<Atomic<bool>> gone;
  bool calledWhenGone = false;
  const std::size_t executions = model::TryAllExecutions({
      .prepare =
          [&] {
            gate.emplace();
            callee.emplace();
            gone.emplace(false);
          },
      .threads = {[&] {
                    const CallbackGate::Scope scope(*gate);
                    gate->Call(*callee, [&] { calledWhenGone = calledWhenGone || gone->load(); });
                  },
                  [&] {
                    gate->CloseAndWait(*callee);
                    gone->store(true);
                  }},
      .verify = [&] { EXPECT_FALSE(calledWhenGone); },
  });
  EXPECT_GT(executions, 2U);
}

}  // namespace
}  // namespace engine::core
