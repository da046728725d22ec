// What the dispatch thread hands over to the main thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "lbm/message.h"

namespace price_client {

struct Mail {
  enum class Kind : std::uint8_t {
    kPriceSourceCame,  // without a message
    kPriceSourceWent,  // without a message
    kStatus,
    kProduct,
    kRfq,
    kNews,
    kResponse,  // to a request, or on the topic of the responses to all clients
    kCommand,
  };
  static constexpr std::size_t kKinds = static_cast<std::size_t>(Kind::kCommand) + 1;

  Kind kind = Kind::kCommand;
  std::size_t instance = 0;  // index; not for commands
  lbm::Message message;      // any event of the topic's receiver
};

// Keeps the reading of all messages but prices off the dispatch thread, which only puts them here, as they are, in the
// order of arrival. Reading takes too long for it: a server tells all its products whenever a client joins, and a
// thousand of them take 3 ms, for which prices that are a few microseconds on their way would have to wait.
//
// Threads: Post and HandOver on the dispatch thread, or when there is none any more; the rest on any.
class Mailbox {
 public:
  // Messages of a kind that may wait; more are dropped, and so are those that are too large to be any of ours. A flood
  // of one kind costs little memory, and no messages of another. Comings and goings of sources are never dropped.
  static constexpr std::size_t kMaxWaiting = 1024;

  // wake is called by HandOver for what must not wait: commands, and a box that fills up.
  explicit Mailbox(std::function<void()> wake) : m_wake(std::move(wake)) {}

  void Post(Mail mail) noexcept { m_posted.push_back(std::move(mail)); }

  // Lets what was posted be collected. Between two rounds of event processing: who obeys a command shall not be ahead
  // of what else the same round brings, such as the news that somebody listens to the answer.
  void HandOver() noexcept;

  // All that was handed over since the last call.
  std::vector<Mail> Collect();

  // Messages that were dropped.
  std::uint64_t Dropped() const;

 private:
  bool Keep(Mail& mail);

  const std::function<void()> m_wake;
  std::vector<Mail> m_posted;  // the dispatch thread's
  mutable std::mutex m_mutex;  // guards what follows
  std::vector<Mail> m_mail;
  std::array<std::size_t, Mail::kKinds> m_waiting{};
  std::uint64_t m_dropped = 0;
};

}  // namespace price_client
