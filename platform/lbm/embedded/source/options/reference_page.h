// The options' reference for users, as markdown.
#pragma once

#include <string>

namespace engine {

std::string referencePage();

}  // namespace engine
