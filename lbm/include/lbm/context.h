// The messaging context.
#pragma once

#include <lbm/lbm.h>

#include <memory>
#include <string>

#include "lbm/attributes.h"
#include "zq/statistics/snapshot.h"

#pragma GCC visibility push(default)

namespace lbm {

class Context;
class LbmTriageHandler;

namespace details {

struct ContextStatistics;
const ContextStatistics& StatisticsOf(const Context& ctx) noexcept;

}  // namespace details

// Owns one messaging context, from which every topic, source and receiver is made; it must outlive them all. The
// process's triage handler knows it while it lives.
//
// Threads: built and destroyed on one thread; Poll and PollEC on one thread at a time; Unblock, GetStrOpt,
// GetStatistics and the NAK operations on any.
class Context {
 public:
  // Reads the name back from the library; a name that cannot be read is logged and stays empty. The first context of
  // the process makes the triage handler. Throws LbmError. What registering with the triage handler throws, such as
  // std::bad_alloc, leaves the messaging library's context behind.
  explicit Context(const ContextAttributes& attrs);
  virtual ~Context();

  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  // Processes the context's events for at most timeoutMs milliseconds; for contexts without a thread of their own.
  // Returns the library's result. Throws LbmError.
  int Poll(lbm_ulong_t timeoutMs);

  // The same, but returns -1 on failure with the reason in lbm_errnum(). Both count in the context's statistics, which
  // a call of lbm_context_process_events does not.
  int PollEC(lbm_ulong_t timeoutMs);

  // Makes a Poll in progress return, or the next one when there is none. Throws LbmError.
  void Unblock();

  // The text of one of the context's options, of at most 1023 characters. Throws LbmError.
  std::string GetStrOpt(const char* name) const;

  // The messaging library's version 6.13.1 cannot switch NAKs: both log an error and return -1.
  int EnableNAKs();
  int DisableNAKs();

  // The name that the library gave back; empty when it could not be read.
  const std::string& GetName() const noexcept { return m_contextName; }

  // The statistics of this context and of all that was made on it: the rows whose label "handle" is the context's.
  // Reads all rows of the process, under a lock that keeps others from making and destroying any meanwhile:
  // some tens of milliseconds for ten thousand rows.
  zq::statistics::Snapshot GetStatistics() const;

  operator lbm_context_t*() noexcept { return m_ctx; }
  operator const lbm_context_t*() const noexcept { return m_ctx; }

 private:
  friend const details::ContextStatistics& details::StatisticsOf(const Context& ctx) noexcept;

  lbm_context_t* m_ctx = nullptr;
  std::string m_contextName;
  std::shared_ptr<LbmTriageHandler> m_triageHandler;
  std::unique_ptr<details::ContextStatistics> m_statistics;
};

}  // namespace lbm

#pragma GCC visibility pop
