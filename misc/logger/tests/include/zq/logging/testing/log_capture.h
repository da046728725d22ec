// A log back end for tests that keeps every statement. Linking price_connector::logger_capture makes it the back end of
// the program.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "zq/logging/log_level.h"

namespace zq::logging::testing {

struct CapturedStatement {
  LogLevel level;
  unsigned int id;
  DecodeType decodeType;
  std::string source;  // name of the source; empty without one
  std::string file;
  int line;
  std::string text;
  std::string handlerName;
  std::thread::id thread;
};

inline constexpr std::chrono::seconds kDefaultDeadline{20};

// All functions may be called from any thread.
namespace log_capture {

// Forgets everything and sets the minimum level back to the lowest, as at the start of the program.
void Clear();

void SetMinLevel(LogLevel level);

// The statements since the last Clear, in the order of their arrival.
std::vector<CapturedStatement> Statements();

// Their texts.
std::vector<std::string> Texts();

// The statements whose text contains part.
std::vector<CapturedStatement> Find(const std::string& part);

// Waits until a statement's text contains part. The failure tells what it was waiting for, and what came instead.
[[nodiscard]] ::testing::AssertionResult WaitForText(const std::string& part,
                                                     std::chrono::milliseconds deadline = kDefaultDeadline);

}  // namespace log_capture

}  // namespace zq::logging::testing
