#include "transport/host/host_transport.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <limits>
#include <new>
#include <optional>
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
#include "transport/host/introductions.h"
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
#include "zq/posix/fork.h"

namespace engine::transport::host {

namespace {

// Tokens of the poller: these two, and each link's id.
constexpr Poller::Token kAcceptToken = 0;
constexpr Poller::Token kRetryToken = 1;
constexpr Poller::Token kFirstLinkId = 2;

// Bounds of the work of one drain.
constexpr int kFramesPerLinkMax = 64;
constexpr Peer::Quota kPerRing{.frames = 256, .bytes = std::size_t{256} << 10};

// Drains in a row that serve others before this context looks whom it has to call itself.
constexpr int kCallsPostponedMax = 16;

// A context that parks again within this time is woken often.
constexpr std::chrono::milliseconds kOften{1};

wire::Greeting MakeGreeting(const HostSettings& settings) {
  return {NewInstance(), static_cast<std::uint32_t>(::getpid()), settings.contextName};
}

// The first of the peers that has the process.
std::vector<Peer*>::const_iterator FirstOf(pid_t process, const std::vector<Peer*>& peers) {
  return std::find_if(peers.begin(), peers.end(), [&](const Peer* peer) { return peer->Process() == process; });
}

class HostTransport final : public Transport {
 public:
  explicit HostTransport(const HostSettings& settings);
  ~HostTransport() override { Close(std::chrono::milliseconds(0)); }

