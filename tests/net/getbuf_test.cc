#include "net/getbuf.h"

#include <array>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/bytes.h"

namespace {

class GetbufTest : public testing::Test {
 protected:
  getbuf Over(std::string_view hex) {
    bytes_ = Bytes(hex);
    return getbuf(reinterpret_cast<const unsigned char*>(bytes_.data()),
                  static_cast<std::int64_t>(bytes_.size()));
  }
  std::string bytes_;
};

TEST_F(GetbufTest, ValuesComeInTheirOrder) {
  getbuf body = Over("f0 ff 00 00 fe ff ff ff 02 00 00 00 00 00 00 f8 3f");
  unsigned code = 0;
  int number = 0;
  bool flag = false;
  double real = 0;
  body.UnPack(code);
  body.UnPack(number);
  body.UnPack(flag);
  body.UnPack(real);
  EXPECT_EQ(code, 65520U);
  EXPECT_EQ(number, -2);
  EXPECT_TRUE(flag);
  EXPECT_EQ(real, 1.5);
  EXPECT_EQ(body.remaining(), 0);
}

TEST_F(GetbufTest, FlagIsOneByte) {
  getbuf body = Over("00 01");
  bool first = true;
  bool second = false;
  body.UnPack(first);
  body.UnPack(second);
  EXPECT_FALSE(first);
  EXPECT_TRUE(second);
}

TEST_F(GetbufTest, ArraysHaveNoCount) {
  getbuf body = Over(
      "01 00 00 00 02 00 00 00  00 00 00 00 00 00 f0 bf 00 00 00 00 00 00 00 40"
      "00 00 00 3f 00 00 80 3f 00 00 80 bf  78 79");
  std::array<int, 2> ints{};
  std::array<double, 2> doubles{};
  std::array<float, 3> floats{};
  std::array<char, 2> characters{};
  body.UnPack(ints.data(), 2);
  body.UnPack(doubles.data(), 2);
  body.UnPack(floats.data(), 3);
  body.UnPack(characters.data(), 2);
  EXPECT_EQ(ints, (std::array<int, 2>{1, 2}));
  EXPECT_EQ(doubles, (std::array<double, 2>{-1.0, 2.0}));
  EXPECT_EQ(floats, (std::array<float, 3>{0.5F, 1, -1}));
  EXPECT_EQ(characters, (std::array<char, 2>{'x', 'y'}));
}

TEST_F(GetbufTest, NegativeNumberOfElementsReadsNothing) {
  getbuf body = Over("01 00 00 00");
  int untouched = 5;
  body.UnPack(&untouched, -1);
  EXPECT_EQ(untouched, 5);
  EXPECT_EQ(body.remaining(), 4);
}

TEST_F(GetbufTest, TextIsLengthThenCharacters) {
  getbuf body = Over("02 00 00 00 41 42 07 00 00 00");
  std::string text;
  int next = 0;
  body.UnPack(text);
  body.UnPack(next);
  EXPECT_EQ(text, "AB");
  EXPECT_EQ(next, 7);
}

TEST_F(GetbufTest, TextEndsAtItsFirstZeroByteAndIsPassedOverWhole) {
  getbuf body = Over("05 00 00 00 41 42 00 43 44 07 00 00 00");
  std::string text;
  int next = 0;
  body.UnPack(text);
  body.UnPack(next);
  EXPECT_EQ(text, "AB");
  EXPECT_EQ(next, 7);
}

TEST_F(GetbufTest, TextMayReachToTheEndOfTheBufferButNotPastIt) {
  getbuf exact = Over("02 00 00 00 41 42");
  std::string text;
  exact.UnPack(text);
  EXPECT_EQ(text, "AB");
  EXPECT_EQ(exact.remaining(), 0);
  getbuf too_long = Over("03 00 00 00 41 42");
  EXPECT_THROW(too_long.UnPack(text), std::out_of_range);
}

TEST_F(GetbufTest, NegativeLengthIsAnEmptyText) {
  getbuf body = Over("ff ff ff ff 07 00 00 00");
  std::string text = "before";
  int next = 0;
  body.UnPack(text);
  body.UnPack(next);
  EXPECT_EQ(text, "");
  EXPECT_EQ(next, 7);
}

TEST_F(GetbufTest, NumberPastTheBufferThrowsAndMovesNothing) {
  getbuf body = Over("01 00 00 00 02 00");
  int number = 0;
  body.UnPack(number);
  EXPECT_THROW(body.UnPack(number), std::out_of_range);
  EXPECT_EQ(body.remaining(), 2);
}

TEST_F(GetbufTest, TextPastTheBufferThrowsBeforeItsMemoryIsTaken) {
  getbuf body = Over("ff ff ff 7f 41 42");
  std::string text = "before";
  EXPECT_THROW(body.UnPack(text), std::out_of_range);
  EXPECT_EQ(text, "before");
  EXPECT_EQ(body.remaining(), 6);
}

TEST_F(GetbufTest, ArrayPastTheBufferThrowsWhateverItsSizeInBytes) {
  getbuf body = Over("01 00 00 00");
  double untouched = 5;
  EXPECT_THROW(body.UnPack(&untouched, 0x40000000), std::out_of_range);
  EXPECT_EQ(untouched, 5);
}

TEST_F(GetbufTest, ReadingPastTheBodyReadsWhatTheBufferHolds) {
  std::array<unsigned char, 65536> buffer{};
  buffer[0] = 1;
  getbuf body(buffer.data());
  int number = 5;
  body.UnPack(number);
  body.UnPack(number);
  EXPECT_EQ(number, 0);
  EXPECT_EQ(body.remaining(), 65528);
}

}  // namespace
