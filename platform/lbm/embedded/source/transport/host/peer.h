// What a context knows of another one to which it is linked, and what it makes of the frames from there.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "transport/host/introductions.h"
#include "transport/host/link/link.h"
#include "transport/host/publications.h"
#include "transport/host/remote_source.h"
#include "transport/host/ring/parking_word.h"
#include "transport/host/ring/ring.h"
#include "transport/host/ring/ring_memory.h"
#include "transport/host/subscriber.h"
#include "transport/host/wire/frames.h"
#include "transport/host/wire/reassembly.h"
#include "transport/transport.h"

namespace engine::transport::host {

// The consumer's end of the ring from a peer.
struct InboundRing {
  InboundRing(const zq::posix::Descriptor& passed, Pacing of)
      : pacing(of), memory(passed), ring(memory.Control(), memory.Bytes()) {}

  const Pacing pacing;
  const RingMemory memory;
  RingConsumer<RingCursor> ring;
  wire::Reassembly<wire::FragmentHeader> reassembly;
  bool stalled = false;  // the listener did not take the next message
};

// Threads: the one inside Drain.
class Peer {
 public:
  // What it uses of its context.
  struct Surroundings {
    PublicationRegistry& publications;
    const Introductions& introductions;
    const std::atomic<bool>& closed;
    const std::size_t ringBytes;
    const std::shared_ptr<ContextStatistics> statistics;
  };

  // process: at the other end of the link, 0 when it is out of sight.
  Peer(std::shared_ptr<Link> link, pid_t process, const Surroundings& surroundings)
      : m_link(std::move(link)), m_process(process), m_advertising(m_link), m_surroundings(surroundings) {}

  const std::shared_ptr<Link>& GetLink() const noexcept { return m_link; }
  // Of the context; its identity if it has none.
  const std::string& Name() const noexcept { return m_greeting.name.empty() ? m_identity : m_greeting.name; }
  std::string Description() const;  // for operators
  // For statistics: its name, if it has one, and its identity, which is its own.
  std::string Label() const;

  // Whether it has introduced itself.
  bool Greeted() const noexcept { return m_greeted; }

  // The name of the context in the directory of the domain; empty until it has introduced itself.
  const std::string& FileName() const noexcept { return m_fileName; }
  // For a context that was called by that name.
  void SetCalled(const std::string& name);
  // Whether it is the context of that name, as far as this one can tell: it was called by it, or the name has its
  // process. Others only say so.
  bool OwnsName() const;
  pid_t Process() const noexcept { return m_process; }
  // For looking for it again; null when it owns no name, and when it was taken.
  Introductions::Place TakePlace() noexcept { return std::move(m_place); }

  // The link on which this context advertises to the peer, when two were made at the same time. This one otherwise.
  void AdvertiseOn(std::shared_ptr<Link> link) noexcept { m_advertising = std::move(link); }

  // Handles one frame of the link. Throws Fault when the peer is to be cut off.
  void Handle(Link::Arrival arrival, Listener& listener);

  // Whether there are subscriptions that OpenRing has to answer.
  bool AwaitsRing() const noexcept { return !m_unanswered.empty(); }

  // Creates the rings to the peer that its subscriptions need, and answers these. Throws std::system_error when the
  // system refuses; the subscriptions stay unanswered then.
  void OpenRings(Listener& listener);

  // Whether the peer has passed a ring to consume from.
  bool HasInboundRing() const noexcept { return m_inbound.front() || m_inbound.back(); }

  // Handles frames of those rings, of each as many as the quota says, and returns how many there were. Throws Fault.
  struct Quota {
    std::size_t frames;
    std::size_t bytes;     // not counting the last frame
    bool untaken = false;  // also messages that the listener does not take now
  };
  std::size_t ConsumeRings(Quota quota, Listener& listener);

  // Whether ConsumeRings has something to do. After ParkingWord::Park the peer rings the doorbell for whatever comes
  // later.
  bool RingsHaveWork() noexcept;

  // Those of its sources whose topics are no longer watched go down.
  void EndUnwatched(Listener& listener);

  // The link is gone, and with it the peer's sources and subscriptions. To be called again when the listener has
  // thrown.
  void End(Listener& listener);
  bool Ending() const noexcept { return m_ending; }

  // Whether operators are still to be told why it was cut off.
  bool reasonUntold = false;

 private:
  struct Subscription {
    std::shared_ptr<HostPublication> publication;
    bool leftTold = false;
  };
  using Subscriptions = std::map<std::uint32_t, Subscription>;  // by the publication's id

  void EndSubscription(Subscriptions::iterator subscription, Listener& listener);
  void OnHello(Bytes frame);
  void OnWant(Bytes frame);
  void OnAdvertise(Bytes frame, Listener& listener);
  void OnWithdrawn(std::uint32_t id, Listener& listener);
  void OnParkingWord(const zq::posix::Descriptor& memory);
  void OnRing(Pacing pacing, const zq::posix::Descriptor& memory);
  void OnSubscribe(const wire::Subscribe& frame, Listener& listener);
  void OnUnsubscribe(const wire::Unsubscribe& frame, Listener& listener);
  void OnResponse(Bytes frame, Listener& listener);
  std::size_t ConsumeRing(InboundRing& inbound, Quota quota, Listener& listener);
  bool Takes(const RingFrame& frame, Listener& listener);
  void OnDataFrame(InboundRing& inbound, const RingFrame& frame, Listener& listener);
  void OnMessage(Pacing pacing, const wire::FragmentHeader& header, Bytes payload, Listener& listener);
  void OnLoss(const wire::Loss& frame, Listener& listener);
  std::shared_ptr<Subscriber>& SubscriberTo(const HostPublication& publication) {
    return m_subscribers[static_cast<std::size_t>(publication.Info().pacing)];
  }
  std::shared_ptr<Subscriber> OpenRing(Pacing pacing);
  void TellWritable(const std::vector<std::uint32_t>& publications, Listener& listener);
  static void TellWritable(HostPublication& publication, Listener& listener);
  void Answer(std::uint32_t source, std::uint32_t token, Listener& listener);
  void SkipTo(HostRemoteSource& source, std::uint32_t sequence, Listener& listener);
  HostRemoteSource* FindSource(std::uint32_t id);

  void SetFileName(const std::string& name);

  const std::shared_ptr<Link> m_link;
  const pid_t m_process;
  std::shared_ptr<Link> m_advertising;
  const Surroundings m_surroundings;
  std::string m_fileName;
  Introductions::Place m_place;
  bool m_ending = false;
  bool m_greeted = false;
  bool m_called = false;
  wire::Greeting m_greeting;
  std::string m_identity;  // see Transport::Identity
  wire::Reassembly<wire::ResponseHeader> m_responses;
  std::unordered_map<std::uint32_t, std::shared_ptr<HostRemoteSource>> m_sources;
  std::uint32_t m_lastId = 0;
  HostRemoteSource* m_lastSource = nullptr;  // of m_lastId; messages often come in runs of one source
  std::shared_ptr<PeerParkingWord> m_parkingWord;
  std::map<std::uint32_t, std::uint32_t> m_unanswered;              // tokens of subscriptions, by the source's id
  std::shared_ptr<PeerStatistics> m_statistics;                     // once there is a ring to the peer
  std::array<std::shared_ptr<Subscriber>, kPacings> m_subscribers;  // each from the first answer on
  Subscriptions m_subscriptions;                                    // some of them to what was withdrawn meanwhile
  std::size_t m_subscriptionsMax = 0;                               // before those are looked for
  std::array<std::optional<InboundRing>, kPacings> m_inbound;
};

}  // namespace engine::transport::host
