// The defaults of the process: those of the table, changed by configuration files.
//
// A configuration file has one "scope option value" a line; the value goes to the end of the line. '#' at the start of
// a line or after a blank starts a comment. When an option stands there twice, the later line holds.
#pragma once

#include <array>
#include <cstddef>
#include <mutex>
#include <string>

#include "options/option_set.h"

namespace engine {

inline constexpr const char* kConfigFileVariable = "LBM_CONFIG_FILE";
inline constexpr std::size_t kConfigFileBytesMax = 1 << 20;

// Threads: any.
class ProcessDefaults {
 public:
  // initialFile: read at first use; a wrong one fails every use until it is right. Empty: none.
  explicit ProcessDefaults(std::string initialFile) : m_initialFile(std::move(initialFile)) {}

  // Those of this process; its initial file is the one that LBM_CONFIG_FILE names at the first call.
  static ProcessDefaults& Instance();

  OptionSet Options(Scope scope);

  // Changes the defaults as the file says; changes nothing when it is wrong. A wrong line is an Error whose text begins
  // with file and line, a file that cannot be read a std::system_error.
  void Load(const std::string& fileName);

 private:
  using Sets = std::array<OptionSet, kScopeNames.size()>;  // in the order of Scope

  void LoadInitialFile();  // with m_mutex held

  std::mutex m_mutex;
  std::string m_initialFile;  // guarded by m_mutex; empty once it is read
  Sets m_sets{OptionSet::BuiltInDefaults(Scope::kContext), OptionSet::BuiltInDefaults(Scope::kEventQueue),
              OptionSet::BuiltInDefaults(Scope::kReceiver),
              OptionSet::BuiltInDefaults(Scope::kSource)};  // guarded by m_mutex
};

}  // namespace engine
