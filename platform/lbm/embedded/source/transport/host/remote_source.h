// Sources of other contexts, and the ways back to them.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <utility>

#include "transport/host/link/link.h"
#include "transport/transport.h"

namespace engine::transport::host {

// Threads: Subscribe and Unsubscribe any; everything else is for the thread inside Drain.
class HostRemoteSource final : public RemoteSource {
 public:
  HostRemoteSource(std::string topic, std::string session, std::uint32_t id, std::weak_ptr<Link> link)
      : RemoteSource(std::move(topic), std::move(session)), m_id(id), m_link(std::move(link)) {}

  void Subscribe();
  void Unsubscribe();

  // The peer has accepted the subscription with the token, which counts as long as it is the one that is wanted; its
  // first message will have the sequence number.
  void Activate(std::uint32_t token, std::uint32_t nextSequence);

  // Whether a subscription is wanted and accepted.
  bool Active() const noexcept { return m_activeToken != 0 && m_activeToken == m_wantedToken; }

  // The sequence number of the next message.
  std::uint32_t Expected() const noexcept { return m_expected; }
  void Expect(std::uint32_t sequence) noexcept { m_expected = sequence; }

 private:
  const std::uint32_t m_id;
  const std::weak_ptr<Link> m_link;
  std::uint32_t m_activeToken = 0;
  std::uint32_t m_expected = 0;
  std::atomic<std::uint32_t> m_wantedToken{0};  // 0: not subscribed

  std::mutex m_mutex;             // taken before a link's, so that frames leave in the order of the calls
  std::uint32_t m_lastToken = 0;  // guarded by m_mutex
};

// Threads: any.
class HostReplyPath final : public ReplyPath {
 public:
  HostReplyPath(std::weak_ptr<Link> link, std::uint64_t request) : m_link(std::move(link)), m_request(request) {}

  // While the link takes no response, waits as wait allows, or until closed is true.
  SendResult Respond(std::span<const iovec> pieces, const SendWait& wait, const std::atomic<bool>& closed);

 private:
  const std::weak_ptr<Link> m_link;
  const std::uint64_t m_request;
};

}  // namespace engine::transport::host
