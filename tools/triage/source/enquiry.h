// A request to all who listen on a topic, and what they answer.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "cli/signal_wait.h"
#include "lbm/context.h"
#include "lbm/request.h"
#include "lbm/source.h"

namespace triage {

struct Question {
  std::string topic;
  std::string requestId;
  std::string data;  // what is sent
};

struct Answer {
  std::string process;  // as the messaging library names it; empty when it does not
  std::string status;   // "success", "failure", or what is wrong with the answer
  bool success = false;
  std::chrono::nanoseconds roundTrip{};
};

struct Outcome {
  std::vector<Answer> answers;      // in the order of their arrival
  std::size_t silentCount = 0;      // who was asked, still listened at the end, and did not answer
  std::vector<std::string> silent;  // their names, when it is known which ones they are
  std::size_t late = 0;             // who began to listen too late to be asked
};

// Reads the answer to a request with the id.
Answer ReadAnswer(const std::string& data, const std::string& requestId);

// Asks once those who listen have had time to announce themselves, and again when others come later; whoever answers
// twice counts once.
//
// Threads: one; the answers come in on the context's own.
class Enquiry {
 public:
  using Clock = cli::SignalWait::Clock;

  // Makes a context. signals has to outlive the object, which wakes it. Throws lbm::LbmError.
  Enquiry(Question question, cli::SignalWait& signals);

  // Waits until the timeout has passed, so many have answered as are expected, or a signal asks to stop. Throws
  // lbm::LbmError.
  Outcome Run(Clock::duration timeout, std::optional<std::size_t> expected);

 private:
  struct Listener {
    std::string name;
    bool asked = false;
  };
  // One send of the question.
  struct Round {
    Clock::time_point sentAt;
    std::size_t nameless = 0;  // answers that do not say whose they are
  };

  void Hear(int event, const char* name);
  void Take(Round& round, const lbm::Message& message);
  std::optional<Clock::time_point> AskAt(Clock::time_point start, Clock::time_point end,
                                         std::optional<std::size_t> expected) const;
  void Ask();
  Outcome Read() const;

  const Question m_question;
  cli::SignalWait& m_signals;

  mutable std::mutex m_mutex;
  // Guarded by m_mutex:
  std::vector<Listener> m_listeners;
  std::set<std::string> m_heard;                   // names of all who ever listened
  std::optional<Clock::time_point> m_lastArrival;  // of a listener
  std::deque<Round> m_rounds;                      // callbacks hold their addresses
  std::set<std::string> m_answered;
  std::vector<Answer> m_answers;

  lbm::Context m_context;
  lbm::Source m_source;
  std::vector<std::unique_ptr<lbm::Request>> m_requests;
};

}  // namespace triage
