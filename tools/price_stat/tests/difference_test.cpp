#include "difference.h"

#include <gmock/gmock.h>

#include "json.h"
#include "played_snapshot.h"

namespace price_stat {
namespace {

nlohmann::ordered_json DocumentOf(const std::vector<Process>& look, const Selection& selection = {}) {
  auto processes = nlohmann::ordered_json::array();
  for (const auto& process : look) {
    processes.push_back(FullJson(process, selection));
  }
  return nlohmann::ordered_json::parse(
      ToText({{"selection", SelectionJson(selection)}, {"processes", std::move(processes)}}));
}

TEST(Difference, IsByRowsThatLivedAllTheTimeAndTellsWhatCameAndWent) {
  const auto before = DocumentOf(PlayedLook(10)
                                     .Row(ReceiverKind(), 1, {"a", "0x1", "t"}, {100, 5})
                                     .Row(ReceiverKind(), 2, {"a", "0x1", "gone"}, {3, 0})
                                     .Latencies(9, 100, 10)
                                     .Take());
  const auto after = DocumentOf(PlayedLook(12)
                                    .Row(ReceiverKind(), 1, {"a", "0x1", "t"}, {300, 5})
                                    .Row(ReceiverKind(), 3, {"a", "0x1", "new"}, {4, 0})
                                    .Latencies(9, 100'000, 10)
                                    .Take());
  const auto difference = Difference(before, after);
  ASSERT_EQ(1U, difference["processes"].size());
  const auto& process = difference["processes"][0];
  EXPECT_EQ(2, process["seconds"]);
  const auto& changes = process["changes"];
  ASSERT_EQ(3U, changes.size()) << changes;
  EXPECT_EQ(200, changes[0]["growth"]);
  EXPECT_EQ(100, changes[0]["per_second"]);
  EXPECT_EQ("begun", changes[1]["row"]);
  EXPECT_EQ("ended", changes[2]["row"]);
  EXPECT_EQ(-3, changes[2]["growth"]);
  EXPECT_FALSE(changes[2].contains("per_second"));
}

TEST(Difference, IsOfRowsThatNeitherDocumentLeavesOut) {
  const auto look = [](double seconds, std::int64_t messages) {
    return PlayedLook(seconds)
        .Row(ReceiverKind(), 1, {"a", "0x1", "t"}, {messages, 0})
        .Row(ReceiverKind(), 2, {"b", "0x2", "t"}, {messages, 0})
        .Row(ContextKind(), 3, {"b", "0x2"}, {messages})
        .Take();
  };
  const auto all = DocumentOf(look(10, 1));
  const auto chosen = DocumentOf(look(12, 2), {.kinds = {"receiver"}, .contexts = {"0x2"}});
  ASSERT_EQ(1U, chosen["processes"][0]["rows"].size());
  EXPECT_EQ("b", chosen["processes"][0]["rows"][0]["labels"]["context"]);
  EXPECT_EQ(1U, chosen["processes"][0]["kinds"].size());
  for (const auto& difference : {Difference(all, chosen), Difference(chosen, all)}) {
    const auto& changes = difference["processes"][0]["changes"];
    ASSERT_EQ(1U, changes.size()) << changes;
    EXPECT_EQ("b", changes[0]["labels"]["context"]);
  }
}

TEST(Difference, HasTheQuantilesOfWhatCameInBetween) {
  const auto before = DocumentOf(PlayedLook(10).Latencies(9, 100, 1'000).Take());
  auto look = PlayedLook(12).Latencies(9, 100, 1'000).Take();
  auto& latency = look.front().snapshot->rows.front().values.front();
  latency.number += 10;
  latency.all->count += 10;
  latency.all->maximum = 50'000;
  latency.all->buckets[zq::statistics::BucketOf(50'000)] += 10;
  const auto change = Difference(before, DocumentOf(look))["processes"][0]["changes"][0];
  EXPECT_EQ(10, change["growth"]);
  EXPECT_EQ(50'000, change["values"]["p50"]);
}

TEST(Difference, DoesNotCompareTwoProcessesThatHadTheSameNumber) {
  const auto before = DocumentOf(PlayedLook(10).Take());
  auto look = PlayedLook(12).Take();
  look.front().snapshot->startMonotonic += 1;
  const auto difference = Difference(before, DocumentOf(look));
  EXPECT_TRUE(difference["processes"].empty());
  EXPECT_EQ(4242, difference["only_before"][0]["process"]);
  EXPECT_EQ(4242, difference["only_after"][0]["process"]);
}

}  // namespace
}  // namespace price_stat
