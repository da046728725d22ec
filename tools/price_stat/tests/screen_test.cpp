#include <gmock/gmock.h>

#include <algorithm>
#include <sstream>

#include "played_snapshot.h"
#include "watch_screen.h"

namespace price_stat {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

const View& Contexts() { return Views()[0]; }
const View& Receivers() { return Views()[1]; }

std::vector<Process> Look(double seconds, std::int64_t lost) {
  auto look = PlayedLook(seconds, 1)
                  .Row(ReceiverKind(), 1, {"a", "0x1", "quiet"}, {static_cast<std::int64_t>(seconds) * 50, 1'000})
                  .Row(ReceiverKind(), 2, {"a", "0x1", "losing\x1b[2J"}, {static_cast<std::int64_t>(seconds), lost})
                  .Context(1)
                  .Take();
  look.push_back(std::move(PlayedLook(seconds, 2).Context(1).Is(State::kStopped).Take().front()));
  look.back().contexts.front().state = State::kStopped;
  look.push_back({.path = "/pages/bad.3.page", .state = State::kUnreadable, .fault = "bad"});
  return look;
}

std::vector<std::string> NamesOf(const std::vector<Line>& lines) {
  std::vector<std::string> names;
  for (const auto& line : lines) {
    names.push_back(line.name);
  }
  return names;
}

TEST(WatchLines, HaveOnTopWhatHurtsNow) {
  const auto before = Look(10, 5);
  const auto now = Look(12, 7);
  EXPECT_THAT(NamesOf(LinesOf(Receivers(), Order::kHurts, before, now)), ElementsAre("", "losing\x1b[2J", "quiet"));
  EXPECT_THAT(NamesOf(LinesOf(Receivers(), Order::kRate, before, now)), ElementsAre("quiet", "losing\x1b[2J", ""));
  const auto contexts = LinesOf(Contexts(), Order::kHurts, before, now);
  ASSERT_THAT(contexts, SizeIs(3));
  EXPECT_EQ("stopped", contexts[0].ShortState());
  EXPECT_EQ("bad page", contexts[1].ShortState());
  EXPECT_EQ("51", contexts[2].cells[0].Text(Contexts().metrics[0].measure)) << "of both receivers";
  EXPECT_EQ("1.01k", contexts[2].cells[1].Text(Contexts().metrics[1].measure));
}

TEST(WatchLines, SayNothingOfWhatIsNotKnown) {
  const auto now = Look(12, 7);
  const auto json = LinesJson(Contexts(), LinesOf(Contexts(), Order::kName, {}, now));
  EXPECT_TRUE(json[0]["values"]["receiver_messages_per_second"].is_null()) << "after one look";
  EXPECT_EQ(1007, json[0]["values"]["receiver_lost_messages"]);
  EXPECT_TRUE(json[2]["process"].is_null());
  EXPECT_EQ("unreadable", json[2]["state"]);
}

std::vector<std::string> RowsOf(const std::string& frame) {
  std::vector<std::string> rows;
  std::istringstream text(frame);
  for (std::string row; std::getline(text, row);) {
    std::string plain;
    for (std::size_t i = 0; i < row.size(); ++i) {
      if (row[i] == '\x1b') {
        i = row.find_first_of("HKJm", i);
      } else if (row[i] != '\r') {
        plain += row[i];
      }
    }
    rows.push_back(plain);
  }
  return rows;
}

TEST(WatchScreen, FitsEveryWindowAndExplainsItsKeys) {
  const auto before = Look(10, 5);
  const auto now = Look(12, 7);
  const auto lines = LinesOf(Receivers(), Order::kHurts, before, now);
  for (const unsigned columns : {1U, 60U, 61U, 80U, 160U, 300U}) {
    for (const unsigned rows : {1U, 2U, 5U, 6U, 24U}) {
      for (const std::size_t top : {0U, 2U, 99U}) {
        const auto screen =
            RowsOf(RenderScreen({Receivers(), Order::kHurts, false, top, lines, 3, "/pages"}, {columns, rows}, true));
        ASSERT_LE(screen.size(), rows);
        for (const auto& row : screen) {
          ASSERT_LE(row.size(), columns) << row;
        }
      }
    }
  }
  const auto frame = RenderScreen({Receivers(), Order::kHurts, false, 0, lines, 3, "/pages"}, {60, 24}, false);
  const auto screen = RowsOf(frame);
  EXPECT_EQ("c contexts  r receivers  o sources  e peers  ", screen[1]);
  EXPECT_THAT(screen[2], HasSubstr("q quit"));
  EXPECT_THAT(frame, Not(HasSubstr("losing\x1b"))) << "what a page says does not reach the terminal as it is";
  EXPECT_THAT(frame, Not(HasSubstr("[31m"))) << "no colours";
  EXPECT_THAT(RowsOf(RenderScreen({Receivers(), Order::kHurts, false, 0, lines, 3, "/pages"}, {60, 6}, false)).back(),
              HasSubstr("2 more below"));
}

}  // namespace
}  // namespace price_stat
