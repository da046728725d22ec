// A process with statistics for tests: it has contexts with rows of all kinds, and counts as standard input says.
//
//   played_process CONTEXTS RECEIVERS
//
// Receivers are those of each context. Each line of the input is a command and a number:
//   loop N      every context's loop goes on N times
//   receive N   every receiver gets N messages of 64 bytes
//   lose N      the first receiver of the first context loses N messages
//   busy N      the first context has been in a callback for N seconds; 0: is in none
// "done" follows on standard output. It ends with the input.

#include <unistd.h>

#include <cstdint>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "zq/statistics/row.h"

namespace {

using zq::statistics::FieldType;
using zq::statistics::Kind;
using zq::statistics::Row;

enum ContextField : std::size_t { kLoops, kCallbacks, kCallbackTime, kBusySince, kLongestCallback };
const Kind kContext{"context",
                    "A messaging context.",
                    {"context", "handle"},
                    {{"loops", FieldType::kCounter, "", "Loops."},
                     {"callbacks", FieldType::kCounter, "", "Callbacks."},
                     {"callback_time", FieldType::kCounter, "nanoseconds", "Time in callbacks."},
                     {"busy_since", FieldType::kGauge, "nanoseconds", "When the callback began."},
                     {"longest_callback", FieldType::kRecentMaximum, "nanoseconds", "The longest callback."}}};

enum ReceiverField : std::size_t { kMessages, kBytes, kLosses, kLostMessages };
const Kind kReceiver{"receiver",
                     "A receiver.",
                     {"context", "handle", "topic"},
                     {{"messages", FieldType::kCounter, "", "Messages."},
                      {"bytes", FieldType::kCounter, "bytes", "Bytes."},
                      {"losses", FieldType::kCounter, "", "Losses."},
                      {"lost_messages", FieldType::kCounter, "", "Lost messages."}}};

const Kind kSource{"source",
                   "A source.",
                   {"context", "handle", "topic"},
                   {{"messages", FieldType::kCounter, "", "Messages."},
                    {"would_block", FieldType::kCounter, "", "Sends that would have blocked."}}};

const Kind kThread{"dispatch_thread",
                   "A thread.",
                   {"context", "handle"},
                   {{"thread", FieldType::kGauge, "", "Its id."},
                    {"cpu_wanted", FieldType::kGauge, "", "The CPU asked for."},
                    {"cpu_got", FieldType::kGauge, "", "The CPU it is pinned to."}}};

const Kind kEngine{"engine_context",
                   "The engine's part of a context.",
                   {"context", "handle", "domain", "transport"},
                   {{"dropped", FieldType::kCounter, "", "Dropped messages."},
                    {"latency", FieldType::kHistogram, "nanoseconds", "From send to delivery."}}};

const Kind kOption{"option", "An option.", {"context", "handle", "owner", "option", "value", "origin"}, {}};

struct PlayedContext {
  explicit PlayedContext(int number, int receiverCount)
      : name("prices." + std::to_string(number)),
        handle("0x" + std::to_string(1000 + number)),
        context(kContext, {name, handle}),
        source(kSource, {name, handle, "orders"}),
        thread(kThread, {name, handle}),
        engine(kEngine, {name, handle, "default", "host"}),
        option(kOption, {name, handle, "context", "spin_time", "50", "environment LBM_SPIN_TIME"}),
        defaulted(kOption, {name, handle, "context", "bad\x1b[31moption", "1", "default"}) {
    for (int i = 0; i < receiverCount; ++i) {
      receivers.push_back(std::make_unique<Row>(
          kReceiver, std::initializer_list<std::string_view>{name, handle, "prices." + std::to_string(i)}));
    }
    thread.Set(0, ::getpid());
    thread.Set(1, 0);
    thread.Set(2, -1);
    engine.RecordInHistogram(1, 850, zq::statistics::Now());
    context.RecordMaximum(kLongestCallback, 3'000'000, zq::statistics::Now());
    context.Add(kLoops);
  }

  std::string name;
  std::string handle;
  Row context;
  Row source;
  Row thread;
  Row engine;
  Row option;
  Row defaulted;
  std::vector<std::unique_ptr<Row>> receivers;
};

void Obey(std::vector<std::unique_ptr<PlayedContext>>& contexts, const std::string& command, std::uint64_t number) {
  auto& first = *contexts.front();
  if (command == "lose") {
    first.receivers.front()->Add(kLosses);
    first.receivers.front()->Add(kLostMessages, number);
  } else if (command == "busy") {
    first.context.Set(kBusySince, number == 0 ? 0
                                              : static_cast<std::int64_t>(zq::statistics::Now()) -
                                                    static_cast<std::int64_t>(number) * 1'000'000'000);
  }
  for (const auto& context : contexts) {
    if (command == "loop") {
      context->context.Add(kLoops, number);
      context->context.Add(kCallbackTime, number * 1'000);
    } else if (command == "receive") {
      for (const auto& receiver : context->receivers) {
        receiver->Add(kMessages, number);
        receiver->Add(kBytes, number * 64);
      }
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    return 2;
  }
  std::vector<std::unique_ptr<PlayedContext>> contexts;
  for (int i = 0; i < std::stoi(argv[1]); ++i) {
    contexts.push_back(std::make_unique<PlayedContext>(i, std::stoi(argv[2])));
  }
  std::cout << "ready" << std::endl;
  std::string command;
  std::uint64_t number = 0;
  while (std::cin >> command >> number) {
    Obey(contexts, command, number);
    std::cout << "done" << std::endl;
  }
  return 0;
}
