// The processes behind contexts.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace triage {

struct ProcessInfo {
  std::string context;  // as the messaging library names it; empty when it does not
  pid_t number = 0;     // 0: the context's name does not say it
  std::string program;  // as the system names it; empty when it is not known
};

// What can be known of the process at this moment.
ProcessInfo ProcessOf(const std::string& context);

// The process is stopped, by a debugger for example, and serves nothing until it is continued.
bool IsStopped(const ProcessInfo& process);

// All contexts of other processes that have joined in the directory of a domain; none when it cannot be read.
std::vector<ProcessInfo> ContextsIn(const std::string& directory);

}  // namespace triage
