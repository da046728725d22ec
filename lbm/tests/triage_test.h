// What the triage handler's tests share.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "lbm_test.h"

namespace lbm {

using Variables = std::map<std::string, std::string>;

inline const Variables kNames{{"CHEF_ENVIRONMENT", "int"}, {"DATA_CENTER", "dc1"}};
inline constexpr char kEnvTopic[] = "TRIAGE.ACTION.INT.LBM";
inline constexpr char kEnvDcTopic[] = "TRIAGE.ACTION.INT.LBM.DC1";

inline Variables NamesAnd(Variables more) {
  more.insert(kNames.begin(), kNames.end());
  return more;
}

inline void SetEnvironment(const Variables& variables) {
  for (const char* name :
       {"DISABLE_LBM_TRIAGE_HANDLER", "CHEF_ENVIRONMENT", "DATA_CENTER", "TRIAGE_HANDLER_USE_EVENT_QUEUE",
        "TRIAGE_HANDLER_MAX_RETRIES", "TRIAGE_HANDLER_TIME_BETWEEN_RETRIES_MS", "LBM_TRIAGE_HANDLER_TOPIC_PREFIX"}) {
    ::unsetenv(name);
  }
  for (const auto& [name, value] : variables) {
    ::setenv(name.c_str(), value.c_str(), 1);
  }
}

[[noreturn]] inline void RunAndExit(const Variables& variables, const std::function<void()>& body) {
  SetEnvironment(variables);
  lbm_scripted::Reset();
  log_capture::Clear();
  body();
  EXPECT_THAT(lbm_scripted::Problems(), ::testing::IsEmpty());
  EXPECT_THAT(lbm_scripted::LiveHandles("msg"), ::testing::IsEmpty());
  std::fflush(nullptr);
  // The standard output of what follows is to be seen with standard error.
  std::cout.rdbuf(new MarkedPieces);  // what is printed last finds it alive
  std::exit(::testing::Test::HasFailure() ? 1 : 0);
}

// Runs body in a process of its own, since the handler reads its environment once in a process's life. The process
// then ends as programs do; what it prints from there on, each piece behind "> ", has to match lastLines.
inline void InProcessWith(const Variables& variables, const std::function<void()>& body,
                          const ::testing::Matcher<const std::string&>& lastLines = ::testing::_) {
  std::fflush(nullptr);
  EXPECT_EXIT(RunAndExit(variables, body), ::testing::ExitedWithCode(0), lastLines);
}

inline std::unique_ptr<Context> MakeContext(const std::string& name = "") {
  ContextAttributes attributes;
  attributes.SetString("context_name", name.c_str());
  return std::make_unique<Context>(attributes);
}

inline std::string Text(const void* address) {
  std::ostringstream text;
  text << address;
  return text.str();
}

inline std::string Handle(Context& context) { return Text(static_cast<lbm_context_t*>(context)); }

// "<level> <text>" of each of the handler's statements since log_capture::Clear.
inline std::vector<std::string> TriageLines() {
  std::vector<std::string> lines;
  for (const CapturedStatement& statement : log_capture::Statements()) {
    if (statement.source == "lbm_triage_handler") {
      EXPECT_EQ(statement.file, "lbm/include/lbm/lbm_cpp");
      EXPECT_EQ(statement.id, 0U);
      EXPECT_EQ(statement.decodeType, zq::logging::ZQLOG_DECODE_AS_KV);
      EXPECT_EQ(statement.handlerName, "");
      lines.push_back(std::to_string(statement.level) + ' ' + statement.text);
    }
  }
  return lines;
}

}  // namespace lbm
