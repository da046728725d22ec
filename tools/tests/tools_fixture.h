// What the tests of the tools as processes share.
#pragma once

#include <gmock/gmock.h>
#include <signal.h>

#include <fstream>

#include "process.h"
#include "ps_common/connector/server_instance.h"
#include "test_support/temporary_directory.h"

namespace tools_test {

using Arguments = std::vector<std::string>;

inline const std::string kStocks = "--prices=" PRICES_DIRECTORY "/stocks.csv";
inline const ps_ns::ServerInstance kInstance{1, 1, 1, 0, "TEST"};

// A domain of the messaging library for the test's programs, and how to start them.
class ToolsFixture : public testing::Test {
 protected:
  // A server of kInstance, or of another node.
  static Arguments Server(const Arguments& more, const std::string& node = "1") {
    return Command({PRICE_SERVER, "--market=1", "--submarket=1", "--node=" + node, "--market-name=TEST"}, more);
  }
  static Arguments Client(const Arguments& more) {
    return Command({PRICE_CLIENT, "--config=" PRICE_CLIENT_CONFIG}, more);
  }
  static Arguments Command(Arguments command, const Arguments& more) {
    command.insert(command.end(), more.begin(), more.end());
    return command;
  }

  std::filesystem::path Write(const std::string& name, const std::string& content) const {
    auto path = m_files.Path() / name;
    std::ofstream(path) << content;
    return path;
  }

  const test_support::TemporaryDirectory m_files;
  const test_support::TemporaryDirectory m_runtime;
  Environment m_environment{{"LBM_RUNTIME_DIR", m_runtime.Path().string()}};
};

}  // namespace tools_test
