#include "statistics.h"

#include <dlfcn.h>

#include <map>
#include <mutex>
#include <new>
#include <sstream>
#include <string_view>
#include <utility>
#include <vector>

#include "lbm/context.h"

namespace lbm::details {
namespace {

using zq::statistics::Field;
using zq::statistics::FieldType;
using zq::statistics::Kind;

constexpr auto kCounter = FieldType::kCounter;
constexpr auto kGauge = FieldType::kGauge;

constinit thread_local Row* t_responses = nullptr;

std::vector<Field> LoopFields() {
  return {{"loops", kCounter, "", "Calls that processed events, failed ones included."},
          {"callbacks", kCounter, "", "Callbacks of receivers, sources and requests."},
          {"callback_time", kCounter, "nanoseconds", "Time in callbacks."},
          {"busy_since", kGauge, "nanoseconds", "Monotonic time at which the running callbacks began; 0: none runs."},
          {"longest_callback", FieldType::kRecentMaximum, "nanoseconds",
           "Longest time between two looks at the clock in which callbacks ran."}};
}

// The file that provides the messaging C interface, and whose it is.
std::pair<std::string, std::string_view> Provider() {
  Dl_info info{};
  void* const function = ::dlsym(RTLD_DEFAULT, "lbm_context_create");
  if (function == nullptr || ::dladdr(function, &info) == 0 || info.dli_fname == nullptr) {
    return {"", "unknown"};
  }
  const std::string file = info.dli_fname;
  const auto isOf = [&](const char* library) { return file.find(library) != std::string::npos; };
  return {file, isOf("price_connector_lbm_embedded")   ? "embedded"
                : isOf("price_connector_lbm_scripted") ? "scripted"
                                                       : "system"};
}

}  // namespace

const Kind& ContextKind() {
  static const auto& kind = *new Kind{.name = "context",
                                      .help = "The loop that processes a context's events.",
                                      .labels = {"context", "handle"},
                                      .fields = LoopFields()};
  return kind;
}

const Kind& EventQueueKind() {
  static const auto& kind = *new Kind{
      .name = "event_queue", .help = "The dispatching of an event queue.", .labels = {"queue"}, .fields = LoopFields()};
  return kind;
}

const Kind& ReceiverKind() {
  static const auto& kind = *new Kind{.name = "receiver",
                                      .help = "A receiver, as its callback is called.",
                                      .labels = {"context", "handle", "topic"},
                                      .fields = {{"messages", kCounter, "", "Messages with data, requests included."},
                                                 {"bytes", kCounter, "bytes", "Their data."},
                                                 {"requests", kCounter, "", "Those of the messages that are requests."},
                                                 {"losses", kCounter, "", "Reports of lost messages."},
                                                 {"lost_messages", kCounter, "", "Messages reported lost."},
                                                 {"sessions_begun", kCounter, "", "Sessions of sources that began."},
                                                 {"sessions_ended", kCounter, "", "Sessions of sources that ended."},
                                                 {"other_events", kCounter, "", "Events of any other type."},
                                                 {"failures", kCounter, "", "Callbacks that threw."}}};
  return kind;
}

const Kind& SourceKind() {
  static const auto& kind = *new Kind{
      .name = "source",
      .help = "A source, and the requests sent with it.",
      .labels = {"context", "handle", "topic"},
      .fields = {{"messages", kCounter, "", "Messages sent, requests included."},
                 {"bytes", kCounter, "bytes", "Their data."},
                 {"failures", kCounter, "", "Messages that could not be sent, those that would block included."},
                 {"nonblocking_failures", kCounter, "", "Those of the failures that were not to block."},
                 {"receivers", kGauge, "", "Receivers connected, as the source's events tell; -1: it asked for none."},
                 {"wakeups", kCounter, "", "Events that tell of room again."},
                 {"requests", kCounter, "", "Those of the messages that are requests."},
                 {"request_failures", kCounter, "", "Requests that could not be sent."},
                 {"responses", kCounter, "", "Responses received."},
                 {"response_bytes", kCounter, "bytes", "Their data."},
                 {"callback_failures", kCounter, "", "Callbacks for events and responses that threw."}}};
  return kind;
}

const Kind& ResponseKind() {
  static const auto& kind =
      *new Kind{.name = "response",
                .help = "Responses sent to requests.",
                .labels = {"context", "handle"},
                .fields = {{"messages", kCounter, "", "Responses sent."},
                           {"bytes", kCounter, "bytes", "Their data."},
                           {"would_block", kCounter, "", "Sends with retries that would have blocked."},
                           {"retries", kCounter, "", "Sends after one that would have blocked."},
                           {"failures", kCounter, "", "Responses given up."}}};
  return kind;
}

std::string Address(const void* pointer) {
  std::ostringstream text;
  text << pointer;
  return text.str();
}

void ShowProcess() {
  // Goes with the static objects: nobody writes to it.
  static const Row row = [] {
    const Kind kind{.name = "process",
                    .help = "What the process runs on.",
                    .labels = {"version", "provider", "library"},
                    .fields = {}};
    const auto [file, provider] = Provider();
    return Row(kind, {PRICE_CONNECTOR_VERSION, provider, file});
  }();
  static_cast<void>(row);
}

void CountTriageRequest(const char* request, const char* result) noexcept {
  struct Rows {
    std::mutex mutex;
    std::map<std::pair<std::string_view, std::string_view>, Row> rows;  // under mutex
  };
  static Rows& all = *new Rows;
  const std::lock_guard lock(all.mutex);
  try {
    const Kind kind{.name = "triage",
                    .help = "Requests of operations tools.",
                    .labels = {"request", "result"},
                    .fields = {{"requests", kCounter, "", "Requests that came to this result."}}};
    all.rows.try_emplace({request, result}, kind, std::initializer_list<std::string_view>{request, result})
        .first->second.Add(0);
  } catch (const std::bad_alloc&) {
    // It is not counted.
  }
}

ContextStatistics::ContextStatistics(const std::string& contextName, const lbm_context_t* context)
    : name(contextName),
      handle(Address(context)),
      loops(ContextKind(), {name, handle}),
      responses(std::make_shared<Row>(ResponseKind(), std::initializer_list<std::string_view>{name, handle})) {}

Row& ResponsesOfThisThread() {
  if (t_responses != nullptr) {
    return *t_responses;
  }
  static Row& ofNoContext = *new Row(ResponseKind(), {});
  return ofNoContext;
}

Answering::Answering(std::shared_ptr<Row> responses) noexcept
    : m_responses(std::move(responses)), m_outer(std::exchange(t_responses, m_responses.get())) {}

Answering::~Answering() { t_responses = m_outer; }

}  // namespace lbm::details
