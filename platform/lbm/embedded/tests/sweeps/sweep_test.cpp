// Every call that the engine makes fails once, each in a process of its own, and then all calls from that one on until
// a shortage is over: what a call of the interface said it made works in the end, what it refused has left nothing, and
// every deletion succeeds. Runs some of the cases; all of them with LBM_SWEEP=all in the environment, and one, in this
// process, with LBM_SWEEP=<call>:<number>:<once or lasting>.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "../options/short_memory.h"
#include "world.h"

namespace sweep {
namespace {

void MakesAContext(World& world) {
  auto& first = world.NewContext();
  auto& source = world.NewSource(first, "T");
  world.NewReceiver(first, "U");
  world.Begin();
  auto& second = world.NewContext();
  world.NewReceiver(second, "T");
  world.NewSource(second, "U");
  world.Serve([&] { return source.subscribers == 1; });
}

void MakesSeveralReceivers(World& world) {
  auto& first = world.NewContext();
  world.NewSource(first, "T");
  const auto& source = world.NewSource(first, "U");
  auto& second = world.NewContext();
  auto* const queue = world.NewQueue();
  world.Begin();
  world.NewReceiver(second, "T");
  world.NewReceiver(second, "T", queue);
  world.NewReceiver(second, "U");
  world.NewReceiver(first, "U");  // itself
  world.Serve([&] { return source.subscribers == 2; });
}

void SendsALargeMessage(World& world) {
  auto& first = world.NewContext("65536");
  auto& source = world.NewSource(first, "T", "receiver");
  auto& second = world.NewContext();
  const auto& receiver = world.NewReceiver(second, "T");
  world.Serve([&] { return source.subscribers == 1; });
  world.Begin();
  world.Send(source, 500'000);
  world.Serve([&] { return receiver.last == source.sent; });
}

void AsksAndAnswers(World& world) {
  auto& first = world.NewContext();
  auto& source = world.NewSource(first, "T");
  auto& second = world.NewContext();
  world.NewReceiver(second, "T");
  world.Serve([&] { return source.subscribers == 1; });
  world.Begin();
  world.Ask(source);
  world.Serve([&] { return source.responses == 1; });
  world.CloseRequest(source);
}

void UsesAQueue(World& world) {
  auto& first = world.NewContext();
  auto& source = world.NewSource(first, "T");
  auto& second = world.NewContext();
  world.Begin();
  const auto& receiver = world.NewReceiver(second, "T", world.NewQueue());
  world.Serve([&] { return source.subscribers == 1; });
  for (int i = 0; i < 3; ++i) {
    world.Send(source);
    world.Serve([&] { return receiver.last == source.sent; });
  }
}

void WatchesDescriptors(World& world) {
  auto& context = world.NewContext();
  auto* const queue = world.NewQueue();
  world.Begin();
  auto& queued = world.Watch(context, queue);
  auto& other = world.Watch(context, nullptr);
  for (auto* watched : {&queued, &other}) {
    static_cast<void>(!::write(watched->pipe.writer.Get(), "!", 1));
  }
  world.Serve([&] { return queued.bytes == 1 && other.bytes == 1; });
  world.VerifyWatched(queued);
  world.VerifyWatched(other);
}

void CancelsDescriptors(World& world) {
  auto& context = world.NewContext();
  auto* const queue = world.NewQueue();
  auto& queued = world.Watch(context, queue);
  auto& other = world.Watch(context, nullptr);
  auto& third = world.Watch(context, queue);
  auto& fourth = world.Watch(context, nullptr);
  static_cast<void>(!::write(queued.pipe.writer.Get(), "!", 1));
  world.Begin();
  world.Cancel(third);
  world.Cancel(fourth);
  world.CancelAndAwaitNotice(other);
  world.Begin();
  world.CancelAndAwaitNotice(queued);
}

void DeletesASourceAndAReceiver(World& world) {
  auto& first = world.NewContext();
  auto& source = world.NewSource(first, "T");
  auto& own = world.NewSource(first, "U");
  auto& second = world.NewContext();
  auto& receiver = world.NewReceiver(second, "T");
  world.NewReceiver(second, "T", world.NewQueue());
  auto& ending = world.NewReceiver(second, "U");
  world.Serve([&] { return source.subscribers == 1 && own.subscribers == 1; });
  for (auto* each : {&source, &own}) {
    world.Send(*each);
  }
  world.Serve([&] { return receiver.last == 1 && ending.last == 1; });
  world.Begin();
  world.Delete(ending);
  world.Serve([&] { return own.subscribers == 0; });
  world.Delete(source);
  world.Serve([&] { return receiver.sources == 0 && receiver.announced == 0; });
}

void DeletesEverything(World& world) {
  auto& first = world.NewContext();
  auto& source = world.NewSource(first, "T");
  auto& second = world.NewContext();
  auto* const queue = world.NewQueue();
  world.NewReceiver(second, "T", queue);
  world.NewReceiver(second, "T");
  world.Watch(second, queue);
  world.Watch(second, nullptr);
  world.Serve([&] { return source.subscribers == 1; });
  world.Ask(source);
  world.Send(source);
  world.Begin();
  world.DeleteAll();
  world.End();
}

void MeetsAPeerThatComesAndGoes(World& world) {
  auto& first = world.NewContext();
  auto& source = world.NewSource(first, "T");
  auto& receiver = world.NewReceiver(first, "U");
  world.Begin();
  auto& second = world.NewContext();
  world.NewReceiver(second, "T");
  auto& theirs = world.NewSource(second, "U");
  world.Serve([&] { return source.subscribers == 1 && theirs.subscribers == 1; });
  world.Send(source);
  world.Send(theirs);
  world.Serve([&] { return receiver.last == 1; });
  world.Delete(second);
  world.Serve([&] { return source.subscribers == 0 && receiver.sources == 0; });
}

struct Scenario {
  const char* name;
  void (*run)(World&);
};

constexpr std::array kScenarios = {Scenario{"MakesAContext", MakesAContext},
                                   Scenario{"MakesSeveralReceivers", MakesSeveralReceivers},
                                   Scenario{"SendsALargeMessage", SendsALargeMessage},
                                   Scenario{"AsksAndAnswers", AsksAndAnswers},
                                   Scenario{"UsesAQueue", UsesAQueue},
                                   Scenario{"WatchesDescriptors", WatchesDescriptors},
                                   Scenario{"CancelsDescriptors", CancelsDescriptors},
                                   Scenario{"DeletesASourceAndAReceiver", DeletesASourceAndAReceiver},
                                   Scenario{"DeletesEverything", DeletesEverything},
                                   Scenario{"MeetsAPeerThatComesAndGoes", MeetsAPeerThatComesAndGoes}};

constexpr std::array kFailures = {Failure{Call::kNew, ENOMEM, "new"},
                                  Failure{Call::kAccept, EMFILE, "accept4-EMFILE"},
                                  Failure{Call::kAccept, ECONNABORTED, "accept4-ECONNABORTED"},
                                  Failure{Call::kAccept, EINTR, "accept4-EINTR"},
                                  Failure{Call::kBind, ENOSPC, "bind-ENOSPC"},
                                  Failure{Call::kConnect, ECONNREFUSED, "connect-ECONNREFUSED"},
                                  Failure{Call::kConnect, ENOMEM, "connect-ENOMEM"},
                                  Failure{Call::kConnect, EACCES, "connect-EACCES"},
                                  Failure{Call::kConnect, EAGAIN, "connect-EAGAIN"},
                                  Failure{Call::kConnect, EINTR, "connect-EINTR"},
                                  Failure{Call::kEpollCreate, EMFILE, "epoll_create1-EMFILE"},
                                  Failure{Call::kEpollControl, ENOSPC, "epoll_ctl-ENOSPC"},
                                  Failure{Call::kEpollWait, EINTR, "epoll_wait-EINTR"},
                                  Failure{Call::kEventfd, EMFILE, "eventfd-EMFILE"},
                                  Failure{Call::kListDirectory, ENOMEM, "fdopendir-ENOMEM"},
                                  Failure{Call::kLinkat, ENOSPC, "linkat-ENOSPC"},
                                  Failure{Call::kListen, ENOMEM, "listen-ENOMEM"},
                                  Failure{Call::kMemfdCreate, EMFILE, "memfd_create-EMFILE"},
                                  Failure{Call::kMkdirat, ENOSPC, "mkdirat-ENOSPC"},
                                  Failure{Call::kMmap, ENOMEM, "mmap-ENOMEM"},
                                  Failure{Call::kOpenat, EMFILE, "openat-EMFILE"},
                                  Failure{Call::kOpenat, EINTR, "openat-EINTR"},
                                  Failure{Call::kPoll, EINTR, "poll-EINTR"},
                                  Failure{Call::kPosixFallocate, ENOSPC, "posix_fallocate-ENOSPC"},
                                  Failure{Call::kPthreadCreate, EAGAIN, "pthread_create-EAGAIN"},
                                  Failure{Call::kReceive, ENOMEM, "recvmsg-ENOMEM"},
                                  Failure{Call::kReceive, EINTR, "recvmsg-EINTR"},
                                  Failure{Call::kRename, ENOSPC, "renameat-ENOSPC"},
                                  Failure{Call::kSend, ENOMEM, "sendmsg-ENOMEM"},
                                  Failure{Call::kSend, EAGAIN, "sendmsg-EAGAIN"},
                                  Failure{Call::kSend, ENOBUFS, "sendmsg-ENOBUFS"},
                                  Failure{Call::kSend, ETOOMANYREFS, "sendmsg-ETOOMANYREFS"},
                                  Failure{Call::kSend, EINTR, "sendmsg-EINTR"},
                                  Failure{Call::kSocket, EMFILE, "socket-EMFILE"},
                                  Failure{Call::kSocketpair, EMFILE, "socketpair-EMFILE"},
                                  Failure{Call::kTimerCreate, EMFILE, "timerfd_create-EMFILE"}};

struct Case {
  const Failure* failure;
  long number;
  bool lasting;
};

std::string TextOf(const Case& one) {
  return std::string(one.failure->text) + ':' + std::to_string(one.number) + ':' + (one.lasting ? "lasting" : "once");
}

// Not where the only thing to do is to go on, and not what only a dead context does twice.
bool MayLast(const Failure& failure) {
  return failure.error != EINTR && failure.error != ECONNABORTED && failure.error != ECONNREFUSED;
}

long OpenDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return std::distance(begin(all), end(all));
}

class Sweep : public testing::TestWithParam<std::tuple<Scenario, bool>> {
 protected:
  // What does not work; nothing else.
  static std::string Run(const Case& one) {
    const auto [scenario, embedded] = GetParam();
    const long descriptors = OpenDescriptors();
    const long allocations = engine::test::LiveAllocations();
    const Doing test(Doing::Whose::kTest);
    try {
      World world(embedded, *one.failure, one.number, one.lasting);
      scenario.run(world);
      world.Verify();
      world.DeleteAll();
      world.ExpectEmptyDomain();
    } catch (const std::exception& error) {
      return error.what();
    }
    Disarm();
    if (const long left = OpenDescriptors() - descriptors; left != 0) {
      return std::to_string(left) + " descriptors are left";
    }
    if (const long left = engine::test::LiveAllocations() - allocations; left != 0) {
      return std::to_string(left) + " allocations are left";
    }
    return "";
  }

