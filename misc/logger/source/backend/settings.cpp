#include "backend/settings.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>
#include <optional>
#include <string>

#include "backend/trouble.h"
#include "zq/posix/environment.h"

namespace zq::logging {
namespace {

std::string LowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::optional<bool> ParseSwitch(const std::string& text) {
  const std::string word = LowerCase(text);
  if (word == "1" || word == "on" || word == "yes" || word == "true") {
    return true;
  }
  if (word == "0" || word == "off" || word == "no" || word == "false") {
    return false;
  }
  return std::nullopt;
}

std::optional<Console> ParseConsole(const std::string& text) {
  if (LowerCase(text) == "journal") {
    return Console::kJournal;
  }
  const auto on = ParseSwitch(text);
  return on ? std::optional(*on ? Console::kOn : Console::kOff) : std::nullopt;
}

std::optional<LineFormat> ParseFormat(const std::string& text) {
  const std::string word = LowerCase(text);
  if (word == "text") {
    return LineFormat::kText;
  }
  return word == "json" ? std::optional(LineFormat::kJson) : std::nullopt;
}

std::optional<std::uint64_t> ParseSize(const std::string& text) {
  std::uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || number == 0 || end - rest > 1) {
    return std::nullopt;
  }
  constexpr std::string_view kUnits = "KMG";
  const auto unit =
      rest == end ? 0 : kUnits.find(static_cast<char>(std::toupper(static_cast<unsigned char>(*rest)))) + 1;
  if (rest != end && unit == 0) {
    return std::nullopt;
  }
  const auto shift = 10 * unit;
  return number <= std::numeric_limits<std::uint64_t>::max() >> shift ? std::optional(number << shift) : std::nullopt;
}

std::optional<unsigned int> ParseCount(const std::string& text) {
  constexpr unsigned int kMost = 999;
  unsigned int number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && rest == end && number >= 1 && number <= kMost ? std::optional(number) : std::nullopt;
}

// The service manager tells its services which file their standard error is, when that is the journal.
bool StandardErrorIsTheJournal() {
  const std::string stream = zq::posix::Environment("JOURNAL_STREAM");
  struct stat status {};
  return !stream.empty() && ::fstat(STDERR_FILENO, &status) == 0 &&
         stream == std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino);
}

template <typename Value, typename Parse>
void TakeVariable(const char* name, Value& value, const Parse& parse, const char* theDefault, const char* choices) {
  const std::string text = zq::posix::Environment(name);
  if (text.empty()) {
    return;
  }
  if (const auto parsed = parse(text)) {
    value = *parsed;
  } else {
    ReportTrouble(std::string(name) + " is \"" + text + "\"; using " + theDefault + ". Give " + choices);
  }
}

}  // namespace

BackendOptions ReadEnvironment() {
  BackendOptions options;
  options.console = StandardErrorIsTheJournal() ? Console::kJournal : Console::kOn;
  const char* const console = options.console == Console::kJournal ? "journal" : "on";
  options.file = zq::posix::Environment("ZQLOG_FILE");
  TakeVariable("ZQLOG_LEVEL", options.minLevel, ParseLevel, "INFO",
               "DEBUG, INFO, INFO_LOCAL, INFO_SEARCH, WARNING, ERROR, ALERT, CRITICAL, WALL or a number");
  TakeVariable("ZQLOG_FORMAT", options.format, ParseFormat, "text", "text or json");
  TakeVariable("ZQLOG_CONSOLE", options.console, ParseConsole, console, "on, off or journal");
  TakeVariable("ZQLOG_SYSLOG", options.syslog, ParseSwitch, "off", "on or off");
  TakeVariable("ZQLOG_FILE_SIZE", options.fileSizeMax, ParseSize, "no limit",
               "a number of bytes other than 0, or one with K, M or G behind it");
  TakeVariable("ZQLOG_FILE_DAILY", options.fileDaily, ParseSwitch, "off", "on or off");
  TakeVariable("ZQLOG_FILE_KEEP", options.filesKept, ParseCount, "5", "a number from 1 to 999");
  return options;
}

}  // namespace zq::logging
