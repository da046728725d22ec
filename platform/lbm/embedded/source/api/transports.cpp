#include "api/transports.h"

#include <string>
#include <string_view>
#include <utility>

#include "core/notice.h"
#include "system/error.h"
#include "transport/host/host_transport.h"
#include "transport/host/link/runtime_directory.h"

#ifdef LBM_EMBEDDED_WITH_NATS
#include "transport/combined/combined_transport.h"
#include "transport/nats/nats_transport.h"
#endif

namespace engine::api {

namespace {

using transport::Transport;
namespace host = transport::host;

void Warn(const std::string& text) { Notice(LBM_LOG_WARNING, text); }

std::unique_ptr<Transport> JoinHost(OptionSet& options, const std::shared_ptr<ContextStatistics>& statistics) {
  const auto runtimeDirectory = host::RuntimeDirectory();
  const std::string_view variable = host::RuntimeDirectoryVariable();
  options.Provide(option::kDomainDirectory, runtimeDirectory + '/' + options.Get(option::kDomain),
                  variable.empty() ? origin::Default() : origin::Environment(variable));
  return host::JoinHostDomain({.runtimeDirectory = runtimeDirectory,
                               .domain = options.Get(option::kDomain),
                               .contextName = options.Get(option::kContextName),
                               .ringBytes = options.Get(option::kTransportRingSize),
                               .warn = &Warn,
                               .statistics = statistics});
}

#ifdef LBM_EMBEDDED_WITH_NATS
namespace nats = transport::nats;

nats::NatsSettings SettingsFrom(const OptionSet& options, const std::shared_ptr<ContextStatistics>& statistics) {
  nats::NatsSettings settings;
  settings.server = {.servers = options.Get(option::kNatsServers),
                     .name = options.Get(option::kNatsConnectionName),
                     .credentialsFile = options.Get(option::kNatsCredentialsFile),
                     .userFile = options.Get(option::kNatsUserFile),
                     .tlsCaFile = options.Get(option::kNatsTlsCaFile),
                     .tlsCertificateFile = options.Get(option::kNatsTlsCertificateFile),
                     .tlsKeyFile = options.Get(option::kNatsTlsKeyFile)};
  settings.subjectPrefix = options.Get(option::kNatsSubjectPrefix);
  settings.domain = options.Get(option::kDomain);
  settings.contextName = options.Get(option::kContextName);
  settings.announcementInterval = options.Get(option::kNatsAnnouncementInterval);
  settings.peerTimeout = options.Get(option::kNatsPeerTimeout);
  settings.windowBytes = options.Get(option::kNatsWindowSize);
  settings.sendQueueBytes = options.Get(option::kNatsSendQueueSize);
  settings.receiveQueueBytes = options.Get(option::kNatsReceiveQueueSize);
  settings.warn = &Warn;
  settings.statistics = statistics;
  return settings;
}

std::unique_ptr<Transport> JoinNats(OptionSet& options, const std::shared_ptr<ContextStatistics>& statistics) {
  options.Provide(option::kDomainDirectory, std::string());
  return nats::JoinNatsDomain(SettingsFrom(options, statistics));
}

std::unique_ptr<Transport> JoinBoth(OptionSet& options, const std::shared_ptr<ContextStatistics>& statistics) {
  // The socket of the network is looked at less often, in favour of what is near.
  constexpr std::chrono::microseconds kPollInterval{50};
  auto near = JoinHost(options, statistics);
  nats::NatsSettings settings = SettingsFrom(options, statistics);
  settings.identity = near->Identity();
  settings.place = host::PlaceOf(host::RuntimeDirectory(), settings.domain);
  settings.pollInterval = kPollInterval;
  return transport::combined::Combine(std::move(near), nats::JoinNatsDomain(settings));
}
#else
std::unique_ptr<Transport> JoinNats(OptionSet&, const std::shared_ptr<ContextStatistics>&) {
  throw Error(LBM_EOP,
              "this engine was built without NATS; set the context option \"transport\" to host, or build it with "
              "PRICE_CONNECTOR_NATS=ON");
}

std::unique_ptr<Transport> JoinBoth(OptionSet& options, const std::shared_ptr<ContextStatistics>&) {
  return JoinNats(options, nullptr);
}
#endif

}  // namespace

std::unique_ptr<Transport> JoinDomain(OptionSet& options, const std::shared_ptr<ContextStatistics>& statistics) {
  switch (options.Get(option::kTransport)) {
    case TransportKind::kNats:
      return JoinNats(options, statistics);
    case TransportKind::kHostAndNats:
      return JoinBoth(options, statistics);
    case TransportKind::kHost:
      break;
  }
  return JoinHost(options, statistics);
}

}  // namespace engine::api
