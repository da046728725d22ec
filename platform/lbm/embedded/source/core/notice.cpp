#include "core/notice.h"

#include <cstdio>
#include <mutex>
#include <new>
#include <shared_mutex>

namespace engine {
namespace {

int WriteToStandardError(int level, const char* message, void* /*clientData*/) {
  if (level >= LBM_LOG_WARNING) {
    std::fprintf(stderr, "lbm %s: %s\n", level == LBM_LOG_WARNING ? "warning" : "error", message);
  }
  return 0;
}

// Shared while a receiver runs, so that threads with notices do not wait for each other: one of them may hold a lock of
// the application that the other one's receiver wants.
std::shared_mutex g_mutex;
lbm_log_cb_proc g_receiver = &WriteToStandardError;  // guarded by g_mutex
void* g_clientData = nullptr;                        // guarded by g_mutex

void GiveToReceiver(int level, const char* text) noexcept {
  const std::shared_lock lock(g_mutex);
  g_receiver(level, text, g_clientData);
}

}  // namespace

void Notice(int level, const std::string& text) noexcept { GiveToReceiver(level, text.c_str()); }

void Notice(int level, const char* text, const std::exception& error) noexcept {
  try {
    GiveToReceiver(level, (text + std::string(error.what())).c_str());
  } catch (const std::bad_alloc&) {
    GiveToReceiver(level, "out of memory");
  }
}

void SetNoticeReceiver(lbm_log_cb_proc receiver, void* clientData) noexcept {
  const std::unique_lock lock(g_mutex);
  g_receiver = receiver == nullptr ? &WriteToStandardError : receiver;
  g_clientData = clientData;
}

}  // namespace engine
