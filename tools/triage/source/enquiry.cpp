#include "enquiry.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "lbm/errors.h"
#include "zq/messaging/triage.pb.h"

namespace triage {
namespace {

using zq::messaging::triage::TriageResponse;

// Listeners announce themselves within a millisecond, unless their processes are busy.
constexpr auto kQuiet = std::chrono::milliseconds(200);
constexpr auto kPatience = std::chrono::seconds(1);

lbm::ContextAttributes Attributes() {
  lbm::ContextAttributes attributes;
  // A context with a name does not answer triage requests itself.
  attributes.SetString("context_name", "triage");
  attributes.SetString("operational_mode", "embedded");
  return attributes;
}

}  // namespace

Pace::Pace(Duration timeout)
    : quiet(std::min<Duration>(kQuiet, timeout / 4)), patience(std::min<Duration>(kPatience, timeout / 2)) {}

Answer ReadAnswer(const std::string& data, const std::string& requestId) {
  TriageResponse response;
  if (!response.ParseFromString(data) || !response.has_status()) {
    return {.status = "unreadable answer"};
  }
  if (response.request_id() != requestId) {
    return {.status = "answer to another request"};
  }
  switch (response.status()) {
    case zq::messaging::triage::TRIAGE_RESPONSE_STATUS_SUCCESS:
      return {.status = "success", .success = true};
    case zq::messaging::triage::TRIAGE_RESPONSE_STATUS_FAILURE:
      return {.status = "failure"};
    default:
      return {.status = "unknown status " + std::to_string(response.status())};
  }
}

Enquiry::Enquiry(Question question, cli::SignalWait& signals)
    : m_question(std::move(question)),
      m_signals(signals),
      m_context(Attributes()),
      m_source(m_context, {m_context, m_question.topic, lbm::SourceTopicAttributes()},
               [this](int event, void* data) { Hear(event, static_cast<const char*>(data)); }) {}

Outcome Enquiry::Run(Clock::duration timeout, std::optional<std::size_t> expected) {
  const Pace pace(timeout);
  const auto start = Clock::now();
  const auto end = start + timeout;
  for (;;) {
    const auto askAt = AskAt(start + timeout / 2, pace, expected);
    const auto now = Clock::now();
    if (askAt && *askAt <= now && now < end) {
      Ask();
      continue;
    }
    if (now >= end || IsComplete(expected)) {
      return End();
    }
    if (cli::AsksToStop(m_signals.WaitUntil(askAt ? std::min(*askAt, end) : end))) {
      return End();
    }
  }
}

Outcome Enquiry::Look(Clock::duration timeout, std::optional<std::size_t> expected) {
  const Pace pace(timeout);
  const auto end = Clock::now() + timeout;
  for (;;) {
    const auto settledAt = SettledAt(pace, expected);
    const auto now = Clock::now();
    const bool isSettled = settledAt && *settledAt <= now;
    if (now >= end || (isSettled && Read().unasked.size() >= expected.value_or(1))) {
      return End();
    }
    if (cli::AsksToStop(m_signals.WaitUntil(settledAt && !isSettled ? std::min(*settledAt, end) : end))) {
      return End();
    }
  }
}

void Enquiry::Hear(int event, const char* name) {
  if (event == LBM_SRC_EVENT_CONNECT) {
    auto process = ProcessOf(name);
    const std::lock_guard lock(m_mutex);
    m_lastArrival = Clock::now();
    std::erase_if(m_ended, [name](const ProcessInfo& ended) { return ended.context == name; });
    m_heard.insert_or_assign(name, process);
    m_listeners.push_back({std::move(process), *m_lastArrival});
  } else if (event == LBM_SRC_EVENT_DISCONNECT) {
    const std::lock_guard lock(m_mutex);
    const auto gone = std::find_if(m_listeners.begin(), m_listeners.end(),
                                   [name](const Listener& listener) { return listener.process.context == name; });
    if (gone != m_listeners.end()) {
      if (gone->asked) {
        m_ended.push_back(std::move(gone->process));
      }
      m_listeners.erase(gone);
    }
  }
  m_signals.Wake();
}

void Enquiry::Take(Round& round, const lbm::Message& message) {
  const auto arrivedAt = Clock::now();
  auto answer = ReadAnswer({message.Data(), message.Length()}, m_question.requestId);
  const std::lock_guard lock(m_mutex);
  const auto heard = m_heard.find(message.Source());
  answer.process = heard != m_heard.end() ? heard->second : ProcessOf(message.Source());
  answer.roundTrip = arrivedAt - round.sentAt;
  // Without a name, the first answer to one send is taken for the first one to another, and so on.
  const auto& name = answer.process.context;
  const auto key = name.empty() ? std::to_string(++round.nameless) : name;
  if (m_answered.insert(key).second) {
    m_answers.push_back(std::move(answer));
  }
  m_signals.Wake();
}

// When those who listen and were not asked yet are complete; nothing when there are none. Somebody who comes and goes
// all the time delays that no longer than the patience of whoever came first.
std::optional<Enquiry::Clock::time_point> Enquiry::SettledAt(const Pace& pace,
                                                             std::optional<std::size_t> expected) const {
  const std::lock_guard lock(m_mutex);
  const auto first =
      std::find_if(m_listeners.begin(), m_listeners.end(), [](const Listener& listener) { return !listener.asked; });
  if (first == m_listeners.end()) {
    return std::nullopt;
  }
  if (expected && m_listeners.size() >= *expected) {
    return *m_lastArrival;
  }
  return std::min(*m_lastArrival + pace.quiet, first->arrivedAt + pace.patience);
}

// When to send the question next, with what is known now.
std::optional<Enquiry::Clock::time_point> Enquiry::AskAt(Clock::time_point halfTime, const Pace& pace,
                                                         std::optional<std::size_t> expected) const {
  const auto settledAt = SettledAt(pace, expected);
  // Not every messaging library says who listens.
  return settledAt || !m_requests.empty() ? settledAt : halfTime;
}

void Enquiry::Ask() {
  Round* round = nullptr;
  {
    const std::lock_guard lock(m_mutex);
    for (auto& listener : m_listeners) {
      listener.asked = true;
    }
    round = &m_rounds.emplace_back(Round{Clock::now()});
  }
  // Requests stay where they were made.
  m_requests.emplace_back(
      new lbm::Request(m_source.SendRequest(m_question.data.data(), m_question.data.size(), LBM_SRC_FLUSH,
                                            [this, round](const lbm::Message& message) { Take(*round, message); })));
}

bool Enquiry::IsComplete(std::optional<std::size_t> expected) const {
  const auto outcome = Read();
  if (expected) {
    return outcome.answers.size() >= *expected;
  }
  const std::lock_guard lock(m_mutex);
  return !m_heard.empty() && !outcome.answers.empty() && outcome.unasked.empty() &&
         outcome.silentCount == outcome.ended.size();
}

Outcome Enquiry::Read() const {
  const std::lock_guard lock(m_mutex);
  Outcome outcome{.answers = m_answers};
  const auto isSilent = [this](const ProcessInfo& process) { return !m_answered.contains(process.context); };
  for (const auto& listener : m_listeners) {
    if (!listener.asked) {
      outcome.unasked.push_back(listener.process);
    } else if (isSilent(listener.process)) {
      outcome.silent.push_back(listener.process);
    }
  }
  std::copy_if(m_ended.begin(), m_ended.end(), std::back_inserter(outcome.ended), isSilent);
  outcome.silentCount = outcome.silent.size() + outcome.ended.size();
  // Who listens under one name may answer under another: then only numbers can be compared.
  const auto strangers =
      static_cast<std::size_t>(std::count_if(m_answers.begin(), m_answers.end(), [this](const Answer& answer) {
        return !m_heard.contains(answer.process.context);
      }));
  if (strangers > 0) {
    outcome.silentCount -= std::min(strangers, outcome.silentCount);
    outcome.silent.clear();
    outcome.ended.clear();
  }
  return outcome;
}

// What is known in the end, the domain's other contexts included.
Outcome Enquiry::End() const {
  auto outcome = Read();
  try {
    outcome.directory = m_context.GetStrOpt("domain_directory");
  } catch (const lbm::LbmError&) {
    return outcome;
  }
  std::set<pid_t> known;
  for (const auto& answer : outcome.answers) {
    known.insert(answer.process.number);
  }
  {
    const std::lock_guard lock(m_mutex);
    for (const auto& [name, process] : m_heard) {
      known.insert(process.number);
    }
  }
  for (auto& process : ContextsIn(outcome.directory)) {
    if (known.insert(process.number).second) {
      outcome.elsewhere.push_back(std::move(process));
    }
  }
  return outcome;
}

}  // namespace triage
