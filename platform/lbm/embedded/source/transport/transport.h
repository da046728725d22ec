// What the engine's core asks of a way to carry messages between contexts.
//
// A Transport belongs to one context. It finds the domain's other contexts, advertises this context's sources to them
// (publications), finds theirs (remote sources), carries messages to whoever subscribed, and responses to whoever
// asked. The context itself is one of the domain's contexts: it finds its own sources as it finds those of others.
//
// Threads: Drain, DrainMemory, Park and Unpark are called by one thread at a time; the Listener is called only from
// inside the two drains, with no lock of the transport held, and may call every operation of the transport but those
// four. All other operations may be called on any thread at any time. Where it says Drain below, both drains are meant.
//
// Errors: an argument that cannot be served is thrown as std::invalid_argument, a refusal of the operating system as
// std::system_error, anything else as std::runtime_error, all with a text that says what to do. A fault of a peer ends
// the link to that peer and is nobody else's.
#pragma once

#include <sys/uio.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "statistics/context_statistics.h"

namespace engine::transport {

class Transport;

// What happens when a subscriber cannot keep up. kSource: the message is dropped for that subscriber, who is told of
// the loss. kReceiver: back-pressure; the publisher has to wait.
enum class Pacing : std::uint8_t { kSource, kReceiver };
inline constexpr std::size_t kPacings = 2;

struct PublicationInfo {
  std::string topic;
  Pacing pacing = Pacing::kSource;
  std::uint32_t id = 0;  // 0: the transport chooses
  // Where messages sent are counted, by whatever it is that publishes; has to outlive that. Null: nowhere.
  zq::statistics::Row* statistics = nullptr;
};

// A source of this context, made by Transport::Advertise.
class Publication {
 public:
  Publication(std::uint32_t id, std::string session) : m_id(id), m_session(std::move(session)) {}
  virtual ~Publication() = default;
  Publication(const Publication&) = delete;
  Publication& operator=(const Publication&) = delete;

  // Unique among the context's publications; never 0.
  std::uint32_t Id() const noexcept { return m_id; }
  // What RemoteSource::Session is to subscribers.
  const std::string& Session() const noexcept { return m_session; }

 private:
  const std::uint32_t m_id;
  const std::string m_session;
};

// A source of the domain as its subscribers see it. Shared: retained messages keep it for its strings.
class RemoteSource {
 public:
  RemoteSource(std::string topic, std::string session) : m_topic(std::move(topic)), m_session(std::move(session)) {}
  virtual ~RemoteSource() = default;
  RemoteSource(const RemoteSource&) = delete;
  RemoteSource& operator=(const RemoteSource&) = delete;

  const std::string& Topic() const noexcept { return m_topic; }
  // Names this source in this run; unique in the domain.
  const std::string& Session() const noexcept { return m_session; }

  // For the listener's use; touched only from inside Drain.
  void* listenerData = nullptr;

  // For a transport that is made of others: the one that told of the source.
  Transport* carrier = nullptr;

 private:
  const std::string m_topic;
  const std::string m_session;
};

// The way back to whoever sent a request.
class ReplyPath {
 public:
  virtual ~ReplyPath() = default;

  // For a transport that is made of others: the one that brought the request.
  Transport* carrier = nullptr;
};

// One message to publish. The pieces are read during the call only.
struct OutboundMessage {
  std::span<const iovec> pieces;
  std::uint64_t requestId = 0;  // 0: not a request. Unique among this context's open requests.
  std::optional<std::uint32_t> channel;
};

// One message that arrived, whole. Valid during the call; a faulty publisher may change the payload meanwhile, so copy
// it before interpreting it.
struct InboundMessage {
  std::span<const std::byte> payload;
  std::uint32_t sequence = 0;
  std::optional<std::uint32_t> channel;
  std::shared_ptr<ReplyPath> replyPath;  // set for requests
  Pacing pacing = Pacing::kReceiver;     // of its source; with kSource the listener may drop it
};

// Whether a send may wait for space, and what ends the wait. On the thread that is inside Drain a send never waits: the
// space may depend on that very call.
struct SendWait {
  bool allowed = false;
  // Asked on the waiting thread, every few milliseconds: true ends the wait. May be null.
  bool (*givesUp)() noexcept = nullptr;

  bool GoesOn() const noexcept { return allowed && (givesUp == nullptr || !givesUp()); }
};

enum class SendResult : std::uint8_t {
  kSent,
  kWouldBlock,  // no space, and no waiting for it, or the wait was given up
  kPeerGone,    // the requester is no longer there
  kClosed       // the transport is closed, perhaps since the call began
};

class Listener {
 public:
  virtual ~Listener() = default;

