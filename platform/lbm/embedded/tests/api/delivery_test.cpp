#include <array>
#include <atomic>
#include <memory>
#include <numeric>
#include <thread>

#include "domain.h"

namespace engine_test {
namespace {

using testing::ElementsAre;

// Larger than a ring, and than what a server of the network takes at once.
const std::string kLarge = [] {
  std::string text(3'000'000, '\0');
  std::iota(text.begin(), text.end(), '\0');
  return text;
}();

class Delivery : public EngineTest {};

TEST_F(Delivery, IsInOrderBetweenBeginningAndEndOfSession) {
  const Driven publisher;
  const Driven subscriber;
  constexpr const char* kTopic = "PRICES..DAX/1 *>";  // with what the subjects of a network cannot carry
  Sender source(publisher, kTopic);
  Recorder recorder(subscriber, kTopic);
  std::string session;
  recorder.onEvent = [&](lbm_msg_t& message) {
    EXPECT_STREQ(kTopic, message.topic_name);
    session = message.source;
    EXPECT_EQ(nullptr, message.response);
    EXPECT_GT(message.timestamp.tv_sec, 0);
  };
  source.AwaitSubscriber({publisher, subscriber});
  for (const char* text : {"one", "two", ""}) {
    EXPECT_EQ(0, source.Send(text)) << lbm_errmsg();
  }
  std::array<char, 256> name{};
  std::size_t length = name.size();
  EXPECT_EQ(0, lbm_src_str_getopt(source, "transport_source", name.data(), &length));
  source.Delete();
  PumpUntil({publisher, subscriber}, "the end of the session", [&] { return recorder.lines.size() >= 5; });
  EXPECT_THAT(recorder.lines, ElementsAre("BOS 0", "data 0 one", "data 1 two", "data 2", "EOS"));
  EXPECT_EQ(name.data(), session);
}

TEST_F(Delivery, TellsTheChannelOnWhichAMessageWasSent) {
  const Driven context;
  Recorder recorder(context, "T");
  const Sender source(context, "T");
  source.AwaitSubscriber({context});
  std::vector<std::int64_t> channels;
  recorder.onEvent = [&](lbm_msg_t& message) {
    channels.push_back(message.channel_info != nullptr ? std::int64_t{message.channel_info->channel_number} : -1);
  };
  for (const std::uint32_t number : {0U, 0xffffffffU}) {
    const lbm_src_send_ex_info_t channel{.flags = LBM_SRC_SEND_EX_FLAG_CHANNEL, .channel_number = number};
    EXPECT_EQ(0, lbm_src_send_ex(source, "x", 1, LBM_SRC_FLUSH, &channel)) << lbm_errmsg();
  }
  source.Send("x");
  PumpUntil({context}, "the messages", [&] { return channels.size() == 4; });
  EXPECT_THAT(channels, ElementsAre(-1, 0, 0xffffffff, -1)) << "the first is the beginning of the session";
}

TEST_F(Delivery, ReachesReceiversThatComeAndGoAndTellsNothingOfSourcesThatNeverSpoke) {
  const Driven publisher;
  const Driven subscriber;
  const Sender source(publisher, "T");
  for (const std::string sequence : {"0", "1"}) {
    {
      const Recorder recorder(subscriber, "T");
      source.AwaitSubscriber({publisher, subscriber});
      Sender silent(publisher, "T");
      silent.AwaitSubscriber({publisher, subscriber});
      silent.Delete();
      source.Send("x");
      PumpUntil({publisher, subscriber}, "the message", [&] { return recorder.lines.size() == 2; });
      EXPECT_THAT(recorder.lines, ElementsAre("BOS " + sequence, "data " + sequence + " x"));
    }
    PumpUntil({publisher, subscriber}, "the receiver's end", [&] { return source.Subscribers() == 0; });
  }
}

TEST_F(Delivery, ReachesEveryReceiverOfTheTopicAlsoInTheContextOfTheSource) {
  const Driven context;
  Recorder first(context, "LOOP");
  Recorder second(context, "LOOP");
  const Recorder other(context, "LOOP.OTHER");
  const Sender source(context, "LOOP");
  source.AwaitSubscriber({context});
  source.Send("hello");
  PumpUntil({context}, "both receivers", [&] { return first.lines.size() >= 2 && second.lines.size() >= 2; });
  EXPECT_THAT(first.lines, ElementsAre("BOS 0", "data 0 hello"));
  EXPECT_EQ(first.lines, second.lines);
  EXPECT_TRUE(other.lines.empty());

  Recorder late(context, "LOOP");
  source.Send("again");
  PumpUntil({context}, "the late receiver", [&] { return late.lines.size() >= 2; });
  EXPECT_THAT(late.lines, ElementsAre("BOS 1", "data 1 again")) << "its session begins at its first message";
}

TEST_F(Delivery, ARetainedMessageOutlivesEverythingItCameFrom) {
  Driven context;
  Sender source(context, "KEEP");
  auto recorder = std::make_unique<Recorder>(context, "KEEP");
  lbm_msg_t* kept = nullptr;
  recorder->onEvent = [&](lbm_msg_t& message) {
    if (message.type == LBM_MSG_DATA) {
      lbm_msg_retain(kept = &message);
    }
  };
  source.AwaitSubscriber({context});
  std::vector<iovec> pieces;
  constexpr std::size_t kPieces = 500;
  constexpr std::size_t kPieceBytes = 6'000;
  for (std::size_t i = 0; i < kPieces; ++i) {
    pieces.push_back({const_cast<char*>(kLarge.data()) + i * kPieceBytes, kPieceBytes});
    pieces.push_back({nullptr, 0});
  }
  EXPECT_EQ(0, lbm_src_sendv(source, pieces.data(), static_cast<int>(pieces.size()), LBM_SRC_FLUSH)) << lbm_errmsg();
  PumpUntil({context}, "the message", [&] { return kept != nullptr; });
  recorder.reset();
  source.Delete();
  context.Delete();
  EXPECT_STREQ("KEEP", kept->topic_name);
  EXPECT_TRUE(kLarge == std::string_view(kept->data, kept->len));
  EXPECT_EQ(0, lbm_msg_delete(kept));
}

TEST_F(Delivery, TellsWhenNoSourceIsFound) {
  const Driven context;
  const Recorder impatient(context, ReceiverTopic(context, "NOBODY", {{"no_source_notification_delay", "1"}}));
  const Recorder never(context, ReceiverTopic(context, "NOBODY", {{"no_source_notification_delay", "0"}}));
  PumpUntil({context}, "the notification", [&] { return !impatient.lines.empty(); });
  EXPECT_THAT(impatient.lines, ElementsAre("no source"));
  EXPECT_TRUE(never.lines.empty());
}

TEST_F(Delivery, EachSourceThatComesAndGoesIsNotifiedOnce) {
  Lines resolver;
  const lbm_src_notify_func_t onResolved{
      [](const char* topic, const char* session, void* clientd) {
        static_cast<Lines*>(clientd)->push_back(std::string(topic) + (*session != '\0' ? " named" : ""));
        return 0;
      },
      &resolver};
  lbm_context_t* subscriber = nullptr;
  auto* const attr =
      MakeAttributes(lbm_context_attr_create, lbm_context_attr_str_setopt, {{"operational_mode", "sequential"}});
  ASSERT_EQ(0, lbm_context_attr_setopt(attr, "resolver_source_notification_function", &onResolved, sizeof(onResolved)));
  ASSERT_EQ(0, lbm_context_create(&subscriber, attr, nullptr, nullptr));
  lbm_context_attr_delete(attr);

  Lines notified;
  const lbm_rcv_src_notification_func_t onSource{[](const char*, void* clientd) -> void* {
                                                   static_cast<Lines*>(clientd)->push_back("create");
                                                   return clientd;
                                                 },
                                                 [](const char*, void* clientd, void* sourceClientd) {
                                                   EXPECT_EQ(clientd, sourceClientd);
                                                   static_cast<Lines*>(clientd)->push_back("delete");
                                                   return 0;
                                                 },
                                                 &notified};
  lbm_topic_t* topic = nullptr;
  auto* const topicAttr = MakeAttributes(lbm_rcv_topic_attr_create, lbm_rcv_topic_attr_str_setopt, {});
  ASSERT_EQ(0, lbm_rcv_topic_attr_setopt(topicAttr, "source_notification_function", &onSource, sizeof(onSource)));
  ASSERT_EQ(0, lbm_rcv_topic_lookup(&topic, subscriber, "STATUS", topicAttr));
  lbm_rcv_topic_attr_delete(topicAttr);
  Recorder first(subscriber, topic);
  Recorder second(subscriber, topic);
  Recorder plain(subscriber, "STATUS");
  std::vector<void*> clientData;
  second.onEvent = plain.onEvent = [&](lbm_msg_t& message) {
    if (message.type == LBM_MSG_DATA) {
      clientData.push_back(message.source_clientd);
    }
  };
  const Driven publisher;
  auto status = std::make_unique<Sender>(publisher, "STATUS");
  const Sender other(publisher, "OTHER");
  PumpUntil({subscriber, publisher}, "both sources", [&] { return resolver.size() >= 2; });
  status->AwaitSubscriber({subscriber, publisher});
  status->Send("up");
  PumpUntil({subscriber, publisher}, "the message", [&] { return clientData.size() >= 2; });
  EXPECT_THAT(clientData, ElementsAre(&notified, nullptr));
  status.reset();
  PumpUntil({subscriber, publisher}, "the end", [&] { return notified.size() >= 2; });
  status = std::make_unique<Sender>(publisher, "STATUS");
  PumpUntil({subscriber, publisher}, "the return", [&] { return notified.size() >= 3; });
  EXPECT_THAT(resolver, ElementsAre("STATUS named", "OTHER named", "STATUS named"));
  first.Stop();
  second.Stop();
  plain.Stop();
  lbm_context_delete(subscriber);
  EXPECT_THAT(notified, ElementsAre("create", "delete", "create", "delete")) << "the last when the context was deleted";
}

// The room that is waited for is made by the thread that waits.
TEST_F(Delivery, ASendInACallbackOfItsSubscribersContextDoesNotWait) {
  const Driven sending;
  const Driven receiving;
  const Sender source(sending, "LOOP", {{"transport_pacing", "receiver"}});
  Recorder recorder(receiving, "LOOP");
  source.AwaitSubscriber({sending, receiving});
  const std::string message(60'000, 'x');
  int error = 0;
  recorder.onEvent = [&](lbm_msg_t&) {
    while (error == 0) {
      error = ErrorOf(source.Send(message));
    }
  };
  EXPECT_EQ(0, source.Send("first"));
  PumpUntil({sending, receiving}, "the refusal", [&] { return error != 0; });
  EXPECT_EQ(LBM_EWOULDBLOCK, error);
}

TEST_F(Delivery, GoesOnWhileEndpointsComeAndGoOnManyThreads) {
  const Driven context({});
  std::atomic<bool> stop{false};
  const Sender steady(context, "BUSY");
  const std::jthread sender([&] {
    while (!stop) {
      EXPECT_EQ(0, steady.Send("tick"));
    }
  });
  std::array<std::jthread, 3> threads;
  for (std::jthread& thread : threads) {
    thread = std::jthread([&] {
      for (int round = 0; round < 50; ++round) {
        const Recorder recorder(context, "BUSY");
        const Sender source(context, "BUSY");
        EXPECT_EQ(0, source.Send("hello"));
      }
    });
  }
  for (std::jthread& thread : threads) {
    thread.join();
  }
  stop = true;
}

class Requests : public EngineTest {};

TEST_F(Requests, AreAnsweredUntilTheyAreDeleted) {
  Driven asker;
  const Driven server;
  Sender source(asker, "ASK");
  Recorder first(server, "ASK");
  Recorder second(server, "ASK");
  lbm_response_t* takenOver = nullptr;
  first.onEvent = [](lbm_msg_t& message) {
    if (message.type == LBM_MSG_REQUEST) {
      EXPECT_EQ(0, lbm_send_response(message.response, "one", 3, LBM_SRC_NONBLOCK)) << lbm_errmsg();
      EXPECT_EQ(0, lbm_send_response(message.response, "two", 3, 0)) << lbm_errmsg();
    }
  };
  second.onEvent = [&](lbm_msg_t& message) {
    if (message.type == LBM_MSG_REQUEST && takenOver == nullptr) {
      takenOver = std::exchange(message.response, nullptr);
    }
  };
  source.AwaitSubscriber({asker, server});
  Lines answers;
  lbm_request_t* request = nullptr;
  const auto onAnswer = [](lbm_request_t*, lbm_msg_t* message, void* clientd) {
    static_cast<Lines*>(clientd)->push_back(Recorder::Describe(*message));
    return 0;
  };
  ASSERT_EQ(0, lbm_send_request(&request, source, "?", 1, onAnswer, &answers, nullptr, 0)) << lbm_errmsg();
  PumpUntil({asker, server}, "two answers", [&] { return answers.size() >= 2 && takenOver != nullptr; });
  EXPECT_EQ(0, lbm_send_response(takenOver, kLarge.data(), kLarge.size(), 0));
  PumpUntil({asker, server}, "the third answer", [&] { return answers.size() >= 3; });
  EXPECT_TRUE(answers.back() == "response " + kLarge);
  answers.pop_back();
  EXPECT_THAT(answers, ElementsAre("response one", "response two"));
  EXPECT_EQ("request 0 ?", second.lines.back());
  EXPECT_EQ(0, lbm_request_delete(request));
  EXPECT_EQ(0, lbm_send_response(takenOver, "late", 4, 0));

  // Answers come in order, so those to the next request come behind the late one.
  Lines next;
  ASSERT_EQ(0, lbm_send_request(&request, source, "??", 2, onAnswer, &next, nullptr, 0)) << lbm_errmsg();
  PumpUntil({asker, server}, "the answers to another request", [&] { return next.size() >= 2; });
  EXPECT_EQ(2U, answers.size());
  EXPECT_EQ(0, lbm_request_delete(request));

  source.Delete();
  asker.Delete();
  PumpUntil({server}, "the asker's end", [&] { return second.lines.back() == "EOS"; });
  EXPECT_EQ(LBM_EOP, ErrorOf(lbm_send_response(takenOver, "gone", 4, 0)));
  EXPECT_EQ(0, lbm_response_delete(takenOver));
}

}  // namespace
}  // namespace engine_test
