// How a context's messages travel.
#pragma once

#include <memory>

#include "options/option_set.h"
#include "statistics/context_statistics.h"
#include "transport/transport.h"

namespace engine::api {

// Joins the domain that the options name, on the transport that they name, and completes them. statistics:
// what the transport writes to. Throws Error for what
// this build cannot do, else as the transports do.
std::unique_ptr<transport::Transport> JoinDomain(OptionSet& options,
                                                 const std::shared_ptr<ContextStatistics>& statistics);

}  // namespace engine::api
