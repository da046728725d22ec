// Requests on the messaging library that the build is for, with contexts that have threads of their own.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "lbm/lbm_cpp"
#include "test_support/private_domain.h"
#include "zq/logging/log_level.h"

namespace lbm {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds kPatience(30);

// Sent again only when somebody begins to listen.
constexpr RequestOptions kByEventsOnly{kPatience, RequestOptions::kNoTimeout};

Answer Content(const Message&) { return Answer::kComplete; }

// Collects the outcomes that are told on other threads.
class Outcomes {
 public:
  OutcomeCallback Callback() {
    return [this](RequestOutcome outcome) {
      const std::lock_guard lock(m_mutex);
      m_outcomes.push_back(outcome);
      m_more.notify_all();
    };
  }

  // Those that have come once there are count.
  std::vector<RequestOutcome> Await(std::size_t count) {
    std::unique_lock lock(m_mutex);
    EXPECT_TRUE(m_more.wait_for(lock, 2 * kPatience, [&] { return m_outcomes.size() >= count; }))
        << "waited for outcome " << count << " of a request";
    return m_outcomes;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_more;
  std::vector<RequestOutcome> m_outcomes;
};

class RequestRaceTest : public ::testing::Test {
 protected:
  RequestRaceTest() {
    ::setenv("DISABLE_LBM_TRIAGE_HANDLER", "1", 1);
    zq::logging::g_minLogLevel = zq::logging::ZQLOG_WARNING;
    m_clients.emplace(ContextAttributes());
    m_servers.emplace(ContextAttributes());
  }

  static SourceTopic TopicToSend(Context& context, const std::string& name) {
    return {context, name, SourceTopicAttributes()};
  }

  // Answers every request on the topic with these texts.
  static std::unique_ptr<Receiver> Listen(Context& context, const std::string& topic,
                                          std::vector<std::string> answers) {
    return std::make_unique<Receiver>(context, ReceiverTopic(context, topic, ReceiverTopicAttributes()),
                                      [answers = std::move(answers)](const Message& message) {
                                        if (message.Type() == LBM_MSG_REQUEST) {
                                          for (const auto& answer : answers) {
                                            message.GetResponse().Send(answer, LBM_SRC_NONBLOCK);
                                          }
                                        }
                                      });
  }

  const test_support::PrivateDomain m_domain;
  std::optional<Context> m_clients;
  std::optional<Context> m_servers;
};

TEST_F(RequestRaceTest, ARequestMadeInTheInstantOfItsSourceIsAnsweredWheneverTheServerBegins) {
  constexpr int kRounds = 1000;
  enum class Server { kBefore, kAtTheSameTime, kAfter };
  int answered = 0;
  std::barrier together(2);
  std::unique_ptr<Receiver> server;
  const auto topicOf = [](int round) { return "RACE." + std::to_string(round); };
  const auto listen = [&](int round) { server = Listen(*m_servers, topicOf(round), {"answer"}); };
  std::thread other([&] {
    for (int round = 0; round < kRounds; ++round) {
      together.arrive_and_wait();
      if (Server(round % 3) == Server::kAtTheSameTime) {
        listen(round);
      }
      together.arrive_and_wait();
    }
  });
  for (int round = 0; round < kRounds; ++round) {
    const auto when = Server(round % 3);
    server.reset();
    if (when == Server::kBefore) {
      listen(round);
    }
    together.arrive_and_wait();
    Outcomes outcomes;
    RequestSource requests(*m_clients, TopicToSend(*m_clients, topicOf(round)));
    const auto request = requests.Ask("ask", kByEventsOnly, Content, outcomes.Callback());
    together.arrive_and_wait();
    if (when == Server::kAfter) {
      listen(round);
    }
    const auto outcome = outcomes.Await(1);
    answered += !outcome.empty() && outcome.front() == RequestOutcome::kAnswered ? 1 : 0;
  }
  other.join();
  server.reset();
  EXPECT_EQ(answered, kRounds);
}

// Threads ask and cancel while answers and time-outs come; now and then a source goes with requests that are open.
TEST_F(RequestRaceTest, EveryRequestIsEitherCancelledOrToldItsOutcomeOnce) {
  constexpr int kThreads = 3;
  constexpr int kRequests = 2000;
  const auto server = Listen(*m_servers, "PRICES", {"part", "whole"});
  std::atomic<int> faults = 0;
  const auto work = [&](int thread) {
    std::optional<RequestSource> requests;
    for (int count = 0; count < kRequests; ++count) {
      if (count % 50 == 0) {
        requests.emplace(*m_clients, TopicToSend(*m_clients, "PRICES"));
      }
      std::atomic<int> told = 0;
      const RequestOptions options{milliseconds(count % 4 == 0 ? 1 : 10'000), milliseconds(1)};
      auto request = requests->Ask(
          "ask", options,
          [](const Message& message) { return message.Length() == 5 ? Answer::kComplete : Answer::kPartial; },
          [&told](RequestOutcome) { ++told; });
      if (count % 50 == 49) {
        requests.reset();
        faults += told > 1 || request.IsOpen() ? 1 : 0;
        continue;
      }
      for (int turn = 0; turn < (count + thread) % 3 * 100 && request.IsOpen(); ++turn) {
        std::this_thread::yield();
      }
      const bool isCancelled = request.Cancel();
      faults += told + (isCancelled ? 1 : 0) != 1 ? 1 : 0;
    }
  };
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back(work, thread);
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(faults, 0);
}

}  // namespace
}  // namespace lbm
