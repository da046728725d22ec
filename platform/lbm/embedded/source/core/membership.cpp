#include "core/membership.h"

#include "system/error.h"

namespace engine::core {

void Membership::CheckNotEnded() const {
  if (Ended()) {
    throw Error(LBM_EOP, "the context is deleted");
  }
}

}  // namespace engine::core
