#include <array>
#include <filesystem>

#include "domain.h"
#include "transport_choice.h"

namespace engine_test {
namespace {

using testing::HasSubstr;
using testing::StrEq;

class Arguments : public EngineTest {};

TEST_F(Arguments, ThatCannotWorkAreRefusedAndSayWhy) {
  const Driven context;
  const Driven other;
  lbm_topic_t* topic = ReceiverTopic(context, "T");
  const auto proc = [](lbm_rcv_t*, lbm_msg_t*, void*) { return 0; };
  lbm_rcv_t* receiver = nullptr;
  lbm_src_t* source = nullptr;
  EXPECT_EQ(-1, lbm_rcv_create(&receiver, other, topic, proc, nullptr, nullptr));
  EXPECT_STREQ("lbm_rcv_create: the topic T belongs to another context", lbm_errmsg());
  EXPECT_EQ(-1, lbm_src_create(&source, context, topic, nullptr, nullptr, nullptr));
  EXPECT_STREQ("lbm_src_create: the topic T was made for a receiver and not for a source", lbm_errmsg());
  EXPECT_EQ(-1, lbm_rcv_create(&receiver, context, topic, nullptr, nullptr, nullptr));
  EXPECT_EQ(-1, lbm_rcv_topic_lookup(&topic, context, "", nullptr));
  EXPECT_EQ(-1, lbm_rcv_topic_lookup(&topic, context, std::string(256, 'x').c_str(), nullptr));
  EXPECT_EQ(-1, lbm_context_create(nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(LBM_EINVAL, ErrorOf(lbm_src_send(nullptr, "x", 1, 0)));
  EXPECT_EQ(ReceiverTopic(context, "SAME"), ReceiverTopic(context, "SAME"));
  EXPECT_NE(ReceiverTopic(context, "SAME"), ReceiverTopic(context, "SAME", {{"loss_burst_threshold", "3"}}));
}

TEST_F(Arguments, AMessageThatCannotBeSentIsRefusedAndHarmsNone) {
  const Driven context;
  Recorder recorder(context, "PIECES");
  const Sender source(context, "PIECES");
  source.AwaitSubscriber({context});
  const std::array<iovec, 2> torn{{{nullptr, 0}, {nullptr, 5}}};
  EXPECT_EQ(LBM_EINVAL, ErrorOf(lbm_src_sendv(source, torn.data(), 2, 0)));
  EXPECT_EQ(LBM_EINVAL, ErrorOf(lbm_src_send(source, "x", std::size_t{1} << 40, 0)));
  EXPECT_THAT(lbm_errmsg(), HasSubstr("the most is"));

  recorder.onEvent = [](lbm_msg_t& message) {
    if (message.type == LBM_MSG_REQUEST) {
      EXPECT_EQ(LBM_EINVAL, ErrorOf(lbm_send_response(message.response, "x", std::size_t{1} << 40, 0)));
    }
  };
  lbm_request_t* request = nullptr;
  const auto ignore = [](lbm_request_t*, lbm_msg_t*, void*) { return 0; };
  EXPECT_EQ(LBM_EINVAL,
            ErrorOf(lbm_send_request(&request, source, "x", std::size_t{1} << 40, ignore, nullptr, nullptr, 0)));
  ASSERT_EQ(0, lbm_send_request(&request, source, "?", 1, ignore, nullptr, nullptr, 0)) << lbm_errmsg();
  EXPECT_EQ(0, lbm_src_sendv(source, torn.data(), 1, 0));
  PumpUntil({context}, "what was not refused", [&] { return recorder.lines.size() == 3; });
  EXPECT_THAT(recorder.lines, testing::ElementsAre("BOS 0", "request 0 ?", "data 1"));
  EXPECT_EQ(0, lbm_request_delete(request));
}

TEST_F(Arguments, OptionsOfLiveObjectsAreToldAndKept) {
  const std::string longName(1023, 'n');
  const Driven context({{"operational_mode", "sequential"}, {"context_name", longName.c_str()}});
  std::array<char, 1024> name{};
  std::size_t length = name.size() - 1;
  EXPECT_EQ(0, lbm_context_str_getopt(context, "context_name", name.data(), &length)) << lbm_errmsg();
  EXPECT_EQ(longName, name.data());
  EXPECT_EQ(-1, lbm_context_str_setopt(context, "context_name", "other"));
  std::size_t count = 0;
  EXPECT_EQ(-1, lbm_context_str_getopt_all(context, nullptr, &count));
  std::vector<lbm_option_text_t> options(count);
  ASSERT_EQ(0, lbm_context_str_getopt_all(context, options.data(), &count));
  EXPECT_THAT(options, testing::Contains(testing::AllOf(
                           testing::Field(&lbm_option_text_t::name, StrEq("resolver_multicast_interface")),
                           testing::Field(&lbm_option_text_t::value, StrEq("0.0.0.0")))));
  EXPECT_EQ(0, lbm_context_str_getopt(context, "domain_directory", name.data(), &(length = 1024))) << lbm_errmsg();
  EXPECT_NE(OverNetwork(), std::filesystem::is_directory(name.data())) << name.data();

  const Sender source(context, "T");
  EXPECT_EQ(LBM_EOP, ErrorOf(lbm_src_str_setopt(source, "transport_pacing", "receiver")));
  EXPECT_EQ(0, lbm_src_str_getopt(source, "transport_pacing", name.data(), &(length = 1024))) << lbm_errmsg();
  EXPECT_STREQ("source", name.data());
}

}  // namespace
}  // namespace engine_test
