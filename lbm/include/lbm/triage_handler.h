// The process's end of remote operations requests.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "lbm/event_queue.h"
#include "lbm/message.h"
#include "lbm/receiver.h"
#include "zq/logging/source.h"

#pragma GCC visibility push(default)

namespace lbm {

class Context;

namespace details {

// Made on first use and never destroyed, so that statements of contexts made or destroyed with the program's static
// objects have it.
const zq::logging::ConstSourcePtr& TriageLogSource();

}  // namespace details

// The log source of the triage handler, "lbm_triage_handler".
inline const zq::logging::ConstSourcePtr& th_log = details::TriageLogSource();

// Knows all contexts of the process and answers the requests that operations tools send: a test request, and one that
// switches NAKs on or off on contexts chosen by name. It listens on two topics, with two receivers on the first context
// whose name is empty; once that context is gone, on the next one with an empty name that is made.
//
// The environment configures it when the process makes its first context; empty variables count as unset.
//   DISABLE_LBM_TRIAGE_HANDLER              anything: the handler does nothing
//   CHEF_ENVIRONMENT, DATA_CENTER           names for the topics, in any case; without both the handler does nothing
//   TRIAGE_HANDLER_USE_EVENT_QUEUE          anything: requests are served by the thread "lbm_th_evq" and not by the
//                                           one that processes the context's events
//   TRIAGE_HANDLER_MAX_RETRIES              sends of an answer, see Response::SendWithRetries; default 0, or 1 with the
//                                           event queue
//   TRIAGE_HANDLER_TIME_BETWEEN_RETRIES_MS  milliseconds after each that would block; default 0, or 55 with the event
//                                           queue
//   LBM_TRIAGE_HANDLER_TOPIC_PREFIX         stands before both topics; read whenever the receivers are made
// The topics are TRIAGE.ACTION.<environment>.LBM and TRIAGE.ACTION.<environment>.LBM.<data center>, in upper case.
//
// Destroyed when static objects are, or with the last context if that is later; no context can be made after that.
// Its last lines therefore go to standard output and not to the log.
//
// Threads: contexts register and unregister on any. Requests are served on one at a time.
class LbmTriageHandler {
 public:
  // The one of the process, made by the first call. What the first call throws the next one tries again.
  static std::shared_ptr<LbmTriageHandler> getInstance();

  ~LbmTriageHandler();

  LbmTriageHandler(const LbmTriageHandler&) = delete;
  LbmTriageHandler& operator=(const LbmTriageHandler&) = delete;

  // For contexts, which register once they have a handle and unregister before they give it back. Failures to make the
  // receivers are logged; the next context with an empty name tries again. Without memory for the registry it throws.
  void registerContext(const std::string& name, Context* ctx);
  void unregisterContext(Context* ctx);

 private:
  LbmTriageHandler() = default;

  void Initialize();
  void EventQueueLoop();
  void toggleNaks(bool enable, std::string pattern);
  void handleTriageMessage(const Message& message);
  int handleLbmMessage(const Message& message);

  std::multimap<std::string, Context*> m_contextMap;  // by name; under m_contextMapLock
  std::mutex m_contextMapLock;
  std::shared_ptr<Receiver> m_triageEnvReceiver;
  std::shared_ptr<Receiver> m_triageEnvDcReceiver;
  std::string m_chefEnvironment;
  std::string m_dataCenter;
  bool m_disableTriageHandler = false;
  Context* m_triageReceiversContextPtr = nullptr;
  int m_maxRetries = 0;
  int m_timeBetweenRetriesMs = 0;
  std::unique_ptr<EventQueue> m_eventQueuePtr;
  std::thread m_eventQueueThread;
  std::mutex m_receiversLock;  // taken to make the receivers, not to destroy them
};

}  // namespace lbm

#pragma GCC visibility pop
