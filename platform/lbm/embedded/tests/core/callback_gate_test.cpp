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

}  // namespace
}  // namespace engine::core
