// Whom a context gets to know, and what it tells them: it is linked to contexts that offer what it wants or want what
// it offers, and to no others.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "transport/host/link/link.h"
#include "transport/host/link/rendezvous.h"
#include "transport/host/link/retry_timer.h"
#include "transport/host/publications.h"
#include "transport/warnings.h"

namespace engine::transport::host {

// A context to which a link has ended although it may still be there is looked for again: for want of something, one of
// the two may have cut the other off.
//
// Threads: Run, Retry, TakeUnwatched and LookAgain are for the thread inside Drain; everything else may be called on
// any.
class Introductions {
  using Clock = std::chrono::steady_clock;

  struct Lost {
    Clock::time_point due = kNever;  // when it is to be looked for
    Clock::time_point linked;        // when it was found last
    std::chrono::milliseconds delay{0};
  };
  using LostContexts = std::map<std::string, Lost>;  // by their names

  static constexpr Clock::time_point kNever = Clock::time_point::max();

 public:
  // Gives the link to the context of that name, this context's own to itself included, and makes it if there is none.
  // Called inside Run. Throws when the system refuses.
  using LinkTo = std::function<Rendezvous::Outcome(const std::string& name, std::shared_ptr<Link>& link)>;

  // The references must outlive it.
  Introductions(Rendezvous& rendezvous, PublicationRegistry& publications, RetryTimer& retryTimer,
                const Warnings& warnings, LinkTo linkTo);

  // See Transport. They return at once; Run does what is to be done.
  void Watch(const std::string& topic) { Set(topic, true); }
  void Unwatch(const std::string& topic) { Set(topic, false); }
  void WatchAll();
  bool WatchesAll() const noexcept { return m_watchesAll; }
  bool Watches(const std::string& topic) const;

  // A publication that the directory of the domain already tells of: lets Run find those that want it.
  void Announce(std::uint32_t publication);

  // Does what is due, up to a bound, and returns how much that was. What the system refuses is reported once, and waits
  // for Retry.
  std::size_t Run();
  // Instead of Run: lets the retry timer go off for what is due.
  void Postpone();
  void Retry() noexcept;

  // What it takes to look for a context again, made while there is memory.
  using Place = LostContexts::node_type;
  static Place MakePlace(const std::string& name);
  // A link to the context has ended, or the one of this context to itself. False when it is not the first in a row.
  bool LookAgain(Place place) noexcept;

  // Whether topics have been unwatched since the last call.
  bool TakeUnwatched() noexcept { return std::exchange(m_unwatched, false); }
  void GiveBackUnwatched() noexcept { m_unwatched = true; }

 private:
  struct Watched {
    bool wanted = false;
    bool said = false;      // in the directory
    bool lookedUp = false;  // those who offer it have been found
  };

  struct Errand {
    enum class Kind : std::uint8_t { kTopic, kAllTopics, kPublication } kind;
    std::string topic;
    std::uint32_t publication = 0;
  };

  // What a context is to be told once it is linked.
  struct Letter {
    std::vector<std::string> wanted;
    std::vector<std::uint32_t> offered;
  };

  void Set(const std::string& topic, bool wanted);
  void Add(Errand errand);
  bool DoFirstErrand();
  void Do(const Errand& errand);
  void BringInLine(const std::string& topic);
  void LookUp(const std::string& topic, const Watched& state);
  void GiveUp(const std::string& topic, const Watched& state);
  void LookUpEverything();
  void FindWatchers(std::uint32_t publication);
  void OfferToSelf(const std::vector<std::uint32_t>& publications);
  std::size_t SendLetters();
  void Send(const Letter& letter, const std::shared_ptr<Link>& link);
  void NoteRefusal(const std::exception& error);
  void LookForLost();
  bool WriteAgain(const std::string& name);
  std::vector<std::string> WatchedTopics() const;

  Rendezvous& m_rendezvous;
  PublicationRegistry& m_publications;
  RetryTimer& m_retryTimer;
  const Warnings& m_warnings;
  const LinkTo m_linkTo;

  std::atomic<bool> m_pending{false};
  std::atomic<bool> m_watchesAll{false};
  mutable std::mutex m_mutex;
  // Guarded by m_mutex:
  std::deque<Errand> m_errands;
  std::unordered_map<std::string, Watched> m_watched;

  // For the thread inside Drain:
  std::map<std::string, Letter> m_letters;  // by the context's name
  LostContexts m_lost;
  Clock::time_point m_nextLook = kNever;  // the earliest of those
  bool m_foundWatchersOfAll = false;
  bool m_unwatched = false;
  bool m_refused = false;
  bool m_refusalTold = false;  // since something was done
};

}  // namespace engine::transport::host
