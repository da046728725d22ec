#include "options/reference_page.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace engine {
namespace {

TEST(ReferencePage, IsThatOfTheTable) {
  std::ifstream file(ENGINE_OPTIONS_PAGE);
  ASSERT_TRUE(file) << ENGINE_OPTIONS_PAGE;
  std::ostringstream page;
  page << file.rdbuf();
  EXPECT_EQ(page.str(), ReferencePage()) << "build the target engine_options_page to write it anew";
}

}  // namespace
}  // namespace engine
