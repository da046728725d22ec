#include "wait_counter.h"

#include <dlfcn.h>
#include <sys/epoll.h>

#include <atomic>

namespace {

using EpollWait = int (*)(int, epoll_event*, int, int);

std::atomic<std::size_t> g_waits{0};
const auto g_real = reinterpret_cast<EpollWait>(::dlsym(RTLD_NEXT, "epoll_wait"));

}  // namespace

// Takes the place of the C library's for the engine, too.
extern "C" int epoll_wait(int epoll, epoll_event* events, int eventsMax, int timeout) {
  g_waits += timeout != 0 ? 1 : 0;
  return g_real(epoll, events, eventsMax, timeout);
}

std::size_t engine_test::Waits() { return g_waits; }
