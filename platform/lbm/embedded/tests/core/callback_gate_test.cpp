#include "core/callback_gate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace engine::core {
namespace {

// Every callee is closed at some moment while callbacks of it are called without pause: none may begin afterwards.
TEST(CallbackGate, NoCallbackRunsOnceTheCalleeIsClosed) {
  constexpr int kRounds = 2000;
  struct Counted : Callee {
    std::atomic<bool> gone{false};
  };
  CallbackGate gate;
  std::vector<std::unique_ptr<Counted>> callees;
  callees.reserve(kRounds);
  for (int i = 0; i < kRounds; ++i) {
    callees.push_back(std::make_unique<Counted>());
  }
  std::atomic<int> current{0};
  std::atomic<bool> violated{false};
  std::thread dispatcher([&] {
    const CallbackGate::Scope scope(gate);
    for (int round = 0; round < kRounds; round = current) {
      Counted& callee = *callees[static_cast<std::size_t>(round)];
      gate.Call(callee, [&] {
        if (callee.gone) {
          violated = true;
        }
      });
    }
  });
  for (auto& callee : callees) {
    gate.CloseAndWait(*callee);
    callee->gone = true;
    ++current;
  }
  dispatcher.join();
  EXPECT_FALSE(violated);
}

TEST(CallbackGate, ClosesInsideTheCalleesOwnCallbackWithoutWaiting) {
  CallbackGate gate;
  const CallbackGate::Scope scope(gate);
  Callee callee;
  int calls = 0;
  for (int i = 0; i < 2; ++i) {
    gate.Call(callee, [&] {
      ++calls;
      gate.CloseAndWait(callee);
    });
  }
  EXPECT_EQ(1, calls);
}

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
