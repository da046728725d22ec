// The directories in which contexts meet.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "zq/posix/descriptor.h"

namespace engine::transport::host {

// Where the domains are: LBM_RUNTIME_DIR, else $XDG_RUNTIME_DIR/lbm, else /tmp/lbm-<uid>.
std::string RuntimeDirectory();
// The environment variable that says so; empty when none does.
std::string_view RuntimeDirectoryVariable();

// Opens a domain's directory below the runtime directory, and creates what is missing with mode 0700. Refuses what
// others might tamper with. Throws std::invalid_argument for a domain that is no file name, std::runtime_error or
// std::system_error otherwise; the text names the path and the remedy.
zq::posix::Descriptor OpenDomain(const std::string& runtimeDirectory, const std::string& domain);

// A number for a domain's directory as whoever meets there sees it, on this machine since it was started; never 0.
std::uint64_t PlaceOf(const std::string& runtimeDirectory, const std::string& domain);

// Throw for something in the way of meeting other contexts in that directory. RefuseErrno: action failed, for the
// reason in errno.
[[noreturn]] void Refuse(const std::string& path, const std::string& fault);
[[noreturn]] void RefuseErrno(const std::string& path, const std::string& action);

}  // namespace engine::transport::host
