#include <utility>

#include "lbm_test.h"

namespace lbm {
namespace {

class ErrorsTest : public LbmTest {};

TEST_F(ErrorsTest, AreThrownAndLoggedOnceWithTheLibrarysText) {
  EXPECT_EQ(FailureOf("lbm_context_attr_create", [] { ContextAttributes(); }),
            "Failed to create LBM context attributes: no");
  Script("lbm_context_attr_delete", Failure(LBM_EINVAL, "no"));
  { const ContextAttributes doomed; }
  details::LogLbmError(nullptr);
  EXPECT_THAT(Lines(), ElementsAre("30 65 Failed to create LBM context attributes: no",
                                   "30 71 Failed to delete LBM context attributes: no", "30 71 "));
  EXPECT_THAT(LiveHandles(), SizeIs(1)) << "a failed delete is not tried again";
  lbm_scripted::Reset();
}

TEST_F(ErrorsTest, AreThrownButNotLoggedAboveTheirLevel) {
  log_capture::SetMinLevel(zq::logging::ZQLOG_ALERT);
  EXPECT_EQ(ErrorOf([] { details::ThrowLbmError("Failed"); }), "Failed: ");
  details::LogLbmError("Failed");
  EXPECT_THAT(CallsTo("lbm_errmsg"), SizeIs(1)) << "the text is read only when it is logged";
  EXPECT_THAT(Lines(), IsEmpty());
}

class AttributesTest : public LbmTest {};

TEST_F(AttributesTest, CopiesOwnTheirHandleAndMovesLeaveNull) {
  {
    ContextAttributes first;
    first.SetString("mode", "first");
    ContextAttributes copy(first);
    copy.SetString("mode", "copy");
    const ContextAttributes taken(std::move(first));
    EXPECT_EQ(static_cast<void*>(first), nullptr);  // NOLINT(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
    first = std::move(copy);
    EXPECT_EQ(static_cast<void*>(copy), nullptr);  // NOLINT(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
    copy = taken;
    copy = first;
    EXPECT_EQ(copy.GetString("mode") + taken.GetString("mode") + first.GetString("mode"), "copyfirstcopy");
  }
  // One made, three duplicates of which one was replaced; none twice.
  EXPECT_THAT(CallsTo("lbm_context_attr_delete"), SizeIs(4));
}

}  // namespace
}  // namespace lbm
