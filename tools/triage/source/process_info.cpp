#include "process_info.h"

#include <fmt/format.h>
#include <unistd.h>

#include <charconv>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>

#include "zq/posix/file.h"

namespace triage {
namespace {

// The embedded engine names a context "host:<process>.<instance>", and its socket in the domain's directory
// "<process>-<instance>.socket".
constexpr std::string_view kContextPrefix = "host:";
constexpr std::string_view kSocketSuffix = ".socket";

struct NumberAndInstance {
  pid_t number = 0;
  std::string_view instance;
};

std::optional<NumberAndInstance> Split(std::string_view text, char separator) {
  NumberAndInstance parts;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parts.number);
  if (error != std::errc() || parts.number <= 0 || end == text.data() + text.size() || *end != separator) {
    return std::nullopt;
  }
  parts.instance = text.substr(static_cast<std::size_t>(end + 1 - text.data()));
  return parts;
}

// A file of what the system says of a process; empty when the process is gone.
std::string ReadAbout(pid_t number, const char* file) {
  constexpr std::size_t kMaxLength = 4096;
  try {
    return zq::posix::ReadFile(fmt::format("/proc/{}/{}", number, file), kMaxLength);
  } catch (const std::system_error&) {
    return {};
  }
}

}  // namespace

ProcessInfo ProcessOf(const std::string& context) {
  ProcessInfo process{.context = context};
  if (context.starts_with(kContextPrefix)) {
    if (const auto parts = Split(std::string_view(context).substr(kContextPrefix.size()), '.')) {
      process.number = parts->number;
      process.program = ReadAbout(process.number, "comm");
      process.program.resize(std::min(process.program.find('\n'), process.program.size()));
    }
  }
  return process;
}

bool IsStopped(const ProcessInfo& process) {
  if (process.number == 0) {
    return false;
  }
  // "<number> (<program>) <state> ...", where the program's name may hold anything.
  const auto text = ReadAbout(process.number, "stat");
  const auto state = text.rfind(')') + 2;
  return text.size() > state && (text[state] == 'T' || text[state] == 't');
}

std::vector<ProcessInfo> ContextsIn(const std::string& directory) {
  std::vector<ProcessInfo> contexts;
  std::error_code error;
  std::filesystem::directory_iterator entry(directory, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    const auto name = entry->path().filename().string();
    const auto parts = Split(name, '-');
    if (!parts || !parts->instance.ends_with(kSocketSuffix) || parts->number == ::getpid()) {
      continue;
    }
    const auto instance = parts->instance.substr(0, parts->instance.size() - kSocketSuffix.size());
    auto process = ProcessOf(fmt::format("{}{}.{}", kContextPrefix, parts->number, instance));
    // A process that is gone may have left its socket behind.
    if (!process.program.empty()) {
      contexts.push_back(std::move(process));
    }
  }
  return contexts;
}

}  // namespace triage
