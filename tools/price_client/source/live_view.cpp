#include "live_view.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <span>
#include <string_view>

#include "cli/table.h"
#include "format.h"
#include "server_text.h"

namespace price_client {
namespace {

enum class Style : std::uint8_t { kPlain, kBold, kDim, kGreen, kRed, kYellow };

std::string_view CodeOf(Style style) {
  switch (style) {
    case Style::kPlain:
      return "";
    case Style::kBold:
      return "\x1b[1m";
    case Style::kDim:
      return "\x1b[2m";
    case Style::kGreen:
      return "\x1b[32m";
    case Style::kRed:
      return "\x1b[31m";
    case Style::kYellow:
      return "\x1b[33m";
  }
  return "";
}

// Collects lines of ASCII text, cut at the screen's width whatever the styles
// in them.
class Frame {
 public:
  Frame(ScreenSize size, bool colour) : m_size(size), m_colour(colour), m_text("\x1b[H") {}

  Frame& Add(std::string_view text, Style style = Style::kPlain) {
    text = text.substr(0, m_size.columns - std::min<std::size_t>(m_size.columns, m_column));
    m_column += text.size();
    const auto code = m_colour ? CodeOf(style) : std::string_view();
    m_text += code;
    m_text += text;
    if (!code.empty()) {
      m_text += "\x1b[0m";
    }
    return *this;
  }

  // There is no end of line after the last row, as it would scroll the screen.
  void EndLine() {
    m_text += "\x1b[K";
    if (++m_row < m_size.rows) {
      m_text += "\r\n";
    }
    m_column = 0;
  }

  unsigned RowsLeft() const { return m_size.rows - std::min(m_size.rows, m_row); }

  std::string Finish() && {
    if (RowsLeft() > 0) {
      m_text += "\x1b[J";
    }
    return std::move(m_text);
  }

 private:
  ScreenSize m_size;
  bool m_colour;
  std::string m_text;
  std::size_t m_column = 0;
  unsigned m_row = 0;
};

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
      .Add(fmt::format("  {}  {} updates  {}/s  ", FormatDuration(snapshot.elapsedSeconds),
                       FormatCount(snapshot.Total().updates),
                       FormatCount(static_cast<std::uint64_t>(std::llround(snapshot.CurrentRate())))));
  if (snapshot.client.isPaused) {
    frame.Add("paused", Style::kYellow).Add("  ");
  }
  frame.Add("Ctrl-C ends", Style::kDim).EndLine();
  frame.Add(fmt::format("client {} on host {}", snapshot.client.id, snapshot.client.host), Style::kDim);
  if (snapshot.client.dropped > 0) {
    frame.Add(fmt::format("  dropped {}", FormatCount(snapshot.client.dropped)), Style::kRed);
  }
  frame.EndLine();
}

void AddInstance(Frame& frame, const InstanceSnapshot& instance) {
  const auto& totals = instance.totals;
  frame.Add(instance.name, Style::kBold).Add("  ").Add(NameOf(instance.state), StyleOf(instance.state));
  frame.Add(fmt::format("  segments {}/{}  {}/s", instance.liveSegments, instance.segments,
                        FormatCount(static_cast<std::uint64_t>(std::llround(instance.currentRate)))));
  frame.Add("  gaps ").Add(FormatCount(totals.gaps), totals.gaps > 0 ? Style::kRed : Style::kPlain);
  if (totals.missed > 0) {
    frame.Add(fmt::format(" ({} missed)", FormatCount(totals.missed)), Style::kRed);
  }
  if (totals.lost > 0) {
    frame.Add(fmt::format("  lost {}", FormatCount(totals.lost)), Style::kRed);
  }
  if (totals.restarts > 0) {
    frame.Add(fmt::format("  restarts {}", totals.restarts), Style::kYellow);
  }
  if (totals.malformed > 0) {
    frame.Add(fmt::format("  malformed {}", FormatCount(totals.malformed)), Style::kRed);
  }
  // Last, as the faults matter more where the line is cut.
  if (totals.latency.Count() > 0) {
    frame.Add(fmt::format("  p50 {}  p99 {}", FormatLatency(totals.latency.Quantile(0.5)),
                          FormatLatency(totals.latency.Quantile(0.99))));
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

// What the server tells besides prices.
void AddServer(Frame& frame, const InstanceSnapshot& instance) {
  const auto& notices = instance.notices;
  frame.Add("  ").Add(ServerText(instance), StyleOfServer(instance));
  frame.Add(fmt::format("  products {}  RFQs {}  news {}", FormatCount(notices.products.size()),
                        FormatCount(notices.rfqs), FormatCount(notices.news)));
  if (notices.lastNews) {
    frame.Add("  " + ToAscii(notices.lastNews->headline), Style::kDim);
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
  for (const auto& symbol : symbols) {
    table.Add({std::string(symbol.symbol.View()), symbol.price.ToString(), fmt::format("{:+.2f}", symbol.Change()),
               fmt::format("{:+.2f}%", symbol.ChangePercent()), feed::ToString(symbol.date),
               FormatCount(symbol.updates)});
  }
  const auto rows = table.Aligned();
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const auto move = StyleOfMove(symbols[i]);
    const std::array styles{Style::kPlain, Style::kPlain, move, move, Style::kDim, Style::kDim};
    for (std::size_t column = 0; column < styles.size(); ++column) {
      frame.Add(cli::Table::kGap).Add(rows[i][column], styles[column]);
    }
    frame.EndLine();
  }
}

}  // namespace

std::string RenderFrame(const Snapshot& snapshot, ScreenSize size, bool colour) {
  Frame frame(size, colour);
  AddHeader(frame, snapshot);
  // Every instance gets a row before any gets one for what its server tells, and those come before rows for symbols;
  // one row is kept for what is hidden.
  const bool withServers = frame.RowsLeft() > 2 * snapshot.instances.size();
  const auto hasServerRow = [&](const InstanceSnapshot& instance) {
    return withServers && instance.state != InstanceState::kNeverSeen;
  };
  auto kept = 1U;
  for (const auto& instance : snapshot.instances) {
    kept += hasServerRow(instance) ? 2 : 1;
  }
  std::size_t hidden = 0;
  for (const auto& instance : snapshot.instances) {
    if (frame.RowsLeft() == 0) {
      break;
    }
    AddInstance(frame, instance);
    if (hasServerRow(instance)) {
      AddServer(frame, instance);
    }
    kept -= hasServerRow(instance) ? 2 : 1;
    const auto room = frame.RowsLeft() > kept ? frame.RowsLeft() - kept : 0;
    const auto shown = std::min<std::size_t>(room, instance.symbols.size());
    AddSymbols(frame, std::span(instance.symbols).first(shown));
    hidden += instance.symbols.size() - shown;
  }
  if (hidden > 0 && frame.RowsLeft() > 0) {
    frame.Add(fmt::format("  {} more symbols; a taller window shows them", hidden), Style::kDim).EndLine();
  }
  return std::move(frame).Finish();
}

}  // namespace price_client
