// The command line of the price server.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "cli/output.h"
#include "feed/symbol.h"
#include "ps_common/connector/server_instance.h"

namespace price_server {

struct Options {
  ps_ns::ServerInstance instance;
  std::string pricesFile;
  feed::Symbol symbolOfDailyValues;
  unsigned short segments = 1;
  double updatesPerSecond = 1000;  // 0: as fast as possible
  std::optional<std::uint64_t> count;
  std::optional<std::chrono::duration<double>> seconds;
  std::chrono::duration<double> newsPeriod{5};    // 0: none
  std::chrono::duration<double> rfqPeriod{2};     // 0: none
  std::chrono::duration<double> statusPeriod{1};  // above 0
  std::chrono::duration<double> commandTimeout{5};
  std::string contextName;
  bool loop = false;
  bool waitForClient = false;
  bool hasConsole = false;
  bool quiet = false;
};

// Nothing when the user asked for help or the version, which then has been written. Throws cli::UsageError.
std::optional<Options> ParseOptions(int argc, const char* const* argv, const cli::Output& output);

}  // namespace price_server
