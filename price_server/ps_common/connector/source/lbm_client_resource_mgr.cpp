#include "ps_common/connector/lbm_client_resource_mgr.h"

#include <onload/extensions.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <exception>
#include <future>
#include <ios>
#include <stdexcept>
#include <utility>

#include "statistics.h"
#include "zq/logging/logger.h"
#include "zq/posix/file.h"
#include "zq/posix/signals.h"

namespace ps_ns {
namespace {

namespace field = dispatch_thread_field;

// Statement ids.
constexpr unsigned int kThreadStatement = 0;
constexpr unsigned int kManagerStatement = 13;
constexpr unsigned int kNotificationStatement = 9999;

// What is read from the configuration.
constexpr const char* kGeneralNode = "General";
constexpr const char* kOnloadStackName = "OnloadStackName";
constexpr const char* kLoggingNode = "Logging";
constexpr const char* kNotifications = "lbmNotifications";

constexpr int kNoAffinity = -1;
constexpr const char* kThreadName = "lbm_ctx_thread";  // at most 15 characters

// How long the release of a manager that was not shut down may take before the process ends all the same.
constexpr std::chrono::seconds kLastRelease{5};

// Makes a receiver or a source on the topic that nameTopic returns, in the place of the one that endpoint holds; what
// differs between the kinds is in the arguments. topicName is set as soon as the topic has its name.
template <typename Endpoint, typename NameTopic>
void Make(std::shared_ptr<Endpoint>& endpoint, lbm::Context& context, const char* logPrefix, const NameTopic& nameTopic,
          typename Endpoint::Callback callback, std::string& topicName) {
  const typename Endpoint::Topic::Attributes attributes;
  topicName = nameTopic();
  const typename Endpoint::Topic topic(context, topicName, attributes);
  endpoint = std::make_shared<Endpoint>(context, topic, std::move(callback));
  ZQLOG(ZQLOG_INFO, kManagerStatement, logPrefix << '"' << topicName << '"');
}

// The same for a new endpoint.
template <typename Endpoint, typename... Arguments>
std::shared_ptr<Endpoint> Create(Arguments&&... arguments) {
  std::shared_ptr<Endpoint> endpoint;
  Make(endpoint, std::forward<Arguments>(arguments)...);
  return endpoint;
}

// What is wrong, in a handler of it.
std::string TextOfException() {
  try {
    throw;
  } catch (const std::exception& error) {
    return error.what();
  } catch (...) {
    return "unknown";
  }
}

// A misspelt attribute is one that is missing, for which there is a default: nothing else would tell.
void WarnOfMisspelling(const Config& config, const char* node, const char* attribute) {
  if (const auto found = config.FindMisspelling(node, attribute)) {
    ZQLOG(ZQLOG_WARNING, kManagerStatement,
          "Unknown configuration attribute=" << found->name << " file=" << config.GetPath() << " line=" << found->line
                                             << " node=" << node << " meant=" << attribute);
  }
}

// A convenience for operators too: the receiver is worth having without it.
void SetSourceNotification(lbm::ReceiverTopicAttributes& attributes) {
  try {
    attributes.Set("source_notification_function",
                   lbm_rcv_src_notification_func_t{receiver_src_notify_create, receiver_src_notify_delete, nullptr});
  } catch (...) {
    ZQLOG(ZQLOG_WARNING, kNotificationStatement, "register source_notification_function failed");
    ZQLOG(ZQLOG_DEBUG, kNotificationStatement, "source_notification_function reason=" << TextOfException());
  }
}

}  // namespace

int context_src_notify(const char* topicName, const char* sourceName, void* /*clientd*/) {
  ZQLOG_FORMAT(ZQLOG_INFO, kNotificationStatement, "context_src_notify topic=%s src=%s", topicName, sourceName);
  return 0;
}

void* receiver_src_notify_create(const char* src_str, void* /*clientd*/) {
  ZQLOG_FORMAT(ZQLOG_INFO, kNotificationStatement, "receiver_src_notify_create src=%s", src_str);
  return nullptr;
}

int receiver_src_notify_delete(const char* src_str, void* /*clientd*/, void* /*clientd_*/) {
  ZQLOG_FORMAT(ZQLOG_INFO, kNotificationStatement, "receiver_src_notify_delete src=%s", src_str);
  return 0;
}

// ---- Construction and teardown ----

LbmClientResourceMgr::LbmClientResourceMgr(const ConfigPtr& config, bool shouldOnload, int lbmThreadCPUAffinity,
                                           unsigned int lbmProcessEventTimeout_ms,
                                           BackgroundTaskExecutor backgroundTaskExecutor,
                                           unsigned int maxTasksToExecute)
    : LbmResourceMgr(false, lbmProcessEventTimeout_ms, std::move(backgroundTaskExecutor), maxTasksToExecute),
      m_config(config),
      m_shouldOnload(shouldOnload),
      m_lbmThreadCPUAffinity(lbmThreadCPUAffinity) {}

LbmClientResourceMgr::LbmClientResourceMgr(const std::shared_ptr<ps_ns::Config>& config, const std::string& contextName,
                                           bool shouldOnload, int lbmThreadCPUAffinity,
                                           unsigned int lbmProcessEventTimeout_ms,
                                           std::function<bool()> backgroundTaskExecutor, unsigned int maxTasksToExecute)
    : LbmClientResourceMgr(config, shouldOnload, lbmThreadCPUAffinity, lbmProcessEventTimeout_ms,
                           std::move(backgroundTaskExecutor), maxTasksToExecute) {
  if (!config) {
    throw std::invalid_argument("LbmClientResourceMgr needs a configuration; it was given none");
  }
  ZQLOG(ZQLOG_INFO, kManagerStatement,
        "Creating LbmClientResourceMgr. shouldOnload="
            << std::boolalpha << shouldOnload << " lbmThreadCPUAffinity=" << lbmThreadCPUAffinity
            << " context_name=" << (contextName.empty() ? "<default>" : contextName.c_str())
            << " lbmProcessEventTimeout_ms=" << lbmProcessEventTimeout_ms);

  m_contextAttr = new lbm::ContextAttributes;
  m_contextAttr->SetString("operational_mode", "sequential");
  RegisterSourceNotification();
  if (!contextName.empty()) {
    m_contextAttr->SetString("context_name", contextName.c_str());
  }
  bool stackNameConfigured = false;
  m_onloadStackName = m_config->GetCompositeNode(kGeneralNode)
                          ->GetAttrValue<std::string>(kOnloadStackName, "lbm_pc_ctx", &stackNameConfigured);
  WarnOfMisspelling(*m_config, kGeneralNode, kOnloadStackName);
  m_ctx = new lbm::Context(*m_contextAttr);
  ShowStatistics(stackNameConfigured);

  m_running = true;
  ZQLOG(ZQLOG_INFO, kThreadStatement, "About to start LBM Context thread. Creator thread_id=" << gettid());
  const zq::posix::SignalBlocker blocker;
  m_thread = std::thread(&LbmClientResourceMgr::ContextThreadFunc, this);
}

// A convenience for operators: whatever is wrong with it must not keep the client from starting.
void LbmClientResourceMgr::RegisterSourceNotification() {
  try {
    bool configured = false;
    m_logNotifications =
        m_config->GetCompositeNode(kLoggingNode)->GetAttrValue<bool>(kNotifications, false, &configured);
    m_notificationsConfigured = configured;
    WarnOfMisspelling(*m_config, kLoggingNode, kNotifications);
    if (m_logNotifications) {
      m_contextAttr->Set("resolver_source_notification_function", lbm_src_notify_func_t{context_src_notify, nullptr});
    }
  } catch (...) {
    ZQLOG(ZQLOG_WARNING, kNotificationStatement, "register resolver_source_notification_function failed");
    ZQLOG(ZQLOG_DEBUG, kNotificationStatement, "resolver_source_notification_function reason=" << TextOfException());
  }
}

void LbmClientResourceMgr::ShowStatistics(bool stackNameConfigured) {
  m_statistics = std::make_unique<ManagerStatistics>(*m_ctx);
  zq::statistics::Row& thread = m_statistics->DispatchThread();
  thread.Set(field::kBackgroundTasks, m_backgroundTaskExecutor && m_maxTasksToExecute > 0 ? 1 : 0);
  thread.Set(field::kCpuWanted, m_lbmThreadCPUAffinity);
  thread.Set(field::kCpuGot, kNoAffinity);

  const std::string argument = "argument";
  m_statistics->ShowOption("shouldOnload", std::to_string(m_shouldOnload), argument);
  m_statistics->ShowOption("lbmThreadCPUAffinity", std::to_string(m_lbmThreadCPUAffinity), argument);
  m_statistics->ShowOption("lbmProcessEventTimeout_ms", std::to_string(m_lbmProcessEventTimeout_ms), argument);
  m_statistics->ShowOption("maxTasksToExecute", std::to_string(m_maxTasksToExecute), argument);
  const auto origin = [this](bool configured) { return configured ? "file " + m_config->GetPath() : "default"; };
  m_statistics->ShowOption(std::string(kGeneralNode) + '/' + kOnloadStackName, m_onloadStackName,
                           origin(stackNameConfigured));
  m_statistics->ShowOption(std::string(kLoggingNode) + '/' + kNotifications, std::to_string(m_logNotifications),
                           origin(m_notificationsConfigured));
}

void LbmClientResourceMgr::Shutdown() {
  ZQLOG(ZQLOG_INFO, kManagerStatement, "Shutting down LbmClientResourceMgr");
  if (std::atomic_ref(m_running).load()) {
    Stop();
  }
}

void LbmClientResourceMgr::Stop() {
  std::atomic_ref(m_running).store(false);
  if (m_ctx != nullptr) {
    lbm_context_unblock(*m_ctx);
  }
  if (m_thread.joinable()) {
    m_thread.join();
  }
}

LbmClientResourceMgr::~LbmClientResourceMgr() {
  if (m_thread.joinable()) {
    EndProcess();
  }
  Release();
}

// What the dispatch thread uses cannot be destroyed while it runs, and to wait for it may take for ever: its callback
// may be waiting for a lock that the caller of the destructor holds, or be that caller. So another thread stops and
// releases, and is waited for no longer than that should take.
void LbmClientResourceMgr::EndProcess() noexcept {
  zq::posix::WriteAll(STDERR_FILENO,
                      "ps_ns::LbmClientResourceMgr: destroyed without a call of Shutdown, which ends the process\n");
  if (m_thread.get_id() == std::this_thread::get_id()) {
    std::terminate();
  }
  const auto released = std::async(std::launch::async, [this] {
    Stop();
    Release();
  });
  released.wait_for(kLastRelease);
  std::terminate();  // unwinds nothing: the other thread finds everything alive
}

void LbmClientResourceMgr::Release() {
  m_commandResponseSource.reset();
  m_hostCommandReceiver.reset();
  m_idCommandReceiver.reset();
  delete m_contextAttr;
  delete m_ctx;
}

std::string LbmClientResourceMgr::GetPriceMulticastInterface() const {
  return GetContextAttribute(*m_ctx, "resolver_multicast_interface");
}

// ---- The dispatch thread ----

void LbmClientResourceMgr::ContextThreadFunc() {
  ZQLOG(ZQLOG_INFO, kThreadStatement, "Started LBM Context dispatch loop thread. thread_id=" << gettid());
  zq::statistics::Row& statistics = m_statistics->DispatchThread();
  statistics.Set(field::kThread, gettid());
  if (m_lbmThreadCPUAffinity != kNoAffinity) {
    PinThread();
  }
  if (prctl(PR_SET_NAME, kThreadName) != 0) {
    const int error = errno;
    ZQLOG(ZQLOG_ERROR, kThreadStatement,
          "Error occured while setting LBM Context thread name to " << kThreadName << ". errno=" << error);
  }
  if (m_shouldOnload && onload_is_present() == 1) {
    UseOnload();
  }

  statistics.Set(field::kRunning, 1);
  const std::atomic_ref running(m_running);
  while (running) {
    if (m_ctx->PollEC(m_lbmProcessEventTimeout_ms) != 0) {
      ZQLOG(ZQLOG_ERROR, kManagerStatement,
            "Error calling lbm_context_process_events. error=" << lbm_errnum() << ' ' << lbm_errmsg());
      break;
    }
    RunBackgroundTask();
  }
  statistics.Set(field::kRunning, 0);
  ZQLOG(ZQLOG_INFO, kThreadStatement, "Exiting LBM ClientResourceMgr dispatch loop thread.");
}

void LbmClientResourceMgr::PinThread() const {
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  // A CPU that the set has no room for leaves it empty, and the call below says so.
  if (m_lbmThreadCPUAffinity >= 0 && m_lbmThreadCPUAffinity < CPU_SETSIZE) {
    CPU_SET(m_lbmThreadCPUAffinity, &cpus);
  }
  // Not through m_thread: the constructor may still be assigning it.
  const int error = pthread_setaffinity_np(pthread_self(), sizeof(cpus), &cpus);
  if (error != 0) {
    ZQLOG(ZQLOG_ERROR, kThreadStatement, "Error settign CPU affinity for LBM context thread. error=" << error);
  } else {
    m_statistics->DispatchThread().Set(field::kCpuGot, m_lbmThreadCPUAffinity);
  }
}

void LbmClientResourceMgr::UseOnload() const {
  ZQLOG(ZQLOG_INFO, kThreadStatement,
        "Onload is present. Setting LBM thread to spin. Using Onload stack Name=" << m_onloadStackName);
  onload_thread_set_spin(ONLOAD_SPIN_ALL, 1);
  m_statistics->DispatchThread().Set(field::kSpinning, 1);
  onload_set_stackname(ONLOAD_THIS_THREAD, ONLOAD_SCOPE_PROCESS, m_onloadStackName.c_str());
}

void LbmClientResourceMgr::RunBackgroundTask() const {
  if (!m_backgroundTaskExecutor) {
    return;
  }
  zq::statistics::Row& statistics = m_statistics->DispatchThread();
  statistics.Set(field::kInBackgroundTask, 1);
  std::uint32_t calls = 0;
  while (calls < m_maxTasksToExecute) {
    ++calls;
    if (!m_backgroundTaskExecutor()) {
      break;
    }
  }
  statistics.Add(field::kTaskRuns, calls);
  statistics.Set(field::kInBackgroundTask, 0);
}

// ---- Sockets ----

bool LbmClientResourceMgr::RegisterSocketForReadEvents(int socket, lbm_fd_cb_proc callback, void* callbackData) {
  const int ret = lbm_register_fd(*m_ctx, socket, callback, callbackData, nullptr, LBM_FD_EVENT_READ);
  if (ret == 0) {
    m_statistics->DispatchThread().Add(field::kSockets);
    return true;
  }
  ZQLOG(ZQLOG_ERROR, kManagerStatement,
        "Error occured while registering socket with context for read events.ret=" << ret);
  return false;
}

bool LbmClientResourceMgr::UnregisterSocketForReadEvents(int socket) {
  if (lbm_cancel_fd(*m_ctx, socket, LBM_FD_EVENT_READ) == 0) {
    m_statistics->DispatchThread().Subtract(field::kSockets);
    return true;
  }
  ZQLOG(ZQLOG_ERROR, kManagerStatement, "Error occured while unregistering socket with context for read events");
  return false;
}

bool LbmClientResourceMgr::UnregisterSocketForReadEventsEx(int socket, lbm_event_queue_t* queue,
                                                           lbm_event_queue_cancel_cb_proc callback,
                                                           void* callbackData) {
  const lbm_event_queue_cancel_cb_info_t info{queue, callback, callbackData};
  if (lbm_cancel_fd_ex(*m_ctx, socket, LBM_FD_EVENT_READ, &info) == 0) {
    m_statistics->DispatchThread().Subtract(field::kSockets);
    return true;
  }
  ZQLOG(ZQLOG_ERROR, kManagerStatement, "Error occured while unregistering socket (ex) with context for read events");
  return false;
}

// ---- Endpoints of one server instance ----

SourcePtr LbmClientResourceMgr::CreateClientSource(const ServerInstance& serverInstance) {
  std::string topicName;
  return Create<lbm::Source>(
      *m_ctx, "Created RequestSource on topic=", [&] { return CreateClientRequestTopic(serverInstance); },
      lbm::Source::Callback(), topicName);
}

ReceiverPtr LbmClientResourceMgr::CreateClientReceiver(const ServerInstance& serverInstance,
                                                       lbm::Receiver::Callback callback, std::string& topicName) {
  return Create<lbm::Receiver>(
      *m_ctx, "Created ResponseReceiver on topic=", [&] { return CreateServerResponseTopic(serverInstance); },
      std::move(callback), topicName);
}

ReceiverPtr LbmClientResourceMgr::CreateClientDataReceiver(const ServerInstance& serverInstance, unsigned short segment,
                                                           lbm::Receiver::Callback callback, std::string& topicName) {
  return Create<lbm::Receiver>(
      *m_ctx, "Created SegmentReceiver on topic=", [&] { return CreateSegmentTopic(serverInstance, segment); },
      std::move(callback), topicName);
}

ReceiverPtr LbmClientResourceMgr::CreateClientProductInfoReceiver(const ServerInstance& serverInstance,
                                                                  lbm::Receiver::Callback callback,
                                                                  std::string& topicName) {
  return Create<lbm::Receiver>(
      *m_ctx, "Created ProductReceiver on topic=", [&] { return CreateProductResponseTopic(serverInstance); },
      std::move(callback), topicName);
}

ReceiverPtr LbmClientResourceMgr::CreateClientRFQ_Receiver(const ServerInstance& serverInstance,
                                                           lbm::Receiver::Callback callback, std::string& topicName) {
  return Create<lbm::Receiver>(
      *m_ctx, "Created RFQ_Receiver on topic=", [&] { return CreateRFQ_BroadcastTopic(serverInstance); },
      std::move(callback), topicName);
}

ReceiverPtr LbmClientResourceMgr::CreateClientNewsReceiver(const ServerInstance& serverInstance,
                                                           lbm::Receiver::Callback callback, std::string& topicName) {
  return Create<lbm::Receiver>(
      *m_ctx, "Created NewsReceiver on topic=", [&] { return CreateNewsBroadcastTopic(serverInstance); },
      std::move(callback), topicName);
}

ReceiverPtr LbmClientResourceMgr::CreateServerStatusReceiver(const ServerInstance& serverInstance,
                                                             lbm::Receiver::Callback callback) {
  lbm::ReceiverTopicAttributes attributes;
  if (m_logNotifications) {
    SetSourceNotification(attributes);
  }
  const std::string topicName = CreateServerStatusTopic(serverInstance);
  ReceiverPtr receiver;
  {
    const std::lock_guard lock(m_mtx);
    // Looks the topic up, with the attributes, only when it is not there yet.
    const lbm::ReceiverTopic& topic =
        m_statusTopics.try_emplace(topicName, *m_ctx, topicName, attributes).first->second;
    receiver = std::make_shared<lbm::Receiver>(*m_ctx, topic, std::move(callback));
  }
  ZQLOG(ZQLOG_INFO, kManagerStatement, "Created ServerStatusReceiver on topic=" << '"' << topicName << '"');
  return receiver;
}

// ---- The command channel ----

void LbmClientResourceMgr::CreateCommandSourceAndReceivers(lbm::Receiver::Callback callback,
                                                           const std::string& hostname, const std::string& clientID) {
  m_statistics->HideCommandChannel();
  std::string topicName;
  Make(
      m_hostCommandReceiver, *m_ctx,
      "Created ClientHostCommandReceiver on topic=", [&] { return CreateClientHostCommandTopic(hostname); }, callback,
      topicName);
  Make(
      m_idCommandReceiver, *m_ctx,
      "Created ClientIDCommandReceiver on topic=", [&] { return CreateClientIDCommandTopic(clientID); },
      std::move(callback), topicName);
  Make(
      m_commandResponseSource, *m_ctx, "Created ClientCommandResponseSource on topic=",
      [&] { return CreateClientCommandResponseTopic(hostname, clientID); }, {}, topicName);
  m_statistics->ShowCommandChannel(m_hostCommandReceiver->GetTopic(), m_idCommandReceiver->GetTopic(),
                                   m_commandResponseSource->GetTopic());
}

// ---- Look-up of recorded endpoints ----

SourcePtr LbmClientResourceMgr::GetRequestSource(const ServerInstance& serverInstance) const {
  return Find(m_sourcesByServerInstance, serverInstance);
}

ReceiverPtr LbmClientResourceMgr::GetResponseReceiver(const ServerInstance& serverInstance) const {
  return Find(m_receiversByServerInstance, serverInstance);
}

ReceiverPtr LbmClientResourceMgr::GetDataReceiver(const ServerInstance& serverInstance, unsigned short segment) const {
  const auto found = m_dataReceiversByServerInstance.find(serverInstance);
  if (found == m_dataReceiversByServerInstance.end() || segment >= found->second.size()) {
    return nullptr;
  }
  return found->second[segment];
}

}  // namespace ps_ns
