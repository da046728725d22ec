#include "view.h"

#include <cstdlib>

#include "cli/terminal.h"
#include "hint.h"
#include "lines.h"
#include "live_view.h"

namespace price_client {
namespace {

class Silence : public View {
 public:
  void Show(const Snapshot&) override {}
};

class LiveView : public View {
 public:
  explicit LiveView(const cli::Output& output) : m_terminal(output), m_colour(std::getenv("NO_COLOR") == nullptr) {}

  void Show(const Snapshot& snapshot) override {
    if (snapshot.elapsedSeconds < m_nextFrame) {
      return;
    }
    m_nextFrame = snapshot.elapsedSeconds + kSecondsPerFrame;
    m_terminal.Draw(RenderFrame(snapshot, m_terminal.Size(), m_colour));
  }
  void Suspend() override { m_terminal.Suspend(); }

 private:
  static constexpr double kSecondsPerFrame = 0.25;

  cli::Terminal m_terminal;
  bool m_colour;
  double m_nextFrame = 0;
};

// A line on each change as it happens, and one on each instance every second.
class Lines : public View {
 public:
  explicit Lines(const cli::Output& output) : m_output(output) {}

  void Show(const Snapshot& snapshot) override {
    auto text = ChangeLines(m_clientBefore, snapshot.client, snapshot.elapsedSeconds);
    m_clientBefore = snapshot.client;
    m_before.resize(snapshot.instances.size());
    const bool progress = snapshot.elapsedSeconds >= m_nextProgress;
    if (progress) {
      m_nextProgress += kSecondsPerProgress;
    }
    for (std::size_t i = 0; i < snapshot.instances.size(); ++i) {
      const auto& instance = snapshot.instances[i];
      text += ChangeLines(m_before[i], instance, snapshot.elapsedSeconds);
      if (progress) {
        text += ProgressLine(instance, snapshot.elapsedSeconds);
      }
      m_before[i] = instance;
    }
    if (!m_hasHinted && snapshot.elapsedSeconds >= kSecondsBeforeHint) {
      m_hasHinted = true;
      text += HintLines(snapshot);
    }
    m_output.Write(text);
  }

 private:
  static constexpr double kSecondsPerProgress = 1;

  const cli::Output& m_output;
  ClientSnapshot m_clientBefore;
  std::vector<InstanceSnapshot> m_before;
  double m_nextProgress = kSecondsPerProgress;
  bool m_hasHinted = false;
};

}  // namespace

bool TakesOverTerminal(const Options& options, const cli::Output& output) {
  return !options.json && !options.quiet && !options.plain && output.IsTerminal();
}

std::unique_ptr<View> MakeView(const Options& options, const cli::Output& output) {
  if (options.json || options.quiet) {
    return std::make_unique<Silence>();
  }
  if (TakesOverTerminal(options, output)) {
    return std::make_unique<LiveView>(output);
  }
  return std::make_unique<Lines>(output);
}

}  // namespace price_client
