// Reading of pages that are being written.
#pragma once

#include <cstddef>

#include "zq/statistics/snapshot.h"

namespace zq::statistics {

// Of the page at this address in this process.
Snapshot ReadMemory(const std::byte* page);

}  // namespace zq::statistics
