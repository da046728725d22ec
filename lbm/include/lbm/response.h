// The way to answer a request.
#pragma once

#include <lbm/lbm.h>

#include <string>

#pragma GCC visibility push(default)

namespace lbm {

class Message;

// The response of a request message, or none. Does not own it: it is valid as long as a Message holds the request.
//
// Threads: any.
class Response {
 public:
  explicit Response(lbm_response_t* response) noexcept : m_resp(response) {}
  ~Response() = default;

  // Answer with one send; flags are LBM_SRC_FLUSH, LBM_SRC_NONBLOCK or 0. Throw LbmError on every failure, would-block
  // included.
  void Send(const char* data, unsigned long length, int flags) const;
  void Send(const std::string& data, int flags) const;

  // Answers, sending again as long as the library reports that the send would block. maxRetries counts all sends, the
  // first included; retrySleepMs milliseconds are slept after each that would block. flags count only when maxRetries
  // is -1, otherwise the sends are flushing and non-blocking. source, topicName and requestId tell the request in the
  // log.
  //
  // Returns false after a logged failure: no response handle, another error than would-block, retries used up. With
  // maxRetries of 0 or below one send that would block is let go: true is returned though nothing was sent.
  //
  // Blocks the calling thread for up to maxRetries times retrySleepMs milliseconds, once at least, plus the sends.
  bool SendWithRetries(const char* source, const char* topicName, const char* data, unsigned long length,
                       const std::string& requestId, int maxRetries, int retrySleepMs, int flags) const;

  // The same, with source and topic name of the request.
  bool SendWithRetries(const Message& request, const std::string& data, const std::string& requestId, int maxRetries,
                       int retrySleepMs, int flags) const;

  operator lbm_response_t*() const noexcept { return m_resp; }

 private:
  lbm_response_t* m_resp;
};

}  // namespace lbm

#pragma GCC visibility pop
