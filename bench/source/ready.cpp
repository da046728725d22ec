// From the moment when a server listens, or is asked if that is later, to its answer, between two processes on the
// engine. The source of the request is made in the same instant as the request; the server begins to listen before, at
// the same time or after.
#include <lbm/lbm_cpp>

#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <future>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "bench/bench.h"
#include "test_support/private_domain.h"
#include "zq/logging/log_level.h"
#include "zq/posix/descriptor.h"

namespace {

using Clock = std::chrono::steady_clock;  // the same in both processes
using std::chrono::milliseconds;

constexpr int kRequests = 1000;
constexpr milliseconds kAim(5);
enum class ServerListens { kBefore, kAtTheSameTime, kAfter };

std::string TopicOf(int round) { return "READY." + std::to_string(round); }

// Begins to listen to a topic for each number that comes on the socket, and answers with the time when it listens.
[[noreturn]] void Serve(int socket) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  std::cout.rdbuf(nullptr);
  lbm::Context context{lbm::ContextAttributes()};
  std::optional<lbm::Receiver> receiver;
  int round = 0;
  while (::read(socket, &round, sizeof round) == sizeof round) {
    receiver.emplace(context, lbm::ReceiverTopic(context, TopicOf(round), lbm::ReceiverTopicAttributes()),
                     [](const lbm::Message& message) {
                       if (message.Type() == LBM_MSG_REQUEST) {
                         message.GetResponse().Send("answer", LBM_SRC_NONBLOCK);
                       }
                     });
    const auto now = Clock::now();
    if (::write(socket, &now, sizeof now) != sizeof now) {
      break;
    }
  }
  std::_Exit(0);
}

// Made before this process has contexts of its own. Ends with it.
class Server {
 public:
  Server() {
    ::setenv("DISABLE_LBM_TRIAGE_HANDLER", "1", 1);
    zq::logging::g_minLogLevel = zq::logging::ZQLOG_WARNING;
    std::array<int, 2> ends{};
    zq::posix::Checked(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), "socketpair").Release();
    m_socket = zq::posix::Descriptor(ends[0]);
    const zq::posix::Descriptor theirs(ends[1]);
    if (::fork() == 0) {
      Serve(theirs.Get());
    }
  }

  void Begin(int round) const { Require(::write(m_socket.Get(), &round, sizeof round) == sizeof round); }

  Clock::time_point ListeningSince() const {
    Clock::time_point since;
    Require(::read(m_socket.Get(), &since, sizeof since) == sizeof since);
    return since;
  }

 private:
  static void Require(bool isThere) {
    if (!isThere) {
      std::cerr << "the server is gone\n";
      std::exit(1);
    }
  }

  const test_support::PrivateDomain m_domain;
  zq::posix::Descriptor m_socket;
};

// None for a request that was not answered.
std::optional<Clock::duration> TimeToAnswer(lbm::Context& context, const Server& server, ServerListens when) {
  static int round = 0;
  ++round;
  Clock::time_point listening;
  if (when != ServerListens::kAfter) {
    server.Begin(round);
  }
  if (when == ServerListens::kBefore) {
    listening = server.ListeningSince();
  }
  std::promise<std::optional<Clock::time_point>> answered;
  const auto asked = Clock::now();
  lbm::RequestSource requests(context, {context, TopicOf(round), lbm::SourceTopicAttributes()});
  const auto request = requests.Ask("request", {}, {}, [&](lbm::RequestOutcome outcome) {
    answered.set_value(outcome == lbm::RequestOutcome::kAnswered ? std::optional(Clock::now()) : std::nullopt);
  });
  if (when == ServerListens::kAfter) {
    server.Begin(round);
  }
  const auto end = answered.get_future().get();
  if (when != ServerListens::kBefore) {
    listening = server.ListeningSince();
  }
  if (!end) {
    return std::nullopt;
  }
  // The server's thread may answer before the one that made the receiver has looked at the clock.
  return std::max(*end - std::max(asked, listening), Clock::duration());
}

void ListeningToAnswer(benchmark::State& state, ServerListens when) {
  static const Server server;
  auto* const output = std::cout.rdbuf(nullptr);
  std::vector<Clock::duration> times;
  {
    lbm::Context context{lbm::ContextAttributes()};
    for (auto _ : state) {
      const auto time = TimeToAnswer(context, server, when);
      if (!time) {
        state.SkipWithError("a request was not answered");
        break;
      }
      times.push_back(*time);
      state.SetIterationTime(std::chrono::duration<double>(*time).count());
    }
  }
  std::cout.rdbuf(output);
  if (times.empty()) {
    return;
  }
  const auto isInTime = [](Clock::duration time) { return time <= kAim; };
  state.counters["requests"] = static_cast<double>(times.size());
  state.counters["within_5_ms"] = static_cast<double>(std::count_if(times.begin(), times.end(), isInTime));
  std::sort(times.begin(), times.end());
  state.counters["p50_ns"] = static_cast<double>(times[times.size() / 2].count());
  state.counters["longest_ns"] = static_cast<double>(times.back().count());
}

// A median of repetitions would hide the request that was late.
BENCHMARK_CAPTURE(ListeningToAnswer, ServerFirst, ServerListens::kBefore)
    ->Iterations(kRequests)
    ->Repetitions(1)
    ->UseManualTime();
BENCHMARK_CAPTURE(ListeningToAnswer, AtTheSameTime, ServerListens::kAtTheSameTime)
    ->Iterations(kRequests)
    ->Repetitions(1)
    ->UseManualTime();
BENCHMARK_CAPTURE(ListeningToAnswer, ServerLast, ServerListens::kAfter)
    ->Iterations(kRequests)
    ->Repetitions(1)
    ->UseManualTime();

}  // namespace
