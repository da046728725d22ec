#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <string>

namespace {

std::string OutputOf(const std::string& command) {
  std::FILE* const pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) {
    return "cannot run " + command;
  }
  std::string output;
  for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) {
    output += static_cast<char>(c);
  }
  ::pclose(pipe);
  return output;
}

TEST(OnloadTest, WithoutTheStackEveryCallSaysSo) {
  const std::string missing = std::to_string(-ENOSYS);
  EXPECT_EQ(OutputOf("'" ONLOAD_CHILD "'"), "present=0\nspin=" + missing + "\nstackname=" + missing + '\n');
}

TEST(OnloadTest, APreloadedStackIsTheOneThatIsCalled) {
  // The address sanitizer wants to come before every library; this one takes no part in what it intercepts.
  EXPECT_EQ(OutputOf("ASAN_OPTIONS=\"${ASAN_OPTIONS:-}:verify_asan_link_order=0\" LD_PRELOAD='" FAKE_ONLOAD
                     "' '" ONLOAD_CHILD "'"),
            "present=1\nspin type=0 spin=1\nspin=0\nstackname who=0 scope=2 name=lbm_pc_ctx\nstackname=0\n");
}

}  // namespace
