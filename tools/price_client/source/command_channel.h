// The client's end of the command channel.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "feed/command.h"
#include "feed/command_answer.h"
#include "mailbox.h"
#include "ps_common/connector/lbm_client_resource_mgr.h"

namespace price_client {

// Commands to this client, and to all clients of its host, come into the mailbox as Mail::Kind::kCommand from
// construction on, until the manager goes.
//
// Threads: for one thread.
class CommandChannel {
 public:
  // manager and mailbox have to outlive it. Throws lbm::LbmError.
  CommandChannel(ps_ns::LbmClientResourceMgr& manager, Mailbox& mailbox, std::string host, std::string clientID);

  const std::string& Host() const { return m_host; }
  const std::string& ClientID() const { return m_clientID; }

  // Reads the content of a message, any bytes whatever. Gives nothing for what is no command; if it has an id at
  // least, an answer says so.
  std::optional<feed::Command> Read(std::string_view bytes);

  // result is feed::kResultOk or an error text. An answer that cannot be sent is dropped.
  void Answer(const feed::Command& command, std::string_view result, std::string text = {},
              feed::CommandAnswer::Figures figures = {});

 private:
  void Send(std::uint64_t id, std::string_view result, std::string text, feed::CommandAnswer::Figures figures);

  const std::string m_host;
  const std::string m_clientID;
  ps_ns::SourcePtr m_answers;
};

}  // namespace price_client
