// Stands in for Onload: says what the test wants and remembers what was asked of it. All of a test's calls are those of
// one thread, which the test waits for.
#pragma once

#include <string>
#include <thread>
#include <vector>

namespace fake_onload {

void Reset(int isPresent);

// As in: onload_set_stackname(0, 2, name)
std::vector<std::string> Calls();

// Of the last call.
std::thread::id CallingThread();

}  // namespace fake_onload
