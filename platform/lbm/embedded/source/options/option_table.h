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
enum class Scope : std::uint8_t { kContext, kEventQueue, kReceiver, kSource };
inline constexpr std::array kScopeNames{std::string_view("context"), std::string_view("event_queue"),
                                        std::string_view("receiver"), std::string_view("source")};
constexpr std::string_view NameOf(Scope scope) { return kScopeNames[static_cast<std::size_t>(scope)]; }

// Values of options that are one word of a few, in the order of the words.
enum class OperationalMode : std::uint8_t { kEmbedded, kSequential };
enum class TransportPacing : std::uint8_t { kSource, kReceiver };
enum class TransportKind : std::uint8_t { kHost, kNats, kHostAndNats };

template <class Enum>
inline constexpr std::array<std::string_view, 0> kWordsOf{};
template <>
inline constexpr std::array kWordsOf<OperationalMode>{std::string_view("embedded"), std::string_view("sequential")};
template <>
inline constexpr std::array kWordsOf<TransportKind>{std::string_view("host"), std::string_view("nats"),
                                                    std::string_view("host,nats")};
template <>
inline constexpr std::array kWordsOf<TransportPacing>{std::string_view("source"), std::string_view("receiver")};

// What an option holds, and what setopt and getopt exchange.
enum class OptionType : std::uint8_t {
  kText,                        // its characters, without a terminating zero
  kWord,                        // one of a few words; its characters
  kFlag,                        // int, 0 or 1
  kNumber,                      // uint32_t
  kMilliseconds,                // lbm_ulong_t
  kSize,                        // size_t, bytes
  kResolverSourceNotification,  // lbm_src_notify_func_t; has no text form
  kReceiverSourceNotification,  // lbm_rcv_src_notification_func_t; has no text form
};

constexpr bool HasTextForm(OptionType type) {
  return type != OptionType::kResolverSourceNotification && type != OptionType::kReceiverSourceNotification;
}

enum class Change : std::uint8_t {
  kAtCreation,  // through attributes only
  kAnytime,     // on the live object, too
  kNever        // the engine's own value, which a live object has
};

// Lets the engine choose the number, where the option allows it.
inline constexpr std::uint32_t kAuto = std::numeric_limits<std::uint32_t>::max();
inline constexpr std::string_view kAutoText = "auto";

struct OptionDefinition {
  Scope scope;
  std::string_view name;
  OptionType type;
  Change change = Change::kAtCreation;
  std::string_view defaultText = {};
  std::uint64_t minimum = 0;  // of numbers, milliseconds and sizes; for text, of its bytes
  std::uint64_t maximum = 0;
  std::string_view unit = {};
  std::span<const std::string_view> words = {};
  bool hasAuto = false;                // of kNumber: "auto", kAuto in binary, is a value beside the range
  const TextRule* textRule = nullptr;  // what a text must be beyond its length; null: anything
  bool holdsUrls = false;              // of servers, perhaps with users and passwords
  std::string_view documentation;      // markdown, one line
};

