// The client's connection to price servers.
#pragma once

#include <lbm/lbm_cpp>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "ps_common/config/config.h"
#include "ps_common/connector/lbm_resource_mgr.h"
#include "ps_common/connector/server_instance.h"
#include "ps_common/connector/symbol_prefixes.h"
#include "zq/statistics/snapshot.h"

#pragma GCC visibility push(default)

namespace ps_ns {

class ManagerStatistics;

using ClientID_t = std::string;

// Owns the client's LBM context and the dispatch thread that drives it, and makes the client's endpoints on it.
//
//   ps_ns::LbmClientResourceMgr manager(config, "my_client", false, -1, 100, {}, 0);
//   const ps_ns::ShutdownGuard guard(manager);
//   std::string topicName;
//   auto prices = manager.CreateClientDataReceiver(instance, 0, onMessage, topicName);
//
// Lifecycle: running from construction to Shutdown, which is for good and must come before the destruction;
// ShutdownGuard sees to that. Endpoints belong to whoever created them, but for the command channel, which is the
// manager's; they are silent after Shutdown, and should go before the manager.
//
// Threads: the callbacks of receivers and registered sockets, and the background task, run on the dispatch thread, one
// at a time; they delay each other and must not throw. Endpoints may be created and sockets registered on any thread.
class LbmClientResourceMgr final : public LbmResourceMgr {
 public:
  using RequestSourcesByServerInstance = std::unordered_map<ServerInstance, SourcePtr, ServerInstance::Hasher>;
  using ResponseReceiversByServerInstance = std::unordered_map<ServerInstance, ReceiverPtr, ServerInstance::Hasher>;
  using Receivers_t = std::vector<ReceiverPtr>;
  using DataReceiversByServerInstance = std::unordered_map<ServerInstance, Receivers_t, ServerInstance::Hasher>;

  // Creates the context and starts the dispatch thread.
  //
  // config: must not be null. Read here: "Logging"/"lbmNotifications" (bool, default false: whether the sources that
  //   the context finds are logged) and "General"/"OnloadStackName" (default "lbm_pc_ctx"). The node "General" must be
  //   there.
  // contextName: empty leaves the name to LBM.
  // shouldOnload: whether the dispatch thread spins on its own Onload stack, where Onload is present.
  // lbmThreadCPUAffinity: the CPU that the dispatch thread is pinned to; -1 for none.
  // lbmProcessEventTimeout_ms: how long the dispatch thread waits for an event before it turns to the background task,
  //   in milliseconds.
  // backgroundTaskExecutor: run by the dispatch thread between events until it returns false, at most maxTasksToExecute
  //   times in a row; may be empty.
  //
  // Throws lbm::LbmError; boost::property_tree::ptree_bad_path when there is no node "General"; std::invalid_argument
  // for a null config; std::system_error when the system starts no thread. Nothing is left behind then.
  LbmClientResourceMgr(const std::shared_ptr<ps_ns::Config>& config, const std::string& contextName, bool shouldOnload,
                       int lbmThreadCPUAffinity, unsigned int lbmProcessEventTimeout_ms,
                       std::function<bool()> backgroundTaskExecutor, unsigned int maxTasksToExecute);

  LbmClientResourceMgr(const LbmClientResourceMgr&) = delete;
  LbmClientResourceMgr(LbmClientResourceMgr&&) = delete;
  LbmClientResourceMgr& operator=(const LbmClientResourceMgr&) = delete;
  LbmClientResourceMgr& operator=(LbmClientResourceMgr&&) = delete;

  // Without a Shutdown before, ends the process with std::terminate. Says so on standard error first, and stops the
  // dispatch thread and releases what the manager owns, unless that takes more than five seconds, as when a callback
  // waits for the destroying thread.
  // Threads: the owner's; never the dispatch thread, where it ends the process at once.
  ~LbmClientResourceMgr();

