// What the tests of the layer share: each starts with a clean provider and log, and ends with nothing leaked or
// misused.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <streambuf>
#include <string>

#include "lbm/lbm_cpp"
#include "lbm_scripted/lbm_scripted.h"
#include "zq/logging/testing/log_capture.h"

namespace lbm {

namespace log_capture = zq::logging::testing::log_capture;
using zq::logging::testing::CapturedStatement;

// In the place of std::cout's buffer: writes each piece that it is given to standard error, with a mark in front.
class MarkedPieces : public std::streambuf {
 protected:
  std::streamsize xsputn(const char* text, std::streamsize size) override {
    std::fprintf(stderr, "> %.*s", static_cast<int>(size), text);
    return size;
  }
  int overflow(int c) override {
    std::fprintf(stderr, "> %c", c);
    return c;
  }
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
    EXPECT_THAT(lbm_scripted::LiveHandles(), ::testing::IsEmpty());
    EXPECT_THAT(lbm_scripted::Problems(), ::testing::IsEmpty());
  }

  // Made on first use; what its creation logged and called is forgotten.
  Context& Ctx() {
    if (!m_context) {
      log_capture::SetMinLevel(zq::logging::ZQLOG_WALL);
      m_context = std::make_unique<Context>(ContextAttributes());
      log_capture::SetMinLevel(zq::logging::ZQLOG_DEBUG);
    }
    return *m_context;
  }

  ReceiverTopic TopicToReceive(const std::string& name = "PRICES") { return {Ctx(), name, ReceiverTopicAttributes()}; }
  SourceTopic TopicToSend(const std::string& name = "PRICES") { return {Ctx(), name, SourceTopicAttributes()}; }

 private:
  std::unique_ptr<Context> m_context;
};

// A statement of the layer, every field of it.
inline auto Statement(zq::logging::LogLevel level, int line, const std::string& text) {
  using S = CapturedStatement;
  using ::testing::Field;
  return ::testing::AllOf(Field("level", &S::level, level), Field("line", &S::line, line),
                          Field("text", &S::text, text), Field("id", &S::id, 0U),
                          Field("decodeType", &S::decodeType, zq::logging::ZQLOG_DECODE_AS_KV),
                          Field("source", &S::source, ""), Field("file", &S::file, "lbm/include/lbm/lbm_cpp"),
                          Field("handlerName", &S::handlerName, ""));
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

}  // namespace lbm
