// Tests a client without servers and without a messaging library: the scripted provider delivers what the test says.
#include "price_book.h"

#include <gtest/gtest.h>

#include <lbm_scripted/lbm_scripted.h>
#include <future>

#include "ps_common/config/config.h"
#include "ps_common/connector/shutdown_guard.h"

class PriceBookTest : public ::testing::Test {
 protected:
  PriceBookTest() { lbm_scripted::Reset(); }

  // As everything of a client, on the dispatch thread.
  static void OnDispatchThread(const std::function<void()>& step) {
    std::promise<void> done;
    lbm_scripted::Post(lbm_scripted::FindContext(), [&] {
      step();
      done.set_value();
    });
    done.get_future().wait();
  }

  static lbm_scripted::Message Update(const char* symbol, const char* price) {
    feed::PriceMessage update;
    update.session = update.sequence = 1;
    update.symbol = *feed::Symbol::Parse(symbol);
    update.date = *feed::ParseDate("2000-01-31");
    update.price = *feed::Price::Parse(price);
    const auto bytes = feed::Encode(update);
    return {std::string(bytes.begin(), bytes.end())};
  }

  ps_ns::LbmClientResourceMgr m_manager{
      ps_ns::Config::Parse("<Config><General/><Logging/></Config>"), "test", false, -1, 100, {}, 0};
  ps_ns::ShutdownGuard m_guard{m_manager};
};

TEST_F(PriceBookTest, ForgetsItsPricesWhenTheServerGoes) {
  const ps_ns::ServerInstance instance{1, 1, 1, 0, "STOCKS"};
  const PriceBook book(m_manager, instance);
  lbm_rcv_t* const receiver = lbm_scripted::FindReceiver(m_manager.CreateSegmentTopic(instance, 0));
  OnDispatchThread([&] {
    lbm_scripted::Deliver(receiver, Update("MSFT", "28.37"));
    EXPECT_EQ(book.Find("MSFT"), feed::Price::Parse("28.37"));
    EXPECT_FALSE(book.Find("AAPL"));

    lbm_scripted::Message end;
    end.type = LBM_MSG_EOS;
    lbm_scripted::Deliver(receiver, end);
    EXPECT_FALSE(book.Find("MSFT"));
  });
}
