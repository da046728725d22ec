// The arguments about memory order at the top of ring.h and parking_word.h, tried in every execution that a machine
// with late stores allows.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <optional>
#include <vector>

#include "machine.h"
#include "transport/host/ring/parking_word.h"
#include "transport/host/ring/ring.h"

namespace engine::transport::host {
namespace {

using Cursor = std::uint8_t;
using Word = Atomic<std::uint64_t>;

constexpr std::size_t kCapacity = 64;
constexpr std::uint32_t kTag = 1;
constexpr std::uint64_t kStale = 0x0101010101010101;

class RingOrder : public testing::Test {
 protected:
  // An empty ring through which frames have gone before.
  void Prepare() {
    m_control.emplace();
    m_bytes.fill(std::byte{});
    m_producer.emplace(*m_control, m_bytes);
    m_consumer.emplace(*m_control, m_bytes);
    m_taken.clear();
    m_rung = false;
  }

  bool Put(std::uint64_t value) {
    std::byte* const to = m_producer->Reserve(sizeof value, kTag);
    if (to == nullptr) {
      return false;
    }
    reinterpret_cast<Word*>(to)->store(value, std::memory_order_relaxed);
    m_producer->Commit();
    return true;
  }

  void TakeAll() {
    RingFrame frame;
    if (!m_consumer->Poll()) {
      return;
    }
    while (m_consumer->Next(frame)) {
      ASSERT_EQ(frame.content.size(), sizeof(std::uint64_t));
      m_taken.push_back(reinterpret_cast<const Word*>(frame.content.data())->load(std::memory_order_relaxed));
    }
  }

  std::optional<RingControl<Cursor>> m_control;
  alignas(8) std::array<std::byte, kCapacity> m_bytes;
  std::optional<RingProducer<Cursor>> m_producer;
  std::optional<RingConsumer<Cursor>> m_consumer;
  std::vector<std::uint64_t> m_taken;
  bool m_rung = false;
};

TEST_F(RingOrder, AFrameIsSeenWithItsContentAndNothingBehindIt) {
  const std::size_t executions = model::TryAllExecutions({
      .prepare =
          [&] {
            Prepare();
            // What earlier frames have left where the next ones will be.
            std::memset(m_bytes.data() + sizeof(RingFrameHeader), 1, kCapacity - sizeof(RingFrameHeader));
          },
      .threads = {[&] { Put(42); }, [&] { TakeAll(); }},
      .verify =
          [&] {
            if (!m_taken.empty()) {
              EXPECT_EQ(m_taken, std::vector<std::uint64_t>{42});
            }
          },
  });
  EXPECT_GT(executions, 2U);
}

// What is free for the producer has been read.
TEST_F(RingOrder, TheSpaceOfAFrameIsNotGivenBackBeforeItIsRead) {
  const std::size_t executions = model::TryAllExecutions({
      .prepare =
          [&] {
            Prepare();
            for (std::uint64_t value = 1; Put(value); ++value) {
            }
          },
      .threads = {[&] { Put(kStale); }, [&] { TakeAll(); }},
      .verify =
          [&] {
            for (std::size_t i = 0; i < m_taken.size(); ++i) {
              if (m_taken[i] != kStale) {
                EXPECT_EQ(m_taken[i], i + 1);
              }
            }
            EXPECT_TRUE(m_taken.size() == 3 || m_taken.back() == kStale);
          },
  });
  EXPECT_GT(executions, 2U);
}

class ParkingOrder : public RingOrder, public testing::WithParamInterface<bool> {
 protected:
  // As a subscriber commits.
  void PutAndWake(PeerParkingWord& word) {
    Put(1);
    if (!word.Busy()) {
      m_producer->FenceCommit();
      m_rung = word.NeedsDoorbell() || m_rung;
    }
  }
};

INSTANTIATE_TEST_SUITE_P(BusyOrNot, ParkingOrder, testing::Bool());

TEST_P(ParkingOrder, NoConsumerSleepsOnAFrameThatNobodyWakesItFor) {
  ParkingWord own;
  const zq::posix::Descriptor passed(::dup(own.GetDescriptor()));
  PeerParkingWord seen(passed);
  bool asleep = false;
  const std::size_t executions = model::TryAllExecutions({
      .prepare =
          [&] {
            Prepare();
            own.Unpark();
            own.NoteConsumed(GetParam() ? ParkingWord::kBusyAfter : 1);
          },
      .threads = {[&] { PutAndWake(seen); },
                  [&] {
                    own.Park();
                    asleep = !m_consumer->Poll();
                  }},
      .verify = [&] { EXPECT_TRUE(m_rung || !asleep); },
  });
  EXPECT_GT(executions, 2U);
}

TEST_F(RingOrder, NoProducerWaitsForSpaceThatNobodyGrants) {
  // So large that it needs the space of all frames.
  constexpr std::size_t kSize = 24;
  std::size_t frames = 0;
  bool waits = false;
  std::uint32_t granted = 0;
  const std::size_t executions = model::TryAllExecutions({
      .prepare =
          [&] {
            Prepare();
            for (frames = 0; Put(1); ++frames) {
            }
            waits = false;
          },
      .threads = {[&] {
                    if (!m_producer->HasSpace(kSize)) {
                      granted = m_producer->RequestCredit();
                      waits = !m_producer->HasSpace(kSize);
                    }
                  },
                  [&] {
                    RingFrame frame;
                    m_consumer->Poll();
                    for (std::size_t taken = 0; taken < frames; ++taken) {
                      m_consumer->Next(frame);
                    }
                    if (m_consumer->Release()) {
                      m_consumer->GrantCredit();
                    }
                  }},
      .verify = [&] { EXPECT_TRUE(!waits || m_control->creditGranted.load() != granted); },
  });
  EXPECT_GT(executions, 2U);
}

}  // namespace
}  // namespace engine::transport::host
