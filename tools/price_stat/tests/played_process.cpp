// A process with statistics for tests: it has rows of every kind that monitoring knows, and counts as it is told.
//
//   played_process CONTEXTS RECEIVERS
//
// Receivers are those of each context. Each line of standard input is a command and a number:
//   receive N   every receiver gets N messages of 64 bytes
//   lose N      the first receiver of the first context loses N messages
//   busy N      the first context has been in a callback for N seconds; 0: is in none
//   hang N      the first context's events are processed by nobody who is known to wait; 0: by this thread, which does
// "done" follows on standard output. It ends with the input.

#include <poll.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "zq/statistics/row.h"

namespace {

using zq::statistics::Field;
using zq::statistics::FieldType;
using zq::statistics::Kind;
using zq::statistics::Now;

Field Counter(const char* name, const char* unit = "") { return {name, FieldType::kCounter, unit, "Counts."}; }
Field Gauge(const char* name, const char* unit = "") { return {name, FieldType::kGauge, unit, "Goes up and down."}; }
Field Histogram(const char* name) { return {name, FieldType::kHistogram, "nanoseconds", "How long it takes."}; }

const Kind kProcess{"process", "A process.", {"version", "provider"}, {}};
const Kind kLog{"log", "Log lines.", {"level"}, {Counter("lines")}};
const Kind kContext{"context",
                    "A context.",
                    {"context", "handle"},
                    {Counter("loops"),
                     Counter("callbacks"),
                     Counter("callback_time", "nanoseconds"),
                     Gauge("busy_since", "nanoseconds"),
                     {"longest_callback", FieldType::kRecentMaximum, "nanoseconds", "The longest callback."}}};
const Kind kReceiver{
    "receiver",
    "A receiver.",
    {"context", "handle", "topic"},
    {Counter("messages"), Counter("bytes", "bytes"), Counter("requests"), Counter("losses"), Counter("lost_messages"),
     Counter("sessions_begun"), Counter("sessions_ended"), Counter("other_events"), Counter("failures")}};
const Kind kSource{
    "source",
    "A source.",
    {"context", "handle", "topic"},
    {Counter("messages"), Counter("bytes", "bytes"), Counter("nonblocking_failures"), Counter("failures"),
     Gauge("receivers"), Counter("requests"), Counter("request_failures"), Counter("responses")}};
const Kind kResponse{
    "response",
    "Responses.",
    {"context", "handle"},
    {Counter("messages"), Counter("bytes", "bytes"), Counter("would_block"), Counter("retries"), Counter("failures")}};
const Kind kDispatchThread{
    "dispatch_thread",
    "The dispatch thread.",
    {"context", "handle"},
    {Gauge("thread"), Gauge("sockets"), Gauge("cpu_wanted"), Gauge("cpu_got"), Gauge("spinning")}};
const Kind kTriage{"triage", "Triage requests.", {"request", "result"}, {Counter("requests")}};
const Kind kOption{"option", "An option.", {"context", "handle", "owner", "option", "value", "origin"}, {}};
const Kind kEngine{"engine_context",
                   "The engine.",
                   {"context", "handle", "domain", "transport"},
                   {Counter("delivered"), Counter("wakeups"), Counter("waits_for_room"), Counter("dropped"),
                    Gauge("sources"), Gauge("receivers"), Gauge("peers"), Gauge("waiting"), Histogram("latency")}};
const Kind kPeer{
    "peer",
    "A peer.",
    {"context", "handle", "peer"},
    {Counter("messages"), Counter("bytes", "bytes"), Gauge("ring_bytes", "bytes"), Gauge("ring_high_water", "bytes"),
     Counter("waits_for_room"), Counter("dropped"), Counter("wakeups")}};
const Kind kNetwork{"network",
                    "A server of the network.",
                    {"context", "handle", "server"},
                    {Gauge("connected"), Counter("reconnects"), Counter("batches"), Counter("batch_bytes", "bytes"),
                     Counter("dropped"), Histogram("round_trip")}};

constexpr std::uint64_t kMicrosecond = 1000;
constexpr std::uint64_t kMessageBytes = 64;

// A row whose fields are called by their names.
class Row {
 public:
  Row(const Kind& kind, std::initializer_list<std::string_view> labels) : m_kind(kind), m_row(kind, labels) {}

  void Add(std::string_view field, std::uint64_t number = 1) { m_row.Add(Index(field), number); }
  void Set(std::string_view field, std::int64_t number) { m_row.Set(Index(field), number); }
  void RecordMaximum(std::string_view field, std::uint64_t value) { m_row.RecordMaximum(Index(field), value, Now()); }
  void RecordInHistogram(std::string_view field, std::uint64_t value) {
    m_row.RecordInHistogram(Index(field), value, Now());
  }

