#include "instance_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>
#include <system_error>

namespace price_server {
namespace {

std::string ReadOwner(int file) {
  std::array<char, 32> text{};
  const auto length = ::pread(file, text.data(), text.size(), 0);
  const std::string_view owner(text.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
  return owner.empty() ? "" : " (process " + std::string(owner) + ")";
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
    if (m_file >= 0) {
      ::close(m_file);
    }
    m_file = ::open(m_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (m_file < 0) {
      throw std::system_error(errno, std::generic_category(), "cannot open " + m_path.string());
    }
    if (::flock(m_file, LOCK_EX | LOCK_NB) != 0) {
      const int error = errno;
      const auto owner = ReadOwner(m_file);
      ::close(m_file);
      if (error == EWOULDBLOCK) {
        throw InstanceRunning("already running" + owner);
      }
      throw std::system_error(error, std::generic_category(), "cannot lock " + m_path.string());
    }
  } while (!IsStillAt(m_path, m_file));
  const auto owner = std::to_string(::getpid());
  if (::ftruncate(m_file, 0) != 0 || ::pwrite(m_file, owner.data(), owner.size(), 0) < 0) {
    const int error = errno;
    ::close(m_file);
    throw std::system_error(error, std::generic_category(), "cannot write " + m_path.string());
  }
}

InstanceLock::~InstanceLock() {
  ::unlink(m_path.c_str());
  ::close(m_file);
}

}  // namespace price_server
