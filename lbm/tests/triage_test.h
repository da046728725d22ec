// What the triage handler's tests share.
#pragma once

#include <functional>
#include <iostream>
#include <map>

#include "lbm_test.h"
#include "zq/messaging/triage.pb.h"
#include "zq/messaging/triage_requests.h"
#include "zq/messaging/wire.pb.h"

namespace lbm {

namespace triage = zq::messaging::triage;
using Variables = std::map<std::string, std::string>;

inline const Variables kNames{{"CHEF_ENVIRONMENT", "int"}, {"DATA_CENTER", "dc1"}};
inline constexpr char kEnvTopic[] = "TRIAGE.ACTION.INT.LBM";
inline constexpr char kEnvDcTopic[] = "TRIAGE.ACTION.INT.LBM.DC1";

inline Variables NamesAnd(Variables more) {
  more.insert(kNames.begin(), kNames.end());
  return more;
}

[[noreturn]] inline void RunAndExit(const Variables& variables, const std::function<void()>& body) {
  ::clearenv();
  for (const auto& [name, value] : variables) {
    ::setenv(name.c_str(), value.c_str(), 1);
  }
  lbm_scripted::Reset();
  log_capture::Clear();
  body();
  EXPECT_THAT(lbm_scripted::Problems(), IsEmpty());
  EXPECT_THAT(LiveHandles("msg"), IsEmpty());
  std::fflush(nullptr);
  // What is printed until static objects are gone is to be seen, and finds this alive.
  std::cout.rdbuf(new MarkedPieces);
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

inline void DeliverRequest(const std::string& data, const char* topic = kEnvTopic) {
  Deliver(lbm_scripted::FindReceiver(topic), {data, LBM_MSG_REQUEST, 0, 7, "TOOL"});
}

// On how many contexts a request for a group switches NAKs, counting a context once for each of its registrations.
inline std::size_t Switched(int group, bool enable) {
  log_capture::Clear();
  DeliverRequest(triage::NakKillRequest(static_cast<triage::LBMContext>(group), enable, "id"));
  return log_capture::Find(enable ? "Failed to enable NAKs" : "Failed to disable NAKs").size();
}

}  // namespace lbm
