// A transport made of two.
#pragma once

#include <memory>

#include "transport/transport.h"

namespace engine::transport::combined {

// near carries what it can, far the rest: a source that is found on both is told of by near alone, which the two have
// arranged between them. Messages that leave through far are numbered from 0 on their own, and both numberings are in
// the order of the calls.
std::unique_ptr<Transport> Combine(std::unique_ptr<Transport> near, std::unique_ptr<FarTransport> far);

}  // namespace engine::transport::combined