  const std::string& Identity() const noexcept override { return m_identity; }
  std::shared_ptr<Publication> Advertise(const PublicationInfo& info) override;
  void Withdraw(Publication& publication) override;
  void Watch(const std::string& topic) override { m_introductions.Watch(topic); }
  void Unwatch(const std::string& topic) override { m_introductions.Unwatch(topic); }
  void WatchAll() override { m_introductions.WatchAll(); }
  void Subscribe(RemoteSource& source) override { static_cast<HostRemoteSource&>(source).Subscribe(); }
  void Unsubscribe(RemoteSource& source) override { static_cast<HostRemoteSource&>(source).Unsubscribe(); }
  SendResult Publish(Publication& publication, const OutboundMessage& message, const SendWait& wait) override {
    return static_cast<HostPublication&>(publication).Publish(message, m_draining.Allowed(wait), m_closed);
  }
  bool HasSubscriber(const Publication& publication, std::string_view identity) override {
    return static_cast<const HostPublication&>(publication).HasSubscriber(identity);
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
  Rendezvous::Outcome LinkTo(const std::string& name, std::shared_ptr<Link>& link);
  std::shared_ptr<Link> LinkToSelf();
  Peer* Adopt(zq::posix::Descriptor& socket, LinkKind kind, const std::string& fileName);
  const Peer* FindByName(const std::string& name) const;
  void NoteName(Peer& peer);
  void ForgetName(Peer& peer);
  std::size_t MeetOthers(Listener& listener);
  void OpenRings(Peer& peer, Listener& listener);
  void Retry(Listener& listener);
  bool RingsHaveWork() noexcept;
  std::size_t ConsumeRings(Listener& listener);
  std::size_t Serve(Peer& peer, std::uint32_t events, Listener& listener);
  Link::Received ServeFrame(Peer& peer, std::size_t& done, Listener& listener);
  void EndPeer(Peer& peer, Listener& listener);
  void FinishPeer(Peer& peer, Listener& listener);
  void WarnOfShortage(const Peer& peer, int error);
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
  Introductions m_introductions;
  ParkingWord m_parkingWord;
  std::atomic<bool> m_closed{false};
  DrainingThread m_draining;

  // For the thread inside Drain:
  Acceptor m_acceptor;
  std::uint64_t m_nextLinkId = kFirstLinkId;
  std::unordered_map<std::uint64_t, Peer> m_peers;  // by the link's id
  std::vector<Peer*> m_producers;                   // those of m_peers that have passed a ring
  std::shared_ptr<Link> m_self;                     // on which this context advertises to itself
  // Those of m_peers that say that they are the same context, by its name in the directory of the domain. Those of them
  // that have the same process are: both may have called the other at the same time. This context advertises on the
  // first link to a context, and only there.
  std::unordered_map<std::string, std::vector<Peer*>> m_byName;
  PollBackoff m_pollBackoff;
  std::chrono::steady_clock::time_point m_lastPark;
  std::vector<std::byte> m_packet;
  int m_callsPostponed = 0;
  bool m_shortageTold = false;
};

HostTransport::HostTransport(const HostSettings& settings)
    : m_settings(settings),
      m_greeting(MakeGreeting(settings)),
      m_identity(wire::IdentityOf(m_greeting)),
      m_hello(wire::EncodeHello(m_greeting)),
      m_warnings(settings.warn),
      m_retryTimer(m_poller, kRetryToken),
      m_publications(m_identity, settings.firstSequence),
      m_rendezvous(settings.runtimeDirectory, settings.domain,
                   ContextFileName(m_greeting.process, m_greeting.instance)),
      m_introductions(m_rendezvous, m_publications, m_retryTimer, m_warnings,
                      [this](const std::string& name, std::shared_ptr<Link>& link) { return LinkTo(name, link); }),
      m_acceptor(m_rendezvous.Join(), m_poller, kAcceptToken, m_retryTimer, m_warnings,
                 [this](zq::posix::Descriptor& socket) { Adopt(socket, LinkKind::kPeer, {}); }),
      m_packet(wire::kPacketMax) {}

std::shared_ptr<Publication> HostTransport::Advertise(const PublicationInfo& info) {
  auto publication = m_publications.Advertise(info, KeyOf(info.topic));
  try {
    m_rendezvous.Say(Role::kOffers, publication->Key());
  } catch (...) {
    m_publications.Withdraw(*publication);
    throw;
  }
  try {
    m_introductions.Announce(publication->Id());
  } catch (...) {
    Withdraw(*publication);
    throw;
  }
  return publication;
}

void HostTransport::Withdraw(Publication& publication) {
  auto& own = static_cast<HostPublication&>(publication);
  if (m_publications.Withdraw(own)) {
    m_rendezvous.TakeBack(Role::kOffers, own.Key());
  }
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
  return std::any_of(m_producers.begin(), m_producers.end(), [](Peer* peer) { return peer->RingsHaveWork(); });
}

std::size_t HostTransport::DrainMemory(Listener& listener) {
  const DrainingThread::Scope scope(m_draining);
  return ConsumeRings(listener);
}

std::size_t HostTransport::Drain(Listener& listener) {
  const DrainingThread::Scope scope(m_draining);
  std::size_t done = ConsumeRings(listener);
  std::size_t served = 0;
  Poller::Events storage;
  for (const epoll_event& event : m_poller.Poll(storage, 0)) {
    if (m_closed) {
      break;
    }
    const Poller::Token token = event.data.u64;  // a copy, since the system packs its structure
    if (token == kAcceptToken) {
      served += m_acceptor.Accept();
    } else if (token == kRetryToken) {
      Retry(listener);
      ++done;
    } else if (const auto found = m_peers.find(token); found != m_peers.end()) {
      served += Serve(found->second, event.events, listener);
    }
  }
  // Those who call first may be just the ones to be called.
  if (served == 0 || ++m_callsPostponed == kCallsPostponedMax) {
    m_callsPostponed = 0;
    done += MeetOthers(listener);
  } else {
    m_introductions.Postpone();
  }
  return done + served;
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
  m_publications.CloseLinks();
  m_settings.statistics->Counters().Set(context_field::kPeers, 0);
}

std::size_t HostTransport::MeetOthers(Listener& listener) {
  const std::size_t done = m_introductions.Run();
  if (m_introductions.TakeUnwatched()) {
    try {
      for (auto& [id, peer] : m_peers) {
        peer.EndUnwatched(listener);
      }
    } catch (const std::exception&) {
      m_introductions.GiveBackUnwatched();
      m_retryTimer.Start();
    }
  }
  return done;
}

Rendezvous::Outcome HostTransport::LinkTo(const std::string& name, std::shared_ptr<Link>& link) {
  if (name == m_rendezvous.Name()) {
    link = LinkToSelf();
    return Rendezvous::Outcome::kConnected;
  }
  if (const Peer* const known = FindByName(name); known != nullptr) {
    link = known->GetLink();
    return Rendezvous::Outcome::kConnected;
  }
  zq::posix::Descriptor socket;
  const Rendezvous::Outcome outcome = m_rendezvous.Connect(name, socket);
  if (outcome == Rendezvous::Outcome::kConnected) {
    if (Adopt(socket, LinkKind::kPeer, name) == nullptr) {
      return Rendezvous::Outcome::kGone;
    }
    link = FindByName(name)->GetLink();
  }
  return outcome;
}

// Null when there is no link to the context yet.
const Peer* HostTransport::FindByName(const std::string& name) const {
  const auto found = m_byName.find(name);
  if (found == m_byName.end()) {
    return nullptr;
  }
  const auto& peers = found->second;
  const auto owner = std::find_if(peers.begin(), peers.end(), [](const Peer* peer) { return peer->OwnsName(); });
  return owner == peers.end() ? nullptr : *FirstOf((*owner)->Process(), peers);
}

std::shared_ptr<Link> HostTransport::LinkToSelf() {
  if (m_self == nullptr) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) {
      zq::posix::ThrowErrno("cannot connect a context to itself");
    }
    zq::posix::Descriptor advertising = zq::posix::OpenUnshared([&] { return ends[0]; });
    zq::posix::Descriptor finding = zq::posix::OpenUnshared([&] { return ends[1]; });
    const auto link = Adopt(finding, LinkKind::kSelfFinding, m_rendezvous.Name())->GetLink();
    try {
      m_self = Adopt(advertising, LinkKind::kSelfAdvertising, m_rendezvous.Name())->GetLink();
    } catch (...) {
      link->Abort({});
      throw;
    }
  }
  return m_self;
}

// See Acceptor::Adopt. Null when it is refused for good. fileName: of the context, as far as it is known.
Peer* HostTransport::Adopt(zq::posix::Descriptor& socket, LinkKind kind, const std::string& fileName) {
  const std::optional<pid_t> process = ProcessOfSameUser(socket.Get());
  if (!process) {
    m_warnings.Tell([] { return "refused a context that runs as another user"; });
    return nullptr;
  }
  const std::uint64_t id = m_nextLinkId++;
  m_poller.Add(socket.Get(), id, EPOLLIN);
  const auto link =
      std::make_shared<Link>(id, kind, std::move(socket), m_poller, m_retryTimer, m_parkingWord.GetDescriptor());
  Peer& peer = m_peers
                   .try_emplace(id, link, *process,
                                Peer::Surroundings{m_publications, m_introductions, m_closed,
                                                   std::bit_ceil(m_settings.ringBytes), m_settings.statistics})
                   .first->second;
  if (kind == LinkKind::kPeer) {
    m_settings.statistics->Counters().Serial().Add(context_field::kPeers);
  }
  try {
    if (!fileName.empty()) {
      peer.SetCalled(fileName);
      NoteName(peer);
    }
    m_publications.Attach(link, m_hello);
    if (kind == LinkKind::kPeer && m_introductions.WatchesAll()) {
      link->SendSignal(wire::Type::kWantAll);
    }
  } catch (...) {
    link->Abort({});
    throw;
  }
  return &peer;
}

void HostTransport::NoteName(Peer& peer) {
  if (peer.GetLink()->Kind() != LinkKind::kPeer) {
    return;
  }
  std::vector<Peer*>& peers = m_byName[peer.FileName()];
  if (std::find(peers.begin(), peers.end(), &peer) == peers.end()) {
    peers.push_back(&peer);
  }
  peer.AdvertiseOn((*FirstOf(peer.Process(), peers))->GetLink());
}

// Where there are two links to a context, the other one ends as well.
void HostTransport::ForgetName(Peer& peer) {
  const auto found = m_byName.find(peer.FileName());
  if (found == m_byName.end()) {
    return;
  }
  if (std::erase(found->second, &peer) != 0) {
    for (Peer* const other : found->second) {
      if (other->Process() == peer.Process()) {
        other->GetLink()->Abort({});
      }
    }
  }
  if (found->second.empty()) {
    m_byName.erase(found);
  }
}

// What the system refuses is reported, and tried again later.
void HostTransport::OpenRings(Peer& peer, Listener& listener) {
  try {
    peer.OpenRings(listener);
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
  bool anyShort = false;
  for (auto next = m_peers.begin(); next != m_peers.end();) {
    Peer& peer = next++->second;
    if (peer.Ending()) {
      FinishPeer(peer, listener);
      continue;
    }
    if (const int error = peer.GetLink()->Shortage(); error != 0 && !peer.GetLink()->Flush()) {
      anyShort = true;
      WarnOfShortage(peer, error);
    }
    if (!peer.AwaitsRing()) {
      continue;
    }
    try {
      peer.OpenRings(listener);
    } catch (const std::system_error&) {
      refused = true;  // reported when it was refused first
    } catch (const std::exception& error) {
      peer.GetLink()->Abort(TextOf(error));
    }
  }
  m_shortageTold = m_shortageTold && anyShort;
  m_acceptor.Retry();
  m_introductions.Retry();
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
      done += peer.ConsumeRings(kPerRing, listener);
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
  constexpr std::size_t kNoMax = std::numeric_limits<std::size_t>::max();
  Link::Arrival arrival = peer.GetLink()->Receive(m_packet);
  const Link::Received received = arrival.what;
  if (received == Link::Received::kNothing) {
    return received;
  }
  ++done;
  // First what the peer had committed to its rings before that, unless it was cut off.
  if (received == Link::Received::kFrame || peer.GetLink()->AbortReason().empty()) {
    const bool hungUp = received == Link::Received::kHangUp;
    done += peer.ConsumeRings({.frames = kNoMax, .bytes = kNoMax, .untaken = hungUp}, listener);
  }
  if (received == Link::Received::kFrame) {
    const bool hadRing = peer.HasInboundRing();
    const bool awaitedRing = peer.AwaitsRing();
    const bool wasGreeted = peer.Greeted();
    peer.Handle(std::move(arrival), listener);
    if (!wasGreeted) {
      NoteName(peer);
    }
    if (peer.HasInboundRing() != hadRing) {
      m_producers.push_back(&peer);
    }
    if (peer.AwaitsRing() && !awaitedRing) {
      OpenRings(peer, listener);
    }
  }
  return received;
}

// For a link that is hung up, by either side.
void HostTransport::EndPeer(Peer& peer, Listener& listener) {
  std::erase(m_producers, &peer);
  m_publications.Detach(*peer.GetLink());
  Introductions::Place place = peer.TakePlace();
  peer.reasonUntold = place.empty() || m_introductions.LookAgain(std::move(place));
  if (peer.GetLink()->Kind() == LinkKind::kPeer) {
    m_settings.statistics->Counters().Serial().Subtract(context_field::kPeers);
    ForgetName(peer);
  } else if (m_self == peer.GetLink()) {
    m_self.reset();
  }
  peer.GetLink()->Close();
  FinishPeer(peer, listener);
}

// Tells the listener and operators of the end. What cannot be told yet is when the retry timer goes off.
void HostTransport::FinishPeer(Peer& peer, Listener& listener) {
  try {
    peer.End(listener);
  } catch (const std::exception&) {
    m_retryTimer.Start();
    return;
  }
  const bool told = !peer.reasonUntold || m_warnings.Tell([&] {
    const std::string reason = peer.GetLink()->AbortReason();
    return reason.empty() ? reason : "cut off " + peer.Description() + ": " + reason;
  });
  if (told) {
    m_peers.erase(peer.GetLink()->Id());
  } else {
    m_retryTimer.Start();
  }
}

// A peer to which something cannot be sent for the moment; told once for all until it could be.
void HostTransport::WarnOfShortage(const Peer& peer, int error) {
  if (!std::exchange(m_shortageTold, true)) {
    m_warnings.Tell([&] { return "cannot send to " + peer.Description() + " yet: " + zq::posix::ErrorText(error); });
  }
}

void HostTransport::FlushPeers(std::chrono::milliseconds linger) {
  // Space in a ring does not show on a descriptor, nor does the end of a shortage.
  constexpr std::chrono::milliseconds kRingPollInterval{1};
  const auto deadline = std::chrono::steady_clock::now() + linger;
  std::vector<pollfd> unsent;
  for (;;) {
    unsent.clear();
    const bool ringsPending = !m_publications.FlushAll();
    bool anyShort = false;
    for (const auto& link : m_publications.Attached()) {
      // Nobody is left at the other end of the links to this context itself.
      if (link->Kind() == LinkKind::kPeer && !link->Flush()) {
        unsent.push_back({link->GetDescriptor(), POLLOUT, 0});
        anyShort = anyShort || link->Shortage() != 0;
      }
    }
    const auto left = deadline - std::chrono::steady_clock::now();
    if ((unsent.empty() && !ringsPending) || left <= left.zero()) {
      return;
    }
    if (anyShort) {
      unsent.clear();  // their sockets are writable
    }
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(left);
    const auto interval = ringsPending || anyShort ? kRingPollInterval : wait;
    ::poll(unsent.data(), unsent.size(), static_cast<int>(interval.count()));
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
