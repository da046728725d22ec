#include "ps_common/connector/lbm_resource_mgr.h"

#include <string>

#include "manager_test.h"

namespace ps_ns {
namespace {

using lbm_scripted::Failure;
using testing::Contains;
using testing::Pair;

class RecordingManager final : public LbmResourceMgr {
 public:
  RecordingManager() : LbmResourceMgr(true, 0, {}, 0) {}
  void Shutdown() override {}
  void Record(const std::string& topicName, const SourcePtr& source) { m_sourcesByTopicName[topicName] = source; }
};

using ResourceMgr = ManagerTest;

TEST_F(ResourceMgr, FindsSourcesByTheirTopic) {
  lbm::Context context{lbm::ContextAttributes()};
  const auto source = std::make_shared<lbm::Source>(
      context, lbm::SourceTopic(context, "a.topic", lbm::SourceTopicAttributes()), lbm::Source::Callback());
  RecordingManager manager;
  manager.Record("a.topic", source);
  EXPECT_EQ(manager.GetSourceByTopicName("a.topic"), source);
  EXPECT_FALSE(manager.GetSourceByTopicName("a.topi"));
}

TEST_F(ResourceMgr, ReadsOneOptionOfTheContext) {
  lbm_scripted::SetOption("context", "resolver_multicast_interface", "192.168.0.1/24");
  lbm_scripted::SetOption("context", "empty", "");
  lbm_scripted::SetOption("context", "longest", std::string(LBM_OPTION_VALUE_MAX - 1, 'v'));
  LbmClientResourceMgr& manager = Start();
  EXPECT_EQ(manager.GetPriceMulticastInterface(), "192.168.0.1/24");
  lbm_context_t* const context = *manager.GetContext();
  EXPECT_EQ(LbmResourceMgr::GetContextAttribute(context, "empty"), "");
  EXPECT_EQ(LbmResourceMgr::GetContextAttribute(context, "longest"), std::string(LBM_OPTION_VALUE_MAX - 1, 'v'));
  EXPECT_THROW(LbmResourceMgr::GetContextAttribute(context, "no_such_option"), lbm::LbmError);
}

TEST_F(ResourceMgr, ReadsAllOptionsHoweverManyThereAre) {
  constexpr int kCount = 1000;
  for (int i = 0; i < kCount; ++i) {
    lbm_scripted::SetOption("context", "option_" + std::to_string(i), std::to_string(i));
  }
  lbm_context_t* const context = *Start().GetContext();
  const auto attributes = LbmResourceMgr::GetAllContextAttributes(context);
  EXPECT_GE(attributes.size(), std::size_t{kCount});
  EXPECT_THAT(attributes, Contains(Pair("option_0", "0")));
  EXPECT_THAT(attributes, Contains(Pair("option_999", "999")));
  EXPECT_THAT(attributes, Contains(Pair("operational_mode", "sequential")));

  lbm_scripted::Script("lbm_context_str_getopt_all", Failure(LBM_EOP, "no"));
  EXPECT_THROW(LbmResourceMgr::GetAllContextAttributes(context), lbm::LbmError);
}

TEST_F(ResourceMgr, KeepsTheIdentityOfTheClient) {
  LbmClientResourceMgr& manager = Start();
  EXPECT_EQ(manager.GetClientID(), "");
  manager.SetClientID("alice.1");
  EXPECT_EQ(manager.GetClientID(), "alice.1");
}

}  // namespace
}  // namespace ps_ns
