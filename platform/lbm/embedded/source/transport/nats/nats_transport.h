// The transport between contexts on many machines, through NATS servers.
#pragma once

#include <memory>

#include "transport/nats/settings.h"
#include "transport/transport.h"

namespace engine::transport::nats {

// Joins the domain. Returns when a server is reached or has not answered; then it goes on trying. Throws as the
// transport's operations do, for settings that make no sense, and std::runtime_error when the client library cannot be
// used; a file that cannot be read is told of, and tried again.
std::unique_ptr<FarTransport> JoinNatsDomain(const NatsSettings& settings);

}  // namespace engine::transport::nats
