#include "options/option_set.h"

#include <gmock/gmock.h>

#include <array>
#include <cstring>
#include <stdexcept>

#include "failures.h"
#include "options/live_options.h"
#include "options/option_text.h"

namespace engine {
namespace {

using test::errorOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Pair;
using testing::StartsWith;

std::string badValue(Scope scope, std::string_view name, std::string_view value) {
  return errorOf([&] { OptionSet::builtIn(scope).setText(name, value); });
}

int notify(const char*, const char*, void*) { return 0; }

TEST(OptionTable, EveryDefaultComesBackThroughBothForms) {
  for (const auto& option : optionTable) {
    if (option.change == Change::never) continue;
    SCOPED_TRACE(describe(option));
    const auto set = OptionSet::builtIn(option.scope);
    auto other = set;
    std::array<char, LBM_OPTION_VALUE_MAX> buffer{};
    std::size_t size = buffer.size();
    set.getBinary(option.name, buffer.data(), size);
    other.setBinary(option.name, buffer.data(), size);
    EXPECT_EQ(other, set);
    if (hasTextForm(option.type)) {
      EXPECT_EQ(set.getText(option.name), option.defaultText);
      other.setText(option.name, set.getText(option.name));
      EXPECT_EQ(other, set);
    }
  }
}

TEST(OptionTable, EveryNumberTakesItsWholeRangeAndNothingBeyond) {
  for (const auto& option : optionTable) {
    const bool isFlag = option.type == OptionType::flag;
    const bool isNumber =
        option.type == OptionType::number || option.type == OptionType::milliseconds || option.type == OptionType::size;
    if ((!isFlag && !isNumber) || option.change == Change::never) continue;
    SCOPED_TRACE(describe(option));
    auto set = OptionSet::builtIn(option.scope);
    const std::uint64_t maximum = isFlag ? 1 : option.maximum;
    for (const auto number : {option.minimum, maximum}) {
      set.setText(option.name, std::to_string(number));
      EXPECT_EQ(set.getText(option.name), std::to_string(number));
    }
    const auto unchanged = set;
    for (const std::string& text : {std::to_string(maximum + 1), std::to_string(option.minimum - 1), std::string(),
                                    std::string("+1"), std::string("-1"), std::string(" 1"), std::string("1 "),
                                    std::string("0x1"), std::string("1.0"), std::string("18446744073709551616")}) {
      EXPECT_THAT(errorOf([&] { set.setText(option.name, text); }), HasSubstr("\"" + text + "\" is not acceptable"));
      EXPECT_EQ(set, unchanged);
    }
  }
}

TEST(OptionSet, ErrorsNameScopeOptionValueAndWhatIsAllowed) {
  EXPECT_EQ(badValue(Scope::context, "operational_mode", "sequentail"),
            "1 context option \"operational_mode\": \"sequentail\" is not acceptable; allowed: embedded or sequential");
  EXPECT_EQ(badValue(Scope::context, "close_linger_time", "10s"),
            "1 context option \"close_linger_time\": \"10s\" is not acceptable; allowed: 0 to 600000 ms");
  EXPECT_EQ(badValue(Scope::context, "contxt_name", "x"),
            "1 there is no context option \"contxt_name\"; did you mean \"context_name\"?");
  EXPECT_EQ(badValue(Scope::context, "transport_pacing", "x"),
            "1 there is no context option \"transport_pacing\"; it is a source option");
  EXPECT_EQ(badValue(Scope::receiver, "\n", "x"),
            "1 there is no receiver option \"\\x0a\"; known: loss_burst_threshold, no_source_notification_delay or "
            "source_notification_function");
  EXPECT_THAT(badValue(Scope::context, std::string(5000, 'x'), ""), HasSubstr("xx\"... (5000 bytes); known: "));
  EXPECT_EQ(badValue(Scope::source, "transport_id", "1"), "1 source option \"transport_id\" is read-only");
  EXPECT_EQ(badValue(Scope::receiver, "source_notification_function", "f"),
            "1 receiver option \"source_notification_function\" has no text form; its value is a "
            "lbm_rcv_src_notification_func_t");
}

TEST(OptionSet, AWrongBinarySizeIsRefusedWithBothSizes) {
  auto queue = OptionSet::builtIn(Scope::eventQueue);
  const long tooLong = 1;
  EXPECT_EQ(errorOf([&] { queue.setBinary("queue_cancellation_callbacks_enabled", &tooLong, sizeof tooLong); }),
            "1 event_queue option \"queue_cancellation_callbacks_enabled\" takes 4 bytes (int), not 8");
  for (const int value : {2, -1}) {
    EXPECT_THAT(errorOf([&] { queue.setBinary("queue_cancellation_callbacks_enabled", &value, sizeof value); }),
                EndsWith("\"" + std::to_string(value) + "\" is not acceptable; allowed: 0 or 1"));
  }

  const auto context = OptionSet::builtIn(Scope::context);
  lbm_src_notify_func_t notification{};
  std::size_t size = sizeof notification - 1;
  EXPECT_EQ(errorOf([&] { context.getBinary("resolver_source_notification_function", &notification, size); }),
            "1 context option \"resolver_source_notification_function\" needs a buffer of 16 bytes; this one has 15");
}

TEST(OptionSet, ATextNeedsRoomForItsCharacters) {
  auto set = OptionSet::builtIn(Scope::context);
  set.setText("context_name", "four");
  std::array<char, 5> buffer{'x', 'x', 'x', 'x', 'x'};
  std::size_t size = 3;
  EXPECT_EQ(errorOf([&] { set.getText("context_name", buffer.data(), size); }),
            "1 context option \"context_name\" needs a buffer of 4 bytes; this one has 3");
  EXPECT_EQ(size, 3U);
  EXPECT_EQ(buffer[0], 'x');
  size = 5;
  set.getText("context_name", buffer.data(), size);
  EXPECT_STREQ(buffer.data(), "four");
  EXPECT_EQ(size, 4U);
}

TEST(OptionSet, AContextNameHasUpTo1023BytesWithoutZero) {
  auto set = OptionSet::builtIn(Scope::context);
  const std::string longest(1023, 'n');
  set.setText("context_name", longest);
  EXPECT_EQ(set.get(option::contextName), longest);
  EXPECT_THAT(badValue(Scope::context, "context_name", longest + "n"), HasSubstr("(1024 bytes) is not acceptable"));
  EXPECT_THAT(errorOf([&] { set.setBinary("context_name", "a\0b", 3); }), HasSubstr("\"a\\x00b\" is not acceptable"));
  set.setBinary("context_name", "short", 5);
  EXPECT_EQ(set.get(option::contextName), "short");
}

TEST(OptionSet, TextsThatMeanSomethingAreChecked) {
  auto set = OptionSet::builtIn(Scope::context);
  for (const auto* domain : {"default", "...", "a.b-c_1"}) set.setText("domain", domain);
  for (const auto* domain : {"", ".", "..", "a/b", "a b", "a\tb", "\xc3\xa4"}) {
    EXPECT_THAT(badValue(Scope::context, "domain", domain), HasSubstr("is not acceptable")) << domain;
  }
  for (const auto* interface : {"10.1.2.3", "10.1.2.0/24", "255.255.255.255/32", "eth0", "bond0.17"}) {
    set.setText("resolver_multicast_interface", interface);
  }
  for (const auto* interface :
       {"", "10.1.2", "256.1.1.1", "10.1.2.0/33", "10.1.2.0/", "10.1.2.0/-1", "eth0/24", "eth 0", "sixteen-letters-"}) {
    EXPECT_THAT(badValue(Scope::context, "resolver_multicast_interface", interface), HasSubstr("is not acceptable"))
        << interface;
  }
}

TEST(OptionSet, TypedReadsGiveWhatWasSet) {
  using namespace std::chrono_literals;
  auto context = OptionSet::builtIn(Scope::context);
  EXPECT_EQ(context.get(option::operationalMode), OperationalMode::embedded);
  context.setText("operational_mode", "sequential");
  EXPECT_EQ(context.get(option::operationalMode), OperationalMode::sequential);
  context.setText("close_linger_time", "25");
  EXPECT_EQ(context.get(option::closeLingerTime), 25ms);
  EXPECT_EQ(context.get(option::transportRingSize), std::size_t{1} << 20);
  EXPECT_EQ(context.get(option::resolverSourceNotification).notifyfunc, nullptr);
  const lbm_src_notify_func_t notification{&notify, &context};
  context.setBinary("resolver_source_notification_function", &notification, sizeof notification);
  EXPECT_EQ(context.get(option::resolverSourceNotification).notifyfunc, &notify);
  EXPECT_EQ(context.get(option::resolverSourceNotification).clientd, &context);
  EXPECT_THROW(context.get(option::transportPacing), std::logic_error);

  auto queue = OptionSet::builtIn(Scope::eventQueue);
  const int enabled = 1;
  queue.setBinary("queue_cancellation_callbacks_enabled", &enabled, sizeof enabled);
  EXPECT_TRUE(queue.get(option::queueCancellationCallbacksEnabled));
}

TEST(OptionSet, SetsAreEqualWhenEveryValueIs) {
  const auto set = OptionSet::builtIn(Scope::receiver);
  auto other = set;
  other.setText("no_source_notification_delay", "1");
  EXPECT_NE(other, set);
  other.setText("no_source_notification_delay", "10000");
  EXPECT_EQ(other, set);

  EXPECT_NE(OptionSet::builtIn(Scope::source), set);
}

TEST(OptionSet, RecordsOfFunctionsAreEqualWhenEveryMemberIs) {
  const auto receiverWith = [](const lbm_rcv_src_notification_func_t& value) {
    auto set = OptionSet::builtIn(Scope::receiver);
    set.setBinary("source_notification_function", &value, sizeof value);
    return set;
  };
  const auto contextWith = [](const lbm_src_notify_func_t& value) {
    auto set = OptionSet::builtIn(Scope::context);
    set.setBinary("resolver_source_notification_function", &value, sizeof value);
    return set;
  };
  const auto create = [](const char*, void*) -> void* { return nullptr; };
  const auto destroy = [](const char*, void*, void*) { return 0; };
  int data = 0;
  const auto receiver = receiverWith({create, destroy, &data});
  EXPECT_EQ(receiverWith({create, destroy, &data}), receiver);
  EXPECT_NE(receiverWith({nullptr, destroy, &data}), receiver);
  EXPECT_NE(receiverWith({create, nullptr, &data}), receiver);
  EXPECT_NE(receiverWith({create, destroy, nullptr}), receiver);
  const auto context = contextWith({&notify, &data});
  EXPECT_EQ(contextWith({&notify, &data}), context);
  EXPECT_NE(contextWith({nullptr, &data}), context);
  EXPECT_NE(contextWith({&notify, nullptr}), context);
}

TEST(LiveOptions, OnlyWhatMayChangeChanges) {
  LiveOptions context(OptionSet::builtIn(Scope::context));
  EXPECT_EQ(errorOf([&] { context.setText("domain", "other"); }),
            "4 context option \"domain\" can only be set before the object is created");
  const lbm_src_notify_func_t notification{};
  EXPECT_THAT(
      errorOf([&] { context.setBinary("resolver_source_notification_function", &notification, sizeof notification); }),
      StartsWith("4 "));
  context.setText("close_linger_time", "7");
  EXPECT_EQ(context.get(option::closeLingerTime), std::chrono::milliseconds(7));
  EXPECT_THAT(errorOf([&] { context.setText("closelinger_time", "7"); }), HasSubstr("did you mean"));
}

TEST(LiveOptions, ShowTheEnginesOwnValuesOnceProvided) {
  LiveOptions source(OptionSet::builtIn(Scope::source));
  EXPECT_THAT(source.texts(), ElementsAre(Pair("transport_pacing", "source")));
  std::uint32_t id = 0;
  std::size_t size = sizeof id;
  EXPECT_EQ(errorOf([&] { source.getBinary("transport_id", &id, size); }),
            "4 source option \"transport_id\" has a value on a live source only");

  source.provide(option::transportId, std::uint32_t{17});
  source.provide(option::transportSource, std::string("host:17"));
  source.getBinary("transport_id", &id, size);
  EXPECT_EQ(id, 17U);
  EXPECT_THAT(source.texts(), ElementsAre(Pair("transport_id", "17"), Pair("transport_pacing", "source"),
                                          Pair("transport_source", "host:17")));
  EXPECT_THAT(errorOf([&] { source.setText("transport_id", "1"); }), HasSubstr("is read-only"));
}

}  // namespace
}  // namespace engine
