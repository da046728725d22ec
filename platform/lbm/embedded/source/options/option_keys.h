// Typed names of the options that the engine reads. A key that the table does not have, or not with that type, does not
// compile.
#pragma once

#include <chrono>
#include <string>
#include <type_traits>

#include "options/option_table.h"

namespace engine {

template <class T>
constexpr OptionType OptionTypeOf() {
  if constexpr (std::is_same_v<T, std::string>) {
    return OptionType::kText;
  }
  if constexpr (std::is_enum_v<T>) {
    return OptionType::kWord;
  }
  if constexpr (std::is_same_v<T, bool>) {
    return OptionType::kFlag;
  }
  if constexpr (std::is_same_v<T, std::uint32_t>) {
    return OptionType::kNumber;
  }
  if constexpr (std::is_same_v<T, std::chrono::milliseconds>) {
    return OptionType::kMilliseconds;
  }
  if constexpr (std::is_same_v<T, std::size_t>) {
    return OptionType::kSize;
  }
  if constexpr (std::is_same_v<T, lbm_src_notify_func_t>) {
    return OptionType::kResolverSourceNotification;
  }
  if constexpr (std::is_same_v<T, lbm_rcv_src_notification_func_t>) {
    return OptionType::kReceiverSourceNotification;
  }
}

template <class T>
class OptionKey {
 public:
  consteval OptionKey(Scope scope, std::string_view name) : m_scope(scope), m_place(PlaceOf(scope, name)) {
    const auto rows = OptionsOf(scope);
    if (m_place == rows.size()) {
      throw "the table has no such option";
    }
    if (rows[m_place].type != OptionTypeOf<T>()) {
      throw "the table has another type";
    }
    if constexpr (std::is_enum_v<T>) {
      if (rows[m_place].words.data() != kWordsOf<T>.data()) {
        throw "the table has other words";
      }
    }
  }

  constexpr Scope GetScope() const noexcept { return m_scope; }
  constexpr std::size_t Place() const noexcept { return m_place; }  // in OptionsOf(GetScope())

 private:
  Scope m_scope;
  std::size_t m_place;
};

namespace option {

inline constexpr OptionKey<std::chrono::milliseconds> kCloseLingerTime{Scope::kContext, "close_linger_time"};
inline constexpr OptionKey<std::string> kContextName{Scope::kContext, "context_name"};
inline constexpr OptionKey<std::string> kDomain{Scope::kContext, "domain"};
inline constexpr OptionKey<std::string> kDomainDirectory{Scope::kContext, "domain_directory"};
inline constexpr OptionKey<std::chrono::milliseconds> kNatsAnnouncementInterval{Scope::kContext,
                                                                                "nats_announcement_interval"};
inline constexpr OptionKey<std::string> kNatsConnectionName{Scope::kContext, "nats_connection_name"};
inline constexpr OptionKey<std::string> kNatsCredentialsFile{Scope::kContext, "nats_credentials_file"};
inline constexpr OptionKey<std::chrono::milliseconds> kNatsPeerTimeout{Scope::kContext, "nats_peer_timeout"};
inline constexpr OptionKey<std::size_t> kNatsReceiveQueueSize{Scope::kContext, "nats_receive_queue_size"};
inline constexpr OptionKey<std::size_t> kNatsSendQueueSize{Scope::kContext, "nats_send_queue_size"};
inline constexpr OptionKey<std::string> kNatsServers{Scope::kContext, "nats_servers"};
inline constexpr OptionKey<std::string> kNatsSubjectPrefix{Scope::kContext, "nats_subject_prefix"};
inline constexpr OptionKey<std::string> kNatsTlsCaFile{Scope::kContext, "nats_tls_ca_file"};
inline constexpr OptionKey<std::string> kNatsTlsCertificateFile{Scope::kContext, "nats_tls_certificate_file"};
inline constexpr OptionKey<std::string> kNatsTlsKeyFile{Scope::kContext, "nats_tls_key_file"};
inline constexpr OptionKey<std::string> kNatsUserFile{Scope::kContext, "nats_user_file"};
inline constexpr OptionKey<std::size_t> kNatsWindowSize{Scope::kContext, "nats_window_size"};
inline constexpr OptionKey<OperationalMode> kOperationalMode{Scope::kContext, "operational_mode"};
inline constexpr OptionKey<lbm_src_notify_func_t> kResolverSourceNotification{Scope::kContext,
                                                                              "resolver_source_notification_function"};
inline constexpr OptionKey<std::uint32_t> kSpinTime{Scope::kContext, "spin_time"};  // microseconds, or kAuto
inline constexpr OptionKey<TransportKind> kTransport{Scope::kContext, "transport"};
inline constexpr OptionKey<std::size_t> kTransportRingSize{Scope::kContext, "transport_ring_size"};

inline constexpr OptionKey<std::size_t> kQueueBytesMax{Scope::kEventQueue, "queue_bytes_max"};
inline constexpr OptionKey<bool> kQueueCancellationCallbacksEnabled{Scope::kEventQueue,
                                                                    "queue_cancellation_callbacks_enabled"};

inline constexpr OptionKey<std::uint32_t> kLossBurstThreshold{Scope::kReceiver, "loss_burst_threshold"};
inline constexpr OptionKey<std::chrono::milliseconds> kNoSourceNotificationDelay{Scope::kReceiver,
                                                                                 "no_source_notification_delay"};
inline constexpr OptionKey<lbm_rcv_src_notification_func_t> kReceiverSourceNotification{Scope::kReceiver,
                                                                                        "source_notification_function"};

inline constexpr OptionKey<std::uint32_t> kTransportId{Scope::kSource, "transport_id"};
inline constexpr OptionKey<TransportPacing> kTransportPacing{Scope::kSource, "transport_pacing"};
inline constexpr OptionKey<std::string> kTransportSource{Scope::kSource, "transport_source"};

}  // namespace option
}  // namespace engine
