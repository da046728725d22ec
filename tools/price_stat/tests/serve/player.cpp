// Plays a process that counts: it has rows of every kind that monitoring knows, until its standard input ends.
//
// player <contexts> <receivers of each> [live]
//
// Numbers are fixed unless it is live; then they go on as those of a client at work would.

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "zq/statistics/row.h"

namespace {

using zq::statistics::Field;
using zq::statistics::FieldType;
using zq::statistics::Kind;
using zq::statistics::Now;
using zq::statistics::Row;

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

struct Context {
  Context(const std::string& name, const std::string& handle, int receiverCount)
      : context(kContext, {name, handle}),
        response(kResponse, {name, handle}),
        thread(kDispatchThread, {name, handle}),
        source(kSource, {name, handle, "prices.client.REQUEST"}),
        option(kOption, {name, handle, "context", "operational_mode", "sequential", "attribute"}),
        engine(kEngine, {name, handle, "default", "host,nats"}),
        peer(kPeer, {name, handle, "price_server.4711"}),
        network(kNetwork, {name, handle, "nats://127.0.0.1:4222"}) {
    context.Add(0, 1000);
    context.Add(1, 500);
    context.Add(2, 1'500'000'000);
    context.RecordMaximum(4, 2'000 * kMicrosecond, Now());
    source.Add(0, 20);
    source.Add(2, 1);
    source.Set(4, 1);
    thread.Set(0, ::getpid());
    thread.Set(2, -1);
    thread.Set(3, -1);
    engine.Set(4, 1);
    engine.Set(5, receiverCount);
    engine.Set(6, 1);
    for (const std::uint64_t latency : {1U, 2U, 4U, 700U}) {
      engine.RecordInHistogram(8, latency * kMicrosecond, Now());
    }
    peer.Set(2, 8 << 20);
    peer.Set(3, 1 << 16);
    network.Set(0, 1);
    network.RecordInHistogram(5, 150 * kMicrosecond, Now());
    for (int i = 0; i < receiverCount; ++i) {
      auto& receiver = receivers.emplace_back(std::make_unique<Row>(
          kReceiver, std::initializer_list<std::string_view>{name, handle, "prices.1.1.segment." + std::to_string(i)}));
      receiver->Add(0, 100);
      receiver->Add(1, 6400);
    }
  }

  Row context;
  Row response;
  Row thread;
  Row source;
  Row option;
  Row engine;
  Row peer;
  Row network;
  std::vector<std::unique_ptr<Row>> receivers;
};

// What a tenth of a second at work adds.
void Work(Context& context, std::mt19937& random) {
  std::lognormal_distribution<double> micros(1.0, 0.8);
  const auto wave = 1 + std::sin(static_cast<double>(Now()) / 5e9);
  context.context.Add(0, 1000);
  for (const auto& receiver : context.receivers) {
    const auto messages = static_cast<std::uint64_t>(2000 * wave) + random() % 500;
    receiver->Add(0, messages);
    receiver->Add(1, 64 * messages);
    context.engine.Add(0, messages);
    context.context.Add(1, messages);
    context.context.Add(2, messages * 400);
  }
  context.source.Add(0, 10 + random() % 10);
  context.context.RecordMaximum(4, static_cast<std::uint64_t>(20e3 * micros(random)), Now());
  for (int i = 0; i < 10; ++i) {
    context.engine.RecordInHistogram(8, static_cast<std::uint64_t>(300 * micros(random)), Now());
    context.network.RecordInHistogram(5, static_cast<std::uint64_t>(90e3 * micros(random)), Now());
  }
  if (context.receivers.size() > 3 && random() % 40 == 0) {
    context.receivers[1]->Add(3);
    context.receivers[1]->Add(4, 1 + random() % 30);
  }
}

bool InputHasEnded(int milliseconds) {
  pollfd input{STDIN_FILENO, POLLIN, 0};
  return ::poll(&input, 1, milliseconds) > 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  const Row process(kProcess, {"0.1.0", "embedded"});
  Row log(kLog, {"ERROR"});
  Row triage(kTriage, {"test", "answered"});
  std::vector<std::unique_ptr<Context>> contexts;
  for (int i = 0; i < std::stoi(arguments.at(0)); ++i) {
    const std::string number = std::to_string(i);
    // A name that a page must not take for markup.
    contexts.push_back(std::make_unique<Context>(i == 0 ? "prices" : "<i>prices</i>" + number, "0x55d0c0de" + number,
                                                 std::stoi(arguments.at(1))));
  }
  std::cout << "ready" << std::endl;
  const bool live = arguments.size() > 2;
  std::mt19937 random(static_cast<unsigned>(::getpid()));
  while (!InputHasEnded(live ? 100 : -1)) {
    for (const auto& context : contexts) {
      Work(*context, random);
    }
  }
}
