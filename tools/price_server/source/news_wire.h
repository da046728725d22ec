// What there is to say about recorded prices.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "feed/news.h"
#include "feed/prices_file.h"

namespace price_server {

// The greatest moves from one price of a product to its next, by percentage. The same file gives the same stories.
class NewsWire {
 public:
  static constexpr std::size_t kMaxStories = 100;

  // file has to outlive it.
  explicit NewsWire(const feed::PricesFile& file);

  // The greatest move first; after the last, over again. None when no price of the file ever changes.
  std::optional<feed::News> Next();

 private:
  struct Move {
    const feed::RecordedPrice* before;
    const feed::RecordedPrice* after;
    double percent;
  };

  const feed::PricesFile& m_file;
  std::vector<Move> m_moves;
  std::size_t m_next = 0;
};

}  // namespace price_server
