// Checks that every call of the C interface makes of its arguments.
#pragma once

#include <lbm/lbm.h>

#include <string>

#include "system/error.h"

namespace engine::api {

template <class T>
void RequireNotNull(T* argument, const char* name) {
  if (argument == nullptr) {
    throw Error(LBM_EINVAL, std::string("the argument ") + name + " is null");
  }
}

// What the argument points to.
template <class T>
T& Required(T* argument, const char* name) {
  RequireNotNull(argument, name);
  return *argument;
}

}  // namespace engine::api
