// How the application's callbacks are called.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "lbm/message.h"
#include "loop.h"
#include "zq/statistics/row.h"

namespace lbm::details {

// How often a row of this thread's callbacks may have gone. A callback that destroys what it belongs to leaves no row
// to count in.
inline constinit thread_local std::uint64_t g_rowsGone = 0;

// Counts an exception as it passes, without catching it: where nobody does, the process is to end where it was thrown.
class CountIfThrown {
 public:
  CountIfThrown(zq::statistics::Row& row, std::size_t failures) noexcept : m_row(row), m_failures(failures) {}
  ~CountIfThrown() {
    if (!m_returned && m_rowsGone == g_rowsGone) {
      m_row.Add(m_failures);
    }
  }
  CountIfThrown(const CountIfThrown&) = delete;
  CountIfThrown& operator=(const CountIfThrown&) = delete;

  void Returned() noexcept { m_returned = true; }

 private:
  zq::statistics::Row& m_row;
  const std::size_t m_failures;
  const std::uint64_t m_rowsGone = g_rowsGone;
  bool m_returned = false;
};

// Times a callback, for a message, which may be null, as the calling thread's loop does it.
template <class Call>
void TimeCallback(const lbm_msg_t* msg, const Call& call) {
  Loop* const loop = Loop::Current();
  if (loop != nullptr) {
    loop->BeforeCallback(msg);
  }
  call();
  if (loop != nullptr) {
    loop->AfterCallback();
  }
}

// Times a call of a callback for a message, which may be null, and counts it in that field of the row when it throws.
// The row may go meanwhile.
template <class Call>
void CallApplication(const lbm_msg_t* msg, zq::statistics::Row& row, std::size_t failures, const Call& call) {
  TimeCallback(msg, [&] {
    CountIfThrown thrown(row, failures);
    call();
    thrown.Returned();
  });
}

// One reference taken, and given back unless the callback kept it.
inline void Deliver(const MessageCallback& callback, lbm_msg_t* msg, zq::statistics::Row& row, std::size_t failures) {
  CallApplication(msg, row, failures, [&] {
    Message message(msg);
    callback(std::move(message));
  });
}

}  // namespace lbm::details
