// Commands on their way to clients.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "console_line.h"
#include "event_loop.h"
#include "lbm/context.h"
#include "lbm/message.h"
#include "lbm/request.h"
#include "lbm/source.h"

namespace price_server {

// Sends each command once somebody listens on its topic, and says what becomes of it in lines that start with its
// number: 1, 2, 3, ... Never waits for a client.
//
// Commands are requests, so that a client's answer comes back to here whatever else this side and the client know of
// each other. A subscription to the client's answers might reach a client that hangs after the command does.
//
// Threads: the loop's.
class CommandSender {
 public:
  using Print = std::function<void(std::string_view line)>;

  // How long a topic has to be without a new subscriber before commands are sent on it: others may be about to
  // subscribe.
  static constexpr auto kSettlingTime = std::chrono::milliseconds(100);

  // Commands whose answers are taken, at whatever time they come; those to older ones are not.
  static constexpr std::size_t kMaxRequests = 1024;

  // session makes the ids of this run's commands its own. A command waits for timeout to be heard, and once it is sent
  // as long again for an answer. print takes lines with their ends; what it throws leaves through the operations.
  CommandSender(lbm::Context& ctx, EventLoop& loop, std::uint64_t session, std::chrono::duration<double> timeout,
                Print print);

  // Throws lbm::LbmError when there can be no source for the command, which then has no number.
  void Send(const ConsoleCommand& command);

  // Says which commands are left without an outcome.
  void Close();

 private:
  enum class State { kWaiting, kSent, kAnswered };
  struct Pending {
    std::string topic;
    std::string receiver;
    std::string message;
    State state = State::kWaiting;
  };
  struct Destination {
    int subscribers = 0;
    EventLoop::Clock::time_point settled;
    std::unique_ptr<lbm::Source> source;  // last: its events use the rest
  };
  using Number = std::uint64_t;

  Destination& DestinationAt(const std::string& topic);
  void NoteSourceEvent(Destination& destination, const std::string& topic, int event);
  void SendWhatWaits(const std::string& topic);
  void SendRequest(lbm::Source& source, Number number, const std::string& message);
  void NoteResponse(Number number, const lbm::Message& message);
  void EndWaitForListener(Number number);
  void EndWaitForAnswers(Number number);
  void PrintOutcome(Number number, const Pending& command, std::string_view outcome) const;

  lbm::Context& m_ctx;
  EventLoop& m_loop;
  const std::uint64_t m_session;
  const EventLoop::Clock::duration m_timeout;
  const Print m_print;
  std::map<std::string, Destination> m_destinations;  // by topic
  std::map<Number, Pending> m_pending;
  std::map<Number, std::unique_ptr<lbm::Request>> m_requests;
  Number m_last = 0;
};

}  // namespace price_server
