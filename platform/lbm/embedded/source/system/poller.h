// Waiting for any of a set of descriptors.
#pragma once

#include <sys/epoll.h>

#include <array>
#include <cstdint>
#include <span>

#include "system/process_bound.h"
#include "zq/posix/descriptor.h"

namespace engine {

// An epoll instance. Every descriptor in it has a token, which its events carry. Threads: any.
class Poller : public ProcessBound {
 public:
  using Token = std::uint64_t;
  // Events of one Poll.
  using Events = std::array<epoll_event, 64>;

  Poller();  // throws std::system_error

  // Readable when Poll would find something.
  int GetDescriptor() const noexcept { return m_epoll.Get(); }

  // interest: EPOLLIN and its like. Add throws std::system_error, with a text that says what to do. The others return
  // false, with errno, when the kernel refuses: the descriptor is not in the set, or was closed.
  void Add(int descriptor, Token token, std::uint32_t interest);
  bool TryAdd(int descriptor, Token token, std::uint32_t interest) noexcept;
  bool Change(int descriptor, Token token, std::uint32_t interest) noexcept;
  bool Remove(int descriptor) noexcept;

  // Waits up to timeoutMs milliseconds, -1 for ever, for an event and returns what is ready, in the storage; nothing
  // when the time has passed or a signal came. Throws std::system_error, and std::runtime_error in a child
  // that fork made.
  std::span<const epoll_event> Poll(Events& storage, int timeoutMs) const;

 private:
  const zq::posix::Descriptor m_epoll;
};

}  // namespace engine
