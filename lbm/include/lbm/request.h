// An open request.
#pragma once

#include <lbm/lbm.h>

#include <memory>

#include "lbm/message.h"
#include "zq/statistics/row.h"

#pragma GCC visibility push(default)

namespace lbm {

// Owns one request that was sent with Source::SendRequest: every response to it is passed to the callback, until the
// object is destroyed. It stays where it was made, since the library knows its address.
//
// Threads: the callback runs on the thread that processes the context's events, or dispatches the event queue when one
// was given; the first may come before SendRequest has returned. Not to be destroyed in its callback.
class Request {
 public:
  ~Request();

  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  operator lbm_request_t*() noexcept { return m_req; }
  operator const lbm_request_t*() const noexcept { return m_req; }

 private:
  friend class Source;

  // Not sent yet.
  Request(std::shared_ptr<zq::statistics::Row> row, MessageCallback cb);
  Request(lbm_src_t* src, std::shared_ptr<zq::statistics::Row> row, const char* data, size_t length, int flags,
          MessageCallback cb, lbm_event_queue_t* evq);

  int SendEC(lbm_src_t* src, const char* data, size_t length, int flags, lbm_event_queue_t* evq) noexcept;

  lbm_request_t* m_req = nullptr;
  MessageCallback m_cbk;
  std::shared_ptr<zq::statistics::Row> m_row;  // of the source
};

}  // namespace lbm

#pragma GCC visibility pop
