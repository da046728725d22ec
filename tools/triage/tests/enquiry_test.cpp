// What an enquiry makes of those who listen, with contexts of the embedded engine.
#include "enquiry.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "lbm/receiver.h"
#include "test_support/private_domain.h"
#include "zq/messaging/triage.pb.h"

namespace triage {
namespace {

using testing::AllOf;
using testing::Field;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;
using testing::UnorderedElementsAre;
using zq::messaging::triage::TriageResponse;

constexpr auto kLong = std::chrono::seconds(60);  // something else ends the wait, unless something is wrong

std::string Response(int status, const std::string& id) {
  TriageResponse response;
  response.set_status(static_cast<zq::messaging::triage::TriageActionResponseStatus>(status));
  response.set_request_id(id);
  return response.SerializeAsString();
}

// A process's context and what it does with a request.
class Listener {
 public:
  using Behaviour = std::function<void(const lbm::Message&)>;

  explicit Listener(Behaviour behaviour, const char* name = "")
      : m_context(Attributes(name)),
        m_receiver(m_context, {m_context, "ASK", lbm::ReceiverTopicAttributes()},
                   [behaviour = std::move(behaviour)](const lbm::Message& message) {
                     if (message.Type() == LBM_MSG_REQUEST) {
                       behaviour(message);
                     }
                   }) {}

 private:
  static lbm::ContextAttributes Attributes(const char* name) {
    lbm::ContextAttributes attributes;
    attributes.SetString("context_name", name);
    return attributes;
  }

  lbm::Context m_context;
  lbm::Receiver m_receiver;
};

Listener::Behaviour Answers(int status, const std::string& id = "id") {
  return [=](const lbm::Message& message) { message.GetResponse().Send(Response(status, id), 0); };
}

// Tells that it was asked, and does not answer.
Listener::Behaviour Raises(std::atomic_flag& isAsked) {
  return [&isAsked](const lbm::Message&) {
    isAsked.test_and_set();
    isAsked.notify_all();
  };
}

Listener::Behaviour AnswersAfter(std::atomic_flag& isOtherAsked) {
  return [&isOtherAsked](const lbm::Message& message) {
    isOtherAsked.wait(false);
    Answers(0)(message);
  };
}

class EnquiryTest : public testing::Test {
 protected:
  EnquiryTest() { ::setenv("DISABLE_LBM_TRIAGE_HANDLER", "the test answers itself", 1); }

  Outcome Ask(std::optional<std::size_t> expected, Enquiry::Clock::duration timeout = kLong) {
    return Enquiry(m_question, m_signals).Run(timeout, expected);
  }

  const Question m_question{.topic = "ASK", .requestId = "id", .data = "?"};

