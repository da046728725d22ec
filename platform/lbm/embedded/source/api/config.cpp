#include <lbm/lbm.h>

#include "api/arguments.h"
#include "api/errors.h"
#include "core/notice.h"
#include "options/process_defaults.h"

using engine::api::Guarded;
using engine::api::Required;

#define LBM_TEXT_OF(number) #number
#define LBM_VERSION_TEXT(major, minor, sp) LBM_TEXT_OF(major) "." LBM_TEXT_OF(minor) "." LBM_TEXT_OF(sp)

const char* lbm_version() {
  return "LBM embedded engine " LBM_VERSION_TEXT(LBM_VERS_MAJOR, LBM_VERS_MINOR, LBM_VERS_SP);
}

int lbm_config(const char* fileName) {
  return Guarded(__func__, [fileName] {
    engine::ProcessDefaults::Instance().Load(&Required(fileName, "file_name"));
    return 0;
  });
}

int lbm_log(lbm_log_cb_proc proc, void* clientd) {
  return Guarded(__func__, [&] {
    engine::SetNoticeReceiver(proc, clientd);
    return 0;
  });
}
