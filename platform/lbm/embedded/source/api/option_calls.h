// The option calls of the C interface, the same for attributes (OptionSet) and for live objects (LiveOptions,
// FixedOptions). To be run inside Guarded.
#pragma once

#include <cstddef>

#include "api/arguments.h"

namespace engine::api {

template <class Options>
int SetOption(Options&& options, const char* optname, const void* optval, std::size_t optlen) {
  RequireNotNull(optname, "optname");
  RequireNotNull(optval, "optval");
  options.SetBinary(optname, optval, optlen);
  return 0;
}

template <class Options>
int GetOption(const Options& options, const char* optname, void* optval, std::size_t* optlen) {
  RequireNotNull(optname, "optname");
  RequireNotNull(optval, "optval");
  options.GetBinary(optname, optval, Required(optlen, "optlen"));
  return 0;
}

template <class Options>
int SetTextOption(Options&& options, const char* optname, const char* optval) {
  RequireNotNull(optname, "optname");
  RequireNotNull(optval, "optval");
  options.SetText(optname, optval);
  return 0;
}

template <class Options>
int GetTextOption(const Options& options, const char* optname, char* optval, std::size_t* optlen) {
  RequireNotNull(optname, "optname");
  RequireNotNull(optval, "optval");
  options.GetText(optname, optval, Required(optlen, "optlen"));
  return 0;
}

}  // namespace engine::api
