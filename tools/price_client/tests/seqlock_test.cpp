#include "seqlock.h"

#include <gtest/gtest.h>

#include <thread>

namespace price_client {
namespace {

struct Value {
  std::array<std::uint64_t, 8> copies{};
  std::uint8_t tail = 0;
};

TEST(Seqlock, ReadersSeeWholeValuesOnlyAndNeverGoBack) {
  constexpr std::uint64_t kLast = 20'000;
  Seqlock<Value> shared;
  std::thread writer([&shared] {
    for (std::uint64_t i = 1; i <= kLast; ++i) {
      Value value;
      value.copies.fill(i);
      value.tail = static_cast<std::uint8_t>(i);
      shared.Store(value);
    }
  });
  std::uint64_t latest = 0;
  bool whole = true;
  while (latest < kLast && whole) {
    const auto value = shared.Load();
    for (const auto copy : value.copies) {
      whole = whole && copy == value.copies[0];
    }
    whole = whole && value.tail == static_cast<std::uint8_t>(value.copies[0]) && value.copies[0] >= latest;
    latest = value.copies[0];
  }
  writer.join();
  EXPECT_TRUE(whole) << "at " << latest;
}

}  // namespace
}  // namespace price_client
