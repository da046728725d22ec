// What a server says of itself, for people.
#pragma once

#include <string>

#include "snapshot.h"

namespace price_client {

// What is known of the server from its status, in a few words; "" before it was ever seen.
std::string ServerText(const InstanceSnapshot& instance);

}  // namespace price_client