// In the order of scope and name.
inline constexpr std::array kOptionTable{
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "close_linger_time",
        .type = OptionType::kMilliseconds,
        .change = Change::kAnytime,
        .defaultText = "1000",
        .maximum = 600'000,
        .unit = "ms",
        .documentation = "How long deleting the context may wait for what was sent to leave the process.",
    },
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "context_name",
        .type = OptionType::kText,
        .maximum = LBM_OPTION_VALUE_MAX - 1,
        .unit = "bytes",
        .documentation = "Name of the context, told to its peers. Need not be unique.",
    },
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "domain",
        .type = OptionType::kText,
        .defaultText = "default",
        .minimum = 1,
        .maximum = 64,
        .unit = "bytes",
        .textRule = &kFileNameRule,
        .documentation = "Contexts see each other when their domain is the same: those of one user and machine, and "
                         "with NATS those of all machines whose servers and prefix are the same.",
    },
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "domain_directory",
        .type = OptionType::kText,
        .change = Change::kNever,
        .maximum = LBM_OPTION_VALUE_MAX - 1,
        .unit = "bytes",
        .documentation = "The directory in which the contexts of the domain meet; empty without the host transport.",
    },
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "nats_announcement_interval",
        .type = OptionType::kMilliseconds,
        .defaultText = "2000",
        .minimum = 100,
        .maximum = 60'000,
        .unit = "ms",
        .documentation = "How often a context that has sources or subscriptions says that it is there.",
    },
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "nats_connection_name",
        .type = OptionType::kText,
        .maximum = LBM_OPTION_VALUE_MAX - 1,
        .unit = "bytes",
        .documentation = "Name of the connection as the server shows it to its operators; empty: the context's name, "
                         "or its identity.",
    },
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "nats_credentials_file",
        .type = OptionType::kText,
        .maximum = LBM_OPTION_VALUE_MAX - 1,
        .unit = "bytes",
        .documentation = "File with the user's JWT and key, for servers that authenticate so; empty: none.",
    },
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "nats_peer_timeout",
        .type = OptionType::kMilliseconds,
        .defaultText = "10000",
        .minimum = 500,
        .maximum = 600'000,
        .unit = "ms",
        .documentation =
            "A context that was not heard of for so long is taken for gone, with its sources and subscriptions.",
    },
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "nats_receive_queue_size",
        .type = OptionType::kSize,
        .defaultText = "67108864",
        .minimum = 1'048'576,
        .maximum = 17'179'869'184,
        .unit = "bytes",
        .documentation = "Room for what has arrived and was not delivered yet. What does not fit is lost, and told, "
                         "unless its source waits.",
    },
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "nats_send_queue_size",
        .type = OptionType::kSize,
        .defaultText = "4194304",
        .minimum = 65'536,
        .maximum = 1'073'741'824,
        .unit = "bytes",
        .documentation = "Room for what the network has not taken yet. Without room sends drop the message or wait, as "
                         "`transport_pacing` says.",
    },
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "nats_servers",
        .type = OptionType::kText,
        .defaultText = "nats://127.0.0.1:4222",
        .minimum = 1,
        .maximum = LBM_OPTION_VALUE_MAX - 1,
        .unit = "bytes",
        .holdsUrls = true,
        .documentation = "URLs of NATS servers, separated by commas; `tls://` for encryption. One of a cluster is "
                         "enough; several let the context start while one is down.",
    },
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "nats_subject_prefix",
        .type = OptionType::kText,
        .defaultText = "lbm",
        .minimum = 1,
        .maximum = 64,
        .unit = "bytes",
        .textRule = &kFileNameRule,
        .documentation = "What all subjects begin with. Contexts see each other when prefix and domain are the same.",
    },
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "nats_tls_ca_file",
        .type = OptionType::kText,
        .maximum = LBM_OPTION_VALUE_MAX - 1,
        .unit = "bytes",
        .documentation = "File with the certificates of the authorities that the server's certificate must be of; "
                         "empty: the system's.",
    },
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "nats_tls_certificate_file",
        .type = OptionType::kText,
        .maximum = LBM_OPTION_VALUE_MAX - 1,
        .unit = "bytes",
        .documentation = "File with this client's certificate, for servers that ask for one; empty: none.",
    },
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "nats_tls_key_file",
        .type = OptionType::kText,
        .maximum = LBM_OPTION_VALUE_MAX - 1,
        .unit = "bytes",
        .documentation = "File with the key of `nats_tls_certificate_file`.",
    },
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "nats_user_file",
        .type = OptionType::kText,
        .maximum = LBM_OPTION_VALUE_MAX - 1,
        .unit = "bytes",
        .documentation = "File with the user on its first line and the password on its second; empty: none.",
    },
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "nats_window_size",
        .type = OptionType::kSize,
        .defaultText = "1048576",
        .minimum = 65'536,
        .maximum = 1'073'741'824,
        .unit = "bytes",
        .documentation = "How far a source that waits for its receivers (`transport_pacing` is `receiver`) may be "
                         "ahead of the slowest.",
    },
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "operational_mode",
        .type = OptionType::kWord,
        .defaultText = "embedded",
        .words = kWordsOf<OperationalMode>,
        .documentation = "Who processes the context's events: a thread of the library (`embedded`), or whoever calls "
                         "`lbm_context_process_events` (`sequential`).",
    },
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "resolver_multicast_interface",
        .type = OptionType::kText,
        .defaultText = "0.0.0.0",
        .minimum = 1,
        .maximum = 64,
        .unit = "bytes",
        .textRule = &kNetworkInterfaceRule,
        .documentation = "Network interface for finding topics. Kept and reported; the host transport uses no network.",
    },
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "resolver_source_notification_function",
        .type = OptionType::kResolverSourceNotification,
        .documentation = "Called for every source that the context finds, once for each appearance.",
    },
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "spin_time",
        .type = OptionType::kNumber,
        .change = Change::kAnytime,
        .defaultText = kAutoText,
        .maximum = 1'000'000'000,
        .unit = "us",
        .hasAuto = true,
        .documentation =
            "How long processing events looks for messages, using the processor, before it waits without. Spinning "
            "answers within a microsecond and takes a processor core. `auto` (in binary the greatest uint32_t) spins "
            "20 to 100 us, about what two wake-ups take on the machine, and only while that pays; 0 never spins.",
    },
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "transport",
        .type = OptionType::kWord,
        .defaultText = "host",
        .words = kWordsOf<TransportKind>,
        .documentation =
            "How messages travel: between processes of one user on one machine through shared memory (`host`), between "
            "machines through NATS servers (`nats`), or each where it serves (`host,nats`).",
    },
    OptionDefinition{
        .scope = Scope::kContext,
        .name = "transport_ring_size",
        .type = OptionType::kSize,
        .defaultText = "1048576",
        .minimum = 65'536,
        .maximum = 1'073'741'824,
        .unit = "bytes",
        .documentation = "Room for what one context that subscribed has not yet taken, rounded up to a power of two. "
                         "Each has its own, in shared memory, for each pacing of sources that it receives.",
    },
    OptionDefinition{
        .scope = Scope::kEventQueue,
        .name = "queue_bytes_max",
        .type = OptionType::kSize,
        .defaultText = "67108864",
        .minimum = 65'536,
        .maximum = 1'099'511'627'776,
        .unit = "bytes",
        .documentation =
            "Memory of what nobody has dispatched. When the queue has so much, sources with "
            "`transport_pacing` `receiver` wait, and messages of others are lost and told; both until half "
            "of it is dispatched.",
    },
    OptionDefinition{
        .scope = Scope::kEventQueue,
        .name = "queue_cancellation_callbacks_enabled",
        .type = OptionType::kFlag,
        .defaultText = "0",
        .documentation = "Whether cancellation notices of the queue's objects (`lbm_cancel_fd_ex`) are delivered.",
    },
    OptionDefinition{
        .scope = Scope::kReceiver,
        .name = "loss_burst_threshold",
        .type = OptionType::kNumber,
        .defaultText = "16",
        .maximum = 65'536,
        .unit = "messages",
        .documentation = "Up to that many messages lost at once are reported one by one, more as one burst; 0: always "
                         "as a burst.",
    },
    OptionDefinition{
        .scope = Scope::kReceiver,
        .name = "no_source_notification_delay",
        .type = OptionType::kMilliseconds,
        .defaultText = "10000",
        .maximum = 86'400'000,
        .unit = "ms",
        .documentation = "Time without any source of the topic after which receivers are told once; 0: never.",
    },
    OptionDefinition{
        .scope = Scope::kReceiver,
        .name = "source_notification_function",
        .type = OptionType::kReceiverSourceNotification,
        .documentation = "Called when a source of the topic appears and when it goes.",
    },
    OptionDefinition{
        .scope = Scope::kSource,
        .name = "transport_id",
        .type = OptionType::kNumber,
        .change = Change::kNever,
        .maximum = std::numeric_limits<std::uint32_t>::max(),
        .documentation = "Number of the source within its context.",
    },
    OptionDefinition{
        .scope = Scope::kSource,
        .name = "transport_pacing",
        .type = OptionType::kWord,
        .defaultText = "source",
        .words = kWordsOf<TransportPacing>,
        .documentation = "Who gives way when a receiver cannot keep up: its messages are dropped and it is told of the "
                         "loss (`source`), or sends wait or fail with `LBM_EWOULDBLOCK` (`receiver`).",
    },
    OptionDefinition{
        .scope = Scope::kSource,
        .name = "transport_source",
        .type = OptionType::kText,
        .change = Change::kNever,
        .maximum = LBM_OPTION_VALUE_MAX - 1,
        .unit = "bytes",
        .documentation = "The source's name as its receivers see it.",
    },
};

