// The options' reference for users, as markdown.
#pragma once

#include <string>

namespace engine {

std::string ReferencePage();

}  // namespace engine