  const test_support::PrivateDomain m_domain;
  cli::SignalWait m_signals{SIGTERM};
};

TEST_F(EnquiryTest, EveryAnswerIsReadAndEndsTheWaitWhenItIsTheLastExpected) {
  const Listener good(Answers(0));
  const Listener failing(Answers(1));
  const Listener unknown(Answers(7));
  const Listener other(Answers(0, "another id"));
  const Listener broken([](const lbm::Message& message) { message.GetResponse().Send("\xff", 0); });
  const Listener statusless([](const lbm::Message& message) { message.GetResponse().Send("", 0); });
  const auto outcome = Ask(6);
  const auto is = [](const char* status, bool success) {
    return AllOf(Field("status", &Answer::status, status), Field("success", &Answer::success, success),
                 Field("process", &Answer::process,
                       AllOf(Field("context", &ProcessInfo::context, StartsWith("host:")),
                             Field("number", &ProcessInfo::number, ::getpid()),
                             Field("program", &ProcessInfo::program, "triage_test"))),
                 Field("roundTrip", &Answer::roundTrip, testing::Gt(std::chrono::nanoseconds(0))));
  };
  EXPECT_THAT(outcome.answers,
              UnorderedElementsAre(is("success", true), is("failure", false), is("unknown status 7", false),
                                   is("answer to another request", false), is("unreadable answer", false),
                                   is("unreadable answer", false)));
  EXPECT_EQ(outcome.silentCount, 0U);
}

TEST_F(EnquiryTest, WhoListensAndDoesNotAnswerIsCountedAndNamedIfContextsHaveNoNames) {
  for (const bool haveNames : {false, true}) {
    std::atomic_flag isAsked;
    const Listener silent(Raises(isAsked), haveNames ? "silent" : "");
    const Listener answering(AnswersAfter(isAsked), haveNames ? "answering" : "");
    const auto outcome = Ask(1);
    ASSERT_THAT(outcome.answers, SizeIs(1));
    EXPECT_EQ(outcome.silentCount, 1U);
    ASSERT_THAT(outcome.silent, SizeIs(haveNames ? 0 : 1));
    if (!haveNames) {
      EXPECT_NE(outcome.silent[0].context, outcome.answers[0].process.context);
    }
  }
}

TEST_F(EnquiryTest, WhoListensLaterIsAskedTooAndNobodyCountsTwice) {
  std::promise<void> askedAgain;
  std::unique_ptr<Listener> later;
  const Listener first([&](const lbm::Message& message) {
    Answers(0)(message);
    if (later == nullptr) {
      later = std::make_unique<Listener>([&](const lbm::Message& same) {
        EXPECT_EQ(askedAgain.get_future().wait_for(kLong), std::future_status::ready);
        Answers(0)(same);
      });
    } else {
      askedAgain.set_value();
    }
  });
  const auto outcome = Ask(2);
  ASSERT_THAT(outcome.answers, SizeIs(2));
  EXPECT_NE(outcome.answers[0].process.context, outcome.answers[1].process.context);
}

TEST_F(EnquiryTest, EndsAsSoonAsAllWhoListenHaveAnswered) {
  for (const bool haveNames : {false, true}) {
    std::atomic_flag isOtherAsked;
    const Listener one(AnswersAfter(isOtherAsked), haveNames ? "one" : "");
    const Listener other(
        [&](const lbm::Message& message) {
          Raises(isOtherAsked)(message);
          Answers(0)(message);
        },
        haveNames ? "other" : "");
    const auto start = Enquiry::Clock::now();
    EXPECT_THAT(Ask({}).answers, SizeIs(2));
    EXPECT_LT(Enquiry::Clock::now() - start, kLong / 2);
  }
}

TEST_F(EnquiryTest, WhoIsAskedAndEndsIsReportedAndNotWaitedFor) {
  std::atomic_flag isAsked;
  std::optional<Listener> dying(Raises(isAsked));
  const Listener answering(AnswersAfter(isAsked));
  std::jthread death([&] {
    isAsked.wait(false);
    dying.reset();
  });
  const auto outcome = Ask({});
  EXPECT_THAT(outcome.answers, SizeIs(1));
  EXPECT_EQ(outcome.silentCount, 1U);
  EXPECT_THAT(outcome.silent, IsEmpty());
  EXPECT_THAT(outcome.ended, SizeIs(1));
}

TEST_F(EnquiryTest, WhoComesAndGoesAllTheTimeDoesNotKeepItFromAsking) {
  const Listener steady(Answers(0));
  std::jthread passing([](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      const Listener brief([](const lbm::Message&) {});
    }
  });
  EXPECT_THAT(Ask(100, std::chrono::seconds(2)).answers, SizeIs(1));
}

TEST_F(EnquiryTest, AShortTimeoutLeavesTimeToAsk) {
  const Listener listener(Answers(0));
  for (int attempt = 0; attempt < 50; ++attempt) {
    if (!Ask({}, std::chrono::milliseconds(100)).answers.empty()) {
      return;
    }
  }
  FAIL() << "nobody was asked within 100 ms";
}

TEST_F(EnquiryTest, ASignalEndsTheWait) {
  const Listener interrupting([](const lbm::Message&) { ::kill(::getpid(), SIGTERM); });
  EXPECT_EQ(Ask({}).silentCount, 1U);
}

}  // namespace
}  // namespace triage
