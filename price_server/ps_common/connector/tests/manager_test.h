// What the tests of the client's manager share.
#pragma once

#include <gmock/gmock.h>
#include <lbm_scripted/lbm_scripted.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ps_common/config/config.h"
#include "ps_common/connector/lbm_client_resource_mgr.h"
#include "zq/logging/testing/log_capture.h"

namespace ps_ns {

namespace log_capture = zq::logging::testing::log_capture;
using lbm_scripted::Failure;
using lbm_scripted::LiveHandles;
using lbm_scripted::Script;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// What the manager has logged since log_capture::Clear: "<level> <id> <text>".
inline std::vector<std::string> Lines() {
  std::vector<std::string> lines;
  for (const auto& statement : log_capture::Statements()) {
    if (statement.file == "price_server/ps_common/connector/source/lbm_client_resource_mgr.cpp") {
      EXPECT_EQ(statement.decodeType, zq::logging::ZQLOG_DECODE_AS_KV);
      lines.push_back(std::to_string(statement.level) + ' ' + std::to_string(statement.id) + ' ' + statement.text);
    }
  }
  return lines;
}

// The calls of the messaging interface that the calling thread makes in action.
template <typename Action>
std::vector<lbm_scripted::Call> CallsOf(const Action& action) {
  const auto own = [] {
    auto calls = lbm_scripted::Calls();
    std::erase_if(calls, [](const auto& call) { return call.thread != std::this_thread::get_id(); });
    return calls;
  };
  const std::size_t before = own().size();
  action();
  auto calls = own();
  calls.erase(calls.begin(), calls.begin() + static_cast<std::ptrdiff_t>(before));
  return calls;
}

inline std::vector<std::string> Functions(const std::vector<lbm_scripted::Call>& calls) {
  std::vector<std::string> functions;
  functions.reserve(calls.size());
  for (const auto& call : calls) {
    functions.push_back(call.function);
  }
  return functions;
}

// what() of the LbmError of action when a function of the library fails, for the reason "no", after some successes.
template <typename Action>
std::string FailureOf(const char* function, const Action& action, int successes = 0) {
  if (successes > 0) {
    Script(function, {}, successes);
  }
  Script(function, Failure(LBM_EINVAL, "no"));
  try {
    action();
  } catch (const lbm::LbmError& error) {
    return error.what();
  }
  return "nothing was thrown";
}

// Constructor arguments with the values that most tests use.
struct Settings {
  std::string config = "<General/>";  // what stands in the root element
  std::string contextName = "a_client";
  bool shouldOnload = false;
  int affinity = -1;
  // So long that only an unblock in time lets a test end.
  unsigned int timeoutMs = 3'600'000;
  std::function<bool()> task = {};
  unsigned int maxTasks = 0;
};

class ManagerTest : public testing::Test {
 protected:
  ManagerTest() {
    lbm_scripted::Reset();
    log_capture::Clear();
  }

  ~ManagerTest() override { End(); }

  // Returns when the dispatch thread is processing events.
  LbmClientResourceMgr& Start(const Settings& settings = {}) {
    m_manager = std::make_unique<LbmClientResourceMgr>(Config::Parse("<PSConfig>" + settings.config + "</PSConfig>"),
                                                       settings.contextName, settings.shouldOnload, settings.affinity,
                                                       settings.timeoutMs, settings.task, settings.maxTasks);
    WaitForRounds(1);
    return *m_manager;
  }

  // The manager's, and with it that of everything that was made; another one may be started then.
  void End() {
    if (m_manager) {
      m_manager->Shutdown();
    }
    m_manager.reset();
    EXPECT_THAT(lbm_scripted::Problems(), IsEmpty());
    EXPECT_THAT(LiveHandles(), IsEmpty());
    lbm_scripted::Reset();
  }

  // Waits until the dispatch thread has begun its count-th round.
  static void WaitForRounds(std::size_t count) {
    ASSERT_TRUE(lbm_scripted::WaitForCalls("lbm_context_process_events", count)) << "waited for round " << count;
  }

  std::unique_ptr<LbmClientResourceMgr> m_manager;
};

}  // namespace ps_ns
