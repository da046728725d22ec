#include "system/poller.h"

#include <algorithm>
#include <cerrno>

#include "zq/posix/error.h"
#include "zq/posix/fork.h"

namespace engine {

namespace {

epoll_event EventOf(Poller::Token token, std::uint32_t interest) noexcept {
  epoll_event event{};
  event.events = interest;
  event.data.u64 = token;
  return event;
}

}  // namespace

Poller::Poller()
    : m_epoll(zq::posix::Checked(zq::posix::OpenUnshared([] { return ::epoll_create1(EPOLL_CLOEXEC); }),
                                 "cannot create an epoll descriptor")) {}

void Poller::Add(int descriptor, Token token, std::uint32_t interest) {
  if (!TryAdd(descriptor, token, interest)) {
    zq::posix::ThrowErrno("cannot watch another descriptor; free memory, or raise fs.epoll.max_user_watches");
  }
}

bool Poller::TryAdd(int descriptor, Token token, std::uint32_t interest) noexcept {
  epoll_event event = EventOf(token, interest);
  return ::epoll_ctl(m_epoll.Get(), EPOLL_CTL_ADD, descriptor, &event) == 0;
}

bool Poller::Change(int descriptor, Token token, std::uint32_t interest) noexcept {
  epoll_event event = EventOf(token, interest);
  return ::epoll_ctl(m_epoll.Get(), EPOLL_CTL_MOD, descriptor, &event) == 0;
}

bool Poller::Remove(int descriptor) noexcept {
  return ::epoll_ctl(m_epoll.Get(), EPOLL_CTL_DEL, descriptor, nullptr) == 0;
}

std::span<const epoll_event> Poller::Poll(Events& storage, int timeoutMs) const {
  const int count = ::epoll_wait(m_epoll.Get(), storage.data(), static_cast<int>(storage.size()), timeoutMs);
  if (count == -1 && errno != EINTR) {
    CheckProcess("the context");
    zq::posix::ThrowErrno("cannot wait for events");
  }
  return std::span(storage).first(static_cast<std::size_t>(std::max(count, 0)));
}

}  // namespace engine
