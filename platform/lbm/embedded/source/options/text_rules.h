// What texts must be to serve as values of options.
#pragma once

#include <string_view>

namespace engine {

struct TextRule {
  bool (*accepts)(std::string_view text);
  std::string_view allowed;  // continues "allowed: "
};

// One component of a path, so that it names an entry of a directory and nothing outside of it.
bool IsFileName(std::string_view text);
inline constexpr TextRule kFileNameRule{&IsFileName, "a file name: printable, without '/', not \".\" or \"..\""};

// An IPv4 address, one with a prefix length, or an interface's name. Whether the machine has it is not looked at.
bool IsNetworkInterface(std::string_view text);
inline constexpr TextRule kNetworkInterfaceRule{
    &IsNetworkInterface, "an IPv4 address, \"address/prefix length\", or the name of a network interface"};

}  // namespace engine
