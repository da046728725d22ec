#include "core/callback_gate.h"

#include <gtest/gtest.h>

#include <thread>

namespace engine::core {
namespace {

// The callback of the inner gate is inside the callback of the outer one.
TEST(CallbackGate, ACallbackIsAwaitedOnceSomebodyWaitsForItAtAnyGate) {
  for (const bool inner : {true, false}) {
    CallbackGate outerGate;
    CallbackGate innerGate;
    Callee outer;
    Callee callee;
    std::thread deleting;
    const CallbackGate::Scope outerScope(outerGate);
    outerGate.Call(outer, [&] {
      const CallbackGate::Scope innerScope(innerGate);
      innerGate.Call(callee, [&] {
        innerGate.CloseAndWait(callee);  // which nobody waits for
        callee.Close();
        EXPECT_FALSE(CallbackGate::CallbackAwaited());
        deleting = std::thread([&] { inner ? innerGate.CloseAndWait(callee) : outerGate.CloseAndWait(outer); });
        while (!CallbackGate::CallbackAwaited()) {
          std::this_thread::yield();
        }
      });
    });
    EXPECT_FALSE(CallbackGate::CallbackAwaited()) << "outside of callbacks";
    deleting.join();
  }
}

}  // namespace
}  // namespace engine::core
