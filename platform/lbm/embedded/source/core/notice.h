// Notices of the engine to whoever runs it: the messages of lbm_log.
#pragma once

#include <lbm/lbm.h>

#include <exception>
#include <string>

namespace engine {

// Hands one line, without an end of line, to the process's receiver of notices. level: LBM_LOG_... Any thread. Must not
// be called with a lock of the engine held: it runs the application's function.
void Notice(int level, const std::string& text) noexcept;
// The same with the error's text behind it. Without memory for both it is told that there is none.
void Notice(int level, const char* text, const std::exception& error) noexcept;

// Null restores the default receiver, which writes warnings and errors to standard error. When it returns, the previous
// receiver is not running and will not run.
void SetNoticeReceiver(lbm_log_cb_proc receiver, void* clientData) noexcept;

}  // namespace engine
