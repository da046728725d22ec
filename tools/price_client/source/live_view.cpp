#include "live_view.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/format.h"
#include "cli/table.h"
#include "hint.h"
#include "instance_monitor.h"
#include "quantile_text.h"
#include "server_text.h"

namespace price_client {
namespace {

using cli::Frame;
using cli::Style;

Style StyleOf(InstanceState state) {
  switch (state) {
    case InstanceState::kUp:
      return Style::kGreen;
    case InstanceState::kBack:
      return Style::kYellow;
    case InstanceState::kGone:
      return Style::kRed;
    case InstanceState::kNeverSeen:
      return Style::kDim;
  }
  return Style::kPlain;
}

void AddHeader(Frame& frame, const Snapshot& snapshot) {
  frame.Add("price_client", Style::kBold)
      .Add(fmt::format("  {}  {} updates  {}/s  ", cli::FormatDuration(snapshot.elapsedSeconds),
                       cli::FormatCount(snapshot.Total().updates),
                       cli::FormatCount(static_cast<std::uint64_t>(std::llround(snapshot.CurrentRate())))));
  if (snapshot.client.isPaused) {
    frame.Add("paused", Style::kYellow).Add("  ");
  }
  frame.Add("Ctrl-C ends", Style::kDim).EndLine();
  frame.Add(fmt::format("client {} on host {}", snapshot.client.id, snapshot.client.host), Style::kDim);
  if (snapshot.client.dropped > 0) {
    frame.Add(fmt::format("  dropped {}", cli::FormatCount(snapshot.client.dropped)), Style::kRed);
  }
  frame.EndLine();
}

void AddInstance(Frame& frame, const InstanceSnapshot& instance) {
  const auto& totals = instance.totals;
  frame.Add(instance.name, Style::kBold).Add("  ").Add(NameOf(instance.state), StyleOf(instance.state));
  frame.Add(fmt::format("  segments {}/{}  {}/s", instance.liveSegments, instance.segments,
                        cli::FormatCount(static_cast<std::uint64_t>(std::llround(instance.currentRate)))));
  frame.Add("  gaps ").Add(cli::FormatCount(totals.gaps), totals.gaps > 0 ? Style::kRed : Style::kPlain);
  if (totals.missed > 0) {
    frame.Add(fmt::format(" ({} missed)", cli::FormatCount(totals.missed)), Style::kRed);
  }
  if (totals.lost > 0) {
    frame.Add(fmt::format("  lost {}", cli::FormatCount(totals.lost)), Style::kRed);
  }
  if (totals.restarts > 0) {
    frame.Add(fmt::format("  restarts {}", totals.restarts), Style::kYellow);
  }
  if (totals.malformed > 0) {
    frame.Add(fmt::format("  malformed {}", cli::FormatCount(totals.malformed)), Style::kRed);
  }
  frame.EndLine();
}

Style StyleOfServer(const InstanceSnapshot& instance) {
  if (instance.state == InstanceState::kGone) {
    return instance.HasClosedInOrder() ? Style::kYellow : Style::kRed;
  }
  if (!instance.status) {
    return Style::kDim;
  }
  if (instance.status->isSilent) {
    return Style::kRed;
  }
  return instance.status->last.state == feed::ServerState::kClosing ? Style::kYellow : Style::kPlain;
}

// Short enough for 60 columns.
void AddLatency(Frame& frame, const InstanceSnapshot& instance) {
  const auto& all = instance.totals.latency;
  const auto& recent = instance.recentLatency;
  frame.Add(fmt::format("  10 s p50 {} p99 {}", QuantileText(recent, 0.5), QuantileText(recent, 0.99)));
  frame.Add(fmt::format("  all p50 {} p99 {}", QuantileText(all, 0.5), QuantileText(all, 0.99)), Style::kDim);
  frame.EndLine();
}

// What the server tells besides prices.
void AddServer(Frame& frame, const InstanceSnapshot& instance) {
  const auto& notices = instance.notices;
  frame.Add("  ").Add(ServerText(instance), StyleOfServer(instance));
  frame.Add(fmt::format("  products {}  RFQs {}  news {}", cli::FormatCount(notices.products.size()),
                        cli::FormatCount(notices.rfqs), cli::FormatCount(notices.news)));
  if (notices.lastNews) {
    frame.Add("  " + cli::ToAscii(notices.lastNews->headline), Style::kDim);
  }
  frame.EndLine();
}

Style StyleOfMove(const SymbolSnapshot& symbol) {
  if (symbol.price == symbol.previousPrice) {
    return Style::kPlain;
  }
  return symbol.price > symbol.previousPrice ? Style::kGreen : Style::kRed;
}

// Wide enough for most prices from the start, so that the columns stay where they are as prices change.
void AddSymbols(Frame& frame, std::span<const SymbolSnapshot> symbols) {
  cli::Table table(1, {8, 11, 9, 8, 10, 11});
  table.Add({"symbol", "price", "change", "change %", "date", "updates"});
  for (const auto& symbol : symbols) {
    table.Add({std::string(symbol.symbol.View()), symbol.price.ToString(), fmt::format("{:+.2f}", symbol.Change()),
               fmt::format("{:+.2f}", symbol.ChangePercent()), feed::ToString(symbol.date),
               cli::FormatCount(symbol.updates)});
  }
  const auto rows = table.Aligned();
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const bool isHeading = i == 0;
    const auto move = isHeading ? Style::kDim : StyleOfMove(symbols[i - 1]);
    const auto value = isHeading ? Style::kDim : Style::kPlain;
    const std::array styles{value, value, move, move, Style::kDim, Style::kDim};
    for (std::size_t column = 0; column < styles.size(); ++column) {
      frame.Add(cli::Table::kGap).Add(rows[i][column], styles[column]);
    }
    frame.EndLine();
  }
}

// What there is beside an instance's own row.
class Details {
 public:
  Details(const InstanceSnapshot& instance, const Snapshot& snapshot) : m_instance(instance) {
    if (const auto segments = SegmentsText(instance); !segments.empty()) {
      m_warnings.push_back({segments, Style::kRed});
    }
    if (const auto hint = HintFor(instance, snapshot.client);
        !hint.empty() && snapshot.elapsedSeconds >= kSecondsBeforeHint) {
      m_warnings.push_back({cli::ToAscii(hint), Style::kYellow});
    }
  }

