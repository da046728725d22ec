// Upper case as the triage topics and the matching of context names use it.
#pragma once

#include <algorithm>
#include <cctype>
#include <string>

namespace lbm {

// Byte by byte, as the C library's locale says.
inline std::string UpperCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char byte) { return static_cast<char>(std::toupper(byte)); });
  return text;
}

}  // namespace lbm
