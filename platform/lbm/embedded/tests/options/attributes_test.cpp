// The C interface of attributes, errors and notices.
#include "api/attributes.h"

#include <gmock/gmock.h>
#include <lbm/lbm.h>

#include <string>
#include <vector>

#include "core/notice.h"
#include "failures.h"

namespace engine {
namespace {

using testing::ElementsAre;
using testing::Pair;

// The calls of one kind of attributes, and an option of it with another value than the default.
template <class Attr>
struct Family {
  std::string prefix;
  int (*create)(Attr**);
  int (*dup)(Attr**, const Attr*);
  int (*destroy)(Attr*);
  int (*setopt)(Attr*, const char*, const void*, size_t);
  int (*getopt)(const Attr*, const char*, void*, size_t*);
  int (*setText)(Attr*, const char*, const char*);
  int (*getText)(const Attr*, const char*, char*, size_t*);
  const char* option;
  std::string before;
  std::string after;
};

#define FAMILY(prefix)                                                                            \
#prefix, &prefix##_create, &prefix##_dup, &prefix##_delete, &prefix##_setopt, &prefix##_getopt, \
      &prefix##_str_setopt, &prefix##_str_getopt

template <class Attr>
std::string TextOf(const Family<Attr>& family, const Attr* attr) {
  char text[LBM_OPTION_VALUE_MAX];
  std::size_t size = sizeof text;
  if (family.getText(attr, family.option, text, &size) != 0) {
    return lbm_errmsg();
  }
  EXPECT_EQ(size, std::string(text).size());
  return text;
}

template <class Attr>
void CheckFamily(const Family<Attr>& family) {
  SCOPED_TRACE(family.prefix);
  Attr* attr = nullptr;
  Attr* copy = nullptr;
  ASSERT_EQ(family.create(&attr), 0);
  EXPECT_EQ(TextOf(family, attr), family.before);

  // A copy goes its own way.
  ASSERT_EQ(family.dup(&copy, attr), 0);
  EXPECT_EQ(family.setText(copy, family.option, family.after.c_str()), 0);
  EXPECT_EQ(TextOf(family, attr), family.before);
  EXPECT_EQ(TextOf(family, copy), family.after);
  EXPECT_EQ(api::CreationOptions(copy).GetText(family.option), family.after);
  EXPECT_EQ(api::CreationOptions(static_cast<const Attr*>(nullptr)).GetText(family.option), family.before);

  // The binary form of one is accepted by the other.
  char value[64];
  std::size_t size = sizeof value;
  EXPECT_EQ(family.getopt(copy, family.option, value, &size), 0);
  EXPECT_EQ(family.setopt(attr, family.option, value, size), 0);
  EXPECT_EQ(TextOf(family, attr), family.after);

  const auto null = [&](const std::string& call, const std::string& argument) {
    return family.prefix + "_" + call + ": the argument " + argument + " is null";
  };
  EXPECT_FAILS(family.create(nullptr), LBM_EINVAL, null("create", "attr"));
  EXPECT_FAILS(family.dup(nullptr, attr), LBM_EINVAL, null("dup", "attr"));
  EXPECT_FAILS(family.dup(&copy, nullptr), LBM_EINVAL, null("dup", "original"));
  EXPECT_FAILS(family.destroy(nullptr), LBM_EINVAL, null("delete", "attr"));
  EXPECT_FAILS(family.setopt(nullptr, family.option, value, size), LBM_EINVAL, null("setopt", "attr"));
  EXPECT_FAILS(family.setopt(attr, nullptr, value, size), LBM_EINVAL, null("setopt", "optname"));
  EXPECT_FAILS(family.setopt(attr, family.option, nullptr, size), LBM_EINVAL, null("setopt", "optval"));
  EXPECT_FAILS(family.getopt(nullptr, family.option, value, &size), LBM_EINVAL, null("getopt", "attr"));
  EXPECT_FAILS(family.getopt(attr, family.option, value, nullptr), LBM_EINVAL, null("getopt", "optlen"));
  EXPECT_FAILS(family.setText(nullptr, family.option, "x"), LBM_EINVAL, null("str_setopt", "attr"));
  EXPECT_FAILS(family.setText(attr, family.option, nullptr), LBM_EINVAL, null("str_setopt", "optval"));
  EXPECT_FAILS(family.getText(nullptr, family.option, value, &size), LBM_EINVAL, null("str_getopt", "attr"));
  EXPECT_FAILS(family.getText(attr, family.option, nullptr, &size), LBM_EINVAL, null("str_getopt", "optval"));
  EXPECT_EQ(family.destroy(copy), 0);
  EXPECT_EQ(family.destroy(attr), 0);
}

TEST(Attributes, OfEveryKindCarryTheirOptions) {
  CheckFamily<lbm_context_attr_t>({FAMILY(lbm_context_attr), "operational_mode", "embedded", "sequential"});
  CheckFamily<lbm_src_topic_attr_t>({FAMILY(lbm_src_topic_attr), "transport_pacing", "source", "receiver"});
  CheckFamily<lbm_rcv_topic_attr_t>({FAMILY(lbm_rcv_topic_attr), "loss_burst_threshold", "16", "0"});
  CheckFamily<lbm_event_queue_attr_t>({FAMILY(lbm_event_queue_attr), "queue_cancellation_callbacks_enabled", "0", "1"});
}

using Notices = std::vector<std::pair<int, std::string>>;

int Record(int level, const char* message, void* clientData) {
  static_cast<Notices*>(clientData)->emplace_back(level, message);
  return 0;
}

TEST(Notices, GoToTheReceiverAndElseToStandardError) {
  Notices notices;
  ASSERT_EQ(lbm_log(&Record, &notices), 0);
  Notice(LBM_LOG_INFO, "hello");
  EXPECT_THAT(notices, ElementsAre(Pair(LBM_LOG_INFO, "hello")));

  ASSERT_EQ(lbm_log(nullptr, nullptr), 0);
  testing::internal::CaptureStderr();
  Notice(LBM_LOG_INFO, "not shown");
  Notice(LBM_LOG_WARNING, "odd");
  Notice(LBM_LOG_ERROR, "bad");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "lbm warning: odd\nlbm error: bad\n");
  EXPECT_EQ(notices.size(), 1U);
}

}  // namespace
}  // namespace engine
