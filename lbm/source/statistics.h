// What the layer counts: the kinds of its rows, and what a context's objects know of their context for it.
#pragma once

#include <lbm/lbm.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "loop.h"
#include "zq/statistics/row.h"

namespace lbm {

namespace details {

using zq::statistics::Row;

// The fields of each kind, in their order.
namespace loop_field {  // of the kinds "context" and "event_queue"
enum : std::size_t { kLoops, kCallbacks, kCallbackTime, kBusySince, kLongestCallback };
}
namespace receiver_field {
enum : std::size_t {
  kMessages,
  kBytes,
  kRequests,
  kLosses,
  kLostMessages,
  kSessionsBegun,
  kSessionsEnded,
  kOtherEvents,
  kFailures
};
}
namespace source_field {
enum : std::size_t {
  kMessages,
  kBytes,
  kFailures,
  kNonBlockingFailures,
  kReceivers,
  kWakeups,
  kRequests,
  kRequestFailures,
  kResponses,
  kResponseBytes,
  kCallbackFailures
};
}
namespace response_field {
enum : std::size_t { kMessages, kBytes, kWouldBlock, kRetries, kFailures };
}

// Never destroyed, as objects of the layer may be static ones.
const zq::statistics::Kind& ContextKind();
const zq::statistics::Kind& EventQueueKind();
const zq::statistics::Kind& ReceiverKind();
const zq::statistics::Kind& SourceKind();
const zq::statistics::Kind& ResponseKind();

// As logs have it.
std::string Address(const void* pointer);

// Makes the row that tells what the process runs on, once.
void ShowProcess();

// Texts that live for ever.
void CountTriageRequest(const char* request, const char* result) noexcept;

struct ContextStatistics {
  ContextStatistics(const std::string& contextName, const lbm_context_t* context);

  const std::string name;
  const std::string handle;
  Row loops;
  LoopClock clock;  // of whoever processes the context's events
  // Goes with the last of the context and its receivers: one of these may answer while the context goes.
  const std::shared_ptr<Row> responses;
};

// The row of what is answered by the calling thread: that of the context whose request it has been delivered, or one
// without a context.
Row& ResponsesOfThisThread();

// While it lives, the thread answers requests of one context.
class Answering {
 public:
  explicit Answering(std::shared_ptr<Row> responses) noexcept;
  ~Answering();
  Answering(const Answering&) = delete;
  Answering& operator=(const Answering&) = delete;

 private:
  const std::shared_ptr<Row> m_responses;
  Row* const m_outer;
};

}  // namespace details
}  // namespace lbm
