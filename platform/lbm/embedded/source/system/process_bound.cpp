#include "system/process_bound.h"

#include <lbm/lbm.h>

#include "system/error.h"

namespace engine {

void ProcessBound::Refuse(const std::string& what) {
  throw Error(LBM_EOP,
              what +
                  " belongs to the parent of this process, which made it before it forked; a child process has "
                  "to make objects of its own");
}

}  // namespace engine
