#include "zq/posix/event.h"

#include <sys/eventfd.h>

#include <cstdint>

#include "zq/posix/fork.h"

namespace zq::posix {

Event::Event()
    : m_descriptor(Checked(OpenUnshared([] { return ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); }),
                           "cannot create an event descriptor")) {}

void Event::Notify() noexcept {
  constexpr std::uint64_t kOne = 1;
  // Fails only when the counter is at its limit: then the descriptor is readable anyhow.
  [[maybe_unused]] const ssize_t written = ::write(m_descriptor.Get(), &kOne, sizeof(kOne));
}

bool Event::Clear() noexcept {
  std::uint64_t count = 0;
  return ::read(m_descriptor.Get(), &count, sizeof(count)) == sizeof(count);
}

}  // namespace zq::posix