  unsigned Rows() const { return (IsSeen() ? 2U : 0U) + static_cast<unsigned>(m_warnings.size()); }

  void AddTo(Frame& frame) const {
    if (IsSeen()) {
      AddServer(frame, m_instance);
      AddLatency(frame, m_instance);
    }
    for (const auto& [text, style] : m_warnings) {
      frame.Add("  " + text, style).EndLine();
    }
  }

 private:
  bool IsSeen() const { return m_instance.state != InstanceState::kNeverSeen; }

  const InstanceSnapshot& m_instance;
  std::vector<std::pair<std::string, Style>> m_warnings;
};

void AddUnlisted(Frame& frame, std::size_t hidden, std::uint64_t untracked) {
  if (frame.RowsLeft() == 0 || (hidden == 0 && untracked == 0)) {
    return;
  }
  if (hidden > 0) {
    frame.Add(fmt::format("  {} more symbols; a taller window shows them", hidden), Style::kDim);
  }
  if (untracked > 0) {
    frame.Add(fmt::format("  {} updates of symbols beyond the first {}", cli::FormatCount(untracked),
                          cli::FormatCount(InstanceMonitor::kMaxSymbols)),
              Style::kYellow);
  }
  frame.EndLine();
}

}  // namespace

std::string RenderFrame(const Snapshot& snapshot, cli::ScreenSize size, bool colour) {
  constexpr unsigned kHeadingRows = 1;
  Frame frame(size, colour);
  AddHeader(frame, snapshot);
  // Every instance gets its row before any gets those for details, and these come before rows for symbols; one row is
  // kept for what is hidden.
  std::vector<Details> details;
  auto detailRows = 0U;
  for (const auto& instance : snapshot.instances) {
    detailRows += details.emplace_back(instance, snapshot).Rows();
  }
  const bool withDetails = frame.RowsLeft() > snapshot.instances.size() + detailRows;
  auto kept = static_cast<unsigned>(1 + snapshot.instances.size() + (withDetails ? detailRows : 0));
  std::size_t hidden = 0;
  for (std::size_t i = 0; i < snapshot.instances.size() && frame.RowsLeft() > 0; ++i) {
    const auto& instance = snapshot.instances[i];
    AddInstance(frame, instance);
    --kept;
    if (withDetails) {
      details[i].AddTo(frame);
      kept -= details[i].Rows();
    }
    const auto room = frame.RowsLeft() > kept + kHeadingRows ? frame.RowsLeft() - kept - kHeadingRows : 0;
    const auto shown = std::min<std::size_t>(room, instance.symbols.size());
    if (shown > 0) {
      AddSymbols(frame, std::span(instance.symbols).first(shown));
    }
    hidden += instance.symbols.size() - shown;
  }
  AddUnlisted(frame, hidden, snapshot.Total().untracked);
  return std::move(frame).Finish();
}

}  // namespace price_client
