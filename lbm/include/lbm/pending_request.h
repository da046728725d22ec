// A request that is sent until it is answered.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

#include "lbm/message.h"

#pragma GCC visibility push(default)

namespace lbm {

namespace details {

struct OpenRequest;

}  // namespace details

// What has become of a request.
enum class RequestOutcome : std::uint8_t {
  kAnswered,        // the answer is complete
  kTimedOut,        // it was not complete in time, although somebody listened
  kNobodyListened,  // no response came in time, and no receiver was known of at any time (see RequestSource::Listeners)
};

// Whether an answer is complete with a response.
enum class Answer : std::uint8_t { kComplete, kPartial };

struct RequestOptions {
  static constexpr std::chrono::milliseconds kNoTimeout = std::chrono::milliseconds::max();

  // How long the whole answer may take, from the call that asks; kNoTimeout: any time.
  std::chrono::milliseconds timeout = std::chrono::seconds(5);

  // How long the first response may take before the request is sent again, at least a millisecond. The next time it is
  // twice as long, up to kLongestRetryInterval, unless it was longer from the start. Whoever begins to listen is sent
  // the request at once and begins this anew.
  static constexpr std::chrono::milliseconds kLongestRetryInterval = std::chrono::seconds(30);
  std::chrono::milliseconds retryInterval = std::chrono::seconds(1);
};

// Takes every response, of every receiver of the request and to every time that it was sent, until it says that the
// answer is complete. Must not throw. An empty one is content with the first response.
using ResponseCallback = std::function<Answer(Message)>;

// Takes the outcome, once. Must not throw.
using OutcomeCallback = std::function<void(RequestOutcome)>;

// Owns one request that was made with RequestSource::Ask, or none. The request is open until its outcome is told or it
// is cancelled, and cancelled at the latest when its owner goes. What its callbacks hold goes with the owner; when that
// goes in one of them, with the next event that the dispatching thread processes, or with the RequestSource.
//
// May be destroyed, assigned to and cancelled in any callback, its own included, and before or after its RequestSource;
// when that goes, the request is cancelled.
//
// Threads: one at a time, and not one that holds a lock which the callbacks take.
class [[nodiscard]] PendingRequest {
 public:
  PendingRequest() noexcept = default;
  PendingRequest(PendingRequest&& other) noexcept = default;
  PendingRequest& operator=(PendingRequest&& other) noexcept {
    PendingRequest old(std::exchange(m_request, std::exchange(other.m_request, nullptr)));
    return *this;
  }
  ~PendingRequest() { Cancel(); }

  // No callback of the request runs when it has returned, except the one that it is called from. Returns whether the
  // outcome was still open; then it is never told.
  bool Cancel() noexcept;

  // Whether the outcome is yet to be told.
  bool IsOpen() const;

 private:
  friend class RequestSource;

  explicit PendingRequest(std::shared_ptr<details::OpenRequest> request) noexcept : m_request(std::move(request)) {}

  std::shared_ptr<details::OpenRequest> m_request;
};

}  // namespace lbm

#pragma GCC visibility pop
