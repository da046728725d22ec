#include "transport/host/host_transport.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <limits>
#include <new>
#include <random>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "transport/host/fault.h"
#include "transport/host/link.h"
#include "transport/host/look_pause.h"
#include "transport/host/peer.h"
#include "transport/host/publications.h"
#include "transport/host/rendezvous.h"
#include "transport/host/wake_word.h"
#include "transport/host/wire.h"
#include "zq/posix/descriptor.h"
#include "zq/posix/error.h"

namespace engine::transport::host {

namespace {

using zq::posix::Checked;
using zq::posix::ThrowErrno;

// What the poller reports: these two, or a link by its id.
constexpr std::uint64_t kListenerId = 0;
constexpr std::uint64_t kTimerId = 1;
constexpr std::uint64_t kFirstLinkId = 2;

// Bounds of the work in one drain().
constexpr std::size_t kEventsMax = 64;
constexpr int kFramesPerLinkMax = 64;
constexpr std::size_t kFramesPerRingMax = 256;
constexpr int kAcceptedMax = 64;

const std::string kNotTakenIn = "cannot take in another context: ";

// A context is, when it goes to sleep again within this time.
constexpr std::chrono::milliseconds kWokenAllTheTime{1};

// Until what the system refused for the moment is tried again.
constexpr timespec kRetryDelay{0, 50'000'000};

std::uint64_t RandomSession() {
  std::random_device device;
  return (std::uint64_t{device()} << 32) | device();
}

class HostTransport final : public Transport {
 public:
  explicit HostTransport(const HostSettings& settings);
  ~HostTransport() override { Close(std::chrono::milliseconds(0)); }

  std::shared_ptr<Publication> Advertise(const PublicationInfo& info) override {
    return m_publications.Advertise(info);
  }
  void Withdraw(Publication& publication) override {
    m_publications.Withdraw(static_cast<HostPublication&>(publication));
  }
  void Subscribe(RemoteSource& source) override { static_cast<HostRemoteSource&>(source).Subscribe(); }
  void Unsubscribe(RemoteSource& source) override { static_cast<HostRemoteSource&>(source).Unsubscribe(); }
  SendResult Publish(Publication& publication, const OutboundMessage& message, bool block) override {
    return static_cast<HostPublication&>(publication).Publish(message, block && !Draining(), m_closed);
  }
  SendResult Respond(ReplyPath& path, std::span<const iovec> pieces, bool block) override {
    return static_cast<HostReplyPath&>(path).Respond(pieces, block && !Draining(), m_closed);
  }
  int GetDescriptor() const noexcept override { return m_poller.Get(); }
  bool Arm() override;
  void Disarm() noexcept override { m_wakeWord.Disarm(); }
  std::size_t DrainMemory(Listener& listener) override;
  std::size_t Drain(Listener& listener) override;
  void Close(std::chrono::milliseconds linger) noexcept override;

 private:
  using Peers = std::unordered_map<std::uint64_t, Peer>;

  // The calling thread is inside drain() while it lives.
  class DrainScope {
   public:
    explicit DrainScope(HostTransport& transport) : m_thread(transport.m_drainingThread) {
      m_thread.store(std::this_thread::get_id(), std::memory_order_relaxed);
    }
    ~DrainScope() { m_thread.store(std::thread::id(), std::memory_order_relaxed); }
    DrainScope(const DrainScope&) = delete;
    DrainScope& operator=(const DrainScope&) = delete;

   private:
    std::atomic<std::thread::id>& m_thread;
  };

  // Whether the calling thread is inside drain(), where waiting for room would keep the room from coming.
  bool Draining() const noexcept {
    return m_drainingThread.load(std::memory_order_relaxed) == std::this_thread::get_id();
  }

