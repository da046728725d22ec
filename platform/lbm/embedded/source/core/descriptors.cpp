#include "core/descriptors.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "core/target.h"
#include "system/error.h"
#include "zq/posix/error.h"

namespace engine::core {

namespace {

struct EventName {
  lbm_ulong_t event;
  std::uint32_t epoll;
};

// Errors and hang-ups make a descriptor readable and writable, as they do for select: the next read or write tells.
constexpr std::array<EventName, 3> kEvents{{{LBM_FD_EVENT_READ, EPOLLIN | EPOLLHUP | EPOLLERR | EPOLLRDHUP},
                                            {LBM_FD_EVENT_WRITE, EPOLLOUT | EPOLLHUP | EPOLLERR},
                                            {LBM_FD_EVENT_EXCEPT, EPOLLPRI}}};
constexpr lbm_ulong_t kAllEvents = LBM_FD_EVENT_READ | LBM_FD_EVENT_WRITE | LBM_FD_EVENT_EXCEPT;

std::uint32_t EpollEventsOf(lbm_ulong_t event) {
  for (const EventName& known : kEvents) {
    if (known.event == event) {
      return known.epoll;
    }
  }
  return 0;
}

void CheckEvents(lbm_ulong_t events) {
  if (events == 0 || (events & ~kAllEvents) != 0) {
    throw Error(LBM_EINVAL, "the event mask " + std::to_string(events) + " is not a combination of LBM_FD_EVENT_...");
  }
}

}  // namespace

class Descriptors::Registration : public Target {
 public:
  Registration(Descriptors& owner, int fd, lbm_ulong_t event, const DescriptorCallback& callback)
      : Target(owner.m_membership, callback.queue), m_owner(owner), m_fd(fd), m_event(event), m_callback(callback) {}

  void Run(Event&) override {
    m_callback.proc(m_callback.context, m_fd, m_event, m_callback.clientd);
    if (Queue() != nullptr) {
      m_owner.Rearm(*this);
    }
  }

  int Fd() const noexcept { return m_fd; }
  lbm_ulong_t GetEvent() const noexcept { return m_event; }

  // Guarded by the owner's mutex. Not armed: a callback is queued and the descriptor is left alone until it has run.
  bool armed = true;

 private:
  Descriptors& m_owner;
  const int m_fd;
  const lbm_ulong_t m_event;
  const DescriptorCallback m_callback;
};

bool Descriptors::Watch(int fd, Watched& watched) noexcept {
  std::uint32_t interest = 0;
  for (const auto& registration : watched.registrations) {
    if (registration->armed) {
      interest |= EpollEventsOf(registration->GetEvent());
    }
  }
  if (interest == 0) {
    Ignore(fd, watched);
    return true;
  }
  const auto token = static_cast<Poller::Token>(fd);
  if (!(watched.inPoller ? m_poller.Change(fd, token, interest) : m_poller.TryAdd(fd, token, interest))) {
    return false;
  }
  watched.inPoller = true;
  return true;
}

// An empty mask would not do: errors and hang-ups are reported whatever the mask.
void Descriptors::Ignore(int fd, Watched& watched) noexcept {
  if (std::exchange(watched.inPoller, false)) {
    m_poller.Remove(fd);
  }
}

void Descriptors::Add(int fd, lbm_ulong_t events, const DescriptorCallback& callback) {
  CheckEvents(events);
  const std::lock_guard lock(m_mutex);
  const auto found = m_watched.find(fd);
  Watched watched = found != m_watched.end() ? found->second : Watched{};
  for (const auto& registration : watched.registrations) {
    if ((registration->GetEvent() & events) != 0) {
      throw Error(LBM_EINVAL, "descriptor " + std::to_string(fd) + " is registered for event " +
                                  std::to_string(registration->GetEvent()) + " already; cancel that first");
    }
  }
  std::size_t added = 0;
  for (const EventName& known : kEvents) {
    if ((known.event & events) != 0) {
      watched.registrations.push_back(std::make_shared<Registration>(*this, fd, known.event, callback));
      ++added;
    }
  }
  if (!Watch(fd, watched)) {
    zq::posix::ThrowErrno("cannot watch descriptor " + std::to_string(fd));
  }
  m_watched[fd] = std::move(watched);
  m_count += added;
}

Descriptors::Registrations Descriptors::Take(int fd, lbm_ulong_t events) {
  CheckEvents(events);
  Registrations taken;
  const std::lock_guard lock(m_mutex);
  const auto found = m_watched.find(fd);
  if (found != m_watched.end()) {
    Registrations& registrations = found->second.registrations;
    const auto kept = std::stable_partition(registrations.begin(), registrations.end(),
                                            [&](const auto& one) { return (one->GetEvent() & events) == 0; });
    taken.assign(kept, registrations.end());
    registrations.erase(kept, registrations.end());
    Watch(fd, found->second);
    if (registrations.empty()) {
      m_watched.erase(found);
    }
  }
  if (taken.empty()) {
    throw Error(LBM_EINVAL,
                "descriptor " + std::to_string(fd) + " is not registered for event mask " + std::to_string(events));
  }
  m_count -= taken.size();
  return taken;
}

void Descriptors::Cancel(int fd, lbm_ulong_t events) {
  for (const auto& registration : Take(fd, events)) {
    registration->CloseAndWait();
  }
}

std::vector<std::shared_ptr<EventQueue>> Descriptors::CancelWithoutWaiting(int fd, lbm_ulong_t events) {
  std::vector<std::shared_ptr<EventQueue>> queues;
  for (const auto& registration : Take(fd, events)) {
    registration->Close();
    queues.push_back(registration->Queue());
  }
  return queues;
}

std::size_t Descriptors::Ready(int fd, std::uint32_t epollEvents) {
  Registrations due;
  {
    bool disarmed = false;
    const std::lock_guard lock(m_mutex);
    const auto found = m_watched.find(fd);
    if (found == m_watched.end()) {
      return 0;
    }
    for (const auto& registration : found->second.registrations) {
      if (registration->armed && (EpollEventsOf(registration->GetEvent()) & epollEvents) != 0) {
        due.push_back(registration);
        if (registration->Queue() != nullptr) {
          registration->armed = false;
          disarmed = true;
        }
      }
    }
    if (disarmed) {
      Watch(fd, found->second);
    } else if (due.empty() && (epollEvents & (EPOLLHUP | EPOLLERR)) != 0) {
      Ignore(fd, found->second);  // nobody is there for it, and it would be reported without end
    }
  }
  for (const auto& registration : due) {
    registration->Dispatch({});
  }
  return due.size();
}

void Descriptors::Rearm(Registration& registration) {
  const std::lock_guard lock(m_mutex);
  const auto found = m_watched.find(registration.Fd());
  if (found != m_watched.end() && !registration.Closed()) {
    registration.armed = true;
    Watch(registration.Fd(), found->second);
  }
}

void Descriptors::Clear() {
  std::map<int, Watched> ended;
  {
    const std::lock_guard lock(m_mutex);
    ended.swap(m_watched);
    m_count = 0;
    for (auto& [fd, watched] : ended) {
      Ignore(fd, watched);
    }
  }
  for (const auto& [fd, watched] : ended) {
    for (const auto& registration : watched.registrations) {
      registration->CloseAndWait();
    }
  }
}

}  // namespace engine::core
