#include "core/message_pool.h"

#include <gtest/gtest.h>

#include <malloc.h>

#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace engine::core {
namespace {

std::span<const std::byte> Bytes(std::string_view text) { return std::as_bytes(std::span(text.data(), text.size())); }

TEST(MessagePool, UsesAMessageAgainOnceNobodyHoldsIt) {
  const MessagePool::Owner pool = MessagePool::Create();
  MessageRef message = pool->Acquire();
  message->SetPayload(Bytes("payload"));
  message->source_clientd = message.Get();
  const Message* first = message.Get();
  const char* buffer = message->data;
  pool->Recycle(std::move(message));
  message = pool->Acquire();
  EXPECT_EQ(first, message.Get());
  EXPECT_EQ(nullptr, message->data);
  EXPECT_EQ(nullptr, message->source_clientd);
  message->SetPayload(Bytes("other"));
  EXPECT_EQ(buffer, message->data) << "the buffer was made anew";

  MessageRef kept = message;
  pool->Recycle(std::move(message));
  EXPECT_NE(kept.Get(), pool->Acquire().Get());
  EXPECT_EQ("other", std::string_view(kept->data, kept->len));
}

TEST(MessagePool, KeepsAFewMegabytesOfABurst) {
  const std::string payload(std::size_t{1} << 20, 'x');
  for (const bool dispatcherIsLast : {true, false}) {
    const MessagePool::Owner pool = MessagePool::Create();
    const std::size_t before = mallinfo2().hblkhd + mallinfo2().uordblks;
    std::vector<MessageRef> burst(64);
    for (MessageRef& message : burst) {
      message = pool->Acquire();
      message->SetPayload(Bytes(payload));
    }
    for (MessageRef& message : burst) {
      if (dispatcherIsLast) {
        pool->Recycle(std::move(message));
      } else {
        std::thread([held = std::move(message)] {}).join();
      }
    }
    EXPECT_LT(mallinfo2().hblkhd + mallinfo2().uordblks, before + 8 * payload.size());
    EXPECT_TRUE(pool->Acquire());
  }
}

}  // namespace
}  // namespace engine::core
