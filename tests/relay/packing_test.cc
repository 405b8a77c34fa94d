#include "relay/packing.h"

#include <cstddef>
#include <limits>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "tests/relay/allocations.h"
#include "tests/support/bytes.h"

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

// The fields of a request whose receive buffer ends with them.
class UnPackTest : public testing::Test {
 protected:
  getbuf Fields(const std::string& bytes) {
    bytes_ = bytes;
    Allocations::Forget();
    return getbuf(reinterpret_cast<const unsigned char*>(bytes_.data()),
                  static_cast<std::int64_t>(bytes_.size()));
  }
  std::string bytes_;
};

TEST_F(UnPackTest, NumbersMayReachToTheEndOfTheBuffer) {
  getbuf fields = Fields(Bytes("00 00 00 00 00 00 f0 3f 00 00 00 00 00 00 00 40"));
  EXPECT_EQ(UnPackNumbers(fields, 2), (std::vector<double>{1, 2}));
}

TEST_F(UnPackTest, TextsMayReachToTheEndOfTheBuffer) {
  getbuf fields = Fields(Bytes("01 00 00 00 41 00 00 00 00"));
  EXPECT_EQ(UnPackTexts(fields, 2), (std::vector<std::string>{"A", ""}));
}

TEST_F(UnPackTest, CountThatIsNotPositiveGivesNothing) {
  for (const int n : {0, -1}) {
    getbuf fields = Fields(std::string(16, '\0'));
    EXPECT_TRUE(UnPackNumbers(fields, n).empty());
    EXPECT_TRUE(UnPackTexts(fields, n).empty());
    EXPECT_EQ(fields.remaining(), 16);
  }
}

TEST_F(UnPackTest, HostileCountTakesNoMoreMemoryThanTheBufferCanFill) {
  const std::string buffer(4000, '\0');
  getbuf numbers = Fields(buffer);
  EXPECT_THROW(UnPackNumbers(numbers, std::numeric_limits<int>::max()), std::out_of_range);
  EXPECT_EQ(Allocations::Largest(), 4000U);
  getbuf texts = Fields(buffer);
  EXPECT_THROW(UnPackTexts(texts, std::numeric_limits<int>::max()), std::out_of_range);
  EXPECT_LE(Allocations::Largest(), std::size_t{2000} * sizeof(std::string));
}

}  // namespace
