#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <limits>
#include <optional>
#include <utility>

#include "call.h"
#include "cli/command_line.h"
#include "cli/terminal.h"
#include "looks.h"
#include "watch_screen.h"

namespace price_stat {
namespace {

using Clock = cli::SignalWait::Clock;

struct WatchOptions {
  std::string view = Views().front().title;
  std::chrono::duration<double> interval{1};
  std::uint64_t count = std::numeric_limits<std::uint64_t>::max();
  bool plain = false;
};

const View& ViewOf(const WatchOptions& options) {
  return *std::find_if(Views().begin(), Views().end(), [&](const View& view) { return options.view == view.title; });
}

class Watch {
 public:
  Watch(const Call& call, const WatchOptions& options, const std::vector<std::string>& names, cli::Output output)
      : m_call(call),
        m_output(output),
        m_isLive(!call.json && !options.plain && output.IsTerminal()),
        m_signals(m_isLive ? cli::SignalWait{SIGINT, SIGTERM, SIGHUP, SIGTSTP, SIGWINCH}
                           : cli::SignalWait{SIGINT, SIGTERM, SIGHUP}),
        m_input(m_isLive && ::isatty(STDIN_FILENO) == 1 ? STDIN_FILENO : -1),
        m_interval(std::chrono::duration_cast<Clock::duration>(options.interval)),
        m_left(options.count),
        m_looks(call.directory, names),
        m_view(&ViewOf(options)) {
    m_output.GiveUpOn(m_signals.GetDescriptor());
  }

  // Until the user ends it, or there were as many looks as wanted.
  void Run() {
    if (m_isLive) {
      m_terminal.emplace(m_output, cli::Terminal::Keys::kOneByOne);
    }
    m_now = m_looks.Take();
    // The first numbers a second come soon; live, totals come at once.
    auto next = Clock::now() + (m_isLive ? std::min<Clock::duration>(m_interval, kFirstInterval) : m_interval);
    Draw();
    while (m_left > 0 && WaitUntil(next)) {
      if (Clock::now() < next) {
        Draw();
        continue;
      }
      if (!m_paused) {
        m_before = std::exchange(m_now, m_looks.Take());
        Print();
        --m_left;
      }
      Draw();
      // When the machine was asleep, looks that were missed are not made up for.
      next = std::max(next + m_interval, Clock::now());
    }
  }

 private:
  static constexpr auto kFirstInterval = std::chrono::milliseconds(250);

  // Returns early for a reason to draw again; false when the user wants it to end.
  bool WaitUntil(Clock::time_point deadline) {
    const int signal = m_signals.WaitUntil(deadline, m_input);
    if (cli::AsksToStop(signal)) {
      return false;
    }
    if (signal == SIGTSTP) {
      m_terminal->Suspend();
    }
    return signal != 0 || m_input < 0 || Clock::now() >= deadline || TakeKeys();
  }

  bool TakeKeys() {
    std::array<char, 64> buffer;
    const auto length = ::read(m_input, buffer.data(), buffer.size());
    if (length <= 0) {
      m_input = -1;  // no keys any more
      return true;
    }
    const std::string_view keys(buffer.data(), static_cast<std::size_t>(length));
    // Keys with sequences that are ours: up and down.
    if (keys == "\x1b[A" || keys == "\x1b[B") {
      Obey(keys.back() == 'A' ? 'k' : 'j');
      return true;
    }
    if (keys.front() == '\x1b') {
      return true;
    }
    for (const char key : keys) {
      if (key == 'q') {
        return false;
      }
      Obey(key);
    }
    return true;
  }

  void Obey(char key) {
    constexpr std::array kOrders{Order::kHurts, Order::kRate, Order::kName};
    if (key == 'p') {
      m_paused = !m_paused;
    } else if (key == 's') {
      m_order = kOrders.at((static_cast<std::size_t>(m_order) + 1) % kOrders.size());
    } else if (key == 'j') {
      m_top = std::min(m_top + 1, m_lines - std::min<std::size_t>(m_lines, 1));
    } else if (key == 'k') {
      m_top -= std::min<std::size_t>(m_top, 1);
    }
    for (const auto& view : Views()) {
      if (view.key == key) {
        m_view = &view;
        m_top = 0;
      }
    }
  }

  std::vector<Line> Lines() const { return LinesOf(*m_view, m_order, m_before, m_now); }

  Picture PictureOf(const std::vector<Line>& lines) const {
    return {*m_view, m_order, m_paused, m_top, lines, m_now.size(), m_call.directory};
  }

  void Draw() {
    if (m_terminal) {
      const auto lines = Lines();
      m_lines = lines.size();
      m_terminal->Draw(RenderScreen(PictureOf(lines), m_terminal->Size(), m_colour));
    }
  }

  void Print() {
    if (m_isLive) {
      return;
    }
    const auto lines = Lines();
    if (m_call.json) {
      using std::chrono::duration_cast;
      const auto now = duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch());
      const nlohmann::ordered_json document{
          {"time_ns", now.count()}, {"view", m_view->title}, {"lines", LinesJson(*m_view, lines)}};
      m_output.Write(document.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n');
    } else {
      m_output.Write(RenderBlock(PictureOf(lines)));
    }
  }

  const Call& m_call;
  cli::Output m_output;
  bool m_isLive;
  cli::SignalWait m_signals;
  int m_input;
  Clock::duration m_interval;
  std::uint64_t m_left;
  Looks m_looks;
  const View* m_view;
  Order m_order = Order::kHurts;
  bool m_paused = false;
  std::size_t m_top = 0;
  std::size_t m_lines = 0;
  bool m_colour = std::getenv("NO_COLOR") == nullptr;
  std::vector<Process> m_before;
  std::vector<Process> m_now;
  std::optional<cli::Terminal> m_terminal;
};

}  // namespace

void AddWatch(CLI::App& app, Call& call) {
  auto* const command = app.add_subcommand("watch", "Rates, live, with what hurts on top");
  command->add_flag("--json", call.json, "Print a JSON document a line, for each interval");
  const auto names = AddNames(*command);
  const auto options = std::make_shared<WatchOptions>();
  std::vector<std::string> titles;
  for (const auto& view : Views()) {
    titles.emplace_back(view.title);
  }
  command->add_option("--view", options->view, "What there are lines for")
      ->check(CLI::IsMember(titles).description(""))
      ->type_name(CLI::detail::join(titles, "|"))
      ->capture_default_str();
  cli::AddSecondsOption(*command, "--interval", options->interval, "Seconds between two looks", 0.05);
  command->add_option("--count", options->count, "End after so many intervals")
      ->check(cli::WholeNumber(1, cli::kMaxCount))
      ->type_name("N");
  command->add_flag("--plain", options->plain, "Print blocks on a terminal, too, instead of the live view");
  command->callback([&call, names, options] {
    call.run = [&call, names, options](const cli::Output& output) {
      Watch(call, *options, *names, output).Run();
      return cli::ExitCode::kOk;
    };
  });
}

}  // namespace price_stat
