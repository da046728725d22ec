#include "options/process_defaults.h"

#include <gmock/gmock.h>
#include <lbm/lbm.h>

#include <filesystem>
#include <fstream>
#include <system_error>

#include "failures.h"
#include "test_support/temporary_directory.h"

namespace engine {
namespace {

using test::ErrorOf;
using testing::HasSubstr;
using testing::SizeIs;
using testing::StartsWith;

class ConfigFile : public testing::Test {
 protected:
  std::string Path() const { return m_directory.Path() / "lbm.cfg"; }

  void Write(const std::string& content) const { std::ofstream(Path(), std::ios::binary) << content; }

  const test_support::TemporaryDirectory m_directory;
};

TEST_F(ConfigFile, SetsWhatEveryLaterSetBeginsWith) {
  ProcessDefaults defaults("");
  Write(
      "# a comment\r\n"
      "\r\n"
      "  context\tcontext_name   two words#1 # the name\r\n"
      "source transport_pacing source\n"
      "source transport_pacing receiver\n"
      "receiver no_source_notification_delay 0\n"
      "event_queue queue_cancellation_callbacks_enabled 1");
  const auto before = defaults.Options(Scope::kContext);
  defaults.Load(Path());
  EXPECT_EQ(before, OptionSet::BuiltInDefaults(Scope::kContext));
  EXPECT_EQ(defaults.Options(Scope::kContext).Get(option::kContextName), "two words#1");
  EXPECT_EQ(defaults.Options(Scope::kSource).Get(option::kTransportPacing), TransportPacing::kReceiver);
  EXPECT_EQ(defaults.Options(Scope::kReceiver).Get(option::kNoSourceNotificationDelay).count(), 0);
  EXPECT_TRUE(defaults.Options(Scope::kEventQueue).Get(option::kQueueCancellationCallbacksEnabled));
}

TEST_F(ConfigFile, AWrongLineIsNamedAndNothingChanges) {
  for (const auto& [line, complaint] :
       {std::pair("contxt domain x", "unknown scope \"contxt\"; known: context, event_queue, receiver or source"),
        {"context operational_mode # sequential", "a line has a scope, an option and a value"},
        {"context", "a line has a scope, an option and a value"},
        {"source transport_id 1", "source option \"transport_id\" is read-only"}}) {
    ProcessDefaults defaults("");
    Write(std::string("context domain other\n\n") + line + "\ncontext domain third\n");
    EXPECT_EQ(ErrorOf([&] { defaults.Load(Path()); }), "1 " + Path() + ":3: " + complaint);
    EXPECT_EQ(defaults.Options(Scope::kContext), OptionSet::BuiltInDefaults(Scope::kContext));
  }
}

TEST_F(ConfigFile, IsTheOriginOfWhatItSets) {
  ProcessDefaults defaults("");
  Write("\nsource transport_pacing source\n");
  const auto shown = [&] { return defaults.Options(Scope::kSource).Shown(); };
  ASSERT_THAT(shown(), SizeIs(1)) << "a value that only live sources have is not shown";
  EXPECT_EQ(shown()[0].origin, "default");
  defaults.Load(std::filesystem::relative(Path()));
  EXPECT_EQ(shown()[0].origin, "file " + Path() + ":2");
}

TEST_F(ConfigFile, OneThatCannotBeReadOrIsTooLargeIsRefused) {
  ProcessDefaults defaults("");
  EXPECT_THROW(defaults.Load(Path()), std::system_error);
  EXPECT_THROW(defaults.Load(m_directory.Path()), std::system_error);
  Write(std::string(kConfigFileBytesMax, '#'));
  defaults.Load(Path());
  Write(std::string(kConfigFileBytesMax + 1, '#'));
  EXPECT_THAT(ErrorOf([&] { defaults.Load(Path()); }), HasSubstr("has more than 1048576 bytes"));
}

TEST_F(ConfigFile, TheInitialOneFailsEveryUseUntilItIsRightAndIsThenReadNoMore) {
  ProcessDefaults defaults(Path());
  EXPECT_THROW(defaults.Options(Scope::kSource), std::system_error);
  Write("context domain a/b");
  for (int use = 0; use < 2; ++use) {
    EXPECT_THAT(ErrorOf([&] { defaults.Options(Scope::kSource); }), StartsWith("1 " + Path() + ":1: "));
  }
  Write("context domain first\ncontext close_linger_time 5");
  EXPECT_EQ(defaults.Options(Scope::kContext).Get(option::kDomain), "first");
  Write("context domain second");
  EXPECT_EQ(defaults.Options(Scope::kContext).Get(option::kDomain), "first");

  defaults.Load(Path());
  EXPECT_EQ(defaults.Options(Scope::kContext).Get(option::kDomain), "second");
  EXPECT_EQ(defaults.Options(Scope::kContext).Get(option::kCloseLingerTime).count(), 5);
}

TEST_F(ConfigFile, OfTheConfigCallHoldsForWhatIsMadeLater) {
  Write("context domain from-file");
  ASSERT_EQ(lbm_config(Path().c_str()), 0) << lbm_errmsg();
  lbm_context_attr_t* attr = nullptr;
  ASSERT_EQ(lbm_context_attr_create(&attr), 0) << lbm_errmsg();
  char text[LBM_OPTION_VALUE_MAX];
  std::size_t size = sizeof text;
  EXPECT_EQ(lbm_context_attr_str_getopt(attr, "domain", text, &size), 0) << lbm_errmsg();
  EXPECT_STREQ(text, "from-file");
  EXPECT_EQ(lbm_context_attr_delete(attr), 0);

  std::filesystem::remove(Path());
  EXPECT_FAILS(lbm_config(nullptr), LBM_EINVAL, "lbm_config: the argument file_name is null");
  EXPECT_FAILS(lbm_config(Path().c_str()), LBM_EOS,
               "lbm_config: cannot read the configuration file \"" + Path() + "\": No such file or directory");
}

}  // namespace
}  // namespace engine
