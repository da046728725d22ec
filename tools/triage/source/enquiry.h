// A request to all who listen on a topic, and what they answer.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
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
#include "process_info.h"

namespace triage {

struct Question {
  std::string topic;
  std::string requestId;
  std::string data;  // what is sent
};

struct Answer {
  ProcessInfo process;
  std::string status;  // "success", "failure", or what is wrong with the answer
  bool success = false;
  std::chrono::nanoseconds roundTrip{};
};

struct Outcome {
  std::vector<Answer> answers;         // in the order of their arrival
  std::size_t silentCount = 0;         // who was asked and did not answer
  std::vector<ProcessInfo> silent;     // those of them that still listened at the end, and
  std::vector<ProcessInfo> ended;      // those that did not; both are empty when it is not known which ones they are
  std::vector<ProcessInfo> unasked;    // who listens and was not asked: too late, or only looked for
  std::vector<ProcessInfo> elsewhere;  // other contexts of the domain, of processes that never listened
  std::string directory;               // of the domain; empty when the messaging library has none
};

// Reads the answer to a request with the id.
Answer ReadAnswer(const std::string& data, const std::string& requestId);

// How long an enquiry that may take so long waits for those who listen to announce themselves.
struct Pace {
  using Duration = std::chrono::steady_clock::duration;

  explicit Pace(Duration timeout);

  Duration quiet;     // time without another one after which they count as complete
  Duration patience;  // the longest that anybody waits for that quiet before he is asked
};

// Asks once those who listen have had time to announce themselves, and again when others come later; whoever answers
// twice counts once.
//
// Threads: one; the answers come in on the context's own.
class Enquiry {
 public:
  using Clock = cli::SignalWait::Clock;

  // Makes a context. signals has to outlive the object, which wakes it. Throws lbm::LbmError.
  Enquiry(Question question, cli::SignalWait& signals);

  // Waits until the timeout has passed, so many have answered as are expected, or else all who were asked, or a signal
  // asks to stop. Throws lbm::LbmError.
  Outcome Run(Clock::duration timeout, std::optional<std::size_t> expected);

  // Asks nobody: waits likewise for those who listen.
  Outcome Look(Clock::duration timeout, std::optional<std::size_t> expected);

 private:
  struct Listener {
    ProcessInfo process;
    Clock::time_point arrivedAt;
    bool asked = false;
  };
  // One send of the question.
  struct Round {
    Clock::time_point sentAt;
    std::size_t nameless = 0;  // answers that do not say whose they are
  };

  void Hear(int event, const char* name);
  void Take(Round& round, const lbm::Message& message);
  std::optional<Clock::time_point> SettledAt(const Pace& pace, std::optional<std::size_t> expected) const;
  std::optional<Clock::time_point> AskAt(Clock::time_point halfTime, const Pace& pace,
                                         std::optional<std::size_t> expected) const;
  void Ask();
  bool IsComplete(std::optional<std::size_t> expected) const;
  Outcome Read() const;
  Outcome End() const;

  const Question m_question;
  cli::SignalWait& m_signals;

  mutable std::mutex m_mutex;
  // Guarded by m_mutex:
  std::vector<Listener> m_listeners;
  std::vector<ProcessInfo> m_ended;                // who was asked, and listens no more
  std::map<std::string, ProcessInfo> m_heard;      // all who ever listened, by the names of their contexts
  std::optional<Clock::time_point> m_lastArrival;  // of a listener
  std::deque<Round> m_rounds;                      // callbacks hold their addresses
  std::set<std::string> m_answered;
  std::vector<Answer> m_answers;

  lbm::Context m_context;
  lbm::Source m_source;
  std::vector<std::unique_ptr<lbm::Request>> m_requests;
};

}  // namespace triage
