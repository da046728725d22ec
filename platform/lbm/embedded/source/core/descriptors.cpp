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
constexpr std::array<EventName, Descriptors::kEventsMax> kEvents{
    {{LBM_FD_EVENT_READ, EPOLLIN | EPOLLHUP | EPOLLERR | EPOLLRDHUP},
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
      : Target(owner.m_membership, callback.queue), m_owner(owner), m_fd(fd), m_event(event), m_callback(callback) {
    if (Queue() != nullptr) {
      m_queued = std::make_unique<Queued>();
    }
  }

  // Makes the callback, or has the queue make it; the registration has to be disarmed for that. Threads: the
  // dispatching one.
  void Dispatch() noexcept {
    if (Queue() != nullptr) {
      m_queued->registration = std::static_pointer_cast<Registration>(shared_from_this());
      Queue()->Post(std::move(m_queued));
    } else {
      Target::Dispatch({});
    }
  }

  int Fd() const noexcept { return m_fd; }
  lbm_ulong_t GetEvent() const noexcept { return m_event; }

  // Guarded by the owner's mutex. Not armed: a callback is queued and the descriptor is left alone until it has run.
  bool armed = true;

 private:
  // The place in the queue of the one callback that may be there.
  struct Queued final : Task {
    void Run(std::unique_ptr<Task>& self) override {
      const auto due = std::move(registration);
      due->m_queued.reset(static_cast<Queued*>(self.release()));
      due->Queue()->Gate().Call(*due, [&] {
        due->CallFromQueue([&] { due->Call(); });
        due->m_owner.Rearm(*due);
      });
    }
    std::shared_ptr<Registration> registration;
  };

  void Call() const { m_callback.proc(m_callback.context, m_fd, m_event, m_callback.clientd); }
  void Run(Event&) override { Call(); }

  Descriptors& m_owner;
  const int m_fd;
  const lbm_ulong_t m_event;
  const DescriptorCallback m_callback;
  std::unique_ptr<Queued> m_queued;  // null while it is queued
};

// Out of the poller there might be no way back. Errors and hang-ups are reported whatever the mask, so where nobody is
// armed for them they are to be reported once.
bool Descriptors::Watch(int fd, Watched& watched, bool once) noexcept {
  std::uint32_t interest = 0;
  for (const auto& registration : watched.registrations) {
    if (registration->armed) {
      interest |= EpollEventsOf(registration->GetEvent());
    }
  }
  watched.once = interest == 0 || once;
  if (watched.once) {
    interest |= EPOLLET;
  }
  const auto token = static_cast<Poller::Token>(fd);
  if (!(watched.inPoller ? m_poller.Change(fd, token, interest) : m_poller.TryAdd(fd, token, interest))) {
    return false;
  }
  watched.inPoller = true;
  return true;
}

void Descriptors::Add(int fd, lbm_ulong_t events, const DescriptorCallback& callback) {
  CheckEvents(events);
  const std::lock_guard lock(m_mutex);
  const auto place = m_watched.try_emplace(fd).first;
  Watched watched = place->second;
  for (const auto& registration : watched.registrations) {
    if ((registration->GetEvent() & events) != 0) {
      throw Error(LBM_EINVAL, "descriptor " + std::to_string(fd) + " is registered for event " +
                                  std::to_string(registration->GetEvent()) + " already; cancel that first");
    }
  }
  std::size_t added = 0;
  try {
    for (const EventName& known : kEvents) {
      if ((known.event & events) != 0) {
        watched.registrations.Add(std::make_shared<Registration>(*this, fd, known.event, callback));
        ++added;
      }
    }
    if (!Watch(fd, watched)) {
      zq::posix::ThrowErrno("cannot watch descriptor " + std::to_string(fd));
    }
  } catch (...) {
    if (place->second.registrations.Empty()) {
      m_watched.erase(place);
    }
    throw;
  }
  place->second = std::move(watched);
  m_count += added;
}

Descriptors::Registrations Descriptors::Take(int fd, lbm_ulong_t events) {
  CheckEvents(events);
  Registrations taken;
  const std::lock_guard lock(m_mutex);
  const auto found = m_watched.find(fd);
  if (found != m_watched.end()) {
    Registrations& registrations = found->second.registrations;
    for (auto& registration : std::exchange(registrations, {})) {
      ((registration->GetEvent() & events) == 0 ? registrations : taken).Add(std::move(registration));
    }
    if (registrations.Empty()) {
      m_poller.Remove(fd);
      m_watched.erase(found);
    } else {
      Watch(fd, found->second);
    }
  }
  if (taken.Empty()) {
    throw Error(LBM_EINVAL,
                "descriptor " + std::to_string(fd) + " is not registered for event mask " + std::to_string(events));
  }
  m_count -= taken.Size();
  return taken;
}

void Descriptors::Cancel(int fd, lbm_ulong_t events) {
  for (const auto& registration : Take(fd, events)) {
    registration->CloseAndWait();
  }
}

Descriptors::Places Descriptors::CancelWithoutWaiting(int fd, lbm_ulong_t events) {
  Places queues;
  for (const auto& registration : Take(fd, events)) {
    registration->Close();
    queues.Add(registration->Queue());
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
        due.Add(registration);
        if (registration->Queue() != nullptr) {
          registration->armed = false;
          disarmed = true;
        }
      }
    }
    if (disarmed) {
      Watch(fd, found->second);
    } else if (due.Empty() && !found->second.once && (epollEvents & (EPOLLHUP | EPOLLERR)) != 0) {
      Watch(fd, found->second, true);  // nobody is there for it, and it would be reported without end
    }
  }
  for (const auto& registration : due) {
    registration->Dispatch();
  }
  return due.Size();
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
    for (const auto& [fd, watched] : ended) {
      m_poller.Remove(fd);
    }
  }
  for (const auto& [fd, watched] : ended) {
    for (const auto& registration : watched.registrations) {
      registration->CloseAndWait();
    }
  }
}

}  // namespace engine::core
