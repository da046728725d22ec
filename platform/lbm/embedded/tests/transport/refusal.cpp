#include "refusal.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>

namespace engine::transport::host {

namespace {

constinit std::array<std::atomic<int>, 5> g_errors{};  // by the call; 0: not refused

std::atomic<int>& ErrorOf(Call call) { return g_errors[static_cast<std::size_t>(call)]; }

bool Refused(Call call) {
  const int error = ErrorOf(call);
  if (error != 0) {
    errno = error;
  }
  return error != 0;
}

// The function that the one of this program stands before.
template <typename Function>
Function* Next(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

Refusal::Refusal(Call call, int error) : m_call(call) { ErrorOf(call) = error; }
Refusal::~Refusal() { ErrorOf(m_call) = 0; }

}  // namespace engine::transport::host

using engine::transport::host::Call;
using engine::transport::host::Next;
using engine::transport::host::Refused;

extern "C" {

int memfd_create(const char* name, unsigned flags) noexcept {
  static auto* const real = Next<int(const char*, unsigned)>("memfd_create");
  return Refused(Call::kMemfdCreate) ? -1 : real(name, flags);
}

int posix_fallocate(int fd, off_t offset, off_t length) {
  static auto* const real = Next<int(int, off_t, off_t)>("posix_fallocate");
  return Refused(Call::kPosixFallocate) ? errno : real(fd, offset, length);
}

int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) noexcept {
  static auto* const real = Next<int(int, int, int, epoll_event*)>("epoll_ctl");
  return operation == EPOLL_CTL_ADD && Refused(Call::kWatch) ? -1 : real(epoll, operation, fd, event);
}

int mkdirat(int directory, const char* name, mode_t mode) noexcept {
  static auto* const real = Next<int(int, const char*, mode_t)>("mkdirat");
  return Refused(Call::kMkdirat) ? -1 : real(directory, name, mode);
}

int bind(int socket, const sockaddr* address, socklen_t size) noexcept {
  static auto* const real = Next<int(int, const sockaddr*, socklen_t)>("bind");
  return Refused(Call::kBind) ? -1 : real(socket, address, size);
}

}  // extern "C"
