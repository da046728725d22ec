#include "transport/host/host_transport.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <limits>
#include <new>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "system/poller.h"
#include "system/tuning.h"
#include "transport/draining_thread.h"
#include "transport/fault.h"
#include "transport/host/link/acceptor.h"
#include "transport/host/link/link.h"
#include "transport/host/link/rendezvous.h"
#include "transport/host/link/retry_timer.h"
#include "transport/host/peer.h"
#include "transport/host/publications.h"
#include "transport/host/ring/parking_word.h"
#include "transport/host/ring/poll_backoff.h"
#include "transport/host/wire/frames.h"
#include "transport/instance.h"
#include "zq/posix/error.h"

namespace engine::transport::host {

namespace {

// Tokens of the poller: these two, and each link's id.
constexpr Poller::Token kAcceptToken = 0;
constexpr Poller::Token kRetryToken = 1;
constexpr Poller::Token kFirstLinkId = 2;

// Bounds of the work of one drain.
constexpr int kFramesPerLinkMax = 64;
constexpr std::size_t kFramesPerRingMax = 256;

// A context that parks again within this time is woken often.
constexpr std::chrono::milliseconds kOften{1};

wire::Greeting MakeGreeting(const HostSettings& settings) {
  return {NewInstance(), static_cast<std::uint32_t>(::getpid()), settings.contextName};
}

class HostTransport final : public Transport {
 public:
  explicit HostTransport(const HostSettings& settings);
  ~HostTransport() override { Close(std::chrono::milliseconds(0)); }

  const std::string& Identity() const noexcept override { return m_identity; }
  std::shared_ptr<Publication> Advertise(const PublicationInfo& info) override {
    return m_publications.Advertise(info);
  }
  void Withdraw(Publication& publication) override {
    m_publications.Withdraw(static_cast<HostPublication&>(publication));
  }
  // Every context of the domain hears of every source.
  void Watch(const std::string&) override {}
  void Unwatch(const std::string&) override {}
  void WatchAll() override {}
  void Subscribe(RemoteSource& source) override { static_cast<HostRemoteSource&>(source).Subscribe(); }
  void Unsubscribe(RemoteSource& source) override { static_cast<HostRemoteSource&>(source).Unsubscribe(); }
  SendResult Publish(Publication& publication, const OutboundMessage& message, const SendWait& wait) override {
    return static_cast<HostPublication&>(publication).Publish(message, m_draining.Allowed(wait), m_closed);
  }
  SendResult Respond(ReplyPath& path, std::span<const iovec> pieces, const SendWait& wait) override {
    return static_cast<HostReplyPath&>(path).Respond(pieces, m_draining.Allowed(wait), m_closed);
  }
  int GetDescriptor() const noexcept override { return m_poller.GetDescriptor(); }
  bool Park() override;
  void Unpark() noexcept override { m_parkingWord.Unpark(); }
  std::size_t DrainMemory(Listener& listener) override;
  std::size_t Drain(Listener& listener) override;
  void Close(std::chrono::milliseconds linger) noexcept override;

 private:
  void LinkToSelf();
  void Adopt(zq::posix::Descriptor& socket, LinkKind kind);
  void OpenRing(Peer& peer, Listener& listener);
  void Retry(Listener& listener);
  bool RingsHaveWork() noexcept;
  std::size_t ConsumeRings(Listener& listener);
  std::size_t Serve(Peer& peer, std::uint32_t events, Listener& listener);
  Link::Received ServeFrame(Peer& peer, std::size_t& done, Listener& listener);
  void EndPeer(Peer& peer, Listener& listener);
  void FlushPeers(std::chrono::milliseconds linger);

  const HostSettings m_settings;
  const wire::Greeting m_greeting;
  const std::string m_identity;
  const std::vector<std::byte> m_hello;
  const Warnings m_warnings;
  Poller m_poller;
  RetryTimer m_retryTimer;
  PublicationRegistry m_publications;
  Rendezvous m_rendezvous;
  ParkingWord m_parkingWord;
  std::atomic<bool> m_closed{false};
  DrainingThread m_draining;

