#include "statistics/context_statistics.h"

#include <gtest/gtest.h>

#include "zq/statistics/snapshot.h"

namespace engine {
namespace {

TEST(ContextStatistics, RecordNoLatencyOfATimeThatIsYetToCome) {
  ContextStatistics statistics({.context = "a", .handle = "0x1", .domain = "d", .transport = "host"});
  const std::uint64_t now = zq::statistics::Now();
  statistics.NoteDelivery(now);
  statistics.NoteDelivery(now + 3'600'000'000'000);
  const zq::statistics::Snapshot snapshot = zq::statistics::TakeSnapshot();
  const auto rows = snapshot.Of("engine_context");
  ASSERT_EQ(2U, rows.size()) << "with the row of others";
  EXPECT_EQ(1U, rows[1]->Find("latency")->all->count);
}

TEST(ContextStatistics, OfNobodyAreNotShown) {
  ContextStatistics nobody;
  nobody.Counters().Add(context_field::kSources);
  nobody.NoteDelivery(zq::statistics::Now());
  nobody.PeerRow("p").Add(peer_field::kMessages);
  for (const auto& row : zq::statistics::TakeSnapshot().rows) {
    EXPECT_EQ("other", row.labels.at(0));
  }
}

}  // namespace
}  // namespace engine
