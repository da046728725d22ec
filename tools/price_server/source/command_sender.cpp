#include "command_sender.h"

#include <fmt/format.h>

#include <utility>

#include "feed/command_answer.h"
#include "lbm/errors.h"
#include "log_statement.h"
#include "zq/logging/logger.h"

namespace price_server {
namespace {

double Seconds(EventLoop::Clock::duration time) { return std::chrono::duration<double>(time).count(); }

}  // namespace

CommandSender::CommandSender(lbm::Context& ctx, EventLoop& loop, std::uint64_t session,
                             std::chrono::duration<double> timeout, Print print)
    : m_ctx(ctx),
      m_loop(loop),
      m_session(session),
      m_timeout(std::chrono::duration_cast<EventLoop::Clock::duration>(timeout)),
      m_print(std::move(print)) {}

void CommandSender::Send(const ConsoleCommand& command) {
  DestinationAt(command.topic);  // or there is no such command
  const auto number = ++m_last;
  auto message = command.command;
  message.id = m_session + number;
  m_pending[number] = {command.topic, command.receiver, feed::Encode(message)};
  m_loop.RunAt(EventLoop::Clock::now() + m_timeout, [this, number] { EndWaitForListener(number); });
  SendWhatWaits(command.topic);
}

CommandSender::Destination& CommandSender::DestinationAt(const std::string& topic) {
  auto& destination = m_destinations[topic];
  if (!destination.source) {
    destination.source = std::make_unique<lbm::Source>(
        m_ctx, lbm::SourceTopic(m_ctx, topic, lbm::SourceTopicAttributes()),
        [this, &destination, topic](int event, void*) { NoteSourceEvent(destination, topic, event); });
  }
  return destination;
}

void CommandSender::NoteSourceEvent(Destination& destination, const std::string& topic, int event) {
  if (event == LBM_SRC_EVENT_CONNECT) {
    ++destination.subscribers;
    destination.settled = EventLoop::Clock::now() + kSettlingTime;
    m_loop.RunAt(destination.settled, [this, topic] { SendWhatWaits(topic); });
  } else if (event == LBM_SRC_EVENT_DISCONNECT) {
    --destination.subscribers;
  }
}

void CommandSender::SendWhatWaits(const std::string& topic) {
  auto& destination = DestinationAt(topic);
  if (destination.subscribers <= 0 || EventLoop::Clock::now() < destination.settled) {
    return;
  }
  for (auto next = m_pending.begin(); next != m_pending.end();) {
    const auto current = next++;
    auto& [number, command] = *current;
    if (command.topic != topic || command.state != State::kWaiting) {
      continue;
    }
    try {
      SendRequest(*destination.source, number, command.message);
    } catch (const lbm::LbmError&) {
      PrintOutcome(number, command, fmt::format("not sent, {}", lbm_errmsg()));
      m_pending.erase(current);
      continue;
    }
    command.state = State::kSent;
    PrintOutcome(number, command, "sent");
    m_loop.RunAt(EventLoop::Clock::now() + m_timeout, [this, number = number] { EndWaitForAnswers(number); });
  }
}

void CommandSender::EndWaitForListener(Number number) {
  const auto found = m_pending.find(number);
  if (found == m_pending.end() || found->second.state != State::kWaiting) {
    return;
  }
  PrintOutcome(number, found->second, fmt::format("not sent, nobody listened for {:g} s", Seconds(m_timeout)));
  m_pending.erase(found);
}

void CommandSender::EndWaitForAnswers(Number number) {
  const auto found = m_pending.find(number);
  if (found->second.state == State::kSent) {
    PrintOutcome(number, found->second, fmt::format("no answer for {:g} s", Seconds(m_timeout)));
  }
  m_pending.erase(found);
}

void CommandSender::SendRequest(lbm::Source& source, Number number, const std::string& message) {
  const auto onResponse = [this, number](const lbm::Message& response) {
    m_loop.Post([this, number, response] { NoteResponse(number, response); });
  };
  // A request stays where it was made.
  std::unique_ptr<lbm::Request> request(new lbm::Request(
      source.SendRequest(message.data(), message.size(), LBM_SRC_FLUSH | LBM_SRC_NONBLOCK, onResponse)));
  m_requests.emplace(number, std::move(request));
  if (m_requests.size() > kMaxRequests) {
    m_requests.erase(m_requests.begin());
  }
}

void CommandSender::NoteResponse(Number number, const lbm::Message& message) {
  const auto answer = feed::DecodeCommandAnswer({message.Data(), message.Length()});
  if (!answer) {
    ZQLOG(ZQLOG_WARNING, kServerStatement, "Dropped what is no answer to a command: " << message.ToString());
    return;
  }
  if (const auto found = m_pending.find(number); found != m_pending.end()) {
    found->second.state = State::kAnswered;
  }
  auto line = fmt::format("#{} from {} on {}: {}", number, answer->clientID, answer->host, answer->result);
  if (!answer->text.empty()) {
    line += "; " + answer->text;
  }
  const char* separator = "; ";
  for (const auto& [name, figure] : answer->figures) {
    line += fmt::format("{}{}={}", std::exchange(separator, " "), name, figure);
  }
  m_print(line + '\n');
}

void CommandSender::Close() {
  for (const auto& [number, command] : m_pending) {
    if (command.state == State::kWaiting) {
      PrintOutcome(number, command, "not sent, the server ends");
    }
    if (command.state == State::kSent) {
      PrintOutcome(number, command, "no answer, the server ends");
    }
  }
  m_pending.clear();
}

void CommandSender::PrintOutcome(Number number, const Pending& command, std::string_view outcome) const {
  m_print(fmt::format("#{} to {}: {}\n", number, command.receiver, outcome));
}

}  // namespace price_server
