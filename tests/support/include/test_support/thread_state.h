// What the threads of a test are doing.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <fstream>
#include <string>

namespace test_support {

// Whether a thread of this process waits for something in the kernel, such as a lock; false when there is none of that
// id.
inline bool IsAsleep(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string number;
  std::string name;
  char state = '\0';
  file >> number >> name >> state;
  return state == 'S';
}

// Whether a signal that is meant for the process may be handled by a thread of it.
inline bool TakesSignal(pid_t thread, int signal) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/status");
  std::string word;
  std::uint64_t blocked = 0;
  while (file >> word) {
    if (word == "SigBlk:") {
      file >> std::hex >> blocked;
    }
  }
  return (blocked >> (signal - 1) & 1U) == 0;
}

}  // namespace test_support
