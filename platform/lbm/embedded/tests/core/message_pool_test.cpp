#include "core/message_pool.h"

#include <gtest/gtest.h>

#include <string_view>
#include <thread>
#include <vector>

namespace engine::core {
namespace {

std::span<const std::byte> bytes(std::string_view text) { return std::as_bytes(std::span(text.data(), text.size())); }

TEST(MessagePool, UsesAMessageAgainOnceNobodyHoldsIt) {
  const MessagePool::Owner pool = MessagePool::create();
  MessageRef message = pool->acquire();
  message->setPayload(bytes("payload"));
  message->source_clientd = message.get();
  const Message* first = message.get();
  const char* buffer = message->data;
  pool->recycle(std::move(message));
  message = pool->acquire();
  EXPECT_EQ(first, message.get());
  EXPECT_EQ(nullptr, message->data);
  EXPECT_EQ(nullptr, message->source_clientd);
  message->setPayload(bytes("other"));
  EXPECT_EQ(buffer, message->data) << "the buffer was made anew";

  MessageRef kept = message;
  pool->recycle(std::move(message));
  EXPECT_NE(kept.get(), pool->acquire().get());
  EXPECT_EQ("other", std::string_view(kept->data, kept->len));
}

TEST(MessagePool, StaysUntilItsLastMessageComesBack) {
  MessagePool::Owner pool = MessagePool::create();
  std::vector<std::thread> holders;
  for (int i = 0; i < 4; ++i) {
    MessageRef message = pool->acquire();
    message->setPayload(bytes("shared"));
    holders.emplace_back([held = message] { EXPECT_EQ("shared", std::string_view(held->data, held->len)); });
    pool->recycle(std::move(message));
  }
  pool.reset();
  for (std::thread& holder : holders) {
    holder.join();
  }
}

}  // namespace
}  // namespace engine::core
