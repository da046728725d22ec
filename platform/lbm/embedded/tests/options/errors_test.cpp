#include "api/errors.h"

#include <gmock/gmock.h>
#include <lbm/lbm.h>

#include <cerrno>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include "api/attributes.h"
#include "failures.h"
#include "short_memory.h"

namespace engine::api {
namespace {

TEST(Errors, AThreadHasItsOwnAndStartsWithNone) {
  Fail(LBM_EOP, "mine");
  std::thread([] {
    EXPECT_EQ(lbm_errnum(), 0);
    EXPECT_STREQ(lbm_errmsg(), "");
    Fail(LBM_EINVAL, "other");
  }).join();
  EXPECT_EQ(lbm_errnum(), LBM_EOP);
  EXPECT_STREQ(lbm_errmsg(), "mine");
}

template <class Exception>
int Throwing(const Exception& exception) {
  return Guarded("lbm_call", [&]() -> int { throw exception; });
}

TEST(Errors, EveryExceptionGetsItsNumberAndTheFunctionsName) {
  EXPECT_FAILS(Throwing(Error(LBM_EWOULDBLOCK, "no room")), LBM_EWOULDBLOCK, "lbm_call: no room");
  EXPECT_FAILS(Throwing(std::bad_alloc()), LBM_ENOMEM, "lbm_call: out of memory");
  EXPECT_FAILS(Throwing(std::system_error(EACCES, std::generic_category(), "open")), LBM_EOS,
               "lbm_call: open: Permission denied");
  EXPECT_FAILS(Throwing(std::invalid_argument("bad")), LBM_EINVAL, "lbm_call: bad");
  EXPECT_FAILS(Throwing(std::runtime_error("closed")), LBM_EOP, "lbm_call: closed");
  EXPECT_FAILS(Throwing(7), LBM_EOP, "lbm_call: an exception of unknown type");
  EXPECT_EQ(Guarded("lbm_call", [] { return 3; }), 3);
  EXPECT_EQ(lbm_errnum(), LBM_EOP) << "a success must leave the last error alone";
}

TEST(Errors, ALongTextIsCutBetweenCharacters) {
  const std::string longest(kErrorTextRoom - 1, 'a');
  Fail(LBM_EOP, longest.c_str());
  EXPECT_EQ(lbm_errmsg(), longest);

  Fail(LBM_EOP, (longest + "a").c_str());
  EXPECT_EQ(lbm_errmsg(), longest.substr(3) + "...");

  // A three-byte character that starts where the mark has to begin, or one or two bytes before.
  for (std::size_t before = 0; before < 3; ++before) {
    const std::string head(kErrorTextRoom - 1 - 3 - before, 'a');
    Fail(LBM_EOP, (head + "\xe2\x82\xac" + longest).c_str());
    EXPECT_EQ(lbm_errmsg(), head + "...");
  }
}

TEST(Errors, ATextMayBeReportedAgain) {
  Fail(LBM_EOP, "head: tail");
  EXPECT_FAILS(Fail(LBM_EINVAL, lbm_errmsg() + 6), LBM_EINVAL, "tail");
}

TEST(Errors, ShortMemoryFailsTheCallAndChangesNothing) {
  lbm_context_attr_t* attr = nullptr;
  ASSERT_EQ(lbm_context_attr_create(&attr), 0);
  const std::string longName(200, 'n');
  lbm_context_attr_t* copy = nullptr;
  const auto failsAtEveryAllocation = [](auto&& call, auto&& isUnchanged, const char* text) {
    for (std::size_t allocations = 0;; ++allocations) {
      const int result = [&] {
        const test::AllocationLimit limit(allocations);
        return call();
      }();
      if (result == 0) {
        return allocations;
      }
      EXPECT_FAILS(result, LBM_ENOMEM, text);
      EXPECT_TRUE(isUnchanged());
    }
  };
  EXPECT_GT(failsAtEveryAllocation([&] { return lbm_context_attr_dup(&copy, attr); }, [&] { return copy == nullptr; },
                                   "lbm_context_attr_dup: out of memory"),
            0U);
  EXPECT_GT(failsAtEveryAllocation([&] { return lbm_context_attr_str_setopt(attr, "context_name", longName.c_str()); },
                                   [&] { return CreationOptions(attr) == CreationOptions(copy); },
                                   "lbm_context_attr_str_setopt: out of memory"),
            0U);
  EXPECT_EQ(lbm_context_attr_delete(copy), 0);
  EXPECT_EQ(lbm_context_attr_delete(attr), 0);
}

}  // namespace
}  // namespace engine::api
