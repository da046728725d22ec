#include "news_wire.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace price_server {

NewsWire::NewsWire(const feed::PricesFile& file) : m_file(file) {
  std::vector<const feed::RecordedPrice*> latest(file.symbols.size());
  for (const auto& price : file.prices) {
    const auto* before = std::exchange(latest[price.symbol], &price);
    if (before != nullptr && before->price > feed::Price() && price.price != before->price) {
      m_moves.push_back({before, &price, (price.price.ToDouble() / before->price.ToDouble() - 1) * 100});
    }
  }
  std::stable_sort(m_moves.begin(), m_moves.end(),
                   [](const Move& a, const Move& b) { return std::abs(a.percent) > std::abs(b.percent); });
  m_moves.resize(std::min(m_moves.size(), kMaxStories));
}

std::optional<feed::News> NewsWire::Next() {
  if (m_moves.empty()) {
    return std::nullopt;
  }
  const auto& [before, after, percent] = m_moves[m_next];
  m_next = (m_next + 1) % m_moves.size();
  const auto symbol = m_file.symbols[after->symbol].View();
  feed::News news;
  news.time = feed::UtcNow();
  news.headline = fmt::format("{} {} {:.1f}% to {} on {}", symbol, percent > 0 ? "up" : "down", std::abs(percent),
                              after->price.ToString(), feed::ToString(after->date));
  news.text = fmt::format("{} was at {} on {}.", symbol, before->price.ToString(), feed::ToString(before->date));
  return news;
}

}  // namespace price_server
