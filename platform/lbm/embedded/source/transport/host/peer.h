// What a context knows of another one, and what it makes of the frames from there.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "transport/host/link.h"
#include "transport/host/publications.h"
#include "transport/host/wire.h"
#include "transport/transport.h"

namespace engine::transport::host {

// Threads: subscribe() and unsubscribe() any; the rest is for the thread inside drain().
class HostRemoteSource final : public RemoteSource {
 public:
  HostRemoteSource(std::string topic, std::string session, std::uint32_t id, std::weak_ptr<Link> link)
      : RemoteSource(std::move(topic), std::move(session)), m_id(id), m_link(std::move(link)) {}

  void subscribe();
  void unsubscribe();

  // The peer has taken the subscription with the token; the first message will have the sequence number.
  void activate(std::uint32_t token, std::uint32_t nextSequence);

  // Whether its messages are wanted and the peer knows.
  bool active() const noexcept { return m_activeToken != 0 && m_activeToken == m_wantedToken; }

  // The next sequence number to come.
  std::uint32_t expected() const noexcept { return m_expected; }
  void expect(std::uint32_t sequence) noexcept { m_expected = sequence; }

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
  SendResult respond(std::span<const iovec> pieces, bool mayWait, const std::atomic<bool>& closed);

 private:
  const std::weak_ptr<Link> m_link;
  const std::uint64_t m_request;
};

// Threads: the one inside drain().
class Peer {
 public:
  Peer(std::shared_ptr<Link> link, PublicationRegistry& publications)
      : m_link(std::move(link)), m_publications(publications) {}

  const std::shared_ptr<Link>& link() const noexcept { return m_link; }
  // Of the context, or what stands for it if it has none.
  const std::string& name() const noexcept { return m_greeting.name.empty() ? m_identity : m_greeting.name; }
  std::string description() const;  // for notices

  // Acts on one frame. Throws wire::Fault when the peer is to be cut off.
  void handle(wire::Bytes frame, Listener& listener);

  // The link is gone, and with it all that came over it.
  void end(Listener& listener);

 private:
  void advertised(wire::Bytes frame, Listener& listener);
  void withdrawn(const wire::Withdraw& frame, Listener& listener);
  void subscribed(const wire::Subscribe& frame, Listener& listener);
  void unsubscribed(const wire::Unsubscribe& frame, Listener& listener);
  void message(wire::Bytes frame, Listener& listener);
  void lost(const wire::Loss& frame, Listener& listener);
  void skipTo(HostRemoteSource& source, std::uint32_t sequence, Listener& listener);
  HostRemoteSource& sourceOf(std::uint32_t id) const;

  const std::shared_ptr<Link> m_link;
  PublicationRegistry& m_publications;
  bool m_greeted = false;
  wire::Greeting m_greeting;
  std::string m_identity;  // unique in the domain
  wire::Reassembly m_reassembly;
  std::unordered_map<std::uint32_t, std::shared_ptr<HostRemoteSource>> m_sources;
};

}  // namespace engine::transport::host
