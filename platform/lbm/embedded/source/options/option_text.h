// The table's rows in words, for error texts and the reference page.
#pragma once

#include <string>
#include <string_view>

#include "options/option_table.h"

namespace engine {

// For example: context option "domain".
std::string describe(const OptionDefinition& option);

// For example: 0 to 600000 ms. Empty for options that have no text form.
std::string allowedValues(const OptionDefinition& option);

// The C type that setopt and getopt exchange, or "characters".
std::string_view binaryForm(OptionType type);

// The text in double quotes, cut when long, with everything but printable ASCII as \xHH.
std::string quoted(std::string_view text);

// "a", "a or b", "a, b or c".
std::string alternatives(std::span<const std::string_view> words);

// What is wrong with a name that the table does not have, and which one may have been meant.
std::string unknownOptionText(Scope scope, std::string_view name);

}  // namespace engine