  void Watch(int descriptor, std::uint64_t id, int operation, std::uint32_t events);
  void GetLink(zq::posix::Descriptor& socket, LinkKind kind);
  void TryToLink(zq::posix::Descriptor socket);
  void ConnectSelf();
  std::size_t AcceptPeers();
  void PauseAccepting();
  std::string TryToOpenRing(Peer& peer, Listener& listener);
  void Retry(Listener& listener);
  void RetryLater();
  bool HasData() noexcept;
  std::size_t ReceiveData(Listener& listener);
  std::size_t Serve(Peer& peer, std::uint32_t events, Listener& listener);
  void EndPeer(Peer& peer, Listener& listener);
  void FlushPeers(std::chrono::milliseconds linger);
  template <typename Compose>
  void Notice(Compose compose) const noexcept;
  template <typename Compose>
  void NoticeRefusal(Compose compose) noexcept;

  const HostSettings m_settings;
  const std::uint64_t m_session = RandomSession();
  const std::vector<std::byte> m_greeting;
  const zq::posix::Descriptor m_poller;
  const zq::posix::Descriptor m_timer;
  PublicationRegistry m_publications;
  Rendezvous m_rendezvous;
  WakeWord m_wakeWord;
  std::atomic<bool> m_closed{false};
  std::atomic<std::thread::id> m_drainingThread{};