static_assert(std::is_sorted(kOptionTable.begin(), kOptionTable.end(),
                             [](const OptionDefinition& a, const OptionDefinition& b) {
                               return a.scope != b.scope ? a.scope < b.scope : a.name < b.name;
                             }));
static_assert(std::all_of(kOptionTable.begin(), kOptionTable.end(), [](const OptionDefinition& option) {
  return !option.hasAuto || (option.type == OptionType::kNumber && option.maximum < kAuto);
}));
static_assert(std::all_of(kOptionTable.begin(), kOptionTable.end(),
                          [](const OptionDefinition& option) { return option.name.size() < LBM_OPTION_NAME_MAX; }));

// The scope's rows of the table.
constexpr std::span<const OptionDefinition> OptionsOf(Scope scope) {
  const auto isBefore = [scope](const OptionDefinition& option) { return option.scope < scope; };
  const auto isUpTo = [scope](const OptionDefinition& option) { return option.scope <= scope; };
  return {std::partition_point(kOptionTable.begin(), kOptionTable.end(), isBefore),
          std::partition_point(kOptionTable.begin(), kOptionTable.end(), isUpTo)};
}

// The option's place in OptionsOf(scope); their number when there is no such option.
constexpr std::size_t PlaceOf(Scope scope, std::string_view name) {
  const auto rows = OptionsOf(scope);
  return static_cast<std::size_t>(
      std::find_if(rows.begin(), rows.end(), [name](const auto& row) { return row.name == name; }) - rows.begin());
}

}  // namespace engine
