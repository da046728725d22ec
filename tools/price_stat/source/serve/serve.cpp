#include "serve/serve.h"

#include <fmt/format.h>
#include <signal.h>

#include <chrono>
#include <exception>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "call.h"
#include "cli/command_line.h"
#include "cli/one_line.h"
#include "cli/signal_wait.h"
#include "cli/tool.h"
#include "json.h"
#include "looks.h"
#include "processes.h"
#include "serve/fresh_text.h"
#include "serve/http_server.h"
#include "serve/listen_address.h"
#include "serve/open_metrics.h"
#include "serve/web_page.h"
#include "zq/posix/host_name.h"

namespace price_stat {

namespace {

// What threads that answer requests look with. Looks know of each other, and so who hangs.
class SharedLooks {
 public:
  explicit SharedLooks(const std::string& directory) : m_looks(directory, {}) {}

  std::vector<Process> Take() {
    const std::lock_guard lock(m_mutex);
    return m_looks.Take();
  }

 private:
  std::mutex m_mutex;
  Looks m_looks;  // with m_mutex
};

// Without blanks: it is for programs, and may be large.
std::string JsonText(const std::string& directory, const std::vector<Process>& processes) {
  auto list = nlohmann::ordered_json::array();
  for (const Process& process : processes) {
    list.push_back(FullJson(process));
  }
  using Json = nlohmann::ordered_json;
  return Json{{"directory", directory}, {"processes", std::move(list)}}.dump(-1, ' ', false,
                                                                             Json::error_handler_t::replace) +
         '\n';
}

// What the web page asks for again and again: options are many and do not change.
std::string JsonWithoutOptions(const std::string& directory, std::vector<Process> processes) {
  for (Process& process : processes) {
    if (process.snapshot) {
      std::erase_if(process.snapshot->rows, [](const auto& row) { return row.kind->name == "option"; });
    }
  }
  return JsonText(directory, processes);
}

template <class F>
Resource MadeAnew(std::string path, std::string type, const std::shared_ptr<SharedLooks>& looks, const F& make) {
  const auto text = std::make_shared<FreshText>([looks, make] { return make(looks->Take()); });
  return {.path = std::move(path), .type = std::move(type), .make = [text] { return text->Get(); }};
}

std::string RandomText() {
  std::random_device random;
  return fmt::format("{:08x}{:08x}{:08x}{:08x}", random(), random(), random(), random());
}

HttpSettings SettingsOf(const std::string& directory, const ServeOptions& options) {
  constexpr const char* kJsonType = "application/json";
  const auto looks = std::make_shared<SharedLooks>(directory);
  HttpSettings settings{.hostNames = options.hostNames};
  settings.hostNames.push_back(zq::posix::HostName());
  auto openMetrics = MadeAnew("/metrics", kOpenMetricsType, looks, [](const std::vector<Process>& processes) {
    return Metrics(processes, MetricsFormat::kOpenMetrics);
  });
  openMetrics.accepted = "application/openmetrics-text";
  settings.resources.push_back(std::move(openMetrics));
  settings.resources.push_back(MadeAnew("/metrics", kTextMetricsType, looks, [](const std::vector<Process>& processes) {
    return Metrics(processes, MetricsFormat::kText);
  }));
  settings.resources.push_back(MadeAnew("/json", kJsonType, looks, [directory](const std::vector<Process>& processes) {
    return JsonText(directory, processes);
  }));
  settings.resources.push_back(MadeAnew("/live.json", kJsonType, looks, [directory](std::vector<Process> processes) {
    return JsonWithoutOptions(directory, std::move(processes));
  }));
  // The page's own scripts and styles are told from others by a text that nobody else can know.
  const std::string nonce = RandomText();
  const auto page = std::make_shared<const std::string>(WebPage(nonce));
  settings.resources.push_back({.path = "/", .type = "text/html; charset=utf-8", .make = [page] { return page; }});
  settings.contentSecurityPolicy = fmt::format(
      "default-src 'none'; script-src 'nonce-{0}'; style-src 'nonce-{0}'; connect-src 'self'; img-src data:; "
      "base-uri 'none'; form-action 'none'; frame-ancestors 'none'",
      nonce);
  return settings;
}

}  // namespace

cli::ExitCode Serve(const std::string& directory, const ServeOptions& options, const cli::Output& output) {
  cli::SignalWait signals{SIGINT, SIGTERM, SIGHUP};
  ListenAddress address(options.listen);
  if (!address.IsLoopback()) {
    if (!options.beyondThisMachine) {
      throw cli::UsageError(
          "other machines can reach " + address.Text() +
          ", and whoever does sees all numbers and names; give --beyond-this-machine if that is meant");
    }
    cli::Complain("price_stat", "other machines can reach " + address.Text() + ": nothing asks them who they are");
  }
  HttpServer server(address.Listen(), SettingsOf(directory, options));
  output.Write(fmt::format("http://{}/ shows {}; /metrics and /json are for programs\n", address.Text(),
                           cli::OneLine(directory)));

  bool served = false;
  std::exception_ptr fault;
  std::thread serving([&] {
    try {
      served = server.Run();
    } catch (...) {
      fault = std::current_exception();
    }
    signals.Wake();
  });
  constexpr auto kEver = std::chrono::hours(24 * 365);
  signals.WaitUntil(cli::SignalWait::Clock::now() + kEver);
  server.Stop();
  serving.join();
  if (fault) {
    std::rethrow_exception(fault);
  }
  return served ? cli::ExitCode::kOk : throw std::runtime_error("the server cannot accept connections any more");
}

void AddServe(CLI::App& app, Call& call) {
  auto* const command = app.add_subcommand("serve", "Show everything to browsers and monitoring systems over HTTP");
  const auto options = std::make_shared<ServeOptions>();
  command->add_option("--listen", options->listen, "Address and port; port 0 is any free one")
      ->type_name("ADDRESS:PORT")
      ->capture_default_str();
  command->add_flag("--beyond-this-machine", options->beyondThisMachine,
                    "Allow an address that other machines can reach; they see everything");
  command
      ->add_option("--host", options->hostNames,
                   "A name by which the server is called, besides localhost, addresses "
                   "and the machine's name")
      ->type_name("NAME");
  command->callback([&call, options] {
    call.run = [&call, options](const cli::Output& output) { return Serve(call.directory, *options, output); };
  });
}

}  // namespace price_stat
