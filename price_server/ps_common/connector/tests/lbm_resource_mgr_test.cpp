#include "ps_common/connector/lbm_resource_mgr.h"

#include "manager_test.h"

namespace ps_ns {
namespace {

using ResourceMgr = ManagerTest;

TEST_F(ResourceMgr, ReadsTheContextsOptionsHoweverManyAndHoweverLong) {
  const std::string longest(LBM_OPTION_VALUE_MAX - 1, 'v');
  lbm_scripted::SetOption("context", "resolver_multicast_interface", "192.168.0.1/24");
  lbm_scripted::SetOption("context", "longest", longest);
  lbm_scripted::SetOption("context", "full", longest + 'v');
  for (int i = 0; i < 1000; ++i) {
    lbm_scripted::SetOption("context", "option_" + std::to_string(i), std::to_string(i));
  }
  LbmClientResourceMgr& manager = Start();
  EXPECT_EQ(manager.GetPriceMulticastInterface(), "192.168.0.1/24");
  lbm_context_t* const context = *manager.GetContext();
  EXPECT_EQ(LbmResourceMgr::GetContextAttribute(context, "longest"), longest);
  EXPECT_EQ(LbmResourceMgr::GetContextAttribute(context, "full"), longest + 'v') << "without a zero behind it";
  EXPECT_THROW(LbmResourceMgr::GetContextAttribute(context, "no_such_option"), lbm::LbmError);

  const auto attributes = LbmResourceMgr::GetAllContextAttributes(context);
  EXPECT_THAT(attributes, Contains(testing::Pair("option_999", "999")));
  EXPECT_THAT(attributes, Contains(testing::Pair("operational_mode", "sequential")));
  EXPECT_EQ(FailureOf("lbm_context_str_getopt_all", [&] { LbmResourceMgr::GetAllContextAttributes(context); }),
            "Failed to get LBM context attributes: no");
}

}  // namespace
}  // namespace ps_ns
