#include "dispatch_thread.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

namespace price_client {
namespace {

TEST(DispatchThread, RunsATaskWhereItServesAndGivesBackWhatItThrows) {
  std::thread dispatching;
  std::thread::id ranOn;
  DispatchThread* served = nullptr;
  DispatchThread dispatch([&] { dispatching = std::thread([&] { served->Serve(); }); });
  served = &dispatch;
  const auto task = [&] {
    ranOn = std::this_thread::get_id();
    throw std::invalid_argument("no");
  };
  EXPECT_THROW(dispatch.Run(task), std::invalid_argument);
  EXPECT_EQ(ranOn, dispatching.get_id());
  dispatching.join();
}

TEST(DispatchThread, AThreadThatHasEndedIsToldFromOneThatWasEnded) {
  DispatchThread dispatch([] {}, 1);
  bool hasRun = false;
  EXPECT_THROW(dispatch.Run([&] { hasRun = true; }), std::runtime_error);
  dispatch.Serve();
  EXPECT_FALSE(hasRun);
  dispatch.NoteEnd();
  dispatch.Run([&] { hasRun = true; });
  EXPECT_TRUE(hasRun);
}

}  // namespace
}  // namespace price_client
