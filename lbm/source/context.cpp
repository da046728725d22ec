#include "lbm/context.h"

#include <exception>
#include <type_traits>
#include <vector>

#include "lbm/errors.h"
#include "lbm/triage_handler.h"
#include "log_statements.h"
#include "loop.h"
#include "print_line.h"
#include "statistics.h"
#include "text_option.h"

namespace lbm {

const details::ContextStatistics& details::StatisticsOf(const Context& ctx) noexcept { return *ctx.m_statistics; }

static_assert(!std::is_copy_constructible_v<Context> && !std::is_move_constructible_v<Context>);

Context::Context(const ContextAttributes& attrs) : m_triageHandler(LbmTriageHandler::getInstance()) {
  details::ThrowIfFailed(lbm_context_create(&m_ctx, attrs, nullptr, nullptr), "Failed to create LBM context");
  try {
    m_contextName = GetStrOpt("context_name");
  } catch (const std::exception& error) {
    LBM_LOG(ZQLOG_WARNING, kContextNameUnreadable, "Failed to get context name from context " << error.what());
  }
  LBM_LOG(ZQLOG_INFO_SEARCH, kContextCreated,
          "Created LBM context=" << m_ctx << " with attributes context_name=" << m_contextName);
  details::ShowProcess();
  m_statistics = std::make_unique<details::ContextStatistics>(m_contextName, m_ctx);
  m_triageHandler->registerContext(m_contextName, this);
}

Context::~Context() {
  details::PrintLine("Destroying LBM context=", m_ctx, " context_name=", m_contextName);
  if (m_triageHandler) {
    m_triageHandler->unregisterContext(this);
  }
  if (m_ctx != nullptr) {
    lbm_context_delete(m_ctx);
  }
  details::Loop::Forget(m_statistics->loops);
}

int Context::Poll(lbm_ulong_t timeoutMs) {
  return details::ThrowIfFailed(PollEC(timeoutMs), "Failed to process LBM context events");
}

int Context::PollEC(lbm_ulong_t timeoutMs) {
  const details::Loop loop(m_statistics->loops, m_statistics->clock);
  return lbm_context_process_events(m_ctx, timeoutMs);
}

void Context::Unblock() { details::ThrowIfFailed(lbm_context_unblock(m_ctx), "Failed to unblock LBM context"); }

std::string Context::GetStrOpt(const char* name) const {
  return details::ReadTextOption(
      [&](char* text, std::size_t* length) { return lbm_context_str_getopt(m_ctx, name, text, length); },
      "Failed to get context string option");
}

zq::statistics::Snapshot Context::GetStatistics() const {
  zq::statistics::Snapshot snapshot = zq::statistics::TakeSnapshot();
  std::erase_if(snapshot.rows, [&](const auto& row) { return row.Label("handle") != m_statistics->handle; });
  return snapshot;
}

int Context::EnableNAKs() {
  LBM_LOG(ZQLOG_ERROR, kNaksNotEnabled,
          "Failed to enable NAKs. This feature is available in LBM versions 6.16.1 and above");
  return -1;
}

int Context::DisableNAKs() {
  LBM_LOG(ZQLOG_ERROR, kNaksNotDisabled,
          "Failed to disable NAKs. This feature is available in LBM versions 6.16.1 and above");
  return -1;
}

}  // namespace lbm
