#include "gate/opening.h"

#include <string>
#include <variant>

#include <gtest/gtest.h>

#include "tests/support/bytes.h"

namespace {

using gate::Answer;
using gate::LinkId;
using gate::Opening;
using gate::Reason;

constexpr char kResume[] =
    "'vkgate' 01 00  01 00 00 00  00 00 00 00  0f 1e 2d 3c 12*(77)  02 7*(00)  00 00 00 00 01 "
    "3*(00)";

TEST(OpeningTest, FieldsStandInTheirPlaces) {
  Opening opening{.ahead = true, .epoch = 2, .received = 1ULL << 32};
  opening.id.bytes.fill(0x77);
  opening.id.bytes[0] = 0x0f;
  opening.id.bytes[1] = 0x1e;
  opening.id.bytes[2] = 0x2d;
  opening.id.bytes[3] = 0x3c;
  EXPECT_EQ(Hex(BytesOf(opening)), Hex(Bytes(kResume)));
  const auto read = std::get<Opening>(gate::ReadOpening(Bytes(kResume)));
  EXPECT_TRUE(read.ahead);
  EXPECT_EQ(read.id, opening.id);
  EXPECT_EQ(read.epoch, 2U);
  EXPECT_EQ(read.received, 1ULL << 32);
}

TEST(OpeningTest, AnotherVersionIsRefusedWhateverFollows) {
  std::string bytes = Bytes(kResume);
  bytes[6] = 2;
  EXPECT_EQ(std::get<Reason>(gate::ReadOpening(bytes)), Reason::kVersion);
}

TEST(OpeningTest, OtherBytesAreNone) {
  for (const char* bytes : {"'GET / HTTP/1.1' 40*(20)", "'vkgat' 43*(00)", "'vkgate' 01 00", ""}) {
    EXPECT_EQ(std::get<Reason>(gate::ReadOpening(Bytes(bytes))), Reason::kBrokenRules) << bytes;
  }
}

TEST(OpeningTest, NewLinkHasNoPast) {
  for (const char* bytes : {"'vkgate' 01 00 8*(00) 16*(00) 8*(00) 01 7*(00)",
                            "'vkgate' 01 00 8*(00) 01 15*(00) 8*(00) 8*(00)"}) {
    EXPECT_EQ(std::get<Reason>(gate::ReadOpening(Bytes(bytes))), Reason::kBrokenRules) << bytes;
  }
}

TEST(OpeningTest, AnswerIsReadBack) {
  const Answer answer{.accepted = true, .ahead = true, .id = {{1, 2}}, .received = 258};
  EXPECT_EQ(Hex(BytesOf(answer)),
            Hex(Bytes("'vkgate' 01 00 00 00 00 00 01 00 00 00 01 02 14*(00) 02 01 6*(00)")));
  EXPECT_EQ(Hex(BytesOf(Answer{.accepted = true, .plain = true})),
            Hex(Bytes("'vkgate' 01 00 00 00 00 00 02 00 00 00 16*(00) 8*(00)")));
  const auto read = std::get<Answer>(gate::ReadAnswer(BytesOf(answer)));
  EXPECT_TRUE(read.accepted);
  EXPECT_TRUE(read.ahead);
  EXPECT_FALSE(read.plain);
  EXPECT_EQ(read.id, answer.id);
  EXPECT_EQ(read.received, 258U);
}

TEST(OpeningTest, EveryReasonIsRefusedWithAndHasASentence) {
  for (unsigned number = 0; number <= static_cast<unsigned>(gate::kLastReason); ++number) {
    const auto reason = static_cast<Reason>(number);
    const auto read = std::get<Answer>(gate::ReadAnswer(gate::Refusal(reason)));
    EXPECT_FALSE(read.accepted);
    EXPECT_EQ(read.refusal, reason);
    EXPECT_NE(std::string(TextOf(reason)), "an unknown reason");
    EXPECT_EQ(ComesAgain(reason), reason == Reason::kBusy);
  }
}

}  // namespace
