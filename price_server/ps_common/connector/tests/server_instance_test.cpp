#include "ps_common/connector/server_instance.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <unordered_map>
#include <vector>

namespace ps_ns {
namespace {

TEST(ServerInstance, KeyHoldsEachFieldInItsOwnSixteenBits) {
  const ServerInstance positive{0x0123, 0x4567, 0x09AB, 0xCDEF, {}};
  EXPECT_EQ(positive.GetKey(), 0xCDEF'09AB'4567'0123U);

  // A negative field must not spill its sign into the fields above it.
  const ServerInstance negative{-1, 0, -2, 1, {}};
  EXPECT_EQ(negative.GetKey(), 0x0001'FFFE'0000'FFFFU);

  EXPECT_EQ(ServerInstance::Hasher()(negative), negative.GetKey());
}

TEST(ServerInstance, EveryNumberAndNotTheNameTellsInstancesApart) {
  const ServerInstance base{1, 2, 3, 4, "CME"};
  EXPECT_EQ(base, (ServerInstance{1, 2, 3, 4, "EUREX"}));
  EXPECT_NE(base, (ServerInstance{9, 2, 3, 4, "CME"}));
  EXPECT_NE(base, (ServerInstance{1, 9, 3, 4, "CME"}));
  EXPECT_NE(base, (ServerInstance{1, 2, 9, 4, "CME"}));
  EXPECT_NE(base, (ServerInstance{1, 2, 3, 9, "CME"}));

  std::unordered_map<ServerInstance, int, ServerInstance::Hasher> table;
  table[base] = 1;
  table[ServerInstance{1, 2, 3, 4, {}}] = 2;
  table[ServerInstance{1, 2, 3, 5, "CME"}] = 3;
  EXPECT_EQ(table.size(), 2U);
  EXPECT_EQ(table.at(base), 2);
}

TEST(ServerInstance, OrderIsNumericByMarketSubmarketNodeAndFiller) {
  const std::vector<ServerInstance> ordered{{-1, 9, 9, 9, {}}, {0, -5, 9, 9, {}},     {0, 0, -1, 9, {}},
                                            {0, 0, 0, 0, {}},  {0, 0, 0, 0xFFFF, {}}, {2, 0, 0, 0, {}}};
  for (std::size_t i = 0; i < ordered.size(); ++i) {
    for (std::size_t j = 0; j < ordered.size(); ++j) {
      EXPECT_EQ(ordered[i] < ordered[j], i < j) << i << " and " << j;
    }
  }
}

TEST(ServerInstance, TextsNameTheInstance) {
  const ServerInstance named{1, -2, 3, 65535, "CME"};
  EXPECT_EQ(named.ToIdentifier(), "1.-2.3.65535");
  EXPECT_EQ(named.ToString(), "CME(1.-2.3.65535)");
  EXPECT_EQ((ServerInstance{0, 0, 0, 0, {}}).ToString(), "0.0.0.0");
  EXPECT_EQ(named.GetSubmarket(), (std::pair<MarketID_t, SubmarketID_t>{1, -2}));
}

TEST(ServerInstance, IsValidFromZeroUpwards) {
  EXPECT_FALSE(ServerInstance{}.IsValid());
  EXPECT_TRUE((ServerInstance{0, 0, 0, 0, {}}).IsValid());
  EXPECT_FALSE((ServerInstance{-1, 0, 0, 0, {}}).IsValid());
  EXPECT_FALSE((ServerInstance{0, -1, 0, 0, {}}).IsValid());
  EXPECT_FALSE((ServerInstance{0, 0, -1, 0, {}}).IsValid());
}

}  // namespace
}  // namespace ps_ns
