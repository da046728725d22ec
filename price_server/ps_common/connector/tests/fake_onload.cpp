#include "fake_onload.h"

#include <onload/extensions.h>

namespace fake_onload {
namespace {

int g_present = 0;
std::vector<std::string> g_calls;
std::thread::id g_callingThread;

int Record(std::string text, int result) {
  g_calls.push_back(std::move(text));
  g_callingThread = std::this_thread::get_id();
  return result;
}

}  // namespace

void Reset(int isPresent) {
  g_present = isPresent;
  g_calls.clear();
}

std::vector<std::string> Calls() { return g_calls; }

std::thread::id CallingThread() { return g_callingThread; }

}  // namespace fake_onload

using fake_onload::Record;

int onload_is_present(void) { return Record("onload_is_present()", fake_onload::g_present); }

// Their callers are not to care for the results of these.
int onload_thread_set_spin(int type, int spin) {
  return Record("onload_thread_set_spin(" + std::to_string(type) + ", " + std::to_string(spin) + ')', -1);
}

int onload_set_stackname(int who, int scope, const char* name) {
  return Record("onload_set_stackname(" + std::to_string(who) + ", " + std::to_string(scope) + ", " + name + ')', -1);
}
