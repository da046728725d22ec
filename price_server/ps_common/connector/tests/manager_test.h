// What the tests of the client's manager share.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <lbm_scripted/lbm_scripted.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "fake_onload.h"
#include "ps_common/config/config.h"
#include "ps_common/connector/lbm_client_resource_mgr.h"
#include "zq/logging/testing/log_capture.h"

namespace ps_ns {

using zq::logging::LogLevel;
namespace log_capture = zq::logging::testing::log_capture;

inline constexpr const char* kManagerSource = "price_server/ps_common/connector/source/lbm_client_resource_mgr.cpp";

// A statement of the manager, as a value to compare.
struct Statement {
  LogLevel level;
  unsigned int id;
  std::string text;

  friend bool operator==(const Statement& left, const Statement& right) {
    return left.level == right.level && left.id == right.id && left.text == right.text;
  }
  friend std::ostream& operator<<(std::ostream& out, const Statement& statement) {
    return out << statement.level << '/' << statement.id << ' ' << statement.text;
  }
};

// What the manager logged since the start of the test.
inline std::vector<Statement> ManagerStatements() {
  std::vector<Statement> statements;
  for (const auto& captured : log_capture::Statements()) {
    if (captured.file != kManagerSource) {
      continue;
    }
    EXPECT_EQ(captured.decodeType, zq::logging::ZQLOG_DECODE_AS_KV);
    EXPECT_GT(captured.line, 0);
    statements.push_back({captured.level, captured.id, captured.text});
  }
  return statements;
}

// The calls of the messaging interface that the calling thread has made, from the given position on.
inline std::vector<lbm_scripted::Call> OwnCalls(std::size_t from = 0) {
  std::vector<lbm_scripted::Call> own;
  for (auto& call : lbm_scripted::Calls()) {
    if (call.thread == std::this_thread::get_id()) {
      own.push_back(std::move(call));
    }
  }
  own.erase(own.begin(), own.begin() + static_cast<std::ptrdiff_t>(from));
  return own;
}

inline std::vector<std::string> Functions(const std::vector<lbm_scripted::Call>& calls) {
  std::vector<std::string> functions;
  for (const auto& call : calls) {
    functions.push_back(call.function);
  }
  return functions;
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
    fake_onload::Reset(0);
  }

  ~ManagerTest() override {
    if (m_manager) {
      m_manager->Shutdown();
    }
    m_manager.reset();
    EXPECT_THAT(lbm_scripted::Problems(), testing::IsEmpty());
    EXPECT_THAT(lbm_scripted::LiveHandles(), testing::IsEmpty());
  }

  // Returns when the dispatch thread is processing events.
  LbmClientResourceMgr& Start(const Settings& settings = {}) {
    m_manager = std::make_unique<LbmClientResourceMgr>(Config::Parse("<PSConfig>" + settings.config + "</PSConfig>"),
                                                       settings.contextName, settings.shouldOnload, settings.affinity,
                                                       settings.timeoutMs, settings.task, settings.maxTasks);
    WaitForRounds(1);
    return *m_manager;
  }

  // Waits until the dispatch thread has begun its count-th round.
  static void WaitForRounds(std::size_t count) {
    ASSERT_TRUE(lbm_scripted::WaitForCalls("lbm_context_process_events", count)) << "waited for round " << count;
  }

  // Lets the next rounds find nothing to do and return at once; the round after them waits.
  static void ScriptEmptyRounds(int count) { lbm_scripted::Script("lbm_context_process_events", {}, count); }

  std::unique_ptr<LbmClientResourceMgr> m_manager;
};

}  // namespace ps_ns