  // The same in a process of its own.
  static std::string RunApart(const Case& one) {
    std::fflush(nullptr);
    const auto report = test_support::MakePipe();
    const pid_t child = ::fork();
    if (child == 0) {
      ::alarm(60);
      lbm_log(
          +[](int, const char*, void*) { return 0; }, nullptr);
      const std::string text = Run(one);
      static_cast<void>(!::write(report.writer.Get(), text.data(), text.size()));
      ::_exit(text.empty() ? 0 : 1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFSIGNALED(status)) {
      return "ended by signal " + std::to_string(WTERMSIG(status));
    }
    char text[1000];
    const ssize_t size = WEXITSTATUS(status) == 1 ? ::read(report.reader.Get(), text, sizeof(text)) : 0;
    return size > 0 ? std::string(text, static_cast<std::size_t>(size))
                    : (status == 0 ? "" : "ended with " + std::to_string(WEXITSTATUS(status)));
  }
};

TEST_P(Sweep, LeavesAllThatWasMadeInWorkingOrder) {
  constexpr long kNever = 1'000'000'000;
  const char* const chosen = std::getenv("LBM_SWEEP");
  const std::string_view choice = chosen != nullptr ? chosen : "";
  std::vector<Case> cases;
  // What is made once in a process has been made after the first time.
  for (int round = 0; round < 2; ++round) {
    const std::string text = Run({&kFailures[0], kNever, false});
    if (round > 0 || text.find("left") == std::string::npos) {
      ASSERT_EQ(text, "") << "although nothing fails";
    }
  }
  for (const Failure& failure : kFailures) {
    const long calls = Counted(failure.call);
    for (long number = 1; number <= calls; ++number) {
      cases.push_back({&failure, number, false});
      if (MayLast(failure)) {
        cases.push_back({&failure, number, true});
      }
    }
  }
  if (choice.find(':') != std::string_view::npos) {
    for (const Case& one : cases) {
      if (TextOf(one) == choice) {
        EXPECT_EQ(Run(one), "");
      }
    }
    return;
  }
  constexpr std::size_t kSome = 16;
  const std::size_t step = choice == "all" || cases.size() < kSome ? 1 : cases.size() / kSome;
  std::size_t failed = 0;
  for (std::size_t i = 0; i < cases.size(); i += step) {
    const std::string text = RunApart(cases[i]);
    failed += text.empty() ? 0 : 1;
    EXPECT_EQ(text, "") << TextOf(cases[i]);
  }
  std::printf("%zu of %zu cases, %zu failed\n", (cases.size() + step - 1) / step, cases.size(), failed);
}

INSTANTIATE_TEST_SUITE_P(Failures, Sweep, testing::Combine(testing::ValuesIn(kScenarios), testing::Bool()),
                         [](const auto& one) {
                           return std::string(std::get<0>(one.param).name) +
                                  (std::get<1>(one.param) ? "InEmbeddedMode" : "InSequentialMode");
                         });

}  // namespace
}  // namespace sweep
