// Texts of people and of other processes, in a form that upsets neither a terminal nor a log.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#pragma GCC visibility push(default)

namespace feed {

// Longest text in a message, in bytes.
constexpr std::size_t kMaxTextLength = 1024;

// Whether the text, which must be UTF-8, has at most kMaxTextLength bytes and no control characters.
bool IsOneLine(std::string_view text);

// Makes one line of any bytes: bytes that are not UTF-8 become U+FFFD, control characters blanks, and what is beyond
// kMaxTextLength is cut off between two characters.
std::string OneLine(std::string_view text);

}  // namespace feed

#pragma GCC visibility pop
