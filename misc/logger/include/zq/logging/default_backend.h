// The default log back end: lines to standard error and to a file, written by a thread of its own.
//
//   2026-03-02T08:30:00.123456-06:00 INFO 4711/client - 0 lbm/include/lbm/lbm_cpp:1147 Creating receiver on topic=...
//
// The fields, separated by one blank: local time with microseconds and offset; level; thread id and thread name; source
// with its parents ("-" without one); statement id; file and line; text. Control characters in a text are written as
// escapes, so a statement is always one line. Decode types and handler names make no difference.
//
// A statement waits when the queue to the writing thread is full; no line is dropped. What is queued is written before
// the process ends through exit() or main's return. Statements made after that are written by their own threads. A
// statement at ZQLOG_CRITICAL or above returns when it has been written; lower ones that are still queued are lost when
// the process is killed or aborts. A forked child has no thread that writes: it must make no statement before it execs.
//
// A log file that cannot be opened or written is reported on standard error once; the lines meant for it are lost and
// counted until it can be written again.
//
// The environment gives the settings that hold until the application makes others. It is read when the library is
// loaded; a bad value is reported on standard error, and the default is used.
//   ZQLOG_LEVEL    name of a level with or without "ZQLOG_", in any case, or a number; default INFO
//   ZQLOG_FILE     path of the log file, which is appended to; default none
//   ZQLOG_CONSOLE  1, on, yes or true, or 0, off, no or false: lines to standard error; default on
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "zq/logging/log_level.h"

namespace zq::logging {

struct BackendOptions {
  LogLevel minLevel = ZQLOG_INFO;
  std::string file;  // empty: none
  bool console = true;
};

// The settings that the environment gave, for an application to change some of them and configure the result.
const BackendOptions& BackendOptionsFromEnvironment();

// Replaces all settings. Statements made before it go where they would have gone without it. Threads: any.
void ConfigureBackend(const BackendOptions& options);

// Threads: any.
void SetMinLevel(LogLevel level);

// A level from its name or number, as in ZQLOG_LEVEL; nothing when text is neither.
std::optional<LogLevel> ParseLevel(std::string_view text);

// Returns when the caller's statements so far have been written. Threads: any.
void FlushLog();

}  // namespace zq::logging
