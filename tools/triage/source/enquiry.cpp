#include "enquiry.h"

#include <algorithm>
#include <utility>

#include "zq/messaging/triage.pb.h"

namespace triage {
namespace {

using zq::messaging::triage::TriageResponse;

// Time without another one after which those who listen count as complete. They announce themselves within a
// millisecond, unless their processes are busy.
constexpr auto kSettle = std::chrono::milliseconds(200);

lbm::ContextAttributes Attributes() {
  lbm::ContextAttributes attributes;
  // A context with a name does not answer triage requests itself.
  attributes.SetString("context_name", "triage");
  attributes.SetString("operational_mode", "embedded");
  return attributes;
}

}  // namespace

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
  const auto start = Clock::now();
  const auto end = start + timeout;
  for (;;) {
    const auto askAt = AskAt(start, end, expected);
    const auto now = Clock::now();
    if (askAt && *askAt <= now && now < end) {
      Ask();
      continue;
    }
    auto outcome = Read();
    if (now >= end || (expected && outcome.answers.size() >= *expected)) {
      return outcome;
    }
    if (cli::AsksToStop(m_signals.WaitUntil(askAt ? std::min(*askAt, end) : end))) {
      return Read();
    }
  }
}

void Enquiry::Hear(int event, const char* name) {
  const std::lock_guard lock(m_mutex);
  if (event == LBM_SRC_EVENT_CONNECT) {
    m_listeners.push_back({name});
    m_heard.insert(name);
    m_lastArrival = Clock::now();
  } else if (event == LBM_SRC_EVENT_DISCONNECT) {
    const auto gone = std::find_if(m_listeners.begin(), m_listeners.end(),
                                   [name](const Listener& listener) { return listener.name == name; });
    if (gone != m_listeners.end()) {
      m_listeners.erase(gone);
    }
  }
  m_signals.Wake();
}

void Enquiry::Take(Round& round, const lbm::Message& message) {
  const auto arrivedAt = Clock::now();
  auto answer = ReadAnswer({message.Data(), message.Length()}, m_question.requestId);
  answer.process = message.Source();
  const std::lock_guard lock(m_mutex);
  answer.roundTrip = arrivedAt - round.sentAt;
  // Without a name, the first answer to one send is taken for the first one to another, and so on.
  const auto key = answer.process.empty() ? std::to_string(++round.nameless) : answer.process;
  if (m_answered.insert(key).second) {
    m_answers.push_back(std::move(answer));
  }
  m_signals.Wake();
}

// When to send the question next, with what is known now.
std::optional<Enquiry::Clock::time_point> Enquiry::AskAt(Clock::time_point start, Clock::time_point end,
                                                         std::optional<std::size_t> expected) const {
  const std::lock_guard lock(m_mutex);
  if (std::any_of(m_listeners.begin(), m_listeners.end(), [](const Listener& listener) { return !listener.asked; })) {
    return expected && m_listeners.size() >= *expected ? *m_lastArrival : *m_lastArrival + kSettle;
  }
  // Not every messaging library says who listens.
  return m_rounds.empty() ? std::optional(start + (end - start) / 2) : std::nullopt;
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

Outcome Enquiry::Read() const {
  const std::lock_guard lock(m_mutex);
  Outcome outcome{.answers = m_answers};
  for (const auto& listener : m_listeners) {
    if (!listener.asked) {
      ++outcome.late;
    } else if (!m_answered.contains(listener.name)) {
      outcome.silent.push_back(listener.name);
    }
  }
  // Who listens under one name may answer under another: then only numbers can be compared.
  const auto strangers = static_cast<std::size_t>(std::count_if(
      m_answers.begin(), m_answers.end(), [this](const Answer& answer) { return !m_heard.contains(answer.process); }));
  outcome.silentCount = outcome.silent.size() - std::min(strangers, outcome.silent.size());
  if (strangers > 0) {
    outcome.silent.clear();
  }
  return outcome;
}

}  // namespace triage
