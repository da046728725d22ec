#include "console_line.h"

#include <gmock/gmock.h>

namespace price_server {
namespace {

TEST(ConsoleLine, ThatIsACommandIsRead) {
  const struct {
    std::string line;
    std::string topic;
    std::string receiver;
    feed::Command command;
  } cases[] = {
      {"client alice report", "client_command.id.alice", "client alice", {0, "report", {}}},
      {" host\tbox.example  quit now \r",
       "client_command.host.box%2Eexample",
       "host box.example",
       {0, "quit", {"now"}}},
      {"client client client", "client_command.id.client", "client client", {0, "client", {}}},
  };
  for (const auto& [line, topic, receiver, command] : cases) {
    const auto read = ParseConsoleLine(line);
    ASSERT_TRUE(read.has_value()) << line;
    EXPECT_EQ(read->topic, topic);
    EXPECT_EQ(read->receiver, receiver);
    EXPECT_EQ(read->command, command);
  }
  for (const char* nothing : {"", " \t\r", "# client alice report"}) {
    EXPECT_FALSE(ParseConsoleLine(nothing)) << nothing;
  }
}

TEST(ConsoleLine, ThatIsNoneIsRefusedWithAReason) {
  std::string manyArguments = "client alice report";
  for (int i = 0; i < 17; ++i) {
    manyArguments += " a";
  }
  const std::pair<std::string, const char*> cases[] = {
      {"report", "\"report\" is neither host nor client"},
      {"client alice", "client id or command missing"},
      {"host", "hostname or command missing"},
      {"client \xff report", "not UTF-8"},
      {"client alice \x1b[31m", "control characters"},
      {"client " + std::string(250, 'a') + " report", "255"},
      {"client alice " + std::string(2000, 'a'), "more than 1024 bytes"},
      {manyArguments, "more than 16 arguments"},
  };
  for (const auto& [line, reason] : cases) {
    EXPECT_THAT([&line = line] { ParseConsoleLine(line); },
                testing::ThrowsMessage<BadConsoleLine>(testing::HasSubstr(reason)));
  }
}

}  // namespace
}  // namespace price_server
