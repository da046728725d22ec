#include "fake_onload.h"

#include <onload/extensions.h>

#include <mutex>

namespace fake_onload {
namespace {

std::mutex g_mutex;
int g_present = 0;
std::vector<Call> g_calls;

void Record(std::string text) {
  const std::lock_guard lock(g_mutex);
  g_calls.push_back({std::move(text), std::this_thread::get_id()});
}

}  // namespace

void Reset(int isPresent) {
  const std::lock_guard lock(g_mutex);
  g_present = isPresent;
  g_calls.clear();
}

std::vector<Call> Calls() {
  const std::lock_guard lock(g_mutex);
  return g_calls;
}

}  // namespace fake_onload

using fake_onload::Record;

int onload_is_present(void) {
  Record("onload_is_present()");
  const std::lock_guard lock(fake_onload::g_mutex);
  return fake_onload::g_present;
}

int onload_thread_set_spin(int type, int spin) {
  Record("onload_thread_set_spin(" + std::to_string(type) + ", " + std::to_string(spin) + ')');
  return -1;  // the caller is not to care
}

int onload_set_stackname(int who, int scope, const char* name) {
  Record("onload_set_stackname(" + std::to_string(who) + ", " + std::to_string(scope) + ", " + name + ')');
  return -1;
}
