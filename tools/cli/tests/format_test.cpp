#include "cli/format.h"

#include <gtest/gtest.h>

namespace cli {
namespace {

TEST(Format, ChoosesUnitAndDigits) {
  EXPECT_EQ(FormatLatency(999), "999 ns");
  EXPECT_EQ(FormatLatency(9'996), "10.0 us");
  EXPECT_EQ(FormatLatency(999'400), "999 us");
  EXPECT_EQ(FormatLatency(999'600), "1.00 ms");
  EXPECT_EQ(FormatLatency(68'700'000'000), "68.7 s");
  EXPECT_EQ(FormatCount(999), "999");
  EXPECT_EQ(FormatCount(1'234'567), "1,234,567");
}

}  // namespace
}  // namespace cli