  // Stops the dispatch thread and waits for it: no callback of a receiver or socket and no background task runs
  // afterwards. Only the notifications of status sources that are still there come later, at the destruction. Endpoints
  // and context stay alive. A repeated call only logs.
  // Threads: the owner's; never the dispatch thread.
  void Shutdown() override;

  // A name of this client for whoever has the manager; empty until it is set. The manager makes no use of it: the
  // command channel is created for the identity that is given there.
  // Threads: set it before other threads use the manager.
  void SetClientID(const ClientID_t& clientID) { m_clientID = clientID; }
  const ClientID_t& GetClientID() const noexcept { return m_clientID; }

  // Never null; owned by the manager.
  lbm::Context* GetContext() const noexcept { return m_ctx; }

  // The network interface of the context's multicast resolver, as LBM prints it. Throws lbm::LbmError.
  std::string GetPriceMulticastInterface() const;

  // The statistics of the manager, of its context and of all endpoints on it; what it costs lbm::Context::GetStatistics
  // says. Threads: any.
  zq::statistics::Snapshot GetStatistics() const { return m_ctx->GetStatistics(); }

  // ---- Sockets ----
  // A registered callback runs on the dispatch thread whenever the socket is readable. A socket must be unregistered
  // before it is closed. All return whether LBM did it; a failure is logged.

  bool RegisterSocketForReadEvents(int socket, lbm_fd_cb_proc callback, void* callbackData);

  // No callback of the socket runs after it has returned, unless it was called from that callback.
  bool UnregisterSocketForReadEvents(int socket);

  // Does not wait: callback is called with the socket and callbackData once no callback of the socket will come any
  // more, by whoever runs the queue, or on the dispatch thread when queue is null. It must not be null. The dispatch
  // thread has a part in either: what has not been called when Shutdown returns may never be.
  bool UnregisterSocketForReadEventsEx(int socket, lbm_event_queue_t* queue, lbm_event_queue_cancel_cb_proc callback,
                                       void* callbackData);

  // ---- Endpoints of one server instance ----
  // Each call creates a new endpoint, which belongs to the caller; the manager records none of them. topicName receives
  // the name of the topic, also when the creation fails after the topic was named. Callbacks run on the dispatch
  // thread; an empty one takes the messages and drops them. All throw lbm::LbmError.

  SourcePtr CreateClientSource(const ServerInstance& serverInstance);
  ReceiverPtr CreateClientReceiver(const ServerInstance& serverInstance, lbm::Receiver::Callback callback,
                                   std::string& topicName);
  ReceiverPtr CreateClientDataReceiver(const ServerInstance& serverInstance, unsigned short segment,
                                       lbm::Receiver::Callback callback, std::string& topicName);
  ReceiverPtr CreateClientProductInfoReceiver(const ServerInstance& serverInstance, lbm::Receiver::Callback callback,
                                              std::string& topicName);
  ReceiverPtr CreateClientRFQ_Receiver(const ServerInstance& serverInstance, lbm::Receiver::Callback callback,
                                       std::string& topicName);
  ReceiverPtr CreateClientNewsReceiver(const ServerInstance& serverInstance, lbm::Receiver::Callback callback,
                                       std::string& topicName);

  // A receiver on the instance's status topic, as above. With "lbmNotifications" configured, each source of the topic
  // is logged when it comes and when it goes, once however many receivers the topic has; when LBM refuses that, a
  // warning is logged and the receiver is made without it.
  ReceiverPtr CreateServerStatusReceiver(const ServerInstance& serverInstance, lbm::Receiver::Callback callback);

  // ---- The command channel ----
  // On it commands reach this client, and the client answers them.

