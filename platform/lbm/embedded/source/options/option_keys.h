// Typed names of the options that the engine reads. A key that the table does not have, or not with that type, does not
// compile.
#pragma once

#include <chrono>
#include <string>
#include <type_traits>

#include "options/option_table.h"

namespace engine {

template <class T>
constexpr OptionType optionTypeOf() {
  if constexpr (std::is_same_v<T, std::string>) return OptionType::text;
  if constexpr (std::is_enum_v<T>) return OptionType::word;
  if constexpr (std::is_same_v<T, bool>) return OptionType::flag;
  if constexpr (std::is_same_v<T, std::uint32_t>) return OptionType::number;
  if constexpr (std::is_same_v<T, std::chrono::milliseconds>) return OptionType::milliseconds;
  if constexpr (std::is_same_v<T, std::size_t>) return OptionType::size;
  if constexpr (std::is_same_v<T, lbm_src_notify_func_t>) return OptionType::resolverSourceNotification;
  if constexpr (std::is_same_v<T, lbm_rcv_src_notification_func_t>) return OptionType::receiverSourceNotification;
}

template <class T>
class OptionKey {
 public:
  consteval OptionKey(Scope scope, std::string_view name) : m_scope(scope), m_place(placeOf(scope, name)) {
    const auto rows = optionsOf(scope);
    if (m_place == rows.size()) throw "the table has no such option";
    if (rows[m_place].type != optionTypeOf<T>()) throw "the table has another type";
    if constexpr (std::is_enum_v<T>) {
      if (rows[m_place].words.data() != wordsOf<T>.data()) throw "the table has other words";
    }
  }

  constexpr Scope scope() const noexcept { return m_scope; }
  constexpr std::size_t place() const noexcept { return m_place; }  // in optionsOf(scope())
  constexpr const OptionDefinition& definition() const noexcept { return optionsOf(m_scope)[m_place]; }

 private:
  Scope m_scope;
  std::size_t m_place;
};

namespace option {

inline constexpr OptionKey<std::chrono::milliseconds> closeLingerTime{Scope::context, "close_linger_time"};
inline constexpr OptionKey<std::string> contextName{Scope::context, "context_name"};
inline constexpr OptionKey<std::string> domain{Scope::context, "domain"};
inline constexpr OptionKey<std::string> domainDirectory{Scope::context, "domain_directory"};
inline constexpr OptionKey<OperationalMode> operationalMode{Scope::context, "operational_mode"};
inline constexpr OptionKey<lbm_src_notify_func_t> resolverSourceNotification{Scope::context,
                                                                             "resolver_source_notification_function"};
inline constexpr OptionKey<std::uint32_t> spinTime{Scope::context, "spin_time"};  // microseconds
inline constexpr OptionKey<std::size_t> transportRingSize{Scope::context, "transport_ring_size"};

inline constexpr OptionKey<bool> queueCancellationCallbacksEnabled{Scope::eventQueue,
                                                                   "queue_cancellation_callbacks_enabled"};

inline constexpr OptionKey<std::uint32_t> lossBurstThreshold{Scope::receiver, "loss_burst_threshold"};
inline constexpr OptionKey<std::chrono::milliseconds> noSourceNotificationDelay{Scope::receiver,
                                                                                "no_source_notification_delay"};
inline constexpr OptionKey<lbm_rcv_src_notification_func_t> receiverSourceNotification{Scope::receiver,
                                                                                       "source_notification_function"};

inline constexpr OptionKey<std::uint32_t> transportId{Scope::source, "transport_id"};
inline constexpr OptionKey<TransportPacing> transportPacing{Scope::source, "transport_pacing"};
inline constexpr OptionKey<std::string> transportSource{Scope::source, "transport_source"};

}  // namespace option
}  // namespace engine
