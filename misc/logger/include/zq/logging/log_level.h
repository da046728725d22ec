// Levels and decode types of log statements, and the process-wide gate.
#pragma once

#pragma GCC visibility push(default)

namespace zq::logging {

// A statement is emitted when its level is at least the minimum level.
enum LogLevel : int {
  ZQLOG_DEBUG = 0,
  ZQLOG_INFO = 10,
  ZQLOG_INFO_LOCAL = 14,
  ZQLOG_INFO_SEARCH = 17,
  ZQLOG_WARNING = 20,
  ZQLOG_ERROR = 30,
  ZQLOG_ALERT = 35,
  ZQLOG_CRITICAL = 40,
  ZQLOG_WALL = 100,
};

// How the back end is to decode a statement's text.
enum DecodeType : int {
  ZQLOG_DECODE_AS_NONE = 0,
  ZQLOG_DECODE_AS_KV = 1,
  ZQLOG_DECODE_AS_JSON = 2,
  ZQLOG_DECODE_AS_MIXED = 3,
  ZQLOG_DECODE_AS_PB = 4,
};

// The minimum level of the process. Defined and set by the log back end; it may change at any time, so read it through
// IsEnabled.
extern int g_minLogLevel;

// Threads: any. One relaxed load and one comparison.
inline bool IsEnabled(LogLevel level) noexcept { return __atomic_load_n(&g_minLogLevel, __ATOMIC_RELAXED) <= level; }

}  // namespace zq::logging

#pragma GCC visibility pop
