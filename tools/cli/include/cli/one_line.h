// Texts of people and of other processes, in a form that upsets neither a terminal nor a log: what messages have too.
#pragma once

#include "feed/one_line.h"

namespace cli {

using feed::kMaxTextLength;
using feed::OneLine;

}  // namespace cli
