// The option calls of the C interface, the same for attributes (OptionSet) and for live objects (LiveOptions). To be
// run inside guarded().
#pragma once

#include <cstddef>

#include "api/arguments.h"

namespace engine::api {

template <class Options>
int setOption(Options& options, const char* optname, const void* optval, std::size_t optlen) {
  requireNotNull(optname, "optname");
  requireNotNull(optval, "optval");
  options.setBinary(optname, optval, optlen);
  return 0;
}

template <class Options>
int getOption(const Options& options, const char* optname, void* optval, std::size_t* optlen) {
  requireNotNull(optname, "optname");
  requireNotNull(optval, "optval");
  options.getBinary(optname, optval, required(optlen, "optlen"));
  return 0;
}

template <class Options>
int setTextOption(Options& options, const char* optname, const char* optval) {
  requireNotNull(optname, "optname");
  requireNotNull(optval, "optval");
  options.setText(optname, optval);
  return 0;
}

template <class Options>
int getTextOption(const Options& options, const char* optname, char* optval, std::size_t* optlen) {
  requireNotNull(optname, "optname");
  requireNotNull(optval, "optval");
  options.getText(optname, optval, required(optlen, "optlen"));
  return 0;
}

}  // namespace engine::api
