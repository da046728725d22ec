#include "transport/host/link/runtime_directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <stdexcept>

#include "transport/hash.h"
#include "zq/posix/environment.h"
#include "zq/posix/error.h"
#include "zq/posix/file.h"

namespace engine::transport::host {

namespace {

constexpr const char* kOwnVariable = "LBM_RUNTIME_DIR";
constexpr const char* kSessionVariable = "XDG_RUNTIME_DIR";

const std::string kRemedy = "or set LBM_RUNTIME_DIR to another directory";

const char* AdviceFor(int error) {
  switch (error) {
    case ENOSPC:
    case EDQUOT:
      return "free space on its file system ";
    case EACCES:
    case EPERM:
    case EROFS:
      return "make it writable for this user ";
    case ENOENT:
    case ENOTDIR:
      return "create the directories above it ";
    case ENAMETOOLONG:
      return "shorten it ";
    case EMFILE:
    case ENFILE:
      return "raise the limit of open files (ulimit -n) ";
    default:
      return "correct this ";
  }
}

zq::posix::Descriptor OpenOwnDirectory(int parent, const std::string& name, const std::string& path) {
  if (::mkdirat(parent, name.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
    RefuseErrno(path, "creating the directory");
  }
  // A link is never followed: somebody else may have put it there.
  zq::posix::Descriptor directory(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory) {
    if (errno == ENOTDIR || errno == ELOOP) {
      Refuse(path, "it is a symbolic link or not a directory; remove it " + kRemedy);
    }
    RefuseErrno(path, "opening the directory");
  }
  struct stat status {};
  if (::fstat(directory.Get(), &status) != 0) {
    RefuseErrno(path, "examining the directory");
  }
  if (status.st_uid != ::geteuid()) {
    Refuse(path, "it belongs to user " + std::to_string(status.st_uid) + " and this process runs as user " +
                     std::to_string(::geteuid()) + "; remove it " + kRemedy);
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    Refuse(path, "other users may write to it; take that right away (chmod go-w) " + kRemedy);
  }
  return directory;
}

void CheckDomain(const std::string& domain) {
  if (domain.empty() || domain == "." || domain == ".." || domain.size() > NAME_MAX ||
      domain.find('/') != std::string::npos || domain.find('\0') != std::string::npos) {
    throw std::invalid_argument("\"" + domain + "\" cannot be a domain: give it the form of a file name, 1 to " +
                                std::to_string(NAME_MAX) + " bytes without a slash");
  }
}

}  // namespace

void Refuse(const std::string& path, const std::string& fault) {
  throw std::runtime_error("cannot meet other contexts in \"" + path + "\": " + fault);
}

void RefuseErrno(const std::string& path, const std::string& action) {
  const int error = errno;
  zq::posix::ThrowError(
      error, "cannot meet other contexts in \"" + path + "\": " + action + " failed; " + AdviceFor(error) + kRemedy);
}

std::string RuntimeDirectory() {
  const std::string_view variable = RuntimeDirectoryVariable();
  if (variable.empty()) {
    return "/tmp/lbm-" + std::to_string(::geteuid());
  }
  return zq::posix::Environment(variable.data()) + (variable == kOwnVariable ? "" : "/lbm");
}

std::string_view RuntimeDirectoryVariable() {
  for (const char* const variable : {kOwnVariable, kSessionVariable}) {
    if (!zq::posix::Environment(variable).empty()) {
      return variable;
    }
  }
  return {};
}

zq::posix::Descriptor OpenDomain(const std::string& runtimeDirectory, const std::string& domain) {
  CheckDomain(domain);
  std::string path = runtimeDirectory;
  // With a slash at its end, a link would be followed.
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  const zq::posix::Descriptor runtime = OpenOwnDirectory(AT_FDCWD, path, path);
  return OpenOwnDirectory(runtime.Get(), domain, path + "/" + domain);
}

std::uint64_t PlaceOf(const std::string& runtimeDirectory, const std::string& domain) {
  const zq::posix::Descriptor directory = OpenDomain(runtimeDirectory, domain);
  struct stat status {};
  if (::fstat(directory.Get(), &status) != 0) {
    RefuseErrno(runtimeDirectory, "fstat");
  }
  const std::string boot = zq::posix::ReadFile("/proc/sys/kernel/random/boot_id", 64);
  const std::string text = boot + std::to_string(status.st_dev) + ' ' + std::to_string(status.st_ino);
  return std::max<std::uint64_t>(StableHash(text), 1);
}

}  // namespace engine::transport::host
