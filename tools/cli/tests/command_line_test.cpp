#include "cli/command_line.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "cli/tool.h"

namespace cli {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

// What is wrong with the words of a command line.
std::string ComplaintOf(CLI::App& app, std::vector<const char*> words) {
  words.insert(words.begin(), "tool");
  try {
    ParseCommandLine(app, static_cast<int>(words.size()), words.data(), Output());
  } catch (const UsageError& error) {
    return error.what();
  }
  return {};
}

TEST(CommandLine, SaysInPlainWordsWhichNumbersAreTaken) {
  for (const char* word : {"0", "65", "1.5", "1e1", "+2", "", "x", "99999999999999999999"}) {
    CLI::App app("", "tool");
    int value = 0;
    app.add_option("--n", value)->check(WholeNumber(1, 64));
    EXPECT_THAT(ComplaintOf(app, {"--n", word}),
                StartsWith("--n: \"" + std::string(word) + "\" is not a whole number from 1 to 64\n"));
    EXPECT_EQ(ComplaintOf(app, {"--n", "64"}), "");
  }
  for (const char* word : {"-1", "100000001", "nan", "inf", "x"}) {
    CLI::App app("", "tool");
    std::chrono::duration<double> value{2.5};
    AddSecondsOption(app, "--t", value, "");
    EXPECT_THAT(ComplaintOf(app, {"--t", word}),
                StartsWith("--t: \"" + std::string(word) + "\" is not a number from 0 to 100000000\n"));
  }
}

TEST(CommandLine, NamesAnUnknownWordRatherThanWhatIsMissing) {
  CLI::App app("", "tool");
  int value = 0;
  app.add_option("--needed", value)->required();
  EXPECT_THAT(ComplaintOf(app, {"--neded=1"}), HasSubstr("\"--neded=1\""));
}

TEST(Complaint, HasItsLinesAndNoControlCharacters) {
  testing::internal::CaptureStderr();
  Complain("tool", "first\x1b[2J\r\nsecond \x9b");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "tool: first [2J \nsecond \xef\xbf\xbd\n");
}

}  // namespace
}  // namespace cli
