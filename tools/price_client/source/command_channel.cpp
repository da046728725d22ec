#include "command_channel.h"

#include <utility>

#include "feed/json_message.h"

namespace price_client {

CommandChannel::CommandChannel(ps_ns::LbmClientResourceMgr& manager, Mailbox& mailbox, std::string host,
                               std::string clientID)
    : m_host(std::move(host)), m_clientID(std::move(clientID)) {
  manager.SetClientID(m_clientID);
  manager.CreateCommandSourceAndReceivers(
      [&mailbox](lbm::Message message) {
        mailbox.Post({Mail::Kind::kCommand, 0, std::move(message)});
      },
      m_host, m_clientID);
  m_answers = manager.GetCommandResponseSource();
}

std::optional<feed::Command> CommandChannel::Read(std::string_view bytes) {
  auto command = feed::DecodeCommand(bytes);
  if (!command) {
    if (const auto id = feed::DecodeMessageID(bytes)) {
      Send(*id, "not a command that can be read", {}, {});
    }
  }
  return command;
}

void CommandChannel::Answer(const feed::Command& command, std::string_view result, std::string text,
                            feed::CommandAnswer::Figures figures) {
  Send(command.id, result, std::move(text), std::move(figures));
}

void CommandChannel::Send(std::uint64_t id, std::string_view result, std::string text,
                          feed::CommandAnswer::Figures figures) {
  feed::CommandAnswer answer;
  answer.id = id;
  answer.clientID = m_clientID;
  answer.host = m_host;
  answer.result = result;
  answer.text = std::move(text);
  answer.figures = std::move(figures);
  const auto bytes = feed::Encode(answer);
  m_answers->SendEC(bytes.data(), bytes.size(), LBM_SRC_FLUSH | LBM_SRC_NONBLOCK);
}

}  // namespace price_client