  // Creates the three endpoints of the channel, which the manager keeps: the receivers of the commands to all clients
  // of the host and of those to this client, and the source of the answers. callback takes the commands of both; each
  // receiver has a copy. A repeated call replaces all three, one after the other.
  //
  // Throws lbm::LbmError, and std::invalid_argument or std::length_error when there can be no topic for hostname or
  // clientID. The endpoints before the one that failed are new then, and the others as they were.
  // Threads: one call at a time, not together with GetCommandResponseSource, and, as it ends the receivers that it
  // replaces, not from their callback.
  void CreateCommandSourceAndReceivers(lbm::Receiver::Callback callback, const std::string& hostname,
                                       const std::string& clientID);

  // Where the client sends its answers; empty until the channel is created.
  SourcePtr GetCommandResponseSource() const { return m_commandResponseSource; }

  // ---- Look-up of recorded endpoints ----
  // Empty when nothing is recorded for the instance, or not for that segment. As it is, nothing ever is: the operations
  // above record none of what they create, and there is no other that would.
  // Threads: any.

  SourcePtr GetRequestSource(const ServerInstance& serverInstance) const;
  ReceiverPtr GetResponseReceiver(const ServerInstance& serverInstance) const;
  ReceiverPtr GetDataReceiver(const ServerInstance& serverInstance, unsigned short segment) const;

 private:
  friend class RecordedEndpoints;  // fills the tables of endpoints, in a test

  // Sets the members and nothing else. Because the public constructor delegates to it, the destructor runs when a later
  // step of the construction throws.
  LbmClientResourceMgr(const ConfigPtr& config, bool shouldOnload, int lbmThreadCPUAffinity,
                       unsigned int lbmProcessEventTimeout_ms, BackgroundTaskExecutor backgroundTaskExecutor,
                       unsigned int maxTasksToExecute);

  void RegisterSourceNotification();
  void ShowStatistics(bool stackNameConfigured);

  // The parts of Shutdown and of the destructor; the last is for a destructor that no Shutdown came before.
  void Stop();
  void Release();
  [[noreturn]] void EndProcess() noexcept;

  // The dispatch thread.
  void ContextThreadFunc();
  void PinThread() const;
  void UseOnload() const;
  void RunBackgroundTask() const;

  // The order matters: what stands below m_ctx is destroyed first, but m_ctx and m_contextAttr themselves go before all
  // of them, in the destructor's body.
  const ConfigPtr m_config;
  ClientID_t m_clientID;
  RequestSourcesByServerInstance m_sourcesByServerInstance;
  ResponseReceiversByServerInstance m_receiversByServerInstance;
  DataReceiversByServerInstance m_dataReceiversByServerInstance;
  ReceiverPtr m_responseReceiver;
  ReceiverPtr m_hostCommandReceiver;
  ReceiverPtr m_idCommandReceiver;
  SourcePtr m_commandResponseSource;
  Receivers_t m_receivers;
  lbm::ContextAttributes* m_contextAttr = nullptr;  // owned
  lbm::Context* m_ctx = nullptr;                    // owned
  bool m_running = false;                           // shared with the dispatch thread, through std::atomic_ref only
  std::thread m_thread;
  bool m_shouldOnload;
  int m_lbmThreadCPUAffinity;
  bool m_logNotifications = false;
  bool m_notificationsConfigured = false;
  std::string m_onloadStackName;
  std::unordered_map<std::string, lbm::ReceiverTopic> m_statusTopics;  // guarded by m_mtx
  std::mutex m_mtx;
  std::unique_ptr<ManagerStatistics> m_statistics;
};

// The context's callback for sources that it finds: logs topic and source, ignores clientd and returns 0.
// Threads: the dispatch thread.
int context_src_notify(const char* topicName, const char* sourceName, void* clientd);

// A status topic's callbacks for a source that comes, and for one that goes. Both log the source and ignore all client
// data; the first returns null, as the client data of that source, and the second 0.
// Threads: the dispatch thread; for sources that are still there in the end, the thread that destroys the manager.
void* receiver_src_notify_create(const char* src_str, void* clientd);
int receiver_src_notify_delete(const char* src_str, void* clientd, void* clientd_);

}  // namespace ps_ns

#pragma GCC visibility pop