  // For the thread inside drain():
  std::uint64_t m_nextLinkId = kFirstLinkId;
  Peers m_peers;                 // by the link's id
  std::vector<Peer*> m_senders;  // those of m_peers that have passed a ring
  LookPause m_lookPause;
  std::chrono::steady_clock::time_point m_armedAt;
  std::vector<Rendezvous::Neighbour> m_busyNeighbours;
  std::vector<zq::posix::Descriptor> m_unlinked;  // connections that the system did not let this context watch
  bool m_refusalTold = false;                     // since it last took somebody in
  std::vector<std::byte> m_packet;
};

// Tells the text that compose() makes, if any. Without memory for that nothing is told, and the context goes on.
template <typename Compose>
void HostTransport::Notice(Compose compose) const noexcept {
  try {
    if (const std::string text = compose(); m_settings.notice && !text.empty()) {
      m_settings.notice(kNoticeWarning, text);
    }
  } catch (const std::bad_alloc&) {
  }
}

// Tells the first of the refusals only: while the system refuses, it is asked again and again.
template <typename Compose>
void HostTransport::NoticeRefusal(Compose compose) noexcept {
  if (!std::exchange(m_refusalTold, true)) {
    Notice(compose);
  }
}

HostTransport::HostTransport(const HostSettings& settings)
    : m_settings(settings),
      m_greeting(wire::EncodeHello({m_session, static_cast<std::uint32_t>(::getpid()), settings.contextName})),
      m_poller(Checked(::epoll_create1(EPOLL_CLOEXEC), "cannot create a poller for the links")),
      m_timer(Checked(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC), "cannot create a timer")),
      m_publications(settings.firstSequence),
      m_rendezvous(settings.runtimeDirectory.empty() ? RuntimeDirectory() : settings.runtimeDirectory, settings.domain,
                   m_session),
      m_packet(wire::kPacketMax) {
  Watch(m_timer.Get(), kTimerId, EPOLL_CTL_ADD, EPOLLIN);
  ConnectSelf();
  for (Rendezvous::Neighbour& neighbour : m_rendezvous.Join(settings.joinPatience)) {
    if (neighbour.socket) {
      GetLink(neighbour.socket, LinkKind::kPeer);
    } else {
      m_busyNeighbours.push_back(std::move(neighbour));
    }
  }
  Watch(m_rendezvous.Listener(), kListenerId, EPOLL_CTL_ADD, EPOLLIN);
  if (!m_busyNeighbours.empty()) {
    RetryLater();
  }
}

bool HostTransport::Arm() {
  // Woken all the time, it first lets writers have the processor that share it: the more they have written, the fewer
  // wake-ups. Otherwise it sleeps at once, since any other neighbour might keep the processor for a while.
  const auto now = std::chrono::steady_clock::now();
  if (now - std::exchange(m_armedAt, now) < kWokenAllTheTime) {
    std::this_thread::yield();
    if (HasData()) {
      return false;
    }
  }
  m_wakeWord.Arm();
  if (HasData()) {
    m_wakeWord.Disarm();
    return false;
  }
  return true;
}

bool HostTransport::HasData() noexcept {
  return std::any_of(m_senders.begin(), m_senders.end(), [](Peer* peer) { return peer->HasData(); });
}

std::size_t HostTransport::DrainMemory(Listener& listener) {
  const DrainScope scope(*this);
  return ReceiveData(listener);
}

std::size_t HostTransport::Drain(Listener& listener) {
  const DrainScope scope(*this);
  std::size_t done = ReceiveData(listener);
  std::array<epoll_event, kEventsMax> events;
  int count = 0;
  while ((count = ::epoll_wait(m_poller.Get(), events.data(), kEventsMax, 0)) < 0) {
    if (errno != EINTR) {
      ThrowErrno("cannot poll the links");
    }
  }
  for (const epoll_event& event : std::span(events).first(static_cast<std::size_t>(count))) {
    if (m_closed) {
      break;
    }
    if (event.data.u64 == kListenerId) {
      done += AcceptPeers();
    } else if (event.data.u64 == kTimerId) {
      Retry(listener);
      ++done;
    } else if (const auto found = m_peers.find(event.data.u64); found != m_peers.end()) {
      done += Serve(found->second, event.events, listener);
    }
  }
  return done;
}

void HostTransport::Close(std::chrono::milliseconds linger) noexcept {
  if (m_closed.exchange(true)) {
    return;
  }
  m_rendezvous.Leave();
  try {
    m_publications.WithdrawAll();
    FlushPeers(linger);
  } catch (const std::exception& error) {
    Notice([&] { return std::string("left the domain without sending everything: ") + TextOf(error); });
  }
  for (const auto& link : m_publications.Links()) {
    link->End();
  }
}

void HostTransport::Watch(int descriptor, std::uint64_t id, int operation, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = id;
  if (::epoll_ctl(m_poller.Get(), operation, descriptor, &event) != 0) {
    ThrowErrno("cannot watch another descriptor; free memory, or raise fs.epoll.max_user_watches");
  }
}

// Throws std::system_error, and leaves the socket to the caller, when the system does not let this context watch it.
void HostTransport::GetLink(zq::posix::Descriptor& socket, LinkKind kind) {
  if (!SameUser(socket.Get())) {
    Notice([] { return "refused a context that runs as another user"; });
    return;
  }
  const std::uint64_t id = m_nextLinkId++;
  Watch(socket.Get(), id, EPOLL_CTL_ADD, EPOLLIN);
  const auto made = std::make_shared<Link>(id, kind, std::move(socket), m_poller.Get(), m_wakeWord.GetDescriptor());
  m_peers.try_emplace(made->Id(), made,
                      Peer::Surroundings{m_publications, m_closed, std::bit_ceil(m_settings.ringBytes)});
  m_publications.Attach(made, m_greeting);
}

// The same for a context that is one of many: what is wrong with it is not to be this context's end.
void HostTransport::TryToLink(zq::posix::Descriptor socket) {
  const std::uint64_t id = m_nextLinkId;
  try {
    m_unlinked.reserve(m_unlinked.size() + 1);  // so that keeping the socket cannot fail below
    GetLink(socket, LinkKind::kPeer);
    m_refusalTold = false;
  } catch (const std::system_error& error) {
    NoticeRefusal([&] { return kNotTakenIn + error.what(); });
    m_unlinked.push_back(std::move(socket));
    RetryLater();
  } catch (const std::exception& error) {
    Notice([&] { return kNotTakenIn + TextOf(error); });
    if (const auto made = m_peers.find(id); made != m_peers.end()) {
      made->second.GetLink()->BreakOff({});
    }
  }
}

void HostTransport::ConnectSelf() {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) {
    ThrowErrno("cannot connect a context to itself");
  }
  zq::posix::Descriptor announcing(ends[0]);
  zq::posix::Descriptor finding(ends[1]);
  GetLink(announcing, LinkKind::kSelfAnnouncing);
  GetLink(finding, LinkKind::kSelfFinding);
}

