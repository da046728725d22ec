#include "options/process_defaults.h"

#include <filesystem>
#include <span>
#include <system_error>

#include "options/option_text.h"
#include "system/error.h"
#include "zq/posix/environment.h"
#include "zq/posix/error.h"
#include "zq/posix/file.h"

namespace engine {
namespace {

constexpr std::string_view kBlanks = " \t";

std::string ReadWhole(const std::string& fileName) {
  try {
    return zq::posix::ReadFile(fileName, kConfigFileBytesMax);
  } catch (const std::system_error& error) {
    if (error.code() == std::errc::file_too_large) {
      throw Error(LBM_EINVAL, "the configuration file " + Quoted(fileName) + " has more than " +
                                  std::to_string(kConfigFileBytesMax) + " bytes");
    }
    zq::posix::ThrowError(error.code().value(), "cannot read the configuration file " + Quoted(fileName));
  }
}

std::string_view Trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::string_view WithoutComment(std::string_view line) {
  for (std::size_t i = 0; i < line.size(); ++i) {
    if (line[i] == '#' && (i == 0 || kBlanks.find(line[i - 1]) != std::string_view::npos)) {
      return line.substr(0, i);
    }
  }
  return line;
}

// Cuts the first word off.
std::string_view TakeWord(std::string_view& text) {
  const auto word = text.substr(0, text.find_first_of(kBlanks));
  text = Trimmed(text.substr(word.size()));
  return word;
}

Scope ParseScope(std::string_view word) {
  const auto name = std::find(kScopeNames.begin(), kScopeNames.end(), word);
  if (name == kScopeNames.end()) {
    throw Error(LBM_EINVAL, "unknown scope " + Quoted(word) + "; known: " + Alternatives(kScopeNames));
  }
  return static_cast<Scope>(name - kScopeNames.begin());
}

void ApplyLine(std::string_view line, const Text& from, std::span<OptionSet> sets) {
  if (line.ends_with('\r')) {
    line.remove_suffix(1);
  }
  std::string_view rest = Trimmed(WithoutComment(line));
  if (rest.empty()) {
    return;
  }
  const Scope scope = ParseScope(TakeWord(rest));
  const auto name = TakeWord(rest);
  if (rest.empty()) {
    throw Error(LBM_EINVAL, "a line has a scope, an option and a value");
  }
  sets[static_cast<std::size_t>(scope)].SetText(name, rest, from);
}

void ApplyFile(const std::string& fileName, std::span<OptionSet> sets) {
  const std::string content = ReadWhole(fileName);
  const std::string path = std::filesystem::absolute(fileName).lexically_normal();
  std::string_view rest = content;
  for (std::size_t lineNumber = 1; !rest.empty(); ++lineNumber) {
    const auto line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    try {
      ApplyLine(line, origin::File(path, lineNumber), sets);
    } catch (const Error& error) {
      throw Error(error.Number(), fileName + ":" + std::to_string(lineNumber) + ": " + error.what());
    }
  }
}

}  // namespace

ProcessDefaults& ProcessDefaults::Instance() {
  // Never destroyed: destructors of static objects may still create contexts.
  static auto* const defaults = new ProcessDefaults(zq::posix::Environment(kConfigFileVariable));
  return *defaults;
}

OptionSet ProcessDefaults::Options(Scope scope) {
  const std::lock_guard lock(m_mutex);
  LoadInitialFile();
  return m_sets[static_cast<std::size_t>(scope)];
}

void ProcessDefaults::Load(const std::string& fileName) {
  const std::lock_guard lock(m_mutex);
  LoadInitialFile();
  Sets sets = m_sets;
  ApplyFile(fileName, sets);
  m_sets = std::move(sets);
}

void ProcessDefaults::LoadInitialFile() {
  if (m_initialFile.empty()) {
    return;
  }
  Sets sets = m_sets;
  ApplyFile(m_initialFile, sets);
  m_sets = std::move(sets);
  m_initialFile.clear();
}

}  // namespace engine
