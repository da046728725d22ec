#include "watch_screen.h"

#include <fmt/format.h>

#include <algorithm>

#include "cli/format.h"
#include "cli/one_line.h"
#include "cli/table.h"
#include "texts.h"

namespace price_stat {
namespace {

using cli::Frame;
using cli::Style;

constexpr unsigned kStateWidth = 8;

const char* NameOf(Order order) {
  switch (order) {
    case Order::kHurts:
      return "what hurts";
    case Order::kRate:
      return "rate";
    case Order::kName:
      return "process";
  }
  return "";
}

std::string ProcessText(const Line& line) {
  return fmt::format("{} {}", NumberOf(*line.process), cli::ToAscii(cli::OneLine(line.process->Program())));
}

std::string NameText(const Line& line) { return line.name.empty() ? "-" : cli::ToAscii(cli::OneLine(line.name)); }

Style StyleOf(State state) {
  switch (state) {
    case State::kRunning:
      return Style::kGreen;
    case State::kEnded:
    case State::kUnreadable:
      return Style::kYellow;
    default:
      return Style::kRed;
  }
}

// How wide each column is, and how many of numbers there are.
struct Columns {
  unsigned process;
  unsigned name;
  std::size_t metrics = 0;

  Columns(const Picture& picture, unsigned width)
      : process(std::clamp(width / 5, 14U, 20U)), name(std::clamp(width / 7, 9U, 16U)) {
    auto used = process + 1 + name + 1 + kStateWidth;
    for (const auto& metric : picture.view.metrics) {
      if (used + 1 + metric.width > width) {
        break;
      }
      used += 1 + metric.width;
      ++metrics;
    }
    // What is left goes to names, as far as they need it.
    auto left = width > used ? width - used : 0;
    const auto grow = [&](unsigned& column, auto text) {
      std::size_t wanted = column;
      for (const auto& line : picture.lines) {
        wanted = std::max(wanted, text(line).size());
      }
      const auto more = std::min<unsigned>(left, static_cast<unsigned>(wanted) - column);
      column += more;
      left -= more;
    };
    grow(name, NameText);
    grow(process, ProcessText);
  }
};

std::string Fit(std::string text, unsigned width) {
  if (text.size() > width) {
    text.resize(width);
    text.back() = '~';
  }
  return text + std::string(width - text.size(), ' ');
}

void AddKeys(Frame& frame, const Picture& picture) {
  for (const auto& view : Views()) {
    frame.Add(fmt::format("{} ", view.key), Style::kBold)
        .Add(fmt::format("{}  ", view.title), &view == &picture.view ? Style::kGreen : Style::kDim);
  }
  frame.EndLine();
  frame.Add("s ", Style::kBold).Add(fmt::format("sorted by {}  ", NameOf(picture.order)), Style::kDim);
  frame.Add("j k ", Style::kBold).Add("scroll  ", Style::kDim);
  frame.Add("p ", Style::kBold).Add("pause  ", Style::kDim);
  frame.Add("q ", Style::kBold).Add("quit", Style::kDim);
  frame.EndLine();
}

void AddLine(Frame& frame, const Picture& picture, const Line& line, const Columns& columns) {
  frame.Add(Fit(ProcessText(line), columns.process)).Add(" ").Add(Fit(NameText(line), columns.name)).Add(" ");
  frame.Add(Fit(line.ShortState(), kStateWidth), StyleOf(line.state));
  for (std::size_t i = 0; i < columns.metrics; ++i) {
    const auto& metric = picture.view.metrics[i];
    const auto& cell = line.cells[i];
    const bool isBad = metric.Hurts() && cell.grows;
    const bool wasBad = metric.Hurts() && cell.value.value_or(0) > 0;
    frame.Add(" ").Add(fmt::format("{:>{}}", cell.Text(metric.measure), metric.width), isBad    ? Style::kRed
                                                                                       : wasBad ? Style::kYellow
                                                                                                : Style::kPlain);
  }
  frame.EndLine();
}

std::string Title(const Picture& picture) {
  return fmt::format("{} {} of {} {}", picture.lines.size(), picture.view.title, picture.processes,
                     picture.processes == 1 ? "process" : "processes");
}

}  // namespace

std::string RenderScreen(const Picture& picture, cli::ScreenSize size, bool colour) {
  Frame frame(size, colour);
  frame.Add("price_stat", Style::kBold).Add("  " + Title(picture));
  if (picture.paused) {
    frame.Add("  paused", Style::kYellow);
  }
  frame.Add("  " + cli::ToAscii(cli::OneLine(picture.directory)), Style::kDim);
  frame.EndLine();
  AddKeys(frame, picture);
  const Columns columns(picture, size.columns);
  frame.Add(Fit("process", columns.process), Style::kDim).Add(" ");
  frame.Add(Fit(picture.view.nameLabel, columns.name) + ' ' + Fit("state", kStateWidth), Style::kDim);
  for (std::size_t i = 0; i < columns.metrics; ++i) {
    const auto& metric = picture.view.metrics[i];
    frame.Add(fmt::format(" {:>{}}", metric.heading, metric.width), Style::kDim);
  }
  frame.EndLine();
  // The last row is for what does not fit.
  const auto top = std::min(picture.top, picture.lines.size());
  const auto left = picture.lines.size() - top;
  const auto shown = left <= frame.RowsLeft() ? left : frame.RowsLeft() - std::min(frame.RowsLeft(), 1U);
  for (std::size_t i = top; i < top + shown; ++i) {
    AddLine(frame, picture, picture.lines[i], columns);
  }
  if (frame.RowsLeft() > 0 && shown < left) {
    frame.Add(fmt::format("{} more below", left - shown), Style::kDim).EndLine();
  } else if (frame.RowsLeft() > 0 && picture.lines.empty()) {
    frame.Add("nobody has a page there", Style::kYellow).EndLine();
  }
  return std::move(frame).Finish();
}

std::string RenderBlock(const Picture& picture) {
  cli::Table table(3);
  cli::Table::Row heads{"process", picture.view.nameLabel, "state"};
  for (const auto& metric : picture.view.metrics) {
    heads.emplace_back(metric.heading);
  }
  table.Add(std::move(heads));
  for (const auto& line : picture.lines) {
    cli::Table::Row cells{ProcessText(line), NameText(line), line.ShortState()};
    for (std::size_t i = 0; i < line.cells.size(); ++i) {
      cells.push_back(line.cells[i].Text(picture.view.metrics[i].measure));
    }
    table.Add(std::move(cells));
  }
  return Title(picture) + '\n' + table.ToString() + '\n';
}

}  // namespace price_stat
