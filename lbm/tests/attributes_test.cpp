#include <utility>

#include "lbm_test.h"

namespace lbm {
namespace {

using lbm_scripted::CallsTo;
using lbm_scripted::Failure;
using lbm_scripted::Script;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using zq::logging::ZQLOG_ALERT;
using zq::logging::ZQLOG_ERROR;

class ErrorsTest : public LbmTest {};

TEST_F(ErrorsTest, AThrownErrorIsLoggedOnceWithItsText) {
  Script("lbm_context_create", Failure(LBM_ENOMEM, "out of memory"));
  lbm_context_t* none = nullptr;
  lbm_context_create(&none, nullptr, nullptr, nullptr);
  const std::string text = "Failed to create LBM context: out of memory";
  EXPECT_EQ(ErrorOf([] { details::ThrowLbmError("Failed to create LBM context"); }), text);
  details::LogLbmError("Failed to delete");
  details::LogLbmError(nullptr);
  EXPECT_THAT(log_capture::Statements(), ElementsAre(Statement(ZQLOG_ERROR, 65, text),
                                                     Statement(ZQLOG_ERROR, 71, "Failed to delete: out of memory"),
                                                     Statement(ZQLOG_ERROR, 71, "")));
}

TEST_F(ErrorsTest, AboveErrorLevelErrorsAreThrownButNotLogged) {
  log_capture::SetMinLevel(ZQLOG_ALERT);
  EXPECT_EQ(ErrorOf([] { details::ThrowLbmError("Failed"); }), "Failed: ");
  EXPECT_THAT(CallsTo("lbm_errmsg"), SizeIs(1));
  details::LogLbmError("Failed");
  EXPECT_THAT(CallsTo("lbm_errmsg"), SizeIs(1)) << "the text is read only when it is logged";
  EXPECT_THAT(log_capture::Statements(), IsEmpty());
}

// How the kinds of attributes differ.
template <class Attributes>
struct Kind;
template <>
struct Kind<ContextAttributes> {
  static constexpr auto kCalls = "lbm_context_attr_";
  static constexpr auto kName = "context attributes";
  static constexpr auto kSetFailed = "Failed to set LBM context attribute: no";
};
template <>
struct Kind<SourceTopicAttributes> {
  static constexpr auto kCalls = "lbm_src_topic_attr_";
  static constexpr auto kName = "source topic attributes";
  static constexpr auto kSetFailed = "Failed to set LBM source topic attribute: no";
};
template <>
struct Kind<ReceiverTopicAttributes> {
  static constexpr auto kCalls = "lbm_rcv_topic_attr_";
  static constexpr auto kName = "receiver topic attributes";
  static constexpr auto kSetFailed = "Failed to set LBM receiver topic attribute: no";
};
template <>
struct Kind<EventQueueAttributes> {
  static constexpr auto kCalls = "lbm_event_queue_attr_";
  static constexpr auto kName = "event queue attributes";
  static constexpr auto kSetFailed = "Failed to set LBM topic attribute: no";
};

template <class Attributes>
class AttributesTest : public LbmTest {
 protected:
  static std::string Function(const char* suffix) { return std::string(Kind<Attributes>::kCalls) + suffix; }
  static std::string Failed(const std::string& verb) {
    return "Failed to " + verb + " LBM " + Kind<Attributes>::kName + ": no";
  }
};

using AllAttributes =
    ::testing::Types<ContextAttributes, SourceTopicAttributes, ReceiverTopicAttributes, EventQueueAttributes>;
TYPED_TEST_SUITE(AttributesTest, AllAttributes);

TYPED_TEST(AttributesTest, FailuresSayWhatFailed) {
  const auto no = Failure(LBM_EINVAL, "no");
  Script(this->Function("create"), no);
  EXPECT_EQ(ErrorOf([] { TypeParam(); }), this->Failed("create"));

  TypeParam attributes;
  Script(this->Function("dup"), no);
  EXPECT_EQ(ErrorOf([&] { TypeParam copy(attributes); }), this->Failed("duplicate"));
  Script(this->Function("str_setopt"), no);
  EXPECT_EQ(ErrorOf([&] { attributes.SetString("name", "value"); }), Kind<TypeParam>::kSetFailed);
  Script(this->Function("setopt"), no);
  EXPECT_EQ(ErrorOf([&] { attributes.template Set<int>("name", 1); }), Kind<TypeParam>::kSetFailed);
  EXPECT_THAT(log_capture::Statements(), SizeIs(4));

  log_capture::Clear();
  auto* const doomed = new TypeParam;
  lbm_scripted::OnCall(this->Function("delete"), [handle = static_cast<void*>(*doomed)](const auto& call) {
    EXPECT_EQ(call.Pointer("attr"), handle);
  });
  Script(this->Function("delete"), no);
  delete doomed;
  EXPECT_THAT(log_capture::Statements(), ElementsAre(Statement(ZQLOG_ERROR, 71, this->Failed("delete"))));
  EXPECT_THAT(CallsTo(this->Function("delete")), SizeIs(1)) << "a failed delete is not tried again";
  lbm_scripted::Reset();  // the handle that could not be deleted
}

TYPED_TEST(AttributesTest, OnlyMinusOneIsAFailure) {
  for (const char* function : {"create", "dup", "setopt", "str_setopt", "delete"}) {
    Script(this->Function(function), {-2, 0, {}});
  }
  {
    TypeParam attributes;
    const TypeParam copy(attributes);
    attributes.SetString("text", "value");
    attributes.template Set<int>("number", 1);
  }
  EXPECT_THAT(log_capture::Statements(), IsEmpty());
}

TYPED_TEST(AttributesTest, OptionsAreHandedOverExactly) {
  struct Record {
    int (*callback)(int);
    void* clientd;
    long third;
  };
  TypeParam attributes;
  attributes.Set("record", Record{[](int) { return 0; }, &attributes, 7});
  const auto record = CallsTo(this->Function("setopt")).at(0);
  EXPECT_EQ(record.Text("optname"), "record");
  EXPECT_EQ(record.Number("optlen"), 24);
  EXPECT_EQ(record.template Value<Record>("optval").clientd, &attributes);

  attributes.SetString("mode", "sequential");
  EXPECT_EQ(attributes.GetString("mode"), "sequential");
}

TYPED_TEST(AttributesTest, CopiesOwnTheirHandleAndMovesLeaveNull) {
  {
    TypeParam first;
    first.SetString("mode", "first");
    TypeParam copy(first);
    EXPECT_NE(static_cast<const void*>(copy), static_cast<const void*>(first));
    copy.SetString("mode", "copy");
    EXPECT_EQ(first.GetString("mode"), "first");

    const TypeParam taken(std::move(first));
    EXPECT_EQ(static_cast<void*>(first), nullptr);
    EXPECT_EQ(taken.GetString("mode"), "first");

    first = std::move(copy);
    EXPECT_EQ(static_cast<void*>(copy), nullptr);
    copy = first;
    copy = taken;
    EXPECT_EQ(copy.GetString("mode") + first.GetString("mode"), "firstcopy");
  }
  // Three made, two of them duplicates; copy's first duplicate was replaced.
  EXPECT_THAT(CallsTo(this->Function("delete")), SizeIs(4));
}

}  // namespace
}  // namespace lbm
