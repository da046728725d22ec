// What a context knows of another one, and what it makes of the frames from there.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "transport/host/data_sender.h"
#include "transport/host/link.h"
#include "transport/host/publications.h"
#include "transport/host/ring.h"
#include "transport/host/ring_memory.h"
#include "transport/host/wake_word.h"
#include "transport/host/wire.h"
#include "transport/transport.h"

namespace engine::transport::host {

// Threads: subscribe() and unsubscribe() any; the rest is for the thread inside drain().
class HostRemoteSource final : public RemoteSource {
 public:
  HostRemoteSource(std::string topic, std::string session, std::uint32_t id, std::weak_ptr<Link> link)
      : RemoteSource(std::move(topic), std::move(session)), m_id(id), m_link(std::move(link)) {}

  void Subscribe();
  void Unsubscribe();

  // The peer has taken the subscription with the token; the first message will have the sequence number.
  void Activate(std::uint32_t token, std::uint32_t nextSequence);

  // Whether its messages are wanted and the peer knows.
  bool Active() const noexcept { return m_activeToken != 0 && m_activeToken == m_wantedToken; }

  // The next sequence number to come.
  std::uint32_t Expected() const noexcept { return m_expected; }
  void Expect(std::uint32_t sequence) noexcept { m_expected = sequence; }

 private:
  const std::uint32_t m_id;
  const std::weak_ptr<Link> m_link;
  std::uint32_t m_activeToken = 0;
  std::uint32_t m_expected = 0;
  std::atomic<std::uint32_t> m_wantedToken{0};  // 0: not subscribed

  std::mutex m_mutex;             // taken before a link's: frames leave in the order of the calls
  std::uint32_t m_lastToken = 0;  // guarded by m_mutex
};

class HostReplyPath final : public ReplyPath {
 public:
  HostReplyPath(std::weak_ptr<Link> link, std::uint64_t request) : m_link(std::move(link)), m_request(request) {}

  // Without room waits until there is or closed becomes true, or gives wouldBlock when mayWait is not set.
  SendResult Respond(std::span<const iovec> pieces, bool mayWait, const std::atomic<bool>& closed);

 private:
  const std::weak_ptr<Link> m_link;
  const std::uint64_t m_request;
};

// The subscriber's end of the ring from a peer.
struct DataReceiver {
  explicit DataReceiver(const zq::posix::Descriptor& passed) : memory(passed), ring(memory.Control(), memory.Bytes()) {}

  const RingMemory memory;
  RingReader<RingCounter> ring;
  wire::Reassembly<wire::FragmentHeader> reassembly;
};

// Threads: the one inside drain().
class Peer {
 public:
  // What it uses of its context.
  struct Surroundings {
    PublicationRegistry& publications;
    const std::atomic<bool>& closed;
    const std::size_t ringBytes;
  };

  Peer(std::shared_ptr<Link> link, const Surroundings& surroundings)
      : m_link(std::move(link)), m_surroundings(surroundings) {}

  const std::shared_ptr<Link>& GetLink() const noexcept { return m_link; }
  // Of the context, or what stands for it if it has none.
  const std::string& Name() const noexcept { return m_greeting.name.empty() ? m_identity : m_greeting.name; }
  std::string Description() const;  // for notices

  // Acts on one frame of the link. Throws Fault when the peer is to be cut off.
  void Handle(Link::Arrival arrival, Listener& listener);

  // Whether there are subscriptions that openRing() has to answer.
  bool AwaitsRing() const noexcept { return !m_unanswered.empty(); }

  // Makes the ring to the peer and answers its subscriptions. Throws std::system_error when the system refuses; they
  // wait on then.
  void OpenRing(Listener& listener);

  // Whether the peer has passed a ring to read.
  bool SendsData() const noexcept { return m_receiver.has_value(); }

  // Acts on what is in the ring, up to that many frames, and returns how many there were. Throws Fault.
  std::size_t ReceiveData(std::size_t framesMax, Listener& listener);

  // Whether receiveData() has something to do. After WakeWord::arm() the peer rings for whatever comes later.
  bool HasData() noexcept;

  // The link is gone, and with it all that came over it.
  void End(Listener& listener);

  // Tells of room for the publications.
  void TellWritable(const std::vector<std::uint32_t>& publications, Listener& listener);

 private:
  void Advertised(wire::Bytes frame, Listener& listener);
  void Withdrawn(std::uint32_t source, Listener& listener);
  void WakeWordPassed(const zq::posix::Descriptor& memory);
  void RingPassed(const zq::posix::Descriptor& memory);
  void Subscribed(const wire::Subscribe& frame, Listener& listener);
  void Answer(std::uint32_t source, std::uint32_t token, Listener& listener);
  void Unsubscribed(const wire::Unsubscribe& frame, Listener& listener);
  void OnResponse(wire::Bytes frame, Listener& listener);
  void HandleData(const RingFrame& frame, Listener& listener);
  void OnMessage(const wire::FragmentHeader& header, wire::Bytes payload, Listener& listener);
  void Lost(const wire::Loss& frame, Listener& listener);
  void SkipTo(HostRemoteSource& source, std::uint32_t sequence, Listener& listener);
  HostRemoteSource* FindSource(std::uint32_t id);

  const std::shared_ptr<Link> m_link;
  const Surroundings m_surroundings;
  bool m_greeted = false;
  wire::Greeting m_greeting;
  std::string m_identity;  // unique in the domain
  wire::Reassembly<wire::ResponseHeader> m_responses;
  std::unordered_map<std::uint32_t, std::shared_ptr<HostRemoteSource>> m_sources;
  std::uint32_t m_lastId = 0;
  HostRemoteSource* m_lastSource = nullptr;  // of m_lastId; messages often come in runs of one source
  std::optional<RemoteWakeWord> m_wakeWord;
  std::map<std::uint32_t, std::uint32_t> m_unanswered;  // tokens of subscriptions, by the source's id
  std::shared_ptr<DataSender> m_sender;                 // from the first answer on
  std::optional<DataReceiver> m_receiver;
};

}  // namespace engine::transport::host
