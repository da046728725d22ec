// The sources of one context, and the links on which they are announced.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "transport/host/link.h"
#include "transport/transport.h"

namespace engine::transport::host {

class HostPublication final : public Publication {
 public:
  HostPublication(std::uint32_t id, PublicationInfo info, std::uint32_t firstSequence);

  std::uint32_t id() const noexcept { return m_id; }
  const PublicationInfo& info() const noexcept { return m_info; }

  // Sends to the subscribers. Without room on one of them and with Pacing::receiver: when mayWait is set waits until
  // there is or closed becomes true; otherwise asks to be told and gives wouldBlock.
  SendResult publish(const OutboundMessage& message, bool mayWait, const std::atomic<bool>& closed);

  // From here on messages go to the link. Answers the subscription; false when the publication is withdrawn.
  bool addSubscriber(const std::shared_ptr<Link>& link, std::uint32_t token);
  // False when the link had no subscription, or the publication is withdrawn.
  bool removeSubscriber(const Link& link);

  void markWithdrawn();
  bool withdrawn() const;

  // Whether a publish gave wouldBlock since the last call.
  bool takeWaiting() noexcept { return m_waiting.exchange(false); }

 private:
  const std::uint32_t m_id;
  const PublicationInfo m_info;
  std::atomic<bool> m_waiting{false};

  mutable std::mutex m_mutex;  // taken before a link's
  // Guarded by m_mutex:
  std::uint32_t m_nextSequence;
  std::vector<std::shared_ptr<Link>> m_subscribers;
  bool m_withdrawn = false;
};

using HostPublications = std::vector<std::shared_ptr<HostPublication>>;

// Threads: any.
class PublicationRegistry {
 public:
  explicit PublicationRegistry(std::uint32_t firstSequence) : m_firstSequence(firstSequence) {}

  std::shared_ptr<HostPublication> advertise(const PublicationInfo& info);
  void withdraw(HostPublication& publication);
  void withdrawAll();

  // Null when there is none of that id (any more).
  std::shared_ptr<HostPublication> find(std::uint32_t id) const;

  // Sends the greeting on the link and announces what there is and will be.
  void attach(const std::shared_ptr<Link>& link, wire::Bytes greeting);
  // Returns the publications to which the link was subscribed.
  HostPublications detach(const Link& link);

  std::vector<std::shared_ptr<Link>> links() const;

 private:
  void announce(wire::Bytes frame);  // with m_mutex held

  const std::uint32_t m_firstSequence;

  mutable std::mutex m_mutex;  // taken before a link's, never with a publication's
  // Guarded by m_mutex:
  std::uint32_t m_nextId = 0;
  std::unordered_map<std::uint32_t, std::shared_ptr<HostPublication>> m_publications;
  std::vector<std::shared_ptr<Link>> m_links;
};

}  // namespace engine::transport::host
