// Every option of the engine. Setting, reading, validation, the configuration file, the typed keys and the reference
// page come from the table below.
#pragma once

#include <lbm/lbm.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <string_view>

#include "options/text_rules.h"

namespace engine {

// The kinds of objects that have options.
enum class Scope : std::uint8_t { context, eventQueue, receiver, source };
inline constexpr std::array scopeNames{std::string_view("context"), std::string_view("event_queue"),
                                       std::string_view("receiver"), std::string_view("source")};
constexpr std::string_view nameOf(Scope scope) { return scopeNames[static_cast<std::size_t>(scope)]; }

// Values of options that are one word of a few, in the order of the words.
enum class OperationalMode : std::uint8_t { embedded, sequential };
enum class TransportPacing : std::uint8_t { source, receiver };

template <class Enum>
inline constexpr std::array<std::string_view, 0> wordsOf{};
template <>
inline constexpr std::array wordsOf<OperationalMode>{std::string_view("embedded"), std::string_view("sequential")};
template <>
inline constexpr std::array wordsOf<TransportPacing>{std::string_view("source"), std::string_view("receiver")};

// What an option holds, and what setopt and getopt exchange.
enum class OptionType : std::uint8_t {
  text,                        // its characters, without a terminating zero
  word,                        // one of a few words; its characters
  flag,                        // int, 0 or 1
  number,                      // uint32_t
  milliseconds,                // lbm_ulong_t
  size,                        // size_t, bytes
  resolverSourceNotification,  // lbm_src_notify_func_t; has no text form
  receiverSourceNotification,  // lbm_rcv_src_notification_func_t; has no text form
};

constexpr bool hasTextForm(OptionType type) {
  return type != OptionType::resolverSourceNotification && type != OptionType::receiverSourceNotification;
}

enum class Change : std::uint8_t {
  atCreation,  // through attributes only
  anytime,     // on the live object, too
  never        // the engine's own value, which a live object has
};

struct OptionDefinition {
  Scope scope;
  std::string_view name;
  OptionType type;
  Change change = Change::atCreation;
  std::string_view defaultText = {};
  std::uint64_t minimum = 0;  // of numbers, milliseconds and sizes; for text, of its bytes
  std::uint64_t maximum = 0;
  std::string_view unit = {};
  std::span<const std::string_view> words = {};
  const TextRule* textRule = nullptr;  // what a text must be beyond its length; null: anything
  std::string_view documentation;      // markdown, one line
};

// In the order of scope and name.
inline constexpr std::array optionTable{
    OptionDefinition{
        .scope = Scope::context,
        .name = "close_linger_time",
        .type = OptionType::milliseconds,
        .change = Change::anytime,
        .defaultText = "1000",
        .maximum = 600'000,
        .unit = "ms",
        .documentation = "How long deleting the context may wait for what was sent to leave the process.",
    },
    OptionDefinition{
        .scope = Scope::context,
        .name = "context_name",
        .type = OptionType::text,
        .maximum = LBM_OPTION_VALUE_MAX - 1,
        .unit = "bytes",
        .documentation = "Name of the context, told to its peers. Need not be unique.",
    },
    OptionDefinition{
        .scope = Scope::context,
        .name = "domain",
        .type = OptionType::text,
        .defaultText = "default",
        .minimum = 1,
        .maximum = 64,
        .unit = "bytes",
        .textRule = &fileNameRule,
        .documentation = "Contexts of one user and machine see each other when their domain is the same.",
    },
    OptionDefinition{
        .scope = Scope::context,
        .name = "domain_directory",
        .type = OptionType::text,
        .change = Change::never,
        .maximum = LBM_OPTION_VALUE_MAX - 1,
        .unit = "bytes",
        .documentation = "The directory in which the contexts of the domain meet.",
    },
    OptionDefinition{
        .scope = Scope::context,
        .name = "operational_mode",
        .type = OptionType::word,
        .defaultText = "embedded",
        .words = wordsOf<OperationalMode>,
        .documentation = "Who processes the context's events: a thread of the library (`embedded`), or whoever calls "
                         "`lbm_context_process_events` (`sequential`).",
    },
    OptionDefinition{
        .scope = Scope::context,
        .name = "resolver_multicast_interface",
        .type = OptionType::text,
        .defaultText = "0.0.0.0",
        .minimum = 1,
        .maximum = 64,
        .unit = "bytes",
        .textRule = &networkInterfaceRule,
        .documentation = "Network interface for finding topics. Kept and reported; the host transport uses no network.",
    },
    OptionDefinition{
        .scope = Scope::context,
        .name = "resolver_source_notification_function",
        .type = OptionType::resolverSourceNotification,
        .documentation = "Called for every source that the context finds, once for each appearance.",
    },
    OptionDefinition{
        .scope = Scope::context,
        .name = "spin_time",
        .type = OptionType::number,
        .change = Change::anytime,
        .defaultText = "0",
        .maximum = 1'000'000'000,
        .unit = "us",
        .documentation = "How long processing events looks for messages, using the processor, before it waits without. "
                         "Spinning answers within a microsecond and takes a processor core.",
    },
    OptionDefinition{
        .scope = Scope::context,
        .name = "transport_ring_size",
        .type = OptionType::size,
        .defaultText = "1048576",
        .minimum = 65'536,
        .maximum = 1'073'741'824,
        .unit = "bytes",
        .documentation = "Room for what one context that subscribed has not yet taken, rounded up to a power of two. "
                         "Each has its own, in shared memory.",
    },
    OptionDefinition{
        .scope = Scope::eventQueue,
        .name = "queue_cancellation_callbacks_enabled",
        .type = OptionType::flag,
        .defaultText = "0",
        .documentation = "Whether cancellation notices of the queue's objects (`lbm_cancel_fd_ex`) are delivered.",
    },
    OptionDefinition{
        .scope = Scope::receiver,
        .name = "loss_burst_threshold",
        .type = OptionType::number,
        .defaultText = "16",
        .maximum = 65'536,
        .unit = "messages",
        .documentation = "Up to that many messages lost at once are reported one by one, more as one burst; 0: always "
                         "as a burst.",
    },
    OptionDefinition{
        .scope = Scope::receiver,
        .name = "no_source_notification_delay",
        .type = OptionType::milliseconds,
        .defaultText = "10000",
        .maximum = 86'400'000,
        .unit = "ms",
        .documentation = "Time without any source of the topic after which receivers are told once; 0: never.",
    },
    OptionDefinition{
        .scope = Scope::receiver,
        .name = "source_notification_function",
        .type = OptionType::receiverSourceNotification,
        .documentation = "Called when a source of the topic appears and when it goes.",
    },
    OptionDefinition{
        .scope = Scope::source,
        .name = "transport_id",
        .type = OptionType::number,
        .change = Change::never,
        .maximum = std::numeric_limits<std::uint32_t>::max(),
        .documentation = "Number of the source within its context.",
    },
    OptionDefinition{
        .scope = Scope::source,
        .name = "transport_pacing",
        .type = OptionType::word,
        .defaultText = "source",
        .words = wordsOf<TransportPacing>,
        .documentation = "Who gives way when a receiver cannot keep up: its messages are dropped and it is told of the "
                         "loss (`source`), or sends wait or fail with `LBM_EWOULDBLOCK` (`receiver`).",
    },
    OptionDefinition{
        .scope = Scope::source,
        .name = "transport_source",
        .type = OptionType::text,
        .change = Change::never,
        .maximum = LBM_OPTION_VALUE_MAX - 1,
        .unit = "bytes",
        .documentation = "The source's name as its receivers see it.",
    },
};

static_assert(std::is_sorted(optionTable.begin(), optionTable.end(),
                             [](const OptionDefinition& a, const OptionDefinition& b) {
                               return a.scope != b.scope ? a.scope < b.scope : a.name < b.name;
                             }));
static_assert(std::all_of(optionTable.begin(), optionTable.end(),
                          [](const OptionDefinition& option) { return option.name.size() < LBM_OPTION_NAME_MAX; }));

// The scope's rows of the table.
constexpr std::span<const OptionDefinition> optionsOf(Scope scope) {
  const auto isBefore = [scope](const OptionDefinition& option) { return option.scope < scope; };
  const auto isUpTo = [scope](const OptionDefinition& option) { return option.scope <= scope; };
  return {std::partition_point(optionTable.begin(), optionTable.end(), isBefore),
          std::partition_point(optionTable.begin(), optionTable.end(), isUpTo)};
}

// The option's place in optionsOf(scope); their number when there is no such option.
constexpr std::size_t placeOf(Scope scope, std::string_view name) {
  const auto rows = optionsOf(scope);
  return static_cast<std::size_t>(
      std::find_if(rows.begin(), rows.end(), [name](const auto& row) { return row.name == name; }) - rows.begin());
}

}  // namespace engine
