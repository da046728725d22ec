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
constinit std::array<std::atomic<long>, static_cast<std::size_t>(Call::kTimerCreate) + 1> g_counted{};
constinit std::atomic<bool> g_failed{false};

bool Fails(Call call) noexcept {
  if (!g_armed.load() || !Doing::OfEngine()) {
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

// The function that the one of this program stands before.
template <typename Function>
Function* Next(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
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
using sweep::Fails;
using sweep::Next;

int accept4(int socket, sockaddr* address, socklen_t* size, int flags) {
  static auto* const real = Next<int(int, sockaddr*, socklen_t*, int)>("accept4");
  return Fails(Call::kAccept) ? -1 : real(socket, address, size, flags);
}

int bind(int socket, const sockaddr* address, socklen_t size) noexcept {
  static auto* const real = Next<int(int, const sockaddr*, socklen_t)>("bind");
  return Fails(Call::kBind) ? -1 : real(socket, address, size);
}

int connect(int socket, const sockaddr* address, socklen_t size) {
  static auto* const real = Next<int(int, const sockaddr*, socklen_t)>("connect");
  return Fails(Call::kConnect) ? -1 : real(socket, address, size);
}

int epoll_create1(int flags) noexcept {
  static auto* const real = Next<int(int)>("epoll_create1");
  return Fails(Call::kEpollCreate) ? -1 : real(flags);
}

int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) noexcept {
  static auto* const real = Next<int(int, int, int, epoll_event*)>("epoll_ctl");
  return operation == EPOLL_CTL_ADD && Fails(Call::kEpollControl) ? -1 : real(epoll, operation, fd, event);
}

int epoll_wait(int epoll, epoll_event* events, int count, int timeout) {
  static auto* const real = Next<int(int, epoll_event*, int, int)>("epoll_wait");
  return Fails(Call::kEpollWait) ? -1 : real(epoll, events, count, timeout);
}

int eventfd(unsigned value, int flags) noexcept {
  static auto* const real = Next<int(unsigned, int)>("eventfd");
  return Fails(Call::kEventfd) ? -1 : real(value, flags);
}

DIR* fdopendir(int fd) {
  static auto* const real = Next<DIR*(int)>("fdopendir");
  return Fails(Call::kListDirectory) ? nullptr : real(fd);
}

int linkat(int from, const char* name, int to, const char* newName, int flags) noexcept {
  static auto* const real = Next<int(int, const char*, int, const char*, int)>("linkat");
  return Fails(Call::kLinkat) ? -1 : real(from, name, to, newName, flags);
}

int listen(int socket, int backlog) noexcept {
  static auto* const real = Next<int(int, int)>("listen");
  return Fails(Call::kListen) ? -1 : real(socket, backlog);
}

int memfd_create(const char* name, unsigned flags) noexcept {
  static auto* const real = Next<int(const char*, unsigned)>("memfd_create");
  return Fails(Call::kMemfdCreate) ? -1 : real(name, flags);
}

int mkdirat(int directory, const char* name, mode_t mode) noexcept {
  static auto* const real = Next<int(int, const char*, mode_t)>("mkdirat");
  return Fails(Call::kMkdirat) ? -1 : real(directory, name, mode);
}

#ifndef __SANITIZE_THREAD__  // whose run-time library maps memory before it can run this
void* mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
  static auto* const real = Next<void*(void*, size_t, int, int, int, off_t)>("mmap");
  return fd >= 0 && Fails(Call::kMmap) ? MAP_FAILED : real(address, size, protection, flags, fd, offset);
}
#endif

int openat(int directory, const char* name, int flags, ...) {
  static auto* const real = Next<int(int, const char*, int, mode_t)>("openat");
  std::va_list rest;
  va_start(rest, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  return Fails(Call::kOpenat) ? -1 : real(directory, name, flags, mode);
}

int poll(pollfd* entries, nfds_t count, int timeout) {
  static auto* const real = Next<int(pollfd*, nfds_t, int)>("poll");
  return Fails(Call::kPoll) ? -1 : real(entries, count, timeout);
}

int posix_fallocate(int fd, off_t offset, off_t length) {
  static auto* const real = Next<int(int, off_t, off_t)>("posix_fallocate");
  return Fails(Call::kPosixFallocate) ? errno : real(fd, offset, length);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*), void* data) noexcept {
  static auto* const real = Next<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
  return Fails(Call::kPthreadCreate) ? errno : real(thread, attributes, function, data);
}

ssize_t recvmsg(int socket, msghdr* message, int flags) {
  static auto* const real = Next<ssize_t(int, msghdr*, int)>("recvmsg");
  return Fails(Call::kReceive) ? -1 : real(socket, message, flags);
}

int renameat(int from, const char* name, int to, const char* newName) noexcept {
  static auto* const real = Next<int(int, const char*, int, const char*)>("renameat");
  return Fails(Call::kRename) ? -1 : real(from, name, to, newName);
}

ssize_t sendmsg(int socket, const msghdr* message, int flags) {
  static auto* const real = Next<ssize_t(int, const msghdr*, int)>("sendmsg");
  return Fails(Call::kSend) ? -1 : real(socket, message, flags);
}

int socket(int domain, int type, int protocol) noexcept {
  static auto* const real = Next<int(int, int, int)>("socket");
  return Fails(Call::kSocket) ? -1 : real(domain, type, protocol);
}

int socketpair(int domain, int type, int protocol, int* ends) noexcept {
  static auto* const real = Next<int(int, int, int, int*)>("socketpair");
  return Fails(Call::kSocketpair) ? -1 : real(domain, type, protocol, ends);
}

int timerfd_create(clockid_t clock, int flags) noexcept {
  static auto* const real = Next<int(clockid_t, int)>("timerfd_create");
  return Fails(Call::kTimerCreate) ? -1 : real(clock, flags);
}

}  // extern "C"
