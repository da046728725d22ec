// What the engine's core asks of a way to carry messages between contexts.
//
// A Transport belongs to one context. It finds the domain's other contexts, tells them of this context's sources
// (publications), tells this context of theirs (remote sources), carries messages to whoever subscribed, and answers to
// whoever asked. The context itself is one of the domain's contexts: it finds its own sources like those of others.
//
// Threads: drain(), drainMemory(), arm() and disarm() are called by one thread at a time; the Listener is called only
// from inside the two drains, with no lock of the transport held, and may call every operation of the transport but
// those four. All other operations may be called on any thread at any time. Where it says drain() below, both are
// meant.
//
// Errors: a fault of the operating system is thrown as std::system_error, anything else as std::runtime_error, both
// with a text that says what to do. A fault of a peer ends the link to that peer and is nobody else's.
#pragma once

#include <sys/uio.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace engine::transport {

// Who gives way when a subscriber cannot keep up: the source (the message is dropped for that subscriber, who is told
// of the loss) or nobody (the publisher has to wait).
enum class Pacing : std::uint8_t { kSource, kReceiver };

struct PublicationInfo {
  std::string topic;
  std::string session;  // names this source of this run to receivers; unique in the domain
  Pacing pacing = Pacing::kSource;
};

// A source of this context, made by Transport::advertise.
class Publication {
 public:
  virtual ~Publication() = default;
};

// A source of the domain as its subscribers see it. Shared: messages that are still held keep it for its strings.
class RemoteSource {
 public:
  RemoteSource(std::string topic, std::string session) : m_topic(std::move(topic)), m_session(std::move(session)) {}
  virtual ~RemoteSource() = default;
  RemoteSource(const RemoteSource&) = delete;
  RemoteSource& operator=(const RemoteSource&) = delete;

  const std::string& GetTopic() const noexcept { return m_topic; }
  const std::string& Session() const noexcept { return m_session; }

  // For the listener's use; touched only from inside drain().
  void* listenerData = nullptr;

 private:
  std::string m_topic;
  std::string m_session;
};

// The way back to whoever sent a request.
class ReplyPath {
 public:
  virtual ~ReplyPath() = default;
};

// One message to publish. The pieces are read during the call only.
struct OutboundMessage {
  std::span<const iovec> pieces;
  std::uint64_t requestId = 0;  // 0: not a request. Unique among this context's open requests.
  std::optional<std::uint32_t> channel;
};

// One message that arrived, whole. Valid during the call; a faulty publisher may change the payload meanwhile, so it is
// copied before it is interpreted.
struct InboundMessage {
  std::span<const std::byte> payload;
  std::uint32_t sequence = 0;
  std::optional<std::uint32_t> channel;
  std::shared_ptr<ReplyPath> replyPath;  // set for requests
};

enum class SendResult : std::uint8_t {
  kSent,
  kWouldBlock,
  kPeerGone,  // the requester is no longer there
  kClosed     // the transport is, maybe since the call began
};

class Listener {
 public:
  virtual ~Listener() = default;

  // Once for each appearance and disappearance, for every source of the domain, subscribed or not. Messages that a
  // source had published before it went come before sourceDown. sourceDown does not end the RemoteSource's life.
  virtual void OnSourceUp(const std::shared_ptr<RemoteSource>& source) = 0;
  virtual void OnSourceDown(const std::shared_ptr<RemoteSource>& source) = 0;

  virtual void OnMessage(RemoteSource& source, InboundMessage& message) = 0;

  // count messages of the source, from sequence number first on, will not arrive. Told before any later message, and
  // also when the lost ones were the last.
  virtual void OnLoss(RemoteSource& source, std::uint32_t first, std::uint32_t count) = 0;

  // responder names the context that sent it; unique in the domain.
  virtual void OnResponse(std::uint64_t requestId, const std::string& responder,
                          std::span<const std::byte> payload) = 0;

  // A context subscribed to the publication, or stopped. One without a name is given as it is when it responds.
  virtual void OnSubscriberJoined(Publication& publication, const std::string& contextName) = 0;
  virtual void OnSubscriberLeft(Publication& publication, const std::string& contextName) = 0;

  // After a publish that gave wouldBlock: there is room again.
  virtual void OnWritable(Publication& publication) = 0;
};

class Transport {
 public:
  virtual ~Transport() = default;

  // Announces a source. The listener hears nothing of the publication once withdraw() has returned, except on the
  // thread that is inside drain() at that moment.
  virtual std::shared_ptr<Publication> Advertise(const PublicationInfo& info) = 0;
  virtual void Withdraw(Publication& publication) = 0;

  // Asks for a remote source's messages, from those published after the source has heard of it. Idempotent.
  virtual void Subscribe(RemoteSource& source) = 0;
  virtual void Unsubscribe(RemoteSource& source) = 0;

  // Sends to every present subscriber; sent when there is none. The publication's messages are numbered in the order of
  // the calls, the first one 0. With Pacing::receiver, a subscriber without room makes it give wouldBlock, sending
  // nothing to anybody, or wait when block is set; with Pacing::source it never waits. Inside drain() block counts for
  // nothing: the room may depend on that very drain().
  virtual SendResult Publish(Publication& publication, const OutboundMessage& message, bool block) = 0;

  // Answers a request. Inside drain() block counts for nothing, as for publish().
  virtual SendResult Respond(ReplyPath& path, std::span<const iovec> pieces, bool block) = 0;

  // Takes in what arrived in memory shared with peers, calling the listener, and returns the number of things done; 0
  // when there was nothing. Bounded, so that a busy peer cannot keep the caller. Never waits, and makes no system call
  // on its own account but to tell a sender of room that it asked for.
  virtual std::size_t DrainMemory(Listener& listener) = 0;

  // The same for all that has arrived; makes system calls. What is not in shared memory is sources and contexts that
  // come and go, subscriptions and responses: a caller that never waits has to look for it now and then.
  virtual std::size_t Drain(Listener& listener) = 0;

  // Between arm() and disarm() the descriptor becomes readable when drain() has something to do; at other times, only
  // when drainMemory() would not find it. False, and nothing to be disarmed, when there is something already.
  virtual int GetDescriptor() const noexcept = 0;
  virtual bool Arm() = 0;
  virtual void Disarm() noexcept = 0;

  // Leaves the domain: sources are withdrawn, and what was accepted but not yet handed to the operating system is given
  // up to linger to go out. Blocked publishers return. No operation but the destructor may follow.
  virtual void Close(std::chrono::milliseconds linger) noexcept = 0;
};

}  // namespace engine::transport
