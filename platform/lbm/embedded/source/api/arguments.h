// Checks that every call of the C interface makes of its arguments.
#pragma once

#include <lbm/lbm.h>

#include <string>
#include <type_traits>

#include "system/error.h"
#include "system/process_bound.h"

namespace engine::api {

template <class T>
void RequireNotNull(T* argument, const char* name) {
  if (argument == nullptr) {
    throw Error(LBM_EINVAL, std::string("the argument ") + name + " is null");
  }
}

// What the argument points to, which has to be of this process.
template <class T>
T& Required(T* argument, const char* name) {
  RequireNotNull(argument, name);
  if constexpr (std::is_base_of_v<ProcessBound, T>) {
    argument->CheckProcess(name);
  }
  return *argument;
}

}  // namespace engine::api
