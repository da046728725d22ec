// Tells the runs of a server apart.
#pragma once

#include <cstdint>

namespace price_client {

// Follows the session numbers of what one topic delivers. A later run of a server has a greater number, as a rule; and
// the last messages of a server that was killed, or is being replaced, may arrive among the first of its successor.
class SessionTracker {
 public:
  enum class Order : std::uint8_t {
    kFirst,  // nothing had come before
    kSame,
    kNext,   // another run has taken over
    kStale,  // of a run that is over, or about to be
  };

  // session is not 0.
  Order Take(std::uint64_t session) noexcept {
    if (session == m_session) {
      return Order::kSame;
    }
    // Once a source has ended, a lesser session is new all the same: the server's clock was set back.
    if (session < m_session && !m_sourceEnded) {
      return Order::kStale;
    }
    const auto order = m_session == 0 ? Order::kFirst : Order::kNext;
    m_session = session;
    m_sourceEnded = false;
    return order;
  }

  void SourceEnded() noexcept { m_sourceEnded = true; }

 private:
  std::uint64_t m_session = 0;
  bool m_sourceEnded = false;
};

}  // namespace price_client
