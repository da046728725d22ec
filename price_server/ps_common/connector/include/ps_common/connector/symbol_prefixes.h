// Prefixes that tell special instruments from listed ones by their symbol.
#pragma once

#include <string>

namespace ps_ns {

const std::string uncoveredSymbolPrefix = "UC_";
const std::string simulatedSymbolPrefix = "EX_";
const std::string aggregatorSymbolPrefix = "AI_";
const std::string autospreaderSymbolPrefix = "SI_";
const std::string impliedSymbolPrefix = "IM_";

}  // namespace ps_ns
