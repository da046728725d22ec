// The sources of one context, and who knows of them.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "system/biased_mutex.h"
#include "system/tuning.h"
#include "transport/host/link/link.h"
#include "transport/host/sampler.h"
#include "transport/host/subscriber.h"
#include "transport/transport.h"

namespace engine::transport::host {

// One for all publications of a context: it orders their messages in the rings that they share. Biased, because mostly
// one thread publishes. Taken before a link's mutex, never together with the registry's.
using PublishingMutex = std::conditional_t<tuning::kBiasedMutex, BiasedMutex, std::mutex>;

struct Publishing {
  PublishingMutex mutex;
  Sampler sampler;  // guarded by mutex
};

// Threads: any.
class HostPublication final : public Publication {
 public:
  // key: of the topic in the directory of the domain.
  HostPublication(std::uint32_t id, std::string session, PublicationInfo info, std::string key,
                  std::uint32_t firstSequence, Publishing& publishing);

  const PublicationInfo& Info() const noexcept { return m_info; }
  const std::string& Key() const noexcept { return m_key; }

  // Sends to the subscribers. Without space at one of them and with Pacing::kReceiver, waits as wait allows until there
  // is space or closed is true; when it may not, requests credit and gives kWouldBlock.
  SendResult Publish(const OutboundMessage& message, const SendWait& wait, const std::atomic<bool>& closed);

  // See Transport::HasSubscriber.
  bool HasSubscriber(std::string_view identity) const;

  // From now on messages go to the peer, whose subscription is answered. False when the publication is withdrawn.
  bool AddSubscriber(const std::shared_ptr<Subscriber>& subscriber, std::uint32_t token);
  // False when the link had no subscription, or the publication is withdrawn.
  bool RemoveSubscriber(const Link& link) noexcept;

  // Tells the subscribers, and returns them.
  std::vector<std::shared_ptr<Subscriber>> Withdraw() noexcept;
  bool Withdrawn() const;

  // Whether a Publish has given kWouldBlock since the last call.
  bool TakeBlocked() noexcept { return m_blocked.exchange(false); }
  void GiveBackBlocked() noexcept { m_blocked = true; }

 private:
  bool EveryoneHasSpaceCached(std::size_t bytes) const noexcept;
  std::shared_ptr<Subscriber> FindFull(std::size_t bytes) const;
  std::shared_ptr<Subscriber> FindFullRequestingCredit(std::size_t bytes, std::uint32_t& granted) const;

  const PublicationInfo m_info;
  const std::string m_key;
  std::atomic<bool> m_blocked{false};

  zq::statistics::Row m_uncounted;
  const zq::statistics::Cells m_counters;  // of the source
  PublishingMutex& m_mutex;
  // Guarded by m_mutex:
  Sampler& m_sampler;
  std::uint32_t m_nextSequence;
  std::vector<std::shared_ptr<Subscriber>> m_subscribers;
  bool m_withdrawn = false;
};

using HostPublications = std::vector<std::shared_ptr<HostPublication>>;

// Threads: any.
class PublicationRegistry {
 public:
  // identity: of the context, see Transport::Identity. firstSequence: of every publication.
  PublicationRegistry(const std::string& identity, std::uint32_t firstSequence)
      : m_identity(identity), m_firstSequence(firstSequence) {}

  using Links = std::vector<std::shared_ptr<Link>>;

  // Nobody is told yet. Throws std::invalid_argument when the topic's name is too long.
  std::shared_ptr<HostPublication> Advertise(const PublicationInfo& info, std::string key);
  // Tells all who know of the publication. False when it was withdrawn before.
  bool Withdraw(HostPublication& publication) noexcept;
  void WithdrawAll();

  // Null when there is none of that id any more.
  std::shared_ptr<HostPublication> Find(std::uint32_t id) const;

  // The ids of a topic's publications, or of all.
  std::vector<std::uint32_t> Of(const std::string& topic) const;
  std::vector<std::uint32_t> All() const;

  // Sends the hello on the link.
  void Attach(const std::shared_ptr<Link>& link, Bytes hello);
  // Its subscriptions are to be ended beside that.
  void Detach(const Link& link) noexcept;
  Links Attached() const;
  void CloseLinks() noexcept;

  // Advertises those of the publications that are still there. Does nothing for a link that is detached.
  void Offer(const std::shared_ptr<Link>& link, std::span<const std::uint32_t> ids);
  // Advertises all that there are and will be: those that come later are to be offered to all such links.
  void OfferAll(const std::shared_ptr<Link>& link);
  void OfferToWatchersOfAll(std::uint32_t id);

  // For subscribers, which use it with the publishing mutex held.
  Sampler& GetSampler() noexcept { return m_publishing.sampler; }

  // Belongs to its link, until the link is detached.
  void AddSubscriber(const std::shared_ptr<Subscriber>& subscriber);

  // Moves what is pending for the subscriber into its ring. When nothing is left, returns the publications that waited
  // for space there.
  std::vector<std::uint32_t> Flush(Subscriber& subscriber);

  // The same for every other context that is reachable. True when nothing is left.
  bool FlushAll();

 private:
  struct Advertised {
    std::shared_ptr<HostPublication> publication;
    Links told;  // that it is there
  };

  const std::string& m_identity;
  const std::uint32_t m_firstSequence;
  Publishing m_publishing;
  std::vector<std::shared_ptr<Subscriber>> m_subscribers;  // guarded by m_publishing.mutex

  mutable std::mutex m_mutex;  // taken before a link's
  // Guarded by m_mutex:
  std::uint32_t m_lastId = 0;
  std::unordered_map<std::uint32_t, Advertised> m_publications;
  std::unordered_map<std::string, std::vector<std::uint32_t>> m_byTopic;
  Links m_links;
  Links m_watchersOfAll;  // of m_links
};

}  // namespace engine::transport::host
