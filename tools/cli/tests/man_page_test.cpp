#include <gmock/gmock.h>

#include <CLI/CLI.hpp>

#include "cli/manual.h"

namespace cli {
namespace {

using testing::HasSubstr;
using testing::Not;

TEST(ManPage, TakesNoTextForARequestOfTheFormatter) {
  CLI::App app("Reads. .so is no request here, nor is \\fB an escape.", "tool");
  bool dot = false;
  app.add_flag("--dot", dot, "After a sentence. 'br too");
  const auto page = ManPage(app, {.exits = {{ExitCode::kOk, ".fi"}}});
  for (const char* const request : {"\n.so", "\n'br", "\n.fi", "\\fB"}) {
    EXPECT_THAT(page, Not(HasSubstr(request)));
  }
  EXPECT_THAT(page, HasSubstr("\\efB"));
}

TEST(ManPage, IsOfTheDayThatAPackageIsMadeFor) {
  ::setenv("SOURCE_DATE_EPOCH", "1767312000", 1);
  EXPECT_THAT(ManPage(CLI::App("Reads.", "tool"), {}), testing::StartsWith(".Dd January 2, 2026\n.Dt TOOL 1\n"));
  ::unsetenv("SOURCE_DATE_EPOCH");
}

}  // namespace
}  // namespace cli
