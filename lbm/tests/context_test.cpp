#include <iostream>
#include <sstream>

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
using zq::logging::ZQLOG_INFO_SEARCH;
using zq::logging::ZQLOG_WALL;
using zq::logging::ZQLOG_WARNING;

class ContextTest : public LbmTest {
 protected:
  // What the context's destruction writes to standard output, with a mark before each piece.
  static std::string Destroy(std::unique_ptr<Context> context) {
    MarkedPieces pieces;
    std::streambuf* const usual = std::cout.rdbuf(&pieces);
    ::testing::internal::CaptureStderr();
    context.reset();
    std::cout.rdbuf(usual);
    return ::testing::internal::GetCapturedStderr();
  }

  static std::string Address(Context& context) {
    std::ostringstream text;
    text << static_cast<lbm_context_t*>(context);
    return text.str();
  }
};

TEST_F(ContextTest, LearnsItsNameAndTellsItsBeginningAndEnd) {
  const std::string longest(1023, 'n');
  for (const std::string& name : {std::string(), std::string("PRICEENVIRONMENT"), longest}) {
    log_capture::Clear();
    ContextAttributes attributes;
    attributes.SetString("context_name", name.c_str());
    auto context = std::make_unique<Context>(attributes);
    const std::string address = Address(*context);
    EXPECT_THAT(log_capture::Statements(),
                ElementsAre(Statement(ZQLOG_INFO_SEARCH, 616,
                                      "Created LBM context=" + address + " with attributes context_name=" + name)));

    const auto created = CallsTo("lbm_context_create").back();
    EXPECT_EQ(created.Pointer("attr"), static_cast<const void*>(attributes));
    EXPECT_TRUE(created.IsNull("proc") && created.IsNull("clientd"));
    EXPECT_EQ(CallsTo("lbm_context_str_getopt").back().Number("optlen"), 1023);

    log_capture::SetMinLevel(ZQLOG_WALL);
    EXPECT_EQ(Destroy(std::move(context)), "> Destroying LBM context=" + address + " context_name=" + name + "\n");
  }
  EXPECT_THAT(CallsTo("lbm_context_delete"), SizeIs(3));
}

TEST_F(ContextTest, ANameThatCannotBeReadStaysEmpty) {
  Script("lbm_context_str_getopt", Failure(LBM_EINVAL, "bad option"));
  auto context = std::make_unique<Context>(ContextAttributes());
  EXPECT_THAT(
      log_capture::Statements(),
      ElementsAre(Statement(ZQLOG_ERROR, 65, "Failed to get context string option: bad option"),
                  Statement(ZQLOG_WARNING, 613,
                            "Failed to get context name from context Failed to get context string option: bad option"),
                  Statement(ZQLOG_INFO_SEARCH, 616,
                            "Created LBM context=" + Address(*context) + " with attributes context_name=")));
  EXPECT_THAT(Destroy(std::move(context)), ::testing::EndsWith(" context_name=\n"));
}

TEST_F(ContextTest, WithoutAHandleThereIsNoContext) {
  Script("lbm_context_create", Failure(LBM_EOS, "no sockets"));
  EXPECT_EQ(ErrorOf([] { Context context{ContextAttributes()}; }), "Failed to create LBM context: no sockets");
  EXPECT_THAT(CallsTo("lbm_context_delete"), IsEmpty());
}

TEST_F(ContextTest, NaksCannotBeSwitched) {
  Context& context = Ctx();
  EXPECT_EQ(context.EnableNAKs(), -1);
  EXPECT_EQ(context.DisableNAKs(), -1);
  const auto text = [](const std::string& verb) {
    return "Failed to " + verb + " NAKs. This feature is available in LBM versions 6.16.1 and above";
  };
  EXPECT_THAT(log_capture::Statements(),
              ElementsAre(Statement(ZQLOG_ERROR, 733, text("enable")), Statement(ZQLOG_ERROR, 713, text("disable"))));
  log_capture::Clear();
  log_capture::SetMinLevel(ZQLOG_ALERT);
  EXPECT_EQ(context.EnableNAKs() + context.DisableNAKs(), -2);
  EXPECT_THAT(log_capture::Statements(), IsEmpty());
}

TEST_F(ContextTest, PollsAndReadsOptionsThroughTheLibrary) {
  Context& context = Ctx();
  context.Unblock();
  EXPECT_EQ(context.Poll(60'000), 0);
  EXPECT_EQ(CallsTo("lbm_context_process_events").at(0).Number("msec"), 60'000);
  lbm_scripted::SetOption("context", "resolver", "host");
  EXPECT_EQ(context.GetStrOpt("resolver"), "host");

  Script("lbm_context_process_events", Failure(LBM_EOP, "no"));
  EXPECT_EQ(ErrorOf([&] { context.Poll(0); }), "Failed to process LBM context events: no");
  Script("lbm_context_unblock", Failure(LBM_EOP, "no"));
  EXPECT_EQ(ErrorOf([&] { context.Unblock(); }), "Failed to unblock LBM context: no");
}

}  // namespace
}  // namespace lbm
