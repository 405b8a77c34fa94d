#include "gate/byte_queue.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using gate::ByteQueue;

std::string All(const ByteQueue& queue) {
  std::string bytes(queue.size(), '\0');
  EXPECT_EQ(queue.Copy(0, bytes.data(), bytes.size()), bytes.size());
  return bytes;
}

TEST(ByteQueueTest, BytesComeOutInOrder) {
  ByteQueue queue;
  std::string expected;
  for (int i = 0; i < 5000; ++i) {
    const std::string piece(static_cast<std::size_t>(i % 37), static_cast<char>(i));
    queue.Append(piece);
    expected += piece;
    if (i % 5 == 0) {
      const std::size_t count =
          std::min<std::size_t>(queue.size(), static_cast<std::size_t>(i % 83));
      queue.Drop(count);
      expected.erase(0, count);
    }
    ASSERT_EQ(queue.size(), expected.size());
  }
  EXPECT_EQ(All(queue), expected);
  for (std::size_t place = 0; place < expected.size(); place += 97) {
    const std::string_view part = queue.At(place);
    ASSERT_FALSE(part.empty());
    ASSERT_EQ(part, std::string_view(expected).substr(place, part.size()));
  }
  EXPECT_EQ(queue.At(queue.size()), "");
}

TEST(ByteQueueTest, ViewStaysWhileBytesAreAppended) {
  ByteQueue queue;
  queue.Append("first");
  const std::string_view view = queue.At(0);
  queue.Append(std::string(100'000, 'x'));
  EXPECT_EQ(view, "first");
  EXPECT_EQ(queue.At(0).substr(0, 6), "firstx");
}

TEST(ByteQueueTest, DroppingAPieceAndAHalfLeavesTheRest) {
  ByteQueue queue;
  queue.Append(std::string(512, 'a'));
  queue.Append(std::string(512, 'b'));
  queue.Append(std::string(10, 'c'));
  queue.Drop(700);
  EXPECT_EQ(All(queue), std::string(324, 'b') + std::string(10, 'c'));
  queue.Drop(324);
  EXPECT_EQ(All(queue), std::string(10, 'c'));
  queue.Drop(10);
  EXPECT_TRUE(queue.empty());
  queue.Append("again");
  EXPECT_EQ(All(queue), "again");
}

TEST(ByteQueueTest, CopyStopsAtTheEnd) {
  ByteQueue queue;
  queue.Append("abc");
  char bytes[10];
  EXPECT_EQ(queue.Copy(1, bytes, sizeof(bytes)), 2U);
  EXPECT_EQ(queue.Copy(3, bytes, sizeof(bytes)), 0U);
}

}  // namespace
