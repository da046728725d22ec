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

// Keeps all messages but prices off the dispatch thread: it only puts them here, as they are, in the order of arrival.
// Prices do not pass through.
//
// Threads: Post on any; Collect on one.
class Mailbox {
 public:
  // Messages of a kind that may wait; more are dropped, and so are those that are too large to be any of ours. A flood
  // of one kind costs little memory, and no messages of another. Comings and goings of sources are never dropped.
  static constexpr std::size_t kMaxWaiting = 1024;

  // wake is called by Post for what must not wait: commands, and a box that fills up.
  explicit Mailbox(std::function<void()> wake) : m_wake(std::move(wake)) {}

  void Post(Mail mail) noexcept;

  // All that came since the last call.
  std::vector<Mail> Collect();

  // Messages that were dropped.
  std::uint64_t Dropped() const;

 private:
  const std::function<void()> m_wake;
  mutable std::mutex m_mutex;  // guards what follows
  std::vector<Mail> m_mail;
  std::array<std::size_t, Mail::kKinds> m_waiting{};
  std::uint64_t m_dropped = 0;
};

}  // namespace price_client