  // For the thread inside Drain:
  Acceptor m_acceptor;
  std::uint64_t m_nextLinkId = kFirstLinkId;
  std::unordered_map<std::uint64_t, Peer> m_peers;  // by the link's id
  std::vector<Peer*> m_producers;                   // those of m_peers that have passed a ring
  PollBackoff m_pollBackoff;
  std::chrono::steady_clock::time_point m_lastPark;
  std::vector<std::byte> m_packet;
};

HostTransport::HostTransport(const HostSettings& settings)
    : m_settings(settings),
      m_greeting(MakeGreeting(settings)),
      m_identity(wire::IdentityOf(m_greeting)),
      m_hello(wire::EncodeHello(m_greeting)),
      m_warnings(settings.warn),
      m_retryTimer(m_poller, kRetryToken),
      m_publications(m_identity, settings.firstSequence),
      m_rendezvous(settings.runtimeDirectory, settings.domain, m_greeting.instance),
      m_acceptor(m_rendezvous, m_poller, kAcceptToken, m_retryTimer, m_warnings,
                 [this](zq::posix::Descriptor& socket) { Adopt(socket, LinkKind::kPeer); }),
      m_packet(wire::kPacketMax) {
  LinkToSelf();
  m_acceptor.Join(settings.joinPatience);
}

bool HostTransport::Park() {
  // Woken often, it first lets producers run that share its processor: the more they have committed, the fewer
  // wake-ups. Otherwise it parks at once, since any other thread that it yields to might keep the processor for a
  // while.
  const auto now = std::chrono::steady_clock::now();
  if (tuning::kYieldBeforeParking && now - std::exchange(m_lastPark, now) < kOften) {
    std::this_thread::yield();
    if (RingsHaveWork()) {
      return false;
    }
  }
  m_parkingWord.Park();
  if (RingsHaveWork()) {
    m_parkingWord.Unpark();
    return false;
  }
  return true;
}

bool HostTransport::RingsHaveWork() noexcept {
  return std::any_of(m_producers.begin(), m_producers.end(), [](Peer* peer) { return peer->RingHasWork(); });
}

std::size_t HostTransport::DrainMemory(Listener& listener) {
  const DrainingThread::Scope scope(m_draining);
  return ConsumeRings(listener);
}

std::size_t HostTransport::Drain(Listener& listener) {
  const DrainingThread::Scope scope(m_draining);
  std::size_t done = ConsumeRings(listener);
  Poller::Events storage;
  for (const epoll_event& event : m_poller.Poll(storage, 0)) {
    if (m_closed) {
      break;
    }
    if (event.data.u64 == kAcceptToken) {
      done += m_acceptor.Accept();
    } else if (event.data.u64 == kRetryToken) {
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
    m_warnings.Tell([&] { return std::string("left the domain without sending everything: ") + TextOf(error); });
  }
  for (const auto& link : m_publications.Links()) {
    link->Close();
  }
  m_settings.statistics->Counters().Set(context_field::kPeers, 0);
}

void HostTransport::LinkToSelf() {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) {
    zq::posix::ThrowErrno("cannot connect a context to itself");
  }
  zq::posix::Descriptor advertising(ends[0]);
  zq::posix::Descriptor finding(ends[1]);
  Adopt(advertising, LinkKind::kSelfAdvertising);
  Adopt(finding, LinkKind::kSelfFinding);
}

// See Acceptor::Adopt.
void HostTransport::Adopt(zq::posix::Descriptor& socket, LinkKind kind) {
  if (!SameUser(socket.Get())) {
    m_warnings.Tell([] { return "refused a context that runs as another user"; });
    return;
  }
  const std::uint64_t id = m_nextLinkId++;
  m_poller.Add(socket.Get(), id, EPOLLIN);
  const auto link = std::make_shared<Link>(id, kind, std::move(socket), m_poller, m_parkingWord.GetDescriptor());
  m_peers.try_emplace(
      id, link,
      Peer::Surroundings{m_publications, m_closed, std::bit_ceil(m_settings.ringBytes), m_settings.statistics});
  if (kind == LinkKind::kPeer) {
    m_settings.statistics->Counters().Serial().Add(context_field::kPeers);
  }
  try {
    m_publications.Attach(link, m_hello);
  } catch (...) {
    link->Abort({});
    throw;
  }
}

// What the system refuses is reported, and tried again later.
void HostTransport::OpenRing(Peer& peer, Listener& listener) {
  try {
    peer.OpenRing(listener);
  } catch (const std::system_error& error) {
    m_retryTimer.Start();
    m_warnings.Tell([&] { return "cannot send to " + peer.Description() + " yet: " + error.what(); });
  }
}

void HostTransport::Retry(Listener& listener) {
  if (!m_retryTimer.TakeExpiry()) {
    return;
  }
  bool refused = false;
  for (auto& [id, peer] : m_peers) {
    if (!peer.AwaitsRing()) {
      continue;
    }
    try {
      peer.OpenRing(listener);
    } catch (const std::system_error&) {
      refused = true;  // reported when it was refused first
    } catch (const std::exception& error) {
      peer.GetLink()->Abort(TextOf(error));
    }
  }
  m_acceptor.Retry();
  if (refused) {
    m_retryTimer.Start();
  }
}

std::size_t HostTransport::ConsumeRings(Listener& listener) {
  if (m_pollBackoff.Due()) {
    PollBackoff::Pause();
  }
  std::size_t done = 0;
  for (std::size_t i = 0; i < m_producers.size() && !m_closed.load(std::memory_order_relaxed);) {
    Peer& peer = *m_producers[i];
    try {
      done += peer.ConsumeRing(kFramesPerRingMax, listener);
      ++i;
      continue;
    } catch (const std::exception& error) {
      peer.GetLink()->Abort(TextOf(error));
    }
    EndPeer(peer, listener);  // takes it out of m_producers
    ++done;
  }
  m_parkingWord.NoteConsumed(done);
  m_pollBackoff.NotePoll(done);
  return done;
}

std::size_t HostTransport::Serve(Peer& peer, std::uint32_t events, Listener& listener) {
  std::size_t done = 0;
  try {
    if ((events & EPOLLOUT) != 0) {
      ++done;
      peer.GetLink()->Flush();
    }
    auto received = Link::Received::kFrame;
    for (int frames = 0; received == Link::Received::kFrame && frames < kFramesPerLinkMax && !m_closed; ++frames) {
      received = ServeFrame(peer, done, listener);
    }
    if (received != Link::Received::kHangUp) {
      return done;
    }
  } catch (const std::exception& error) {
    peer.GetLink()->Abort(TextOf(error));
  }
  EndPeer(peer, listener);
  return done;
}

// Handles one frame of the link, if there is one, and counts what was done.
Link::Received HostTransport::ServeFrame(Peer& peer, std::size_t& done, Listener& listener) {
  constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();
  Link::Arrival arrival = peer.GetLink()->Receive(m_packet);
  const Link::Received received = arrival.what;
  if (received == Link::Received::kNothing) {
    return received;
  }
  ++done;
  // First what the peer had committed to its ring before that, unless it was cut off.
  if (received == Link::Received::kFrame || peer.GetLink()->AbortReason().empty()) {
    done += peer.ConsumeRing(kAll, listener);
  }
  if (received == Link::Received::kFrame) {
    const bool hadRing = peer.HasInboundRing();
    const bool awaitedRing = peer.AwaitsRing();
    peer.Handle(std::move(arrival), listener);
    if (peer.HasInboundRing() != hadRing) {
      m_producers.push_back(&peer);
    }
    if (peer.AwaitsRing() && !awaitedRing) {
      OpenRing(peer, listener);
    }
  }
  return received;
}

// For a link that is hung up, by either side.
void HostTransport::EndPeer(Peer& peer, Listener& listener) {
  std::erase(m_producers, &peer);
  HostPublications publications;
  try {
    publications = m_publications.Detach(*peer.GetLink());
  } catch (const std::bad_alloc&) {
    return;  // the link will be found hung up again
  }
  m_warnings.Tell([&] {
    const std::string reason = peer.GetLink()->AbortReason();
    return reason.empty() ? reason : "cut off " + peer.Description() + ": " + reason;
  });
  if (peer.GetLink()->Kind() == LinkKind::kPeer) {
    m_settings.statistics->Counters().Serial().Subtract(context_field::kPeers);
  }
  const auto node = m_peers.extract(peer.GetLink()->Id());
  peer.GetLink()->Close();
  peer.End(listener);
  for (const auto& publication : publications) {
    if (!publication->Withdrawn()) {
      listener.OnSubscriberLeft(*publication, peer.Name());
    }
  }
  for (const auto& publication : publications) {
    // It may have been the one without space.
    if (publication->TakeBlocked() && !publication->Withdrawn()) {
      listener.OnWritable(*publication);
    }
  }
}

void HostTransport::FlushPeers(std::chrono::milliseconds linger) {
  // Space in a ring does not show on a descriptor.
  constexpr std::chrono::milliseconds kRingPollInterval{1};
  const auto deadline = std::chrono::steady_clock::now() + linger;
  std::vector<pollfd> unsent;
  for (;;) {
    unsent.clear();
    const bool ringsPending = !m_publications.FlushAll();
    for (const auto& link : m_publications.Links()) {
      // Nobody is left at the other end of the links to this context itself.
      if (link->Kind() == LinkKind::kPeer && !link->Flush()) {
        unsent.push_back({link->GetDescriptor(), POLLOUT, 0});
      }
    }
    const auto left = deadline - std::chrono::steady_clock::now();
    if ((unsent.empty() && !ringsPending) || left <= left.zero()) {
      return;
    }
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(left);
    ::poll(unsent.data(), unsent.size(), static_cast<int>((ringsPending ? kRingPollInterval : wait).count()));
  }
}

}  // namespace

std::unique_ptr<Transport> JoinHostDomain(const HostSettings& settings) {
  if (settings.contextName.size() > kNameMax) {
    throw std::invalid_argument("the context name has " + std::to_string(settings.contextName.size()) +
                                " bytes; at most " + std::to_string(kNameMax) + " are possible");
  }
  return std::make_unique<HostTransport>(settings);
}

}  // namespace engine::transport::host
