// What the threads of a test are doing.
#pragma once

#include <sys/types.h>

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

}  // namespace test_support
