#include "transport/host/ring/shared_memory.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <cerrno>

#include "transport/fault.h"
#include "zq/posix/error.h"
#include "zq/posix/fork.h"
#include "zq/posix/signals.h"

namespace engine::transport::host {

namespace {

[[noreturn]] void Refuse(int error) {
  zq::posix::ThrowError(error,
                        "cannot share memory with another context; free memory, or raise the limits of open files "
                        "(ulimit -n) and of address space (ulimit -v)");
}

}  // namespace

Mapping::Mapping(const zq::posix::Descriptor& memory, std::size_t size, Access access) : m_size(size) {
  const int protection = access == Access::kRead ? PROT_READ : PROT_READ | PROT_WRITE;
  void* const address = zq::posix::MapUnshared(size, protection, memory.Get());
  if (address == MAP_FAILED) {
    Refuse(errno);
  }
  m_address = address;
}

Mapping::~Mapping() {
  if (m_address != nullptr) {
    zq::posix::UnmapUnshared(m_address, m_size);
  }
}

zq::posix::Descriptor MakeSharedMemory(const char* name, std::size_t size) {
  zq::posix::Descriptor memory =
      zq::posix::OpenUnshared([name] { return ::memfd_create(name, MFD_CLOEXEC | MFD_ALLOW_SEALING); });
  if (!memory) {
    Refuse(errno);
  }
  // A signal undoes what was allocated so far: where a profiler sends them all the time, no attempt would succeed.
  const zq::posix::SignalBlocker blocker;
  int error = 0;
  do {
    error = ::posix_fallocate(memory.Get(), 0, static_cast<off_t>(size));
  } while (error == EINTR);
  if (error != 0) {
    Refuse(error);
  }
  return memory;
}

void Seal(const zq::posix::Descriptor& memory, Sealing sealing) {
  const int writing = sealing == Sealing::kSizeAndWriting ? F_SEAL_FUTURE_WRITE : 0;
  if (::fcntl(memory.Get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | writing | F_SEAL_SEAL) != 0) {
    Refuse(errno);
  }
}

std::size_t SealedSize(const zq::posix::Descriptor& memory) {
  constexpr int kNeeded = F_SEAL_SHRINK | F_SEAL_GROW;
  const int seals = ::fcntl(memory.Get(), F_GET_SEALS);
  struct stat status {};
  if (seals < 0 || (seals & kNeeded) != kNeeded || ::fstat(memory.Get(), &status) != 0) {
    throw Fault("it passed memory whose size is not sealed");
  }
  // Huge pages can be taken away although the size is sealed, and need not be there again for who touches them.
  struct statfs fileSystem {};
  if (::fstatfs(memory.Get(), &fileSystem) != 0 || fileSystem.f_type != TMPFS_MAGIC) {
    throw Fault("it passed memory of huge pages");
  }
  return static_cast<std::size_t>(status.st_size);
}

}  // namespace engine::transport::host
