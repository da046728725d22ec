// What all messages but prices have in common: each is one JSON object in UTF-8.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#pragma GCC visibility push(default)

namespace feed {

// Texts in messages are single lines, see one_line.h. Encode makes them so, whatever the field holds; decoding
// refuses others. Times, dates and prices are texts as their headers describe them. Fields that a message is not known
// to have are ignored, so that versions can differ; a field that is missing or of another type makes the message none,
// unless its comment calls it optional.
//
// The Decode functions take any bytes whatever, and give nothing for more than this many, nor for arrays and objects
// that are nested more deeply than this.
constexpr std::size_t kMaxJsonMessageSize = std::size_t{64} * 1024;
constexpr std::size_t kMaxJsonMessageDepth = 16;

// The field "id" of an object that may be no message otherwise: for answers to what cannot be read.
std::optional<std::uint64_t> DecodeMessageID(std::string_view bytes) noexcept;

}  // namespace feed

#pragma GCC visibility pop
