// The default log back end: lines to standard error, to a file and to syslog, written by a thread of its own.
//
//   2026-03-02T08:30:00.123456-06:00 INFO 4711/client - 0 lbm/include/lbm/lbm_cpp:1147 Creating receiver on topic=...
//
// The fields, separated by one blank: local time with microseconds and offset; level; thread id and thread name; source
// with its parents ("-" without one); statement id; file and line; text. Control characters in a text are written as
// escapes, so a statement is always one line. As JSON, a line is one object with the members time, level, thread,
// threadName, source, id, file, line and text; bytes that are not UTF-8 become U+FFFD. The journal and syslog have
// times of their own, so lines of text for them leave theirs out. Decode types and handler names make no difference.
//
// A statement waits when the queue to the writing thread is full; no line is dropped. What is queued is written before
// the process ends through exit() or main's return. Statements made after that are written by their own threads. A
// statement at ZQLOG_CRITICAL or above returns when it has been written; lower ones that are still queued are lost when
// the process is killed or aborts. A forked child has no thread that writes: its statements go to standard error only,
// by the thread that makes them.
//
// A log file that was moved or deleted is opened anew at its path; whether it was is looked at before a line, at most
// once a second, so that up to a second's lines still go to the moved file. A rotated file is renamed to its path with
// ".1" behind it, the one that had that name to ".2", and so on. Several processes may write and rotate the same file.
//
// A log file that cannot be opened or written is reported on standard error once; the lines meant for it are lost and
// counted until it can be written again. One that cannot be rotated is reported once, and goes on growing.
//
// The environment gives the settings that hold until the application makes others. It is read when the library is
// loaded; a bad value is reported on standard error, and the default is used.
//   ZQLOG_LEVEL       name of a level with or without "ZQLOG_", in any case, or a number; default INFO
//   ZQLOG_FORMAT      text or json; default text
//   ZQLOG_CONSOLE     lines to standard error: 1, on, yes or true; 0, off, no or false; journal, with a priority such
//   as
//                     "<3>" in front, as the systemd journal reads it; default journal when the system says that
//                     standard error is the journal's, otherwise on
//   ZQLOG_SYSLOG      on or off, as above: lines to syslog; default off
//   ZQLOG_FILE        path of the log file, which is appended to; default none
//   ZQLOG_FILE_SIZE   bytes, or with K, M or G behind the number: the file is rotated before it gets larger; default
//   never ZQLOG_FILE_DAILY  on or off: the file is rotated before the first line of another local day; default off
//   ZQLOG_FILE_KEEP   how many rotated files are kept, 1 to 999; default 5
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "zq/logging/log_level.h"

#pragma GCC visibility push(default)

namespace zq::logging {

enum class LineFormat { kText, kJson };

enum class Console { kOff, kOn, kJournal };

struct BackendOptions {
  LogLevel minLevel = ZQLOG_INFO;
  LineFormat format = LineFormat::kText;
  Console console = Console::kOn;
  bool syslog = false;
  std::string file;               // empty: none
  std::uint64_t fileSizeMax = 0;  // bytes; 0: never rotated for its size
  bool fileDaily = false;
  unsigned int filesKept = 5;  // 1 at least
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

#pragma GCC visibility pop
