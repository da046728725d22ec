// Stands in for Onload: says what the test wants and remembers what was asked of it.
#pragma once

#include <string>
#include <thread>
#include <vector>

namespace fake_onload {

struct Call {
  std::string text;  // as in: onload_set_stackname(0, 2, name)
  std::thread::id thread;
};

void Reset(int isPresent);

std::vector<Call> Calls();

}  // namespace fake_onload
