// The client's end of the command channel.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "feed/command.h"
#include "feed/command_answer.h"
#include "lbm/message.h"
#include "mailbox.h"
#include "ps_common/connector/lbm_client_resource_mgr.h"

namespace price_client {

struct ReceivedCommand {
  feed::Command command;
  lbm::Message message;  // that carried it
};

// Commands to this client, and to all clients of its host, come into the mailbox as Mail::Kind::kCommand from
// construction on, until the manager goes.
//
// Answers are published on the client's topic for them, for whoever listens; and to a command that came as a request
// the answer is its response, too. That one reaches the sender, who need not have subscribed to anything: a sender that
// has just appeared may not be known as a subscriber yet when the command is obeyed.
//
// Threads: for one thread.
class CommandChannel {
 public:
  // manager and mailbox have to outlive it. Throws lbm::LbmError.
  CommandChannel(ps_ns::LbmClientResourceMgr& manager, Mailbox& mailbox, std::string host, std::string clientID);

  // Reads the content of a message, any bytes whatever. Gives nothing for what is no command; if it has an id at
  // least, an answer says so.
  std::optional<ReceivedCommand> Read(const lbm::Message& message);

  // result is feed::kResultOk or an error text. An answer that cannot be sent is dropped.
  void Answer(const ReceivedCommand& received, std::string_view result, std::string text = {},
              feed::CommandAnswer::Figures figures = {});

 private:
  void Send(const lbm::Message& message, std::uint64_t id, std::string_view result, std::string text,
            feed::CommandAnswer::Figures figures);

  const std::string m_host;
  const std::string m_clientID;
  ps_ns::SourcePtr m_answers;
};

}  // namespace price_client
