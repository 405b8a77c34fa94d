#include "relay/packing.h"

#include <limits>
#include <stdexcept>

#include <gtest/gtest.h>

namespace {

TEST(PackingTest, RoomIsMadeForTheWholeReplyAtOnce) {
  sendbuf reply;
  MakeRoom(reply, 1234);
  EXPECT_EQ(reply.capacity(), 1240);
}

TEST(PackingTest, ReplyThatNoFrameCanAnnounceIsRefusedBeforeAnyRoomIsMade) {
  sendbuf reply;
  EXPECT_THROW(MakeRoom(reply, std::int64_t{std::numeric_limits<int>::max()} + 1),
               std::length_error);
  EXPECT_EQ(reply.capacity(), 10);
}

}  // namespace
