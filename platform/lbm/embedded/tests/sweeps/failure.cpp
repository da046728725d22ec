#include "failure.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <cstdarg>
#include <cstdio>

#include <array>
#include <cerrno>

#include "../options/short_memory.h"

namespace sweep {
namespace {

constinit std::atomic<bool> g_armed{false};
constinit std::atomic<Call> g_call{Call::kNew};
constinit std::atomic<int> g_error{0};
constinit std::atomic<long> g_first{0};
constinit std::atomic<bool> g_lasting{false};
constinit std::array<std::atomic<long>, static_cast<std::size_t>(Call::kNone)> g_counted{};
constinit std::atomic<bool> g_failed{false};

bool Fails(Call call) noexcept {
  if (call == Call::kNone || !g_armed.load() || !Doing::OfEngine()) {
    return false;
  }
  const long number = ++g_counted[static_cast<std::size_t>(call)];
  if (g_call != call || number < g_first || (!g_lasting && number > g_first)) {
    return false;
  }
  g_failed = true;
  errno = g_error;
  return true;
}

bool AllocationFails() noexcept { return Fails(Call::kNew); }

// What a function does that takes the place of the C library's of that name: it fails, or calls that one.
template <typename Result, typename... Arguments>
Result FailOrCall(Call call, const char* name, Result failed, Arguments... arguments) {
  auto* const real = reinterpret_cast<Result (*)(Arguments...)>(::dlsym(RTLD_NEXT, name));
  return Fails(call) ? failed : real(arguments...);
}

}  // namespace

void Arm(const Failure& failure, long first, bool lasting) noexcept {
  Disarm();
  engine::test::SetAllocationJudge(&AllocationFails);
  g_call = failure.call;
  g_error = failure.error;
  g_first = first;
  g_lasting = lasting;
  for (auto& counted : g_counted) {
    counted = 0;
  }
  g_failed = false;
  g_armed = true;
}

void Disarm() noexcept { g_armed = false; }

long Counted(Call call) noexcept { return g_counted[static_cast<std::size_t>(call)]; }
bool Failed() noexcept { return g_failed; }

}  // namespace sweep

// These take the place of the C library's for the engine, too.
extern "C" {

using sweep::Call;
using sweep::FailOrCall;
using sweep::g_error;

int accept4(int socket, sockaddr* address, socklen_t* size, int flags) {
  return FailOrCall(Call::kAccept, __func__, -1, socket, address, size, flags);
}

int bind(int socket, const sockaddr* address, socklen_t size) noexcept {
  return FailOrCall(Call::kBind, __func__, -1, socket, address, size);
}

int connect(int socket, const sockaddr* address, socklen_t size) {
  return FailOrCall(Call::kConnect, __func__, -1, socket, address, size);
}

int epoll_create1(int flags) noexcept { return FailOrCall(Call::kEpollCreate, __func__, -1, flags); }

int epoll_wait(int epoll, epoll_event* events, int count, int timeout) {
  return FailOrCall(Call::kEpollWait, __func__, -1, epoll, events, count, timeout);
}

int eventfd(unsigned value, int flags) noexcept { return FailOrCall(Call::kEventfd, __func__, -1, value, flags); }

DIR* fdopendir(int fd) { return FailOrCall(Call::kListDirectory, __func__, static_cast<DIR*>(nullptr), fd); }

int linkat(int from, const char* name, int to, const char* newName, int flags) noexcept {
  return FailOrCall(Call::kLinkat, __func__, -1, from, name, to, newName, flags);
}

int listen(int socket, int backlog) noexcept { return FailOrCall(Call::kListen, __func__, -1, socket, backlog); }

int memfd_create(const char* name, unsigned flags) noexcept {
  return FailOrCall(Call::kMemfdCreate, __func__, -1, name, flags);
}

int mkdirat(int directory, const char* name, mode_t mode) noexcept {
  return FailOrCall(Call::kMkdirat, __func__, -1, directory, name, mode);
}

int poll(pollfd* entries, nfds_t count, int timeout) {
  return FailOrCall(Call::kPoll, __func__, -1, entries, count, timeout);
}

int posix_fallocate(int fd, off_t offset, off_t length) {
  return FailOrCall(Call::kPosixFallocate, __func__, g_error.load(), fd, offset, length);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*), void* data) noexcept {
  return FailOrCall(Call::kPthreadCreate, __func__, g_error.load(), thread, attributes, function, data);
}

ssize_t recvmsg(int socket, msghdr* message, int flags) {
  return FailOrCall(Call::kReceive, __func__, ssize_t{-1}, socket, message, flags);
}

int renameat(int from, const char* name, int to, const char* newName) noexcept {
  return FailOrCall(Call::kRename, __func__, -1, from, name, to, newName);
}

ssize_t sendmsg(int socket, const msghdr* message, int flags) {
  return FailOrCall(Call::kSend, __func__, ssize_t{-1}, socket, message, flags);
}

int socket(int domain, int type, int protocol) noexcept {
  return FailOrCall(Call::kSocket, __func__, -1, domain, type, protocol);
}

int socketpair(int domain, int type, int protocol, int* ends) noexcept {
  return FailOrCall(Call::kSocketpair, __func__, -1, domain, type, protocol, ends);
}

int timerfd_create(clockid_t clock, int flags) noexcept {
  return FailOrCall(Call::kTimerCreate, __func__, -1, clock, flags);
}

int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) noexcept {
  const Call call = operation == EPOLL_CTL_ADD ? Call::kEpollControl : Call::kNone;
  return FailOrCall(call, __func__, -1, epoll, operation, fd, event);
}

#ifndef __SANITIZE_THREAD__  // whose run-time library maps memory before it can run this
void* mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
  return FailOrCall(fd >= 0 ? Call::kMmap : Call::kNone, __func__, MAP_FAILED, address, size, protection, flags, fd,
                    offset);
}
#endif

int openat(int directory, const char* name, int flags, ...) {
  std::va_list rest;
  va_start(rest, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  return FailOrCall(Call::kOpenat, __func__, -1, directory, name, flags, mode);
}

}  // extern "C"
