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

std::optional<ReceivedCommand> CommandChannel::Read(const lbm::Message& message) {
  const std::string_view bytes(message.Data(), message.Length());
  if (auto command = feed::DecodeCommand(bytes)) {
    return ReceivedCommand{std::move(*command), message};
  }
  if (const auto id = feed::DecodeMessageID(bytes)) {
    Send(message, *id, "not a command that can be read", {}, {});
  }
  return std::nullopt;
}

void CommandChannel::Answer(const ReceivedCommand& received, std::string_view result, std::string text,
                            feed::CommandAnswer::Figures figures) {
  Send(received.message, received.command.id, result, std::move(text), std::move(figures));
}

void CommandChannel::Send(const lbm::Message& message, std::uint64_t id, std::string_view result, std::string text,
                          feed::CommandAnswer::Figures figures) {
  constexpr int kFlags = LBM_SRC_FLUSH | LBM_SRC_NONBLOCK;
  feed::CommandAnswer answer;
  answer.id = id;
  answer.clientID = m_clientID;
  answer.host = m_host;
  answer.result = result;
  answer.text = std::move(text);
  answer.figures = std::move(figures);
  const auto bytes = feed::Encode(answer);
  m_answers->SendEC(bytes.data(), bytes.size(), kFlags);
  if (message.Type() == LBM_MSG_REQUEST) {
    lbm_send_response(message.GetResponse(), bytes.data(), bytes.size(), kFlags);
  }
}

}  // namespace price_client
