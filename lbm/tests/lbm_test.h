// What the tests of the layer share: each starts with a clean provider and log, and ends with nothing leaked or
// misused.
#pragma once

#include <gmock/gmock.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

#include "lbm/lbm_cpp"
#include "lbm_scripted/lbm_scripted.h"
#include "zq/logging/testing/log_capture.h"

namespace lbm {

namespace log_capture = zq::logging::testing::log_capture;
using lbm_scripted::CallsTo;
using lbm_scripted::Deliver;
using lbm_scripted::Failure;
using lbm_scripted::LiveHandles;
using lbm_scripted::Script;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// In the place of std::cout's buffer: each piece that it is given goes to standard error, with a mark in front, once it
// is flushed.
class MarkedPieces : public std::streambuf {
 protected:
  std::streamsize xsputn(const char* text, std::streamsize size) override {
    m_pieces.append("> ").append(text, static_cast<std::size_t>(size));
    return size;
  }
  int overflow(int c) override {
    const auto piece = static_cast<char>(c);
    return static_cast<int>(xsputn(&piece, 1));
  }
  int sync() override {
    std::fputs(std::exchange(m_pieces, {}).c_str(), stderr);
    return 0;
  }

 private:
  std::string m_pieces;
};

class LbmTest : public ::testing::Test {
 protected:
  LbmTest() {
    // Made here, so that its lines are not among those of a test's first context.
    ::setenv("DISABLE_LBM_TRIAGE_HANDLER", "1", 1);
    LbmTriageHandler::getInstance();
    lbm_scripted::Reset();
    log_capture::Clear();
  }

  void TearDown() override {
    m_context.reset();
    EXPECT_THAT(LiveHandles(), IsEmpty());
    EXPECT_THAT(lbm_scripted::Problems(), IsEmpty());
  }

  // Made on first use; what its creation logged is forgotten.
  Context& Ctx() {
    if (!m_context) {
      log_capture::SetMinLevel(zq::logging::ZQLOG_WALL);
      m_context = std::make_unique<Context>(ContextAttributes());
      log_capture::SetMinLevel(zq::logging::ZQLOG_DEBUG);
    }
    return *m_context;
  }

  ReceiverTopic TopicToReceive() { return {Ctx(), "PRICES", ReceiverTopicAttributes()}; }
  SourceTopic TopicToSend() { return {Ctx(), "PRICES", SourceTopicAttributes()}; }

 private:
  std::unique_ptr<Context> m_context;
};

constexpr char kTriage[] = "lbm_triage_handler";

// The statements of a source since log_capture::Clear: "<level> <text>", and "<level> <line> <text>" for the layer's
// own, which have none.
inline std::vector<std::string> Lines(const std::string& source = {}) {
  std::vector<std::string> lines;
  for (const auto& statement : log_capture::Statements()) {
    if (statement.source == source) {
      EXPECT_EQ(statement.file, "lbm/include/lbm/lbm_cpp");
      EXPECT_EQ(statement.id, 0U);
      EXPECT_EQ(statement.decodeType, zq::logging::ZQLOG_DECODE_AS_KV);
      EXPECT_EQ(statement.handlerName, "");
      const std::string line = source.empty() ? std::to_string(statement.line) + ' ' : "";
      lines.push_back(std::to_string(statement.level) + ' ' + line + statement.text);
    }
  }
  return lines;
}

inline std::string Handle(Context& context) {
  std::ostringstream text;
  text << static_cast<lbm_context_t*>(context);
  return text.str();
}

// what() of the LbmError that action throws.
template <class Action>
std::string ErrorOf(Action action) {
  try {
    action();
  } catch (const LbmError& error) {
    return error.what();
  }
  return "nothing was thrown";
}

// The same when the next call of a function of the library fails, for the reason "no".
template <class Action>
std::string FailureOf(const std::string& function, Action action) {
  Script(function, Failure(LBM_EINVAL, "no"));
  return ErrorOf(action);
}

}  // namespace lbm
