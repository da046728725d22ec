#include "instance_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "zq/posix/error.h"
#include "zq/posix/file.h"

namespace price_server {
namespace {

// Another process holds the lock.
[[noreturn]] void ThrowRunning(int file) {
  constexpr std::size_t kLongestNumber = 32;
  const auto owner = zq::posix::ReadBeginning(file, kLongestNumber);
  throw InstanceRunning("already running" + (owner.empty() ? owner : " (process " + owner + ')'));
}

// An owner that ends removes the file. Whoever had opened it before then holds
// a lock on nothing.
bool IsStillAt(const std::filesystem::path& path, int file) {
  struct stat opened {};
  struct stat present {};
  return ::fstat(file, &opened) == 0 && ::stat(path.c_str(), &present) == 0 && opened.st_dev == present.st_dev &&
         opened.st_ino == present.st_ino;
}

}  // namespace

InstanceLock::InstanceLock(const std::filesystem::path& directory, const std::string& name)
    : m_path(directory / (name + ".lock")) {
  do {
    m_file = zq::posix::Descriptor(::open(m_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!m_file) {
      zq::posix::ThrowErrno("cannot open " + m_path.string());
    }
    if (::flock(m_file.Get(), LOCK_EX | LOCK_NB) != 0) {
      if (errno == EWOULDBLOCK) {
        ThrowRunning(m_file.Get());
      }
      zq::posix::ThrowErrno("cannot lock " + m_path.string());
    }
  } while (!IsStillAt(m_path, m_file.Get()));
  if (::ftruncate(m_file.Get(), 0) != 0) {
    zq::posix::ThrowErrno("cannot write " + m_path.string());
  }
  if (const auto result = zq::posix::WriteAll(m_file.Get(), std::to_string(::getpid())); result.error != 0) {
    zq::posix::ThrowError(result.error, "cannot write " + m_path.string());
  }
}

InstanceLock::~InstanceLock() { ::unlink(m_path.c_str()); }

}  // namespace price_server
