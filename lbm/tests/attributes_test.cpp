#include <utility>

#include "lbm_test.h"

namespace lbm {
namespace {

class ErrorsTest : public LbmTest {};

TEST_F(ErrorsTest, AreThrownAndLoggedOnceWithTheLibrarysText) {
  EXPECT_EQ(FailureOf("lbm_context_attr_create", [] { ContextAttributes(); }),
            "Failed to create LBM context attributes: no");
  details::LogLbmError("Failed to delete");
  details::LogLbmError(nullptr);
  EXPECT_THAT(Lines(),
              ElementsAre("30 65 Failed to create LBM context attributes: no", "30 71 Failed to delete: no", "30 71 "));
}

TEST_F(ErrorsTest, AreThrownButNotLoggedAboveTheirLevel) {
  log_capture::SetMinLevel(zq::logging::ZQLOG_ALERT);
  EXPECT_EQ(ErrorOf([] { details::ThrowLbmError("Failed"); }), "Failed: ");
  details::LogLbmError("Failed");
  EXPECT_THAT(CallsTo("lbm_errmsg"), SizeIs(1)) << "the text is read only when it is logged";
  EXPECT_THAT(Lines(), IsEmpty());
}

class AttributesTest : public LbmTest {};

// What the operations of one kind say when the library's function, of that family, fails.
template <class Attributes>
std::vector<std::string> FailuresOf(const std::string& family) {
  Attributes attributes;
  std::vector<std::string> texts{
      FailureOf(family + "_create", [] { Attributes(); }),
      FailureOf(family + "_dup", [&] { Attributes(static_cast<const Attributes&>(attributes)); }),
      FailureOf(family + "_str_setopt", [&] { attributes.SetString("name", "value"); }),
      FailureOf(family + "_setopt", [&] { attributes.template Set<int>("name", 1); }),
      FailureOf(family + "_str_getopt", [&] { attributes.GetString("name"); })};
  Script(family + "_delete", Failure(LBM_EINVAL, "no"));
  { const Attributes doomed; }
  texts.push_back(Lines().back());
  return texts;
}

TEST_F(AttributesTest, FailuresSayWhatFailed) {
  const auto texts = [](const std::string& name, const std::string& nameOfOption) {
    return ElementsAre(
        "Failed to create LBM " + name + " attributes: no", "Failed to duplicate LBM " + name + " attributes: no",
        "Failed to set LBM " + nameOfOption + " attribute: no", "Failed to set LBM " + nameOfOption + " attribute: no",
        "Failed to get LBM " + name + " attribute: no", "30 71 Failed to delete LBM " + name + " attributes: no");
  };
  EXPECT_THAT(FailuresOf<ContextAttributes>("lbm_context_attr"), texts("context", "context"));
  EXPECT_THAT(FailuresOf<SourceTopicAttributes>("lbm_src_topic_attr"), texts("source topic", "source topic"));
  EXPECT_THAT(FailuresOf<ReceiverTopicAttributes>("lbm_rcv_topic_attr"), texts("receiver topic", "receiver topic"));
  EXPECT_THAT(FailuresOf<EventQueueAttributes>("lbm_event_queue_attr"), texts("event queue", "topic"));
  EXPECT_THAT(LiveHandles(), SizeIs(4)) << "a failed delete is not tried again";
  lbm_scripted::Reset();
}

TEST_F(AttributesTest, OnlyMinusOneIsAFailure) {
  for (const char* function : {"create", "dup", "setopt", "str_setopt", "delete"}) {
    Script(std::string("lbm_context_attr_") + function, {-2, 0, {}});
  }
  {
    ContextAttributes attributes;
    const ContextAttributes copy(attributes);
    attributes.SetString("text", "value");
    attributes.Set<int>("number", 1);
  }
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(AttributesTest, BinaryValuesAreHandedOverByteByByte) {
  ReceiverTopicAttributes attributes;
  attributes.Set("record", lbm_rcv_src_notification_func_t{nullptr, nullptr, &attributes});
  const auto set = CallsTo("lbm_rcv_topic_attr_setopt").at(0);
  EXPECT_EQ(set.Text("optname"), "record");
  EXPECT_EQ(set.Number("optlen"), 24);
  EXPECT_EQ(set.Value<lbm_rcv_src_notification_func_t>("optval").clientd, &attributes);
}

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
