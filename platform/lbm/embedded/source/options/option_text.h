// The table's rows in words, for error texts and the reference page.
#pragma once

#include <string>
#include <string_view>

#include "options/option_table.h"

namespace engine {

// For example: context option "domain".
std::string Describe(const OptionDefinition& option);

// For example: 0 to 600000 ms. Empty for options that have no text form.
std::string AllowedValues(const OptionDefinition& option);

// The C type that setopt and getopt exchange, or "characters".
std::string_view BinaryForm(OptionType type);

// The text in double quotes, cut when long, with everything but printable ASCII as \xHH.
std::string Quoted(std::string_view text);

// "a", "a or b", "a, b or c".
std::string Alternatives(std::span<const std::string_view> words);

// What is wrong with a name that the table does not have, and which one may have been meant.
std::string UnknownOptionText(Scope scope, std::string_view name);

}  // namespace engine
