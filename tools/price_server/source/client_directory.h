// The clients that answer commands.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "feed/command_answer.h"
#include "lbm/context.h"
#include "lbm/message.h"
#include "lbm/receiver.h"
#include "ps_common/connector/topic_names.h"
#include "source_watch.h"
#include "task_loop.h"

namespace price_server {

// Finds clients by the sources of their answers and receives from all of them, so that nobody has to list them. A
// client that was found once is remembered, and heard again when it comes back.
//
// Threads: made while the loop is not running and destroyed when it has stopped; onAnswer is called on the loop's.
class ClientDirectory {
 public:
  // Where the answer came from, by its topic, and the answer.
  using OnAnswer = std::function<void(const ps_ns::ClientCommandResponseTopic&, const feed::CommandAnswer&)>;

  // Bounds what is remembered; further clients are ignored with a warning.
  static constexpr std::size_t kMaxClients = 4096;

  // All arguments have to outlive the directory.
  ClientDirectory(lbm::Context& ctx, SourceWatch& sources, TaskLoop& loop, OnAnswer onAnswer);

 private:
  void NoteSource(const std::string& topic);
  void Receive(const ps_ns::ClientCommandResponseTopic& client, const lbm::Message& message);

  lbm::Context& m_ctx;
  TaskLoop& m_loop;
  const OnAnswer m_onAnswer;
  std::map<std::string, std::unique_ptr<lbm::Receiver>> m_receivers;  // by topic
};

}  // namespace price_server
