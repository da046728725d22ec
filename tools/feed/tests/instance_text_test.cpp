#include "feed/instance_text.h"

#include <gmock/gmock.h>

#include "cli/exit_code.h"

namespace feed {
namespace {

TEST(ServerInstanceText, IsRead) {
  const auto plain = ParseServerInstance("1:22:32767");
  EXPECT_EQ(plain.m_marketID, 1);
  EXPECT_EQ(plain.m_submarketID, 22);
  EXPECT_EQ(plain.m_nodeID, 32767);
  EXPECT_EQ(plain.m_dummy1, 0);
  EXPECT_EQ(plain.m_marketName, "");
  EXPECT_EQ(ParseServerInstance("0:0:0:NYSE:ARCA").m_marketName, "NYSE:ARCA");
}

TEST(ServerInstanceText, ThatIsNoneIsRefusedWithAnExample) {
  for (const char* text :
       {"", "1", "1:2", "1:2:", "1:2:3:", "a:2:3", "1:2:3x", "-1:2:3", "1:2:32768", "1: 2:3", "+1:2:3",
        "1:2:3:two words", "1:2:3:\x1b[31m", "1:2:3:more-than-thirty-two-characters-long"}) {
    EXPECT_THAT([&] { ParseServerInstance(text); },
                testing::ThrowsMessage<cli::UsageError>(testing::AllOf(
                    testing::HasSubstr(std::string("\"") + text + '"'), testing::HasSubstr("such as 1:1:1:STOCKS"))));
  }
}

}  // namespace
}  // namespace feed