std::size_t HostTransport::AcceptPeers() {
  std::size_t accepted = 0;
  for (int attempt = 0; attempt < kAcceptedMax; ++attempt) {
    zq::posix::Descriptor socket(::accept4(m_rendezvous.Listener(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (socket) {
      TryToLink(std::move(socket));
      ++accepted;
    } else if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
      NoticeRefusal([error = errno] {
        return kNotTakenIn + zq::posix::ErrorText(error) + "; raise the limit of open files (ulimit -n)";
      });
      PauseAccepting();
      break;
    } else if (errno != EINTR && errno != ECONNABORTED) {
      break;
    }
  }
  return accepted;
}

// The listener stays readable while the system refuses; looking at it all the time would not help.
void HostTransport::PauseAccepting() {
  Watch(m_rendezvous.Listener(), kListenerId, EPOLL_CTL_MOD, 0);
  RetryLater();
}

// Gives the system's refusal, after which it is tried again later; empty when there was none.
std::string HostTransport::TryToOpenRing(Peer& peer, Listener& listener) {
  try {
    peer.OpenRing(listener);
    return {};
  } catch (const std::system_error& error) {
    RetryLater();
    return error.what();
  }
}

void HostTransport::Retry(Listener& listener) {
  std::uint64_t expirations = 0;
  if (::read(m_timer.Get(), &expirations, sizeof(expirations)) < 0) {
    return;
  }
  Watch(m_rendezvous.Listener(), kListenerId, EPOLL_CTL_MOD, EPOLLIN);
  for (auto& [id, peer] : m_peers) {
    if (peer.AwaitsRing()) {
      try {
        TryToOpenRing(peer, listener);
      } catch (const std::exception& error) {
        peer.GetLink()->BreakOff(TextOf(error));
      }
    }
  }
  for (zq::posix::Descriptor& socket : std::exchange(m_unlinked, {})) {
    TryToLink(std::move(socket));
  }
  for (auto neighbour = m_busyNeighbours.begin(); neighbour != m_busyNeighbours.end();) {
    auto outcome = Rendezvous::Outcome::kBacklogFull;
    try {
      outcome = m_rendezvous.Connect(*neighbour);
    } catch (const std::exception& error) {
      NoticeRefusal([&] { return TextOf(error); });
    }
    if (outcome == Rendezvous::Outcome::kConnected) {
      TryToLink(std::move(neighbour->socket));
    }
    neighbour = outcome == Rendezvous::Outcome::kBacklogFull ? neighbour + 1 : m_busyNeighbours.erase(neighbour);
  }
  if (!m_busyNeighbours.empty()) {
    RetryLater();
  }
}

void HostTransport::RetryLater() {
  const itimerspec delay{{}, kRetryDelay};
  if (::timerfd_settime(m_timer.Get(), 0, &delay, nullptr) != 0) {
    ThrowErrno("cannot set a timer");
  }
}

// Takes in what is in the rings.
std::size_t HostTransport::ReceiveData(Listener& listener) {
  if (m_lookPause.Due()) {
    LookPause::Pass();
  }
  std::size_t done = 0;
  for (std::size_t i = 0; i < m_senders.size() && !m_closed.load(std::memory_order_relaxed);) {
    Peer& peer = *m_senders[i];
    try {
      done += peer.ReceiveData(kFramesPerRingMax, listener);
      ++i;
      continue;
    } catch (const std::exception& error) {
      peer.GetLink()->BreakOff(TextOf(error));
    }
    EndPeer(peer, listener);  // takes it out of m_senders
    ++done;
  }
  m_wakeWord.NoteFrames(done);
  m_lookPause.Note(done);
  return done;
}

std::size_t HostTransport::Serve(Peer& peer, std::uint32_t events, Listener& listener) {
  constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();
  std::size_t done = 0;
  try {
    if ((events & EPOLLOUT) != 0) {
      ++done;
      peer.GetLink()->Flush();
    }
    for (int frames = 0;; ++frames) {
      if (frames == kFramesPerLinkMax || m_closed) {
        return done;
      }
      Link::Arrival arrival = peer.GetLink()->Receive(m_packet);
      if (arrival.what == Link::Received::kNothing) {
        return done;
      }
      ++done;
      const bool hangUp = arrival.what == Link::Received::kHangUp;
      if (!hangUp || peer.GetLink()->FaultText().empty()) {
        done += peer.ReceiveData(kAll, listener);
      }
      if (hangUp) {
        break;
      }
      const bool sentData = peer.SendsData();
      const bool awaitedRing = peer.AwaitsRing();
      peer.Handle(std::move(arrival), listener);
      if (peer.SendsData() != sentData) {
        m_senders.push_back(&peer);
      }
      if (peer.AwaitsRing() && !awaitedRing) {
        if (const std::string refusal = TryToOpenRing(peer, listener); !refusal.empty()) {
          Notice([&] { return "cannot send to " + peer.Description() + " yet: " + refusal; });
        }
      }
    }
  } catch (const std::exception& error) {
    peer.GetLink()->BreakOff(TextOf(error));
  }
  EndPeer(peer, listener);
  return done;
}

// For a link that is hung up, by either side.
void HostTransport::EndPeer(Peer& peer, Listener& listener) {
  std::erase(m_senders, &peer);
  HostPublications publications;
  try {
    publications = m_publications.Detach(*peer.GetLink());
  } catch (const std::bad_alloc&) {
    return;  // the link will be found hung up again
  }
  Notice([&] {
    const std::string fault = peer.GetLink()->FaultText();
    return fault.empty() ? fault : "cut off " + peer.Description() + ": " + fault;
  });
  const auto node = m_peers.extract(peer.GetLink()->Id());
  peer.GetLink()->End();
  peer.End(listener);
  for (const auto& publication : publications) {
    if (!publication->Withdrawn()) {
      listener.OnSubscriberLeft(*publication, peer.Name());
    }
  }
  for (const auto& publication : publications) {
    // It may have been the one without room.
    if (publication->TakeWaiting() && !publication->Withdrawn()) {
      listener.OnWritable(*publication);
    }
  }
}

void HostTransport::FlushPeers(std::chrono::milliseconds linger) {
  // Room in a ring does not show on a descriptor.
  constexpr std::chrono::milliseconds kLookAgain{1};
  const auto deadline = std::chrono::steady_clock::now() + linger;
  std::vector<pollfd> unsent;
  for (;;) {
    unsent.clear();
    const bool waiting = !m_publications.FlushSenders();
    for (const auto& link : m_publications.Links()) {
      // Nobody is left at the other end of the links to this context itself.
      if (link->Kind() == LinkKind::kPeer && !link->Flush()) {
        unsent.push_back({link->GetDescriptor(), POLLOUT, 0});
      }
    }
    const auto left = deadline - std::chrono::steady_clock::now();
    if ((unsent.empty() && !waiting) || left <= left.zero()) {
      return;
    }
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(left);
    ::poll(unsent.data(), unsent.size(), static_cast<int>((waiting ? kLookAgain : wait).count()));
  }
}

}  // namespace

std::unique_ptr<Transport> JoinHostDomain(const HostSettings& settings) {
  if (settings.contextName.size() > wire::kNameMax) {
    throw std::runtime_error("the context name has " + std::to_string(settings.contextName.size()) +
                             " bytes; at most " + std::to_string(wire::kNameMax) + " are possible");
  }
  return std::make_unique<HostTransport>(settings);
}

}  // namespace engine::transport::host
