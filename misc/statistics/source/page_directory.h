// Files of pages.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "zq/posix/descriptor.h"

namespace zq::statistics {

inline constexpr std::string_view kPageSuffix = ".page";

// A file in the directory that has no name yet. Creates the directory with mode 0700; refuses one that others may write
// to. Throws std::system_error or std::runtime_error.
posix::Descriptor OpenUnnamedPage(const std::string& directory);

// Removes pages that no process holds from the directory, then gives the file its name there, which is returned with
// the directory. Throws std::system_error.
std::string PublishPage(const std::string& directory, int file, const std::string& program, pid_t process);

}  // namespace zq::statistics
