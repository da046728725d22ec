#include "options/option_set.h"

#include <gmock/gmock.h>

#include <array>
#include <stdexcept>

#include "failures.h"
#include "options/live_options.h"
#include "options/option_text.h"

namespace engine {
namespace {

using test::ErrorOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Pair;
using testing::StartsWith;

std::string BadValue(Scope scope, std::string_view name, std::string_view value) {
  return ErrorOf([&] { OptionSet::BuiltInDefaults(scope).SetText(name, value); });
}

int Notify(const char*, const char*, void*) { return 0; }

TEST(OptionTable, EveryDefaultComesBackThroughBothForms) {
  for (const auto& option : kOptionTable) {
    if (option.change == Change::kNever) {
      continue;
    }
    SCOPED_TRACE(Describe(option));
    const auto set = OptionSet::BuiltInDefaults(option.scope);
    auto other = set;
    std::array<char, LBM_OPTION_VALUE_MAX> buffer{};
    std::size_t size = buffer.size();
    set.GetBinary(option.name, buffer.data(), size);
    other.SetBinary(option.name, buffer.data(), size);
    EXPECT_EQ(other, set);
    if (HasTextForm(option.type)) {
      EXPECT_EQ(set.GetText(option.name), option.defaultText);
      other.SetText(option.name, set.GetText(option.name));
      EXPECT_EQ(other, set);
    }
  }
}

TEST(OptionTable, EveryNumberTakesItsWholeRangeAndNothingBeyond) {
  for (const auto& option : kOptionTable) {
    const bool isFlag = option.type == OptionType::kFlag;
    const bool isNumber = option.type == OptionType::kNumber || option.type == OptionType::kMilliseconds ||
                          option.type == OptionType::kSize;
    if ((!isFlag && !isNumber) || option.change == Change::kNever) {
      continue;
    }
    SCOPED_TRACE(Describe(option));
    auto set = OptionSet::BuiltInDefaults(option.scope);
    const std::uint64_t maximum = isFlag ? 1 : option.maximum;
    for (const auto number : {option.minimum, maximum}) {
      set.SetText(option.name, std::to_string(number));
      EXPECT_EQ(set.GetText(option.name), std::to_string(number));
    }
    const auto unchanged = set;
    for (const std::string& text : {std::to_string(maximum + 1), std::to_string(option.minimum - 1), std::string(),
                                    std::string("+1"), std::string("-1"), std::string(" 1"), std::string("1 "),
                                    std::string("0x1"), std::string("1.0"), std::string("18446744073709551616")}) {
      EXPECT_THAT(ErrorOf([&] { set.SetText(option.name, text); }), HasSubstr("\"" + text + "\" is not acceptable"));
      EXPECT_EQ(set, unchanged);
    }
  }
}

TEST(OptionSet, ANumberLeftToTheEngineIsAutoAsTextAndTheGreatestNumberInBinary) {
  auto context = OptionSet::BuiltInDefaults(Scope::kContext);
  std::uint32_t number = 0;
  std::size_t size = sizeof number;
  context.GetBinary("spin_time", &number, size);
  EXPECT_EQ(number, UINT32_MAX);
  number = 0;
  context.SetBinary("spin_time", &number, size);
  EXPECT_EQ(context.GetText("spin_time"), "0");
  number = UINT32_MAX;
  context.SetBinary("spin_time", &number, size);
  EXPECT_EQ(context.GetText("spin_time"), "auto");

  for (const char* nonsense : {"AUTO", "auto ", "automatic", "4294967295"}) {
    EXPECT_THAT(BadValue(Scope::kContext, "spin_time", nonsense), EndsWith("allowed: auto, or 0 to 1000000000 us"));
  }
  EXPECT_THAT(BadValue(Scope::kReceiver, "loss_burst_threshold", "auto"), EndsWith("allowed: 0 to 65536 messages"));
  auto receiver = OptionSet::BuiltInDefaults(Scope::kReceiver);
  EXPECT_THAT(ErrorOf([&] { receiver.SetBinary("loss_burst_threshold", &number, size); }),
              HasSubstr("\"4294967295\" is not acceptable"));
}

TEST(OptionSet, ErrorsNameScopeOptionValueAndWhatIsAllowed) {
  EXPECT_EQ(BadValue(Scope::kContext, "operational_mode", "sequentail"),
            "1 context option \"operational_mode\": \"sequentail\" is not acceptable; allowed: embedded or sequential");
  EXPECT_EQ(BadValue(Scope::kContext, "close_linger_time", "10s"),
            "1 context option \"close_linger_time\": \"10s\" is not acceptable; allowed: 0 to 600000 ms");
  EXPECT_EQ(BadValue(Scope::kContext, "contxt_name", "x"),
            "1 there is no context option \"contxt_name\"; did you mean \"context_name\"?");
  EXPECT_EQ(BadValue(Scope::kContext, "transport_pacing", "x"),
            "1 there is no context option \"transport_pacing\"; it is a source option");
  EXPECT_EQ(BadValue(Scope::kReceiver, "\n", "x"),
            "1 there is no receiver option \"\\x0a\"; known: loss_burst_threshold, no_source_notification_delay or "
            "source_notification_function");
  EXPECT_THAT(BadValue(Scope::kContext, std::string(5000, 'x'), ""), HasSubstr("xx\"... (5000 bytes); known: "));
  EXPECT_EQ(BadValue(Scope::kSource, "transport_id", "1"), "1 source option \"transport_id\" is read-only");
  EXPECT_EQ(BadValue(Scope::kReceiver, "source_notification_function", "f"),
            "1 receiver option \"source_notification_function\" has no text form; its value is a "
            "lbm_rcv_src_notification_func_t");
  EXPECT_THROW(OptionSet::BuiltInDefaults(Scope::kContext).Get(option::kTransportPacing), std::logic_error);
}

TEST(OptionSet, AWrongBinarySizeIsRefusedWithBothSizes) {
  auto queue = OptionSet::BuiltInDefaults(Scope::kEventQueue);
  const long tooLong = 1;
  EXPECT_EQ(ErrorOf([&] { queue.SetBinary("queue_cancellation_callbacks_enabled", &tooLong, sizeof tooLong); }),
            "1 event_queue option \"queue_cancellation_callbacks_enabled\" takes 4 bytes (int), not 8");
  for (const int value : {2, -1}) {
    EXPECT_THAT(ErrorOf([&] { queue.SetBinary("queue_cancellation_callbacks_enabled", &value, sizeof value); }),
                EndsWith("\"" + std::to_string(value) + "\" is not acceptable; allowed: 0 or 1"));
  }

  const auto context = OptionSet::BuiltInDefaults(Scope::kContext);
  lbm_src_notify_func_t notification{};
  std::size_t size = sizeof notification - 1;
  EXPECT_EQ(ErrorOf([&] { context.GetBinary("resolver_source_notification_function", &notification, size); }),
            "1 context option \"resolver_source_notification_function\" needs a buffer of 16 bytes; this one has 15");
}

TEST(OptionSet, ATextNeedsRoomForItsCharacters) {
  auto set = OptionSet::BuiltInDefaults(Scope::kContext);
  set.SetText("context_name", "four");
  std::array<char, 5> buffer{'x', 'x', 'x', 'x', 'x'};
  std::size_t size = 3;
  EXPECT_EQ(ErrorOf([&] { set.GetText("context_name", buffer.data(), size); }),
            "1 context option \"context_name\" needs a buffer of 4 bytes; this one has 3");
  EXPECT_EQ(size, 3U);
  EXPECT_EQ(buffer[0], 'x');
  for (const std::size_t room : {4U, 5U}) {
    set.GetText("context_name", buffer.data(), size = room);
    EXPECT_EQ(std::string(buffer.data(), 5), room == 5 ? std::string("four\0", 5) : "fourx");
    EXPECT_EQ(size, 4U);
  }
}

TEST(OptionSet, AContextNameHasUpTo1023BytesWithoutZero) {
  auto set = OptionSet::BuiltInDefaults(Scope::kContext);
  const std::string longest(1023, 'n');
  set.SetText("context_name", longest);
  EXPECT_EQ(set.Get(option::kContextName), longest);
  EXPECT_THAT(BadValue(Scope::kContext, "context_name", longest + "n"), HasSubstr("(1024 bytes) is not acceptable"));
  EXPECT_THAT(ErrorOf([&] { set.SetBinary("context_name", "a\0b", 3); }), HasSubstr("\"a\\x00b\" is not acceptable"));
  set.SetBinary("context_name", "short", 5);
  EXPECT_EQ(set.Get(option::kContextName), "short");
}

TEST(OptionSet, TextsThatMeanSomethingAreChecked) {
  auto set = OptionSet::BuiltInDefaults(Scope::kContext);
  for (const auto* domain : {"default", "...", "a.b-c_1"}) {
    set.SetText("domain", domain);
  }
  for (const auto* domain : {"", ".", "..", "a/b", "a b", "a\tb", "\xc3\xa4"}) {
    EXPECT_THAT(BadValue(Scope::kContext, "domain", domain), HasSubstr("is not acceptable")) << domain;
  }
  for (const auto* interface : {"10.1.2.3", "10.1.2.0/24", "255.255.255.255/32", "eth0", "bond0.17"}) {
    set.SetText("resolver_multicast_interface", interface);
  }
  for (const auto* interface :
       {"", "10.1.2", "256.1.1.1", "10.1.2.0/33", "10.1.2.0/", "10.1.2.0/-1", "eth0/24", "eth 0", "sixteen-letters-"}) {
    EXPECT_THAT(BadValue(Scope::kContext, "resolver_multicast_interface", interface), HasSubstr("is not acceptable"))
        << interface;
  }
}

TEST(OptionSet, AreEqualWhenEveryValueIsWithEveryMemberOfARecord) {
  const auto with = [](Scope scope, const char* name, const auto& value) {
    auto set = OptionSet::BuiltInDefaults(scope);
    set.SetBinary(name, &value, sizeof value);
    return set;
  };
  const auto receiverWith = [&](const lbm_rcv_src_notification_func_t& value) {
    return with(Scope::kReceiver, "source_notification_function", value);
  };
  const auto contextWith = [&](const lbm_src_notify_func_t& value) {
    return with(Scope::kContext, "resolver_source_notification_function", value);
  };
  const auto create = [](const char*, void*) -> void* { return nullptr; };
  const auto destroy = [](const char*, void*, void*) { return 0; };
  int data = 0;
  const auto receiver = receiverWith({create, destroy, &data});
  EXPECT_EQ(receiverWith({create, destroy, &data}), receiver);
  EXPECT_NE(receiverWith({nullptr, destroy, &data}), receiver);
  EXPECT_NE(receiverWith({create, nullptr, &data}), receiver);
  EXPECT_NE(receiverWith({create, destroy, nullptr}), receiver);
  const auto context = contextWith({&Notify, &data});
  EXPECT_EQ(contextWith({&Notify, &data}), context);
  EXPECT_NE(contextWith({nullptr, &data}), context);
  EXPECT_NE(contextWith({&Notify, nullptr}), context);
  auto other = receiver;
  other.SetText("no_source_notification_delay", "1");
  EXPECT_NE(other, receiver);
  EXPECT_NE(OptionSet::BuiltInDefaults(Scope::kSource), OptionSet::BuiltInDefaults(Scope::kEventQueue));
}

TEST(LiveOptions, OnlyWhatMayChangeChanges) {
  LiveOptions context(OptionSet::BuiltInDefaults(Scope::kContext));
  EXPECT_EQ(ErrorOf([&] { context.SetText("domain", "other"); }),
            "4 context option \"domain\" can only be set before the object is created");
  const lbm_src_notify_func_t notification{};
  EXPECT_THAT(
      ErrorOf([&] { context.SetBinary("resolver_source_notification_function", &notification, sizeof notification); }),
      StartsWith("4 "));
  context.SetText("close_linger_time", "7");
  EXPECT_EQ(context.Get(option::kCloseLingerTime), std::chrono::milliseconds(7));
  EXPECT_THAT(ErrorOf([&] { context.SetText("closelinger_time", "7"); }), HasSubstr("did you mean"));
}

TEST(FixedOptions, ShowTheEnginesOwnValuesAndRefuseEveryChange) {
  OptionSet source = OptionSet::BuiltInDefaults(Scope::kSource);
  std::uint32_t id = 0;
  std::size_t size = sizeof id;
  EXPECT_EQ(ErrorOf([&] { source.GetBinary("transport_id", &id, size); }),
            "4 source option \"transport_id\" has a value on a live source only");
  EXPECT_THAT(source.Texts(), ElementsAre(Pair("transport_pacing", "source")));
  source.Provide(option::kTransportId, std::uint32_t{17});
  source.Provide(option::kTransportSource, std::string("host:17"));
  EXPECT_THAT(source.Texts(), ElementsAre(Pair("transport_id", "17"), Pair("transport_pacing", "source"),
                                          Pair("transport_source", "host:17")));

  const FixedOptions fixed(source);
  fixed.GetBinary("transport_id", &id, size);
  EXPECT_EQ(id, 17U);
  EXPECT_THAT(ErrorOf([&] { fixed.SetText("transport_id", "1"); }), HasSubstr("is read-only"));
  EXPECT_THAT(ErrorOf([&] { fixed.SetText("transport_pacing", "receiver"); }),
              HasSubstr("before the object is created"));
  const FixedOptions context(OptionSet::BuiltInDefaults(Scope::kContext));
  EXPECT_THAT(ErrorOf([&] { context.SetBinary("spin_time", &id, size); }), StartsWith("4 "))
      << "what other objects allow would be lost here";
  EXPECT_THAT(ErrorOf([&] { context.SetText("spintime", "1"); }), StartsWith("1 "));
}

std::string ShownOf(const OptionSet& set, std::string_view name) {
  for (const ShownOption& option : set.Shown()) {
    if (option.name == name) {
      return option.value + " by " + option.origin;
    }
  }
  return "nothing";
}

TEST(ShownOptions, TellWhetherAFunctionIsSetAndNothingOfWhatIsNotThereYet) {
  auto set = OptionSet::BuiltInDefaults(Scope::kContext);
  EXPECT_EQ(ShownOf(set, "domain_directory"), "nothing");
  EXPECT_EQ(ShownOf(set, "resolver_source_notification_function"), "none by default");
  const lbm_src_notify_func_t function{&Notify, nullptr};
  set.SetBinary("resolver_source_notification_function", &function, sizeof function);
  EXPECT_EQ(ShownOf(OptionSet(set), "resolver_source_notification_function"), "set by attribute");

  auto same = OptionSet::BuiltInDefaults(Scope::kSource);
  same.SetText("transport_pacing", "source");
  EXPECT_EQ(same, OptionSet::BuiltInDefaults(Scope::kSource)) << "values are the same, wherever they come from";
}

TEST(ShownOptions, HideUsersAndPasswordsOfServers) {
  for (const auto& [servers, shown] : {std::pair("nats://a:4222,tls://b", "nats://a:4222,tls://b"),
                                       {"nats://user:pass@a, nats://token@b:1", "nats://***@a, nats://***@b:1"},
                                       {"user:pass@a,nats://b", "***@a,nats://b"},
                                       {"nats://u:p@ss,w@a,v:q@b,c", "nats://***@b,c"}}) {
    auto set = OptionSet::BuiltInDefaults(Scope::kContext);
    set.SetText("nats_servers", servers);
    EXPECT_EQ(ShownOf(set, "nats_servers"), std::string(shown) + " by attribute");
  }
}

}  // namespace
}  // namespace engine
