#include "cli/table.h"

#include <gtest/gtest.h>

namespace cli {
namespace {

TEST(Table, FillsTextsUpAtTheRightAndNumbersAtTheLeft) {
  Table table(1, {0, 4});
  table.Add({"name", "n", "count"});
  table.Add({"a longer name", "1", "1,000,000"});
  EXPECT_EQ(table.ToString(),
            "name              n      count\n"
            "a longer name     1  1,000,000\n");
}

}  // namespace
}  // namespace cli