 private:
  std::size_t Index(std::string_view field) const {
    for (std::size_t i = 0; i < m_kind.fields.size(); ++i) {
      if (m_kind.fields[i].name == field) {
        return i;
      }
    }
    throw std::logic_error("no field " + std::string(field) + " in rows of the kind " + m_kind.name);
  }

  const Kind& m_kind;
  zq::statistics::Row m_row;
};

class Context {
 public:
  Context(int number, int receivers)
      // The second name is one that a page must not take for markup.
      : m_name((number == 0 ? "prices." : "<i>prices</i>.") + std::to_string(number)),
        m_handle("0x" + std::to_string(1000 + number)) {
    m_context.Add("loops", 1000);
    m_context.Add("callbacks", 500);
    m_context.Add("callback_time", 1'500'000'000);
    m_context.RecordMaximum("longest_callback", 2'000 * kMicrosecond);
    m_source.Add("messages", 20);
    m_source.Add("nonblocking_failures");
    m_source.Set("receivers", 1);
    m_thread.Set("thread", ::getpid());
    m_thread.Set("cpu_wanted", 0);
    m_thread.Set("cpu_got", -1);
    m_engine.Set("sources", 1);
    m_engine.Set("receivers", receivers);
    m_engine.Set("peers", 1);
    for (const std::uint64_t latency : {1U, 2U, 4U, 700U}) {
      m_engine.RecordInHistogram("latency", latency * kMicrosecond);
    }
    m_peer.Set("ring_bytes", 8 << 20);
    m_peer.Set("ring_high_water", 1 << 16);
    m_network.Set("connected", 1);
    m_network.RecordInHistogram("round_trip", 150 * kMicrosecond);
    for (int i = 0; i < receivers; ++i) {
      m_receivers.push_back(std::make_unique<Row>(
          kReceiver, std::initializer_list<std::string_view>{m_name, m_handle, "prices." + std::to_string(i)}));
    }
  }

  void Receive(std::uint64_t messages) {
    for (const auto& receiver : m_receivers) {
      receiver->Add("messages", messages);
      receiver->Add("bytes", kMessageBytes * messages);
    }
  }

  void Lose(std::uint64_t messages) {
    m_receivers.front()->Add("losses");
    m_receivers.front()->Add("lost_messages", messages);
  }

  void BeBusy(std::uint64_t seconds) {
    m_context.Set(
        "busy_since",
        seconds == 0 ? 0 : static_cast<std::int64_t>(Now()) - static_cast<std::int64_t>(seconds * 1'000'000'000));
  }

  void Hang(bool hangs) { m_thread.Set("thread", hangs ? 0 : ::getpid()); }

 private:
  const std::string m_name;
  const std::string m_handle;
  Row m_context{kContext, {m_name, m_handle}};
  Row m_response{kResponse, {m_name, m_handle}};
  Row m_thread{kDispatchThread, {m_name, m_handle}};
  Row m_source{kSource, {m_name, m_handle, "orders"}};
  Row m_attribute{kOption, {m_name, m_handle, "context", "operational_mode", "sequential", "attribute"}};
  Row m_variable{kOption, {m_name, m_handle, "context", "spin_time", "50", "environment LBM_SPIN_TIME"}};
  Row m_default{kOption, {m_name, m_handle, "context", "bad\x1b[31moption", "1", "default"}};
  Row m_engine{kEngine, {m_name, m_handle, "default", "host,nats"}};
  Row m_peer{kPeer, {m_name, m_handle, "price_server.4711"}};
  Row m_network{kNetwork, {m_name, m_handle, "nats://127.0.0.1:4222"}};
  std::vector<std::unique_ptr<Row>> m_receivers;
};

using Contexts = std::vector<std::unique_ptr<Context>>;

void Obey(const Contexts& contexts, const std::string& line) {
  std::istringstream words(line);
  std::string command;
  std::uint64_t number = 0;
  words >> command >> number;
  if (command == "receive") {
    for (const auto& context : contexts) {
      context->Receive(number);
    }
  } else if (command == "lose") {
    contexts.front()->Lose(number);
  } else if (command == "busy") {
    contexts.front()->BeBusy(number);
  } else if (command == "hang") {
    contexts.front()->Hang(number != 0);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  // What has been read ahead would not be seen by poll.
  std::setvbuf(stdin, nullptr, _IONBF, 0);
  const Row process(kProcess, {"0.1.0", "embedded"});
  const Row log(kLog, {"ERROR"});
  const Row triage(kTriage, {"test", "answered"});
  Contexts contexts;
  for (int i = 0; i < std::stoi(arguments.at(0)); ++i) {
    contexts.push_back(std::make_unique<Context>(i, std::stoi(arguments.at(1))));
  }
  std::cout << "ready" << std::endl;
  // Waits as a thread does that processes events.
  pollfd input{STDIN_FILENO, POLLIN, 0};
  std::string line;
  while (::poll(&input, 1, -1) > 0 && std::getline(std::cin, line)) {
    Obey(contexts, line);
    std::cout << "done" << std::endl;
  }
}
