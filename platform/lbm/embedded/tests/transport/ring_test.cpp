#include "transport/host/ring/ring.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <deque>
#include <random>
#include <string>
#include <thread>

#include "transport/host/ring/parking_word.h"

namespace engine::transport::host {
namespace {

// Narrow cursors and a few bytes, so that everything wraps all the time.
template <typename Cursor, std::size_t Capacity>
struct TinyRing {
  RingControl<Cursor> control{};
  alignas(8) std::array<std::byte, Capacity> bytes{};
  RingProducer<Cursor> producer{control, bytes};
  RingConsumer<Cursor> consumer{control, bytes};

  bool Put(const std::string& text, std::uint32_t tag = 1) {
    std::byte* const to = producer.Reserve(text.size(), tag);
    if (to == nullptr) {
      return false;
    }
    std::memcpy(to, text.data(), text.size());
    producer.Commit();
    return true;
  }

  // The next frame's content; empty when there is none.
  std::string Take() {
    RingFrame frame;
    if (!consumer.Poll() || !consumer.Next(frame)) {
      consumer.Release();
      return {};
    }
    std::string text(reinterpret_cast<const char*>(frame.content.data()), frame.content.size());
    consumer.Release();
    return text;
  }
};

template <typename Ring>
class RingTest : public testing::Test {};
using Rings = testing::Types<TinyRing<std::uint8_t, 64>, TinyRing<std::uint8_t, 128>, TinyRing<std::uint16_t, 256>>;
TYPED_TEST_SUITE(RingTest, Rings);

TYPED_TEST(RingTest, GivesEveryFrameOnceInOrderWhateverTheirSizes) {
  TypeParam ring;
  std::mt19937 random(1);
  std::deque<std::string> inside;
  std::size_t refused = 0;
  std::size_t taken = 0;
  for (int step = 0; step < 200'000; ++step) {
    if (random() % 2 == 0) {
      const std::string text(1 + random() % (ring.bytes.size() / 2), static_cast<char>('a' + step % 26));
      if (ring.producer.HasSpace(text.size())) {
        ASSERT_TRUE(ring.Put(text));
        inside.push_back(text);
      } else {
        ASSERT_FALSE(ring.Put(text));
        ++refused;
      }
    } else if (inside.empty()) {
      ASSERT_EQ(ring.Take(), "");
    } else {
      ASSERT_EQ(ring.Take(), inside.front());
      inside.pop_front();
      ++taken;
    }
  }
  EXPECT_GT(refused, 1000U);
  EXPECT_GT(taken, 1000U);
}

TYPED_TEST(RingTest, HasItsEdgesAtEveryPlace) {
  const std::size_t capacity = TypeParam().bytes.size();
  for (std::size_t place = 0; place < std::size_t{2} * 256; place += 8) {
    TypeParam ring;
    for (std::size_t i = 0; i < place; i += 8) {
      ASSERT_TRUE(ring.Put(""));
      ring.Take();
    }
    ASSERT_EQ(ring.producer.FreeSpace(), capacity);
    for (std::size_t i = 8; i < capacity; i += 8) {  // to the last byte but for the header of zero
      ASSERT_TRUE(ring.Put(""));
    }
    ASSERT_EQ(ring.producer.FreeSpace(), 8U);
    ASSERT_FALSE(ring.Put(""));
    RingFrame frame;
    ASSERT_TRUE(ring.consumer.Poll());
    for (std::size_t i = 8; i < capacity; i += 8) {
      ASSERT_TRUE(ring.consumer.Next(frame));
    }
    ASSERT_FALSE(ring.consumer.Next(frame));
    ASSERT_FALSE(ring.consumer.Poll());
    ring.consumer.Release();
    // With a quarter free there is room for an eighth wherever the end is.
    while (ring.producer.FreeSpace() >= capacity / 4) {
      ASSERT_TRUE(ring.Put(std::string(capacity / 8 - sizeof(RingFrameHeader), 'x')));
    }
  }
}

TYPED_TEST(RingTest, GrantsCreditOnceAndOnlyWhenHalfIsFree) {
  TypeParam ring;
  const std::size_t slots = ring.bytes.size() / 8;
  for (std::size_t i = 1; i < slots; ++i) {
    ASSERT_TRUE(ring.Put(""));
  }
  const std::uint32_t granted = ring.producer.RequestCredit();
  EXPECT_EQ(ring.producer.RequestCredit(), granted);
  RingFrame frame;
  ASSERT_TRUE(ring.consumer.Poll());
  for (std::size_t i = 1; i < slots; ++i) {
    EXPECT_EQ(ring.consumer.Release(), i > slots / 2) << i;
    ASSERT_TRUE(ring.consumer.Next(frame));
  }
  EXPECT_NE(ring.consumer.GrantCredit(), granted);
  EXPECT_FALSE(ring.consumer.Release());
  ring.producer.RequestCredit();
  EXPECT_TRUE(ring.consumer.Release());
}

TYPED_TEST(RingTest, NobodyIsHeldUpByPaddingWithoutEnd) {
  TypeParam ring;
  const RingFrameHeader padding{0, kRingPadding};
  for (std::size_t place = 0; place < ring.bytes.size(); place += sizeof(padding)) {
    std::memcpy(&ring.bytes[place], &padding, sizeof(padding));
  }
  RingFrame frame;
  ASSERT_TRUE(ring.consumer.Poll());
  EXPECT_FALSE(ring.consumer.Next(frame));
}

// So that a peer cannot keep a context asleep.
TEST(ParkingWord, CannotBeWrittenByThoseItIsPassedTo) {
  const ParkingWord word;
  const zq::posix::Descriptor passed(::dup(word.GetDescriptor()));
  const char byte = 1;
  EXPECT_EQ(::pwrite(passed.Get(), &byte, 1, 0), -1);
  EXPECT_EQ(::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, passed.Get(), 0), MAP_FAILED);
  EXPECT_EQ(::ftruncate(passed.Get(), 0), -1);
}

// Both at the same moment, over and over: a producer that looks whether the consumer is still busy, and a consumer that
// stops being busy, parks and polls once more. One of them has to see the other.
TEST(RingThreads, ABusyConsumerDoesNotParkOverAFrame) {
  constexpr int kTimes = 30'000;
  constexpr int kOver = kTimes + 1;
  // Where the processors are busy each time costs the threads their turns.
  const auto enough = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  TinyRing<std::uint16_t, 256> ring;
  ParkingWord parkingWord;
  PeerParkingWord peerWord{zq::posix::Descriptor(::dup(parkingWord.GetDescriptor()))};
  std::atomic<int> begun{0};
  std::atomic<int> written{0};
  bool rang = false;
  const auto waitFor = [](const std::atomic<int>& counter, int value) {
    for (int looks = 0; counter.load() < value; ++looks) {
      looks < 1000 ? SpinPause() : std::this_thread::yield();
    }
  };
  const std::jthread producing([&] {
    for (int time = 1; time <= kTimes; ++time) {
      waitFor(begun, time);
      if (begun.load() == kOver) {
        return;
      }
      static_cast<void>(peerWord.Busy());  // so that the word is at hand and the ring is not
      ring.Put("frame");
      rang = false;
      if (!peerWord.Busy()) {
        ring.producer.FenceCommit();
        rang = peerWord.NeedsDoorbell();
      }
      written = time;
    }
  });
  for (int time = 1; time <= kTimes; ++time) {
    parkingWord.NoteConsumed(ParkingWord::kBusyAfter);
    begun = time;
    for (int i = 0; i < time % 32; ++i) {
      SpinPause();
    }
    parkingWord.Park();
    const bool seen = ring.consumer.Poll();
    waitFor(written, time);
    EXPECT_TRUE(seen || rang) << time;
    EXPECT_EQ(ring.Take(), "frame");
    parkingWord.Unpark();
    if (std::chrono::steady_clock::now() > enough) {
      break;
    }
  }
  begun = kOver;
}

}  // namespace
}  // namespace engine::transport::host
