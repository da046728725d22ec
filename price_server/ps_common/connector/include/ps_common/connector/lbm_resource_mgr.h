// What the resource managers of clients and servers share.
#pragma once

#include <lbm/lbm_cpp>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "ps_common/connector/topic_names.h"

#pragma GCC visibility push(default)

namespace ps_ns {

using ReceiverPtr = std::shared_ptr<lbm::Receiver>;
using SourcePtr = std::shared_ptr<lbm::Source>;

// Base of the managers that own one LBM context and the thread that drives it: the settings of that thread, the sources
// known by name, the topic names and the reading of context options. Managers are owned as what they are, never through
// this class.
class LbmResourceMgr : public TopicNames {
 public:
  using SourcesByTopicName_t = std::map<std::string, SourcePtr>;

  // Does one piece of work and returns whether there may be more.
  using BackgroundTaskExecutor = std::function<bool()>;

  // Stops the thread that drives the context. Must not be called on that thread.
  virtual void Shutdown() = 0;

  // The source that the derived manager has recorded under that topic name; empty when there is none.
  // LbmClientResourceMgr records none. Threads: not while sources are being recorded.
  SourcePtr GetSourceByTopicName(const std::string& topicName) const;

  // All options of a live context that have a text form, name to value. Throws lbm::LbmError.
  static std::map<std::string, std::string> GetAllContextAttributes(lbm_context_t* context);

  // One option of a live context as text. Throws lbm::LbmError, for an unknown option too.
  static std::string GetContextAttribute(lbm_context_t* context, const std::string& name);

 protected:
  // lbmProcessEventTimeout_ms: how long one call of the event processing waits for an event, in milliseconds.
  // backgroundTaskExecutor: run between those calls, at most maxTasksToExecute times in a row; may be empty.
  LbmResourceMgr(bool isServer, unsigned int lbmProcessEventTimeout_ms, BackgroundTaskExecutor backgroundTaskExecutor,
                 unsigned int maxTasksToExecute);
  ~LbmResourceMgr() = default;

  LbmResourceMgr(const LbmResourceMgr&) = delete;
  LbmResourceMgr& operator=(const LbmResourceMgr&) = delete;

  // What a table of endpoints has for the key; empty when it has nothing.
  template <class Table>
  static typename Table::mapped_type Find(const Table& table, const typename Table::key_type& key) {
    const auto found = table.find(key);
    return found == table.end() ? nullptr : found->second;
  }

  SourcesByTopicName_t m_sourcesByTopicName;
  std::uint32_t m_lbmProcessEventTimeout_ms;
  BackgroundTaskExecutor m_backgroundTaskExecutor;
  const std::uint32_t m_maxTasksToExecute;
  bool m_isServer;
};

}  // namespace ps_ns

#pragma GCC visibility pop