  // Once for each appearance and disappearance of every source that is watched, subscribed or not; a transport may tell
  // of others, too. Messages that a source had published before it went come before OnSourceDown, which does not end
  // the RemoteSource's life.
  virtual void OnSourceUp(const std::shared_ptr<RemoteSource>& source) = 0;
  virtual void OnSourceDown(const std::shared_ptr<RemoteSource>& source) = 0;

  virtual void OnMessage(RemoteSource& source, InboundMessage& message) = 0;

  // Asked before each message of a source that waits for space (Pacing::kReceiver): whether it is to come now.
  // Otherwise its peer's messages of such sources stay where they are until the next Drain, which whoever refuses has
  // to see to.
  virtual bool Takes(RemoteSource&) { return true; }

  // Whether Takes may refuse something, of whatever source. Asked once for the messages of a Drain.
  virtual bool MayRefuse() const noexcept { return false; }

  // count messages of the source, from sequence number first on, will not arrive. Told before any later message, and
  // also when the lost ones were the last.
  virtual void OnLoss(RemoteSource& source, std::uint32_t first, std::uint32_t count) = 0;

  // responder is the identity of the context that sent it.
  virtual void OnResponse(std::uint64_t requestId, const std::string& responder,
                          std::span<const std::byte> payload) = 0;

  // A context subscribed to the publication, or ended its subscription. contextName: its identity if it has no name.
  virtual void OnSubscriberJoined(Publication& publication, const std::string& contextName) = 0;
  virtual void OnSubscriberLeft(Publication& publication, const std::string& contextName) = 0;

  // After a publish that gave kWouldBlock: there is space again.
  virtual void OnWritable(Publication& publication) = 0;
};

class Transport {
 public:
  virtual ~Transport() = default;

  // Names this context of this run; unique in the domain.
  virtual const std::string& Identity() const noexcept = 0;

  // Announces a source. Once Withdraw has returned, the listener hears nothing more of the publication, except on a
  // thread that is inside Drain at that moment.
  virtual std::shared_ptr<Publication> Advertise(const PublicationInfo& info) = 0;
  virtual void Withdraw(Publication& publication) = 0;

  // Which sources the listener is to be told of: those of the topic, or all of the domain. Idempotent. After Unwatch
  // those of the topic that a transport no longer follows go down.
  virtual void Watch(const std::string& topic) = 0;
  virtual void Unwatch(const std::string& topic) = 0;
  virtual void WatchAll() = 0;

  // Asks for a remote source's messages, from those published after the source has heard of it. Idempotent.
  virtual void Subscribe(RemoteSource& source) = 0;
  virtual void Unsubscribe(RemoteSource& source) = 0;

  // Sends to every present subscriber; kSent when there is none. A publication's messages are numbered in the order of
  // the calls, from 0. With Pacing::kReceiver, as long as a subscriber has no space nothing is sent to anybody; with
  // Pacing::kSource it never waits.
  virtual SendResult Publish(Publication& publication, const OutboundMessage& message, const SendWait& wait) = 0;

  // Whether the context of that identity is subscribed.
  virtual bool HasSubscriber(const Publication& publication, std::string_view identity) = 0;

  // Answers a request.
  virtual SendResult Respond(ReplyPath& path, std::span<const iovec> pieces, const SendWait& wait) = 0;

  // Handles what can be found at once, calling the listener, and returns the number of things done; 0 when there was
  // nothing. Bounded, so that a busy peer cannot keep the caller. Never waits. For memory shared with peers it makes no
  // system call on its own account except to grant a publisher the credit that it requested; a socket it may read.
  virtual std::size_t DrainMemory(Listener& listener) = 0;

  // The same for everything that has arrived; makes system calls. What does not arrive in shared memory is sources and
  // contexts that come and go, subscriptions and responses: a caller that never waits has to look for it now and then.
  virtual std::size_t Drain(Listener& listener) = 0;

  // Parks: until Unpark, the descriptor becomes readable when Drain has something to do; otherwise only when
  // DrainMemory would not find it. False, and not parked, when there is something to do already.
  virtual int GetDescriptor() const noexcept = 0;
  virtual bool Park() = 0;
  virtual void Unpark() noexcept = 0;

  // Leaves the domain: sources are withdrawn, and what was accepted but not yet handed to the operating system is given
  // up to linger to go out. Blocked sends return. What is called afterwards has no effect; sends give kClosed.
  virtual void Close(std::chrono::milliseconds linger) noexcept = 0;
};

// A transport that can carry what another one does not: it can be asked before it is sent to.
class FarTransport : public Transport {
 public:
  virtual bool HasSubscribers(const Publication& publication) const noexcept = 0;

  // Whether Publish would send the message now.
  virtual bool HasRoom(Publication& publication, const OutboundMessage& message) = 0;

  // Publishes although there is no room.
  virtual void PublishRegardless(Publication& publication, const OutboundMessage& message) = 0;
};

}  // namespace engine::transport
