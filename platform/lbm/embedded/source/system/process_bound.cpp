#include "system/process_bound.h"

#include <stdexcept>

namespace engine {

void ProcessBound::Refuse(const std::string& what) {
  throw std::runtime_error(what +
                           " belongs to the parent of this process, which made it before it forked; a child process "
                           "has to make objects of its own");
}

}  // namespace engine
