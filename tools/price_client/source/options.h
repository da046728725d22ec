// The command line of the price client.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/output.h"
#include "ps_common/connector/server_instance.h"

namespace price_client {

struct Options {
  std::string configFile;  // empty: none, all defaults
  std::vector<ps_ns::ServerInstance> instances;
  std::optional<unsigned short> segments = 1;  // of every instance; none: those that its products name
  std::optional<std::chrono::duration<double>> seconds;
  std::optional<std::uint64_t> count;
  bool json = false;
  bool quiet = false;
  bool plain = false;
  bool strict = false;
  std::string clientID;
  std::string host;
  std::chrono::duration<double> maxSilence{5};  // of a server's status
  std::string contextName;                      // empty: none
  int cpu = -1;                                 // -1: any
  bool onload = false;
};

// Nothing when the user asked for help or the version, which then has been written. Throws cli::UsageError.
std::optional<Options> ParseOptions(int argc, const char* const* argv, const cli::Output& output);

}  // namespace price_client
