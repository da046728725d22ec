// What a server says of itself, for people.
#pragma once

#include <string>

#include "snapshot.h"

namespace price_client {

// What is known of the server from its status, in a few words; "" before it was ever seen.
std::string ServerText(const InstanceSnapshot& instance);

// What is wrong with the segments that are received, if anything is: "products of segments 2, 3 are not received".
std::string SegmentsText(const InstanceSnapshot& instance);

// What there is beside the symbols that are listed; empty when that is nothing.
std::string UntrackedText(const InstanceSnapshot& instance);

}  // namespace price_client
