// The sources of one context, and the links on which they are announced.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "system/biased_mutex.h"
#include "transport/host/data_sender.h"
#include "transport/host/link.h"
#include "transport/transport.h"

namespace engine::transport::host {

// One for all publications of a context: it orders their messages in the rings that they share, and costs a message the
// same however many subscribers it has, next to nothing when one thread publishes. Taken before a link's mutex, never
// with the registry's.
using PublishingMutex = BiasedMutex;

class HostPublication final : public Publication {
 public:
  HostPublication(std::uint32_t id, PublicationInfo info, std::uint32_t firstSequence, PublishingMutex& mutex);

  std::uint32_t Id() const noexcept { return m_id; }
  const PublicationInfo& Info() const noexcept { return m_info; }

  // Sends to the subscribers. Without room on one of them and with Pacing::receiver: when mayWait is set waits until
  // there is or closed becomes true; otherwise asks to be told and gives wouldBlock.
  SendResult Publish(const OutboundMessage& message, bool mayWait, const std::atomic<bool>& closed);

  // From here on messages go to the peer. Answers the subscription; false when the publication is withdrawn.
  bool AddSubscriber(const std::shared_ptr<DataSender>& sender, std::uint32_t token);
  // False when the link had no subscription, or the publication is withdrawn.
  bool RemoveSubscriber(const Link& link);

  // Tells the subscribers, and returns them.
  std::vector<std::shared_ptr<DataSender>> Withdraw();
  bool Withdrawn() const;

  // Whether a publish gave wouldBlock since the last call.
  bool TakeWaiting() noexcept { return m_waiting.exchange(false); }

 private:
  bool SubscribersKnowOfRoom(std::size_t bytes) const noexcept;
  std::shared_ptr<DataSender> FullSubscriber(std::size_t bytes) const;
  std::shared_ptr<DataSender> AskForRoom(std::size_t bytes, std::uint32_t& told) const;

  const std::uint32_t m_id;
  const PublicationInfo m_info;
  std::atomic<bool> m_waiting{false};

  PublishingMutex& m_mutex;
  // Guarded by m_mutex:
  std::uint32_t m_nextSequence;
  std::vector<std::shared_ptr<DataSender>> m_subscribers;
  bool m_withdrawn = false;
};

using HostPublications = std::vector<std::shared_ptr<HostPublication>>;

// Threads: any.
class PublicationRegistry {
 public:
  explicit PublicationRegistry(std::uint32_t firstSequence) : m_firstSequence(firstSequence) {}

  std::shared_ptr<HostPublication> Advertise(const PublicationInfo& info);
  void Withdraw(HostPublication& publication);
  void WithdrawAll();

  // Null when there is none of that id (any more).
  std::shared_ptr<HostPublication> Find(std::uint32_t id) const;

  // Sends the greeting on the link and announces what there is and will be.
  void Attach(const std::shared_ptr<Link>& link, wire::Bytes greeting);
  // Returns the publications to which the link was subscribed.
  HostPublications Detach(const Link& link);

  std::vector<std::shared_ptr<Link>> Links() const;

  // A link's, until the link is detached.
  void AddSender(const std::shared_ptr<DataSender>& sender);

  // Gives to the ring what waits for room there. When nothing is left, names the publications to be told of room.
  std::vector<std::uint32_t> Flush(DataSender& sender);

  // The same for all other contexts that are within reach. True when nothing is left.
  bool FlushSenders();

 private:
  template <typename Selects>
  void Announce(wire::Bytes frame, Selects selects);  // with m_mutex held

  const std::uint32_t m_firstSequence;
  PublishingMutex m_publishing;
  std::vector<std::shared_ptr<DataSender>> m_senders;  // guarded by m_publishing

  mutable std::mutex m_mutex;  // taken before a link's
  // Guarded by m_mutex:
  std::uint32_t m_nextId = 0;
  std::unordered_map<std::uint32_t, std::shared_ptr<HostPublication>> m_publications;
  std::vector<std::shared_ptr<Link>> m_links;
};

}  // namespace engine::transport::host
