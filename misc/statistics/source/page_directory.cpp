#include "page_directory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "zq/posix/environment.h"
#include "zq/posix/error.h"
#include "zq/statistics/snapshot.h"

namespace zq::statistics {

namespace {

constexpr int kNamesTried = 100;

bool IsHeld(int file) { return ::flock(file, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK; }

}  // namespace

std::string PageDirectory() {
  if (std::string own = posix::Environment("ZQ_STATISTICS_DIR"); !own.empty()) {
    return own == "off" ? "" : own;
  }
  if (const std::string session = posix::Environment("XDG_RUNTIME_DIR"); !session.empty()) {
    return session + "/price_connector";
  }
  return "/dev/shm/price_connector-" + std::to_string(::geteuid());
}

posix::Descriptor OpenUnnamedPage(const std::string& directory) {
  if (::mkdir(directory.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
    posix::ThrowErrno("creating the directory " + directory);
  }
  struct stat status {};
  // A link is not followed: somebody else may have put it there.
  if (::lstat(directory.c_str(), &status) != 0) {
    posix::ThrowErrno("examining the directory " + directory);
  }
  if (!S_ISDIR(status.st_mode) || status.st_uid != ::geteuid() || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    throw std::runtime_error(directory +
                             " must be a directory that belongs to the process's user and that no others may write to; "
                             "correct it, or set ZQ_STATISTICS_DIR to another one or to \"off\"");
  }
  return posix::Checked(::open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR),
                        ("making a page in " + directory).c_str());
}

std::string PublishPage(const std::string& directory, int file, const std::string& program, pid_t process) {
  for (const PageFile& page : ListPages(directory)) {
    if (!page.alive) {
      ::unlink(page.path.c_str());
    }
  }
  const std::string self = "/proc/self/fd/" + std::to_string(file);
  const std::string name = directory + '/' + program + '.' + std::to_string(process);
  // A process of this number may live in another process namespace.
  for (int attempt = 0; attempt < kNamesTried; ++attempt) {
    std::string path = name + (attempt == 0 ? "" : '-' + std::to_string(attempt)) + std::string(kPageSuffix);
    if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0) {
      return path;
    }
    if (errno != EEXIST) {
      break;
    }
  }
  posix::ThrowErrno("naming the page " + name + std::string(kPageSuffix));
}

std::vector<PageFile> ListPages(const std::string& directory) {
  std::vector<PageFile> pages;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string path = entry->path();
    if (entry->path().extension() != kPageSuffix) {
      continue;
    }
    const posix::Descriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (file && ::fstat(file.Get(), &status) == 0 && S_ISREG(status.st_mode)) {
      pages.push_back({.path = path, .alive = IsHeld(file.Get())});
    } else if (!file && errno == EACCES) {
      pages.push_back({.path = path, .alive = true});  // another user's: reading it says so
    }
  }
  if (error && error != std::errc::no_such_file_or_directory) {
    throw std::system_error(error, "reading the directory " + directory);
  }
  std::sort(pages.begin(), pages.end(), [](const auto& a, const auto& b) { return a.path < b.path; });
  return pages;
}

}  // namespace zq::statistics
