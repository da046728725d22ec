// One contender, one measurement: prints its result as one line of JSON.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <nlohmann/json.hpp>

#include "contender.h"
#include "control.h"
#include "measure.h"
#include "payload.h"
#include "test_support/temporary_directory.h"

namespace {

nlohmann::json ToJson(const compare::Contender& contender) {
  return {{"version", contender.version},
          {"transport", contender.transport},
          {"pacing", contender.pacing},
          {"pinned", contender.pinned},
          {"window", contender.window}};
}

nlohmann::json ToJson(const compare::RateResult& result) {
  return {{"slowest", result.slowest}, {"all", result.all}, {"sent", result.sent}, {"lost", result.lost}};
}

nlohmann::json ToJson(const compare::RoundTripResult& result) {
  return {
      {"count", result.count}, {"p50", result.p50}, {"p99", result.p99}, {"p99.9", result.p999}, {"max", result.max}};
}

nlohmann::json ToJson(const compare::LoadResult& result) {
  nlohmann::json json{{"sent", result.sent},
                      {"received", result.received},
                      {"unsent", result.unsent},
                      {"lost", result.sent - result.received},
                      {"rate", result.rate},
                      {"p50", result.p50},
                      {"p90", result.p90},
                      {"p99", result.p99},
                      {"p99.9", result.p999},
                      {"p99.99", nullptr},
                      {"max", result.max},
                      {"curve", result.curve},
                      {"late_p50", result.lateP50},
                      {"late_p99", result.lateP99},
                      {"processor", result.publisherPercent + result.receiverPercent},
                      {"publisher_processor", result.publisherPercent},
                      {"receiver_processor", result.receiverPercent},
                      {"server_processor", nullptr}};
  if (result.p9999) {
    json["p99.99"] = *result.p9999;
  }
  if (result.serverPercent) {
    json["server_processor"] = *result.serverPercent;
  }
  return json;
}

}  // namespace

int main(int argc, char** argv) try {
  CLI::App app("One measurement of one contender; the result is a line of JSON.");
  app.require_subcommand(1);
  std::size_t payload = 64;
  unsigned milliseconds = 500;
  bool spin = false;
  const auto common = [&](CLI::App* command) {
    command->add_option("--payload", payload, "bytes of a message")
        ->check(CLI::Range(compare::kPayloadMin, std::size_t{1} << 20));
    command->add_option("--milliseconds", milliseconds, "how long to measure");
    command->add_flag("--spin", spin, "look again and again instead of waiting");
    return command;
  };

  const CLI::App* const describe = app.add_subcommand("describe", "what the contender is and how it is set");
  CLI::App* const rate = common(app.add_subcommand("rate", "messages a second from one publisher"));
  compare::RateSettings settings;
  rate->add_option("--receivers", settings.receivers, "receiving processes")
      ->check(CLI::Range(std::size_t{1}, compare::kReceiversMax));
  rate->add_option("--topics", settings.topics, "topics published and subscribed to")->check(CLI::Range(1, 1'000'000));
  rate->add_flag("--spread", settings.spread, "send on all topics in turn, not on one");
  rate->add_option("--idle-peers", settings.idlePeers, "nodes subscribed to other topics");
  const CLI::App* const roundTrip = common(app.add_subcommand("round-trip", "time of a message there and back"));
  CLI::App* const threads = common(app.add_subcommand("threads", "messages a second from threads of one publisher"));
  threads->add_option("--threads", settings.threads, "that send, each on a topic of its own")
      ->check(CLI::Range(std::size_t{1}, compare::kSendersMax));
  threads->add_flag("--own-nodes", settings.ownNodes, "a node for each, not one for all");
  CLI::App* const load = common(app.add_subcommand("load", "time of messages that are sent by the clock"));
  compare::LoadSettings loadSettings;
  load->add_option("--rate", loadSettings.rate, "messages a second")->check(CLI::Range(1, 1'000'000'000));
  load->add_option("--burst", loadSettings.burst, "messages that are due at once")->check(CLI::Range(1, 1'000'000));
  CLI11_PARSE(app, argc, argv);

  const test_support::TemporaryDirectory directory;
  const compare::Contender contender = compare::MakeContender(directory.Path());
  const std::chrono::milliseconds duration(milliseconds);
  nlohmann::json result;
  if (*describe) {
    result = ToJson(contender);
  } else if (*load) {
    loadSettings.payload = payload;
    loadSettings.spin = spin;
    loadSettings.duration = duration;
    result = ToJson(compare::MeasureLoad(contender, loadSettings));
  } else if (*roundTrip) {
    result = ToJson(compare::MeasureRoundTrip(contender, {.payload = payload, .spin = spin, .duration = duration}));
  } else {
    settings.payload = payload;
    settings.spin = spin;
    settings.duration = duration;
    settings.pinned = !*threads;
    settings.topics = *threads ? settings.threads : settings.topics;
    result = ToJson(compare::MeasureRate(contender, settings));
  }
  std::puts(result.dump().c_str());
  return 0;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
