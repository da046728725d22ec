#include "dispatch_thread.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

namespace price_client {
namespace {

// A thread that serves whenever it is woken.
class Server {
 public:
  explicit Server(int patience = DispatchThread::kPatience) : m_dispatch([this] { Wake(); }, patience) {}

  DispatchThread& Dispatch() { return m_dispatch; }
  std::thread::id Id() const { return m_thread.get_id(); }

  void End() {
    m_isEnding = true;
    Wake();
    m_thread.join();
  }

 private:
  void Wake() {
    ++m_wakes;
    m_wakes.notify_one();
  }
  void Run() {
    for (int seen = 0; !m_isEnding;) {
      m_wakes.wait(seen);
      seen = m_wakes;
      m_dispatch.Serve();
    }
  }

  std::atomic<int> m_wakes{0};
  std::atomic<bool> m_isEnding{false};
  DispatchThread m_dispatch;
  std::thread m_thread{[this] { Run(); }};
};

TEST(DispatchThread, RunsTasksWhereNothingElseRunsAndGivesBackWhatTheyThrow) {
  Server server;
  int runs = 0;
  for (int i = 0; i < 100; ++i) {
    std::thread::id ranOn;
    server.Dispatch().Run([&] {
      ranOn = std::this_thread::get_id();
      ++runs;
    });
    EXPECT_EQ(ranOn, server.Id());
  }
  EXPECT_THROW(server.Dispatch().Run([] { throw std::invalid_argument("no"); }), std::invalid_argument);
  server.Dispatch().Run([&] { ++runs; });
  server.End();
  EXPECT_EQ(runs, 101);
}

TEST(DispatchThread, AThreadThatHasEndedIsToldFromOneThatWasEnded) {
  Server server(1);
  server.End();
  bool hasRun = false;
  EXPECT_THROW(server.Dispatch().Run([&] { hasRun = true; }), std::runtime_error);
  server.Dispatch().Serve();
  EXPECT_FALSE(hasRun);
  server.Dispatch().NoteEnd();
  server.Dispatch().Run([&] { hasRun = true; });
  EXPECT_TRUE(hasRun);
}

}  // namespace
}  // namespace price_client
