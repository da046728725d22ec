#include "transport_choice.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <memory>

#include "test_support/nats_server.h"
#include "test_support/temporary_directory.h"
#include "zq/posix/environment.h"

namespace engine_test {

namespace {

const std::string& Chosen() {
  static const std::string chosen = zq::posix::Environment("LBM_TEST_TRANSPORT");
  return chosen;
}

// Has every context of the process use the transport, by a configuration file.
class TransportChoice : public testing::Environment {
 public:
  void SetUp() override {
    if (Chosen().empty()) {
      return;
    }
    m_server = std::make_unique<test_support::NatsServer>();
    const std::string path = m_directory.Path() / "lbm.cfg";
    std::ofstream(path) << "context transport " << Chosen() << "\ncontext nats_servers " << m_server->Url() << '\n'
                        << "context nats_announcement_interval 60000\ncontext nats_peer_timeout 600000\n";
    ::setenv("LBM_CONFIG_FILE", path.c_str(), 1);
  }
  void TearDown() override { m_server.reset(); }

 private:
  const test_support::TemporaryDirectory m_directory;
  std::unique_ptr<test_support::NatsServer> m_server;
};

const auto* const g_choice = testing::AddGlobalTestEnvironment(new TransportChoice);

}  // namespace

bool OnHostOnly() { return Chosen().empty(); }

bool OverNetwork() { return Chosen() == "nats"; }

}  // namespace engine_test
