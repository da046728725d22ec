#include "transport/nats/library.h"

#include <dlfcn.h>

#include <stdexcept>
#include <string>

namespace engine::transport::nats {

namespace {

[[noreturn]] void ThrowLastError() {
  const char* const reason = ::dlerror();
  throw std::runtime_error(std::string("cannot use the NATS client library " ENGINE_NATS_LIBRARY ": ") +
                           (reason != nullptr ? reason : "a function is null") +
                           ". Install it (in Debian, a package like libnats3.4), or set the context option "
                           "\"transport\" to host");
}

template <typename Function>
void Find(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(::dlsym(library, name));
  if (function == nullptr) {
    ThrowLastError();
  }
}

Library Load() {
  void* const handle = ::dlopen(ENGINE_NATS_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    ThrowLastError();
  }
  Library library{};
#define ENGINE_NATS_FIND(name) Find(handle, #name, library.name);
  ENGINE_NATS_FUNCTIONS(ENGINE_NATS_FIND)
#undef ENGINE_NATS_FIND
  return library;
}

}  // namespace

const Library& Nats() {
  static const Library library = Load();
  return library;
}

}  // namespace engine::transport::nats
