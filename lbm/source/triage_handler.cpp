// What the handler reads from the environment, its event queue and its registry. Requests are in triage_requests.cpp.
//
// m_triageReceiversContextPtr orders the making and destroying of the receivers without a common lock. It is set, under
// m_receiversLock, once they are made, and cleared, without a lock, once they are destroyed. Only the thread that
// destroys the context it names clears it, and nobody makes receivers while it is set; so atomic reads and writes of it
// are all that is needed.
#include "lbm/triage_handler.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <optional>
#include <utility>

#include "lbm/attributes.h"
#include "lbm/context.h"
#include "lbm/topics.h"
#include "log_statements.h"
#include "print_line.h"
#include "zq/messaging/triage_requests.h"
#include "zq/posix/environment.h"
#include "zq/posix/signals.h"

namespace lbm {
namespace {

namespace triage = zq::messaging::triage;
using zq::posix::Environment;

// As lenient as operators are used to: blanks and a sign may stand in front, anything may follow, and a number that
// fits a long but not an int loses its upper bits.
std::optional<int> ParseNumber(const std::string& text) {
  char* end = nullptr;
  errno = 0;
  const long number = std::strtol(text.c_str(), &end, 10);
  if (errno != 0 || end == text.c_str()) {
    return std::nullopt;
  }
  return static_cast<int>(number);
}

// Takes the number of a variable that is set; otherwise the default stays, and a text that is no number is logged.
void TakeNumber(const std::string& text, int& number, int line, const char* invalid, const char* usingDefault) {
  if (const auto parsed = ParseNumber(text)) {
    number = *parsed;
  } else if (!text.empty()) {
    ZQLOG_AT(zq::logging::ZQLOG_WARNING, 0, details::TriageLogSource(), statement::kFile, line,
             invalid << text << usingDefault << number);
  }
}

const lbm_context_t* HandleOf(const Context* ctx) { return *ctx; }

}  // namespace

const zq::logging::ConstSourcePtr& details::TriageLogSource() {
  static const auto& source =
      *new zq::logging::ConstSourcePtr(std::make_shared<const zq::logging::Source>("lbm_triage_handler"));
  return source;
}

std::shared_ptr<LbmTriageHandler> LbmTriageHandler::getInstance() {
  static const std::shared_ptr<LbmTriageHandler> instance = [] {
    std::unique_ptr<LbmTriageHandler> handler(new LbmTriageHandler);
    handler->Initialize();
    return std::shared_ptr<LbmTriageHandler>(std::move(handler));
  }();
  return instance;
}

LbmTriageHandler::~LbmTriageHandler() {
  const auto tell = [](const auto&... what) { details::PrintLine("lbm_triage_handler destructor ", what...); };
  tell("called");
  if (m_triageEnvReceiver) {
    tell("deleting env receiver");
    m_triageEnvReceiver.reset();
  }
  if (m_triageEnvDcReceiver) {
    tell("deleting env dc receiver");
    m_triageEnvDcReceiver.reset();
  }
  if (m_eventQueuePtr) {
    tell("cleaning up event_queue=", m_eventQueuePtr.get());
    m_eventQueuePtr->Unblock();
    if (m_eventQueueThread.joinable()) {
      tell("joining event_queue=", m_eventQueuePtr.get(), " thread_id=", m_eventQueueThread.get_id());
      m_eventQueueThread.join();
      tell("joined event_queue=", m_eventQueuePtr.get());
    }
    m_eventQueuePtr.reset();
  }
}

void LbmTriageHandler::Initialize() {
  if (const std::string disabled = Environment("DISABLE_LBM_TRIAGE_HANDLER"); !disabled.empty()) {
    m_disableTriageHandler = true;
    TRIAGE_LOG(
        ZQLOG_INFO_SEARCH, kTriageDisabled,
        "triage_handler disabled via environment variable being present DISABLE_LBM_TRIAGE_HANDLER=" << disabled);
    return;
  }
  m_chefEnvironment = triage::UpperCase(Environment(triage::kEnvironmentVariable));
  m_dataCenter = triage::UpperCase(Environment(triage::kDataCenterVariable));
  if (m_chefEnvironment.empty() || m_dataCenter.empty()) {
    TRIAGE_LOG(ZQLOG_ERROR, kTriageNamesMissing,
               "CHEF_ENVIRONMENT or DATA_CENTER environment variables are not set. triage_handler will be disabled. "
               "CHEF_ENVIRONMENT="
                   << m_chefEnvironment << " DATA_CENTER=" << m_dataCenter);
    m_disableTriageHandler = true;
    return;
  }
  TRIAGE_LOG(ZQLOG_INFO_SEARCH, kTriageInitializing, "Initializing LbmTriageHandler");

  if (const std::string queue = Environment("TRIAGE_HANDLER_USE_EVENT_QUEUE"); !queue.empty()) {
    TRIAGE_LOG(ZQLOG_INFO_SEARCH, kTriageEventQueueWanted,
               "triage_handler using EventQueue because env variable is set TRIAGE_HANDLER_USE_EVENT_QUEUE=" << queue);
    try {
      m_eventQueuePtr = std::make_unique<EventQueue>(EventQueueAttributes());
      const zq::posix::SignalBlocker blocker;
      m_eventQueueThread = std::thread(&LbmTriageHandler::EventQueueLoop, this);
      if (pthread_setname_np(m_eventQueueThread.native_handle(), "lbm_th_evq") != 0) {
        TRIAGE_LOG(ZQLOG_ERROR, kTriageThreadUnnamed,
                   "failed to set event queue thread name thread_id=" << m_eventQueueThread.get_id());
      }
      TRIAGE_LOG(ZQLOG_INFO, kTriageThreadStarted,
                 "started triage_handler event_queue=" << m_eventQueuePtr.get()
                                                       << " thread_id=" << m_eventQueueThread.get_id());
      // Waiting for room holds up nobody else on this thread.
      m_maxRetries = 1;
      m_timeBetweenRetriesMs = 55;
    } catch (const std::exception& error) {
      TRIAGE_LOG(ZQLOG_ERROR, kTriageNoEventQueue,
                 "failed to create event queue thread, triage receivers will not use an event queue: " << error.what());
      m_eventQueuePtr.reset();
    }
  }

  const std::string retries = Environment("TRIAGE_HANDLER_MAX_RETRIES");
  const std::string time = Environment("TRIAGE_HANDLER_TIME_BETWEEN_RETRIES_MS");
  TakeNumber(retries, m_maxRetries, statement::kTriageRetriesInvalid,
             "invalid value for TRIAGE_HANDLER_MAX_RETRIES=", " using default max_retries=");
  TakeNumber(time, m_timeBetweenRetriesMs, statement::kTriageRetryTimeInvalid,
             "invalid value for TRIAGE_HANDLER_TIME_BETWEEN_RETRIES_MS=", " using default time_between_retries_ms=");
}

void LbmTriageHandler::EventQueueLoop() {
  if (!m_eventQueuePtr) {
    return;
  }
  TRIAGE_LOG(ZQLOG_INFO_SEARCH, kTriageLoopStarting,
             "triage_handler event_queue=" << m_eventQueuePtr.get() << " loop starting");
  m_eventQueuePtr->Run();
  TRIAGE_LOG(ZQLOG_INFO_SEARCH, kTriageLoopStopping,
             "triage_handler event_queue=" << m_eventQueuePtr.get() << " loop stopping");
}

void LbmTriageHandler::registerContext(const std::string& name, Context* ctx) {
  if (m_disableTriageHandler) {
    return;
  }
  TRIAGE_LOG(ZQLOG_INFO_SEARCH, kTriageRegistering,
             "registering context=" << HandleOf(ctx) << " with context_name=" << name);
  if (name.empty()) {
    const std::lock_guard lock(m_receiversLock);
    const std::atomic_ref receiversContext(m_triageReceiversContextPtr);
    if (receiversContext.load() == nullptr) {
      try {
        const std::string prefix = Environment(triage::kTopicPrefixVariable);
        const ReceiverTopic envTopic(*ctx, triage::ActionTopic(prefix, m_chefEnvironment), ReceiverTopicAttributes());
        const ReceiverTopic envDcTopic(*ctx, triage::ActionTopic(prefix, m_chefEnvironment, m_dataCenter),
                                       ReceiverTopicAttributes());
        const auto create = [&](std::shared_ptr<Receiver>& receiver, const ReceiverTopic& topic) {
          receiver = std::make_shared<Receiver>(
              *ctx, topic, [this](const Message& message) { handleLbmMessage(message); }, m_eventQueuePtr.get());
          TRIAGE_LOG(ZQLOG_INFO_SEARCH, kTriageReceiverCreated,
                     "created triage_handler receiver topic=" << topic.GetString() << " on context=" << HandleOf(ctx)
                                                              << " with context_name=" << name);
        };
        create(m_triageEnvReceiver, envTopic);
        create(m_triageEnvDcReceiver, envDcTopic);
        receiversContext.store(ctx);
      } catch (const std::exception& error) {
        TRIAGE_LOG(ZQLOG_ERROR, kTriageReceiversFailed,
                   "failed to create triage receivers on context=" << HandleOf(ctx) << " exception=" << error.what());
      }
    }
  }
  const std::lock_guard lock(m_contextMapLock);
  m_contextMap.emplace(name, ctx);
}

void LbmTriageHandler::unregisterContext(Context* ctx) {
  if (m_disableTriageHandler) {
    return;
  }
  if (const std::atomic_ref receiversContext(m_triageReceiversContextPtr); receiversContext.load() == ctx) {
    TRIAGE_LOG(ZQLOG_INFO_SEARCH, kTriageReceiversDestroyed,
               "destroying triage_handler receivers that were created on context="
                   << HandleOf(ctx) << " because this context is being destroyed");
    // Waits for a callback that is running, which may be waiting for m_contextMapLock.
    m_triageEnvReceiver.reset();
    m_triageEnvDcReceiver.reset();
    receiversContext.store(nullptr);
  }
  const std::lock_guard lock(m_contextMapLock);
  const auto found =
      std::find_if(m_contextMap.begin(), m_contextMap.end(), [ctx](const auto& entry) { return entry.second == ctx; });
  if (found != m_contextMap.end()) {
    TRIAGE_LOG(ZQLOG_INFO_SEARCH, kTriageUnregistering,
               "unregistering context=" << HandleOf(ctx) << " with name=" << found->first);
    m_contextMap.erase(found);
  }
}

}  // namespace lbm
