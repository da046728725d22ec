#include "system_process.h"

#include <fmt/format.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <filesystem>
#include <system_error>

#include "zq/posix/file.h"

namespace price_stat {
namespace {

// A file about a process; empty when it is gone or does not let itself be looked at.
std::string ReadAbout(const std::string& path) {
  constexpr std::size_t kMaxLength = 16384;
  try {
    return zq::posix::ReadFile(path, kMaxLength);
  } catch (const std::system_error&) {
    return {};
  }
}

template <class Number>
bool Parse(std::string_view text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

std::vector<std::string_view> Words(std::string_view text) {
  std::vector<std::string_view> words;
  while (!text.empty()) {
    const auto end = std::min(text.find_first_of(" \n"), text.size());
    if (end > 0) {
      words.push_back(text.substr(0, end));
    }
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return words;
}

std::string AllowedCpus(std::string_view status) {
  constexpr std::string_view kField = "\nCpus_allowed_list:\t";
  const auto begin = status.find(kField);
  if (begin == std::string_view::npos) {
    return {};
  }
  const auto rest = status.substr(begin + kField.size());
  return std::string(rest.substr(0, rest.find('\n')));
}

}  // namespace

std::optional<SystemThread> ParseStat(std::string_view text) {
  // "<id> (<name>) <state> ...", where the name may hold anything. The fields behind it, by their places:
  enum : std::size_t { kState = 0, kUserTicks = 11, kSystemTicks = 12, kStart = 19, kCpu = 36 };
  const auto nameBegin = text.find(" (");
  const auto nameEnd = text.rfind(") ");
  if (nameBegin == std::string_view::npos || nameEnd == std::string_view::npos || nameEnd < nameBegin + 2) {
    return std::nullopt;
  }
  const auto words = Words(text.substr(nameEnd + 2));
  SystemThread thread;
  std::uint64_t userTicks = 0;
  std::uint64_t systemTicks = 0;
  if (words.size() <= kCpu || !Parse(text.substr(0, nameBegin), thread.id) || !Parse(words[kUserTicks], userTicks) ||
      !Parse(words[kSystemTicks], systemTicks) || !Parse(words[kStart], thread.startTicks) ||
      !Parse(words[kCpu], thread.lastCpu)) {
    return std::nullopt;
  }
  thread.name = text.substr(nameBegin + 2, nameEnd - nameBegin - 2);
  thread.state = words[kState].front();
  const auto ticksASecond = static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
  thread.cpuNanoseconds = (userTicks + systemTicks) * (1'000'000'000 / ticksASecond);
  return thread;
}

std::optional<SystemThread> FindProcess(pid_t process, std::uint64_t startTicks) {
  auto found = ParseStat(ReadAbout(fmt::format("/proc/{}/stat", process)));
  if (found && found->startTicks != startTicks) {
    return std::nullopt;
  }
  return found;
}

std::vector<SystemThread> ThreadsOf(pid_t process) {
  std::vector<SystemThread> threads;
  std::error_code error;
  std::filesystem::directory_iterator entry(fmt::format("/proc/{}/task", process), error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    if (auto thread = ParseStat(ReadAbout(entry->path() / "stat"))) {
      thread->allowedCpus = AllowedCpus(ReadAbout(entry->path() / "status"));
      threads.push_back(std::move(*thread));
    }
  }
  std::sort(threads.begin(), threads.end(), [](const auto& a, const auto& b) { return a.id < b.id; });
  return threads;
}

bool WaitsForDescriptors(pid_t process, pid_t thread) {
  constexpr std::array kWaits{
#ifdef SYS_epoll_wait
      SYS_epoll_wait,
#endif
#ifdef SYS_poll
      SYS_poll,
#endif
      SYS_epoll_pwait, SYS_ppoll};
  const auto text = ReadAbout(fmt::format("/proc/{}/task/{}/syscall", process, thread));
  const auto words = Words(text);
  long call = -1;
  return !words.empty() && Parse(words.front(), call) && std::find(kWaits.begin(), kWaits.end(), call) != kWaits.end();
}

}  // namespace price_stat
