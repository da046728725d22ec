#include "ps_common/connector/server_instance.h"

#include <gtest/gtest.h>

#include <unordered_map>
#include <vector>

namespace ps_ns {
namespace {

TEST(ServerInstance, KeyHoldsEachNumberInItsOwnSixteenBits) {
  EXPECT_EQ((ServerInstance{0x0123, 0x4567, 0x09AB, 0xCDEF, {}}).GetKey(), 0xCDEF'09AB'4567'0123U);
  // A negative number must not spill its sign into those above it.
  const ServerInstance negative{-1, 0, -2, 1, {}};
  EXPECT_EQ(negative.GetKey(), 0x0001'FFFE'0000'FFFFU);
  EXPECT_EQ(ServerInstance::Hasher()(negative), negative.GetKey());

  std::unordered_map<ServerInstance, int, ServerInstance::Hasher> table;
  table[ServerInstance{1, 2, 3, 4, "CME"}] = 1;
  table[ServerInstance{1, 2, 3, 4, "EUREX"}] = 2;
  table[ServerInstance{1, 2, 3, 5, "CME"}] = 3;
  EXPECT_EQ(table.size(), 2U);
}

TEST(ServerInstance, OrderIsNumericByMarketSubmarketNodeAndFiller) {
  const std::vector<ServerInstance> ordered{{-1, 9, 9, 9, {}}, {0, -5, 9, 9, {}},     {0, 0, -1, 9, {}},
                                            {0, 0, 0, 0, {}},  {0, 0, 0, 0xFFFF, {}}, {2, 0, 0, 0, {}}};
  for (std::size_t i = 0; i < ordered.size(); ++i) {
    for (std::size_t j = 0; j < ordered.size(); ++j) {
      EXPECT_EQ(ordered[i] < ordered[j], i < j) << i << " and " << j;
      EXPECT_EQ(ordered[i] != ordered[j], i != j) << i << " and " << j;
    }
    EXPECT_EQ(ordered[i].IsValid(), i > 2) << i;
  }
}

}  // namespace
}  // namespace ps_ns
