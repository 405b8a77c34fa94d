#include "vk_ec/message.h"

#include <unistd.h>

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/socket_pair.h"
#include "tests/support/wire_bytes.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Throws;
using ::testing::ThrowsMessage;
using vk_ec::MessageMgr;
using vk_ec::Transporter;
using wire::Cstr;
using wire::Doub;
using wire::Framed;
using wire::Inte;
using wire::Mess;
using Header = MessageMgr::Header;
using Strings = std::vector<std::string>;

class MessageTest : public ::testing::Test {
 protected:
  void HangUp() { pair_.peer.Reset(); }

  std::string ReadAsPeer(std::size_t size) const { return ReadExactly(pair_.peer.get(), size); }
  void WriteAsPeer(const std::string& message) const {
    WriteAll(pair_.peer.get(), Framed(message));
  }

  MessageMgr& manager() { return manager_; }

 private:
  SocketPair pair_;
  Transporter transporter_{pair_.ours.Release()};
  MessageMgr manager_{transporter_};
};

// A decoder over bytes that have already arrived.
class DecoderTest : public ::testing::Test {
 protected:
  MessageMgr::MessageDecoder Decode(const std::string& message) {
    message_.assign(message.begin(), message.end());
    return MessageMgr::MessageDecoder(message_);
  }

  std::vector<unsigned char> message_;
};

TEST(WireBytesTest, HelpersWriteTheDocumentedBytes) {
  EXPECT_EQ(Mess("END"), Bytes("03 'END'  00 00 00 00 00 00 00 00  'MESS'"));
  EXPECT_EQ(Doub("T", {1.5}), Bytes("01 'T'  01 00 00 00 00 00 00 00  'DOUB'"
                                    "00 00 00 00 00 00 f8 3f"));
  EXPECT_EQ(Inte("N", {-2}), Bytes("01 'N'  01 00 00 00 00 00 00 00  'INTE'  fe ff ff ff"));
  EXPECT_EQ(Cstr("W", {"P1"}), Bytes("01 'W'  01 00 00 00 00 00 00 00  'CSTR'"
                                     "02 00 00 00 00 00 00 00  'P1'"));
  EXPECT_EQ(Framed("ab"), Bytes("02 00 00 00 00 00 00 00  02 00 00 00 00 00 00 00  'ab'"));
  EXPECT_EQ(Framed(""), Bytes("00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00"));
}

TEST_F(MessageTest, BuiltMessageIsHeadersWithTheirData) {
  manager()
      .createMessageBuilder()
      .add_MESS_header("SETUP", 0)
      .add_data("D", std::vector<double>{1.0, -0.5})
      .add_data("I", std::vector<int>{1, -1, 65536})
      .add_data("S", Strings{"V2", "", "abc"})
      .add_MESS_header("END", 0)
      .send();
  const std::string expected = Bytes(
      "05 'SETUP'  00 00 00 00 00 00 00 00  'MESS'"
      "01 'D'      02 00 00 00 00 00 00 00  'DOUB'"
      "            00 00 00 00 00 00 f0 3f   00 00 00 00 00 00 e0 bf"
      "01 'I'      03 00 00 00 00 00 00 00  'INTE'"
      "            01 00 00 00   ff ff ff ff   00 00 01 00"
      "01 'S'      03 00 00 00 00 00 00 00  'CSTR'"
      "            02 00 00 00 00 00 00 00  'V2'"
      "            00 00 00 00 00 00 00 00"
      "            03 00 00 00 00 00 00 00  'abc'"
      "03 'END'    00 00 00 00 00 00 00 00  'MESS'");
  EXPECT_EQ(ReadAsPeer(16 + expected.size()),
            Bytes("85 00 00 00 00 00 00 00  85 00 00 00 00 00 00 00") + expected);
}

TEST_F(MessageTest, EmptyListIsAHeaderWithCountZero) {
  manager()
      .createMessageBuilder()
      .add_data("D", std::vector<double>{})
      .add_data("I", std::vector<int>{})
      .add_data("S", Strings{})
      .send();
  EXPECT_EQ(ReadAsPeer(16 + 3 * 14), Bytes("2a 00 00 00 00 00 00 00  2a 00 00 00 00 00 00 00"
                                           "01 'D'  00 00 00 00 00 00 00 00  'DOUB'"
                                           "01 'I'  00 00 00 00 00 00 00 00  'INTE'"
                                           "01 'S'  00 00 00 00 00 00 00 00  'CSTR'"));
}

TEST_F(MessageTest, NameOf255BytesIsAccepted) {
  const std::string name(255, 'n');
  manager().createMessageBuilder().add_header(name, 7, MessageMgr::tINTE).send();
  EXPECT_EQ(ReadAsPeer(16 + 13 + 255), Bytes("0c 01 00 00 00 00 00 00  0c 01 00 00 00 00 00 00"
                                             "ff") +
                                           name + Bytes("07 00 00 00 00 00 00 00  'INTE'"));
}

TEST_F(MessageTest, NameOf256BytesIsRefused) {
  EXPECT_THAT([&] { manager().createMessageBuilder().add_MESS_header(std::string(256, 'n'), 0); },
              ThrowsMessage<std::logic_error>(
                  "Size of header name (256) exceeds the allowed limit (255)."));
}

TEST_F(MessageTest, MessageGoesOnAfterANameThatWasRefused) {
  auto builder = manager().createMessageBuilder();
  builder.add_MESS_header("SET", 0);
  EXPECT_THROW(builder.add_data(std::string(256, 'n'), Strings{"lost"}), std::logic_error);
  builder.add_MESS_header("END", 0).send();
  EXPECT_EQ(ReadAsPeer(16 + 32), Framed(Mess("SET") + Mess("END")));
}

TEST_F(MessageTest, EmptyNameIsALengthOfZero) {
  manager().createMessageBuilder().add_MESS_header("", 0).send();
  EXPECT_EQ(ReadAsPeer(16 + 13), Bytes("0d 00 00 00 00 00 00 00  0d 00 00 00 00 00 00 00"
                                       "00  00 00 00 00 00 00 00 00  'MESS'"));
}

TEST_F(MessageTest, TotalSizeLeavesOutTheLengthFields) {
  EXPECT_EQ(MessageMgr::MessageBuilder::get_total_size({"ab", "", "cde"}), 5U);
  EXPECT_EQ(MessageMgr::MessageBuilder::get_total_size({}), 0U);
}

TEST_F(MessageTest, SecondBuilderIsRefusedWhileAMessageIsBeingBuilt) {
  auto builder = manager().createMessageBuilder();
  builder.add_MESS_header("QUERY", 0);
  EXPECT_THAT([&] { manager().createMessageBuilder(); },
              ThrowsMessage<std::logic_error>("Cannot create a new out-going message as the "
                                              "previous message is still on going."));
  builder.send();
  EXPECT_NO_THROW(manager().createMessageBuilder());
}

// A builder has no message of its own.
TEST_F(MessageTest, BuildersMadeBeforeTheFirstHeaderAppendToOneMessage) {
  auto first = manager().createMessageBuilder();
  auto second = manager().createMessageBuilder();
  first.add_MESS_header("QUERY", 0);
  second.add_string("NAME", "ab");
  auto copy = first;
  copy.add_data("VALUES", std::vector<int>{1});
  second.add_MESS_header("END", 0);
  const std::string expected =
      Mess("QUERY") + Cstr("NAME", {"ab"}) + Inte("VALUES", {1}) + Mess("END");
  EXPECT_EQ(first.size(), expected.size());
  first.send();
  EXPECT_EQ(ReadAsPeer(16 + expected.size()), Framed(expected));
  copy.add_MESS_header("READY", 0).send();
  EXPECT_EQ(ReadAsPeer(16 + 18), Framed(Mess("READY")));
}

TEST_F(MessageTest, BuilderOfASentMessageLeavesAReceivedOneAlone) {
  auto builder = manager().createMessageBuilder();
  builder.add_MESS_header("QUERY", 0).send();
  WriteAsPeer(Mess("REPLY") + Mess("END"));
  auto decoder = manager().createMessageDecoder();
  EXPECT_THROW(builder.add_MESS_header("SET", 0), std::logic_error);
  EXPECT_THROW(builder.send(), std::logic_error);
  EXPECT_THROW(builder.release(), std::logic_error);
  EXPECT_EQ(decoder.get_header().name, "REPLY");
  EXPECT_EQ(decoder.get_header().name, "END");
  decoder.finalize();
  builder.add_MESS_header("SET", 0).send();
}

TEST_F(MessageTest, ReceptionIsRefusedWhileAMessageIsBeingBuilt) {
  manager().createMessageBuilder().add_MESS_header("QUERY", 0);
  WriteAsPeer(Mess("END"));
  EXPECT_THAT([&] { manager().createMessageDecoder(); },
              ThrowsMessage<std::logic_error>(
                  "Cannot receive a message as the previous message is still on going."));
}

TEST_F(MessageTest, AbandonedDecoderRefusesEveryLaterMessage) {
  WriteAsPeer(Bytes("03 'END'  00 00 00 00 00 00 00 00  'mess'"));
  WriteAsPeer(Mess("END"));
  EXPECT_THAT([&] { manager().createMessageDecoder().get_header(); },
              ThrowsMessage<std::invalid_argument>("Unknown type: mess"));
  EXPECT_THAT([&] { manager().createMessageBuilder(); },
              ThrowsMessage<std::logic_error>("Cannot create a new out-going message as the "
                                              "previous message is still on going."));
  EXPECT_THAT([&] { manager().createMessageDecoder(); },
              ThrowsMessage<std::logic_error>(
                  "Cannot receive a message as the previous message is still on going."));
}

TEST_F(MessageTest, FailedSendRefusesEveryLaterMessage) {
  auto builder = manager().createMessageBuilder();
  builder.add_MESS_header("QUERY", 0);
  HangUp();
  EXPECT_THAT([&] { builder.send(); }, ThrowsMessage<std::runtime_error>("write: Broken pipe"));
  EXPECT_THAT([&] { manager().createMessageBuilder(); },
              ThrowsMessage<std::logic_error>("Cannot create a new out-going message as the "
                                              "previous message is still on going."));
}

TEST_F(MessageTest, FinalizedMessageMakesRoomForTheNext) {
  WriteAsPeer(Mess("READY") + Mess("END"));
  WriteAsPeer(Doub("TIME", {2.5}));
  auto decoder = manager().createMessageDecoder();
  decoder.get_header().check_expectation_MESS("READY", 0);
  decoder.get_header().check_expectation_MESS("END", 0);
  decoder.finalize();
  auto next = manager().createMessageDecoder();
  EXPECT_THAT(next.get_header_and_data<double>("TIME", 1), ElementsAre(2.5));
  next.finalize();
  EXPECT_NO_THROW(manager().createMessageBuilder());
}

// Whatever is asked of it, and whatever the buffer holds by then.
TEST_F(MessageTest, FinishedDecoderHasNothingMore) {
  WriteAsPeer(Mess("READY") + Mess("END"));
  auto decoder = manager().createMessageDecoder();
  decoder.get_header();
  decoder.get_header();
  decoder.finalize();
  const auto expect_nothing = [&decoder] {
    const auto not_enough = ThrowsMessage<std::length_error>("Not enough data read from network");
    EXPECT_EQ(decoder.remaining(), 0U);
    EXPECT_NO_THROW(decoder.check_length(0));
    EXPECT_THAT([&] { decoder.check_length(1); }, not_enough);
    EXPECT_THAT([&] { decoder.get_header(); }, not_enough);
    EXPECT_THAT([&] { decoder.get_data<double>(1); }, not_enough);
    EXPECT_THAT([&] { decoder.get_data<int>(1); }, not_enough);
    EXPECT_THAT([&] { decoder.get_data<std::string>(1); }, not_enough);
    EXPECT_THAT(decoder.get_data<double>(0), IsEmpty());
    EXPECT_THAT(decoder.get_data<std::string>(0), IsEmpty());
    EXPECT_THAT([&] { decoder.get_text(); }, not_enough);
    EXPECT_FALSE(decoder.skip_header(Mess("READY")));
  };
  expect_nothing();
  for (const std::string& more : {std::string(), Doub("VALUES", std::vector<double>(100))}) {
    WriteAsPeer(Mess("READY") + Mess("END") + more);
    auto next = manager().createMessageDecoder();
    expect_nothing();
    EXPECT_THROW(decoder.finalize(), std::length_error);
    EXPECT_EQ(next.get_header().name, "READY");
    EXPECT_EQ(next.get_header().name, "END");
    if (more.empty()) next.finalize();
  }
}

TEST_F(DecoderTest, MessageGoesOnWhereTheDecoderWasMovedTo) {
  auto first = Decode(Mess("READY") + Mess("END"));
  first.get_header();
  auto second = std::move(first);
  EXPECT_THROW(first.get_header(), std::length_error);  // NOLINT(bugprone-use-after-move): is empty
  EXPECT_EQ(second.get_header().name, "END");
  second.finalize();
  EXPECT_THAT(message_, IsEmpty());
}

TEST_F(MessageTest, EmptyMessageHoldsNothingAndRefusesNothing) {
  WriteAsPeer("");
  auto decoder = manager().createMessageDecoder();
  EXPECT_THAT([&] { decoder.get_header(); },
              ThrowsMessage<std::length_error>("Not enough data read from network"));
  EXPECT_NO_THROW(manager().createMessageBuilder());
}

TEST_F(DecoderTest, FinalizeKeepsAUsualBufferAndGivesBackAHugeOne) {
  auto usual = Decode(Mess("END"));
  usual.get_header();
  const auto capacity = message_.capacity();
  usual.finalize();
  EXPECT_EQ(message_.capacity(), capacity);

  auto huge = Decode(Cstr("TEXT", {std::string(16 << 20, 'x')}));
  huge.get_header_and_data<std::string>("TEXT");
  huge.finalize();
  EXPECT_LE(message_.capacity(), 8U << 20);
}

TEST_F(DecoderTest, BufferOfAByteMoreThanTheKeptSizeIsGivenBack) {
  auto decoder = Decode(Cstr("T", {std::string((8 << 20) - 21, 'x')}));
  decoder.get_header_and_data<std::string>("T");
  decoder.finalize();
  EXPECT_EQ(message_.capacity(), 0U);
}

TEST_F(DecoderTest, BufferOfExactlyTheKeptSizeIsKept) {
  auto decoder = Decode(Cstr("T", {std::string((8 << 20) - 22, 'x')}));
  ASSERT_EQ(message_.capacity(), 8U << 20);
  decoder.get_header_and_data<std::string>("T");
  decoder.finalize();
  EXPECT_EQ(message_.capacity(), 8U << 20);
}

TEST_F(DecoderTest, EveryKindOfDataIsReadBack) {
  auto decoder =
      Decode(Bytes("03 'ONE'  00 00 00 00 00 00 00 00  'MESS'"
                   "01 'D'    01 00 00 00 00 00 00 00  'DOUB'  00 00 00 00 00 00 e0 bf"
                   "01 'I'    02 00 00 00 00 00 00 00  'INTE'  ff ff ff ff  00 00 01 00"
                   "01 'S'    03 00 00 00 00 00 00 00  'CSTR'  02 00 00 00 00 00 00 00  'V2'"
                   "          00 00 00 00 00 00 00 00   03 00 00 00 00 00 00 00  'a' 00 'c'"));
  const Header one = decoder.get_header();
  EXPECT_EQ(one.name, "ONE");
  EXPECT_EQ(one.count, 0U);
  EXPECT_EQ(one.type, MessageMgr::MESS);
  EXPECT_THAT(decoder.get_header_and_data<double>("D"), ElementsAre(-0.5));
  EXPECT_THAT(decoder.get_header_and_data<int>("I", 2), ElementsAre(-1, 65536));
  EXPECT_THAT(decoder.get_data<std::string>(decoder.get_header()),
              ElementsAre("V2", "", std::string("a\0c", 3)));
  decoder.finalize();
  EXPECT_THAT(message_, IsEmpty());
}

TEST_F(DecoderTest, EmptyNameAndEmptyListsAreValid) {
  auto decoder =
      Decode(Bytes("00  00 00 00 00 00 00 00 00  'CSTR'"
                   "00  00 00 00 00 00 00 00 00  'DOUB'"
                   "00  00 00 00 00 00 00 00 00  'INTE'"));
  EXPECT_THAT(decoder.get_header_and_data<std::string>("", 0), IsEmpty());
  EXPECT_THAT(decoder.get_header_and_data<double>(""), IsEmpty());
  EXPECT_THAT(decoder.get_header_and_data<int>(""), IsEmpty());
  EXPECT_NO_THROW(decoder.finalize());
}

TEST_F(DecoderTest, NameOf255BytesIsRead) {
  auto decoder = Decode(Mess(std::string(255, 'n')));
  EXPECT_EQ(decoder.get_header().name, std::string(255, 'n'));
}

TEST_F(DecoderTest, MessageCutAnywhereIsTooShort) {
  const std::string whole = Cstr("S", {"ab", "c"}) + Doub("D", {1, 2}) + Inte("I", {1, 2});
  for (std::size_t size = 0; size < whole.size(); ++size) {
    auto decoder = Decode(whole.substr(0, size));
    EXPECT_THAT(
        [&] {
          decoder.get_header_and_data<std::string>("S");
          decoder.get_header_and_data<double>("D");
          decoder.get_header_and_data<int>("I");
        },
        ThrowsMessage<std::length_error>("Not enough data read from network"))
        << "cut to " << size << " bytes";
  }
}

TEST_F(DecoderTest, HeaderCutAfterAStrangeTagIsTooShortRatherThanUnknown) {
  auto decoder = Decode(Bytes("01 'N'  00 00 00 00 00 00 00 00  'mes'"));
  EXPECT_THAT([&] { decoder.get_header(); },
              ThrowsMessage<std::length_error>("Not enough data read from network"));
}

TEST_F(DecoderTest, UnknownTagIsNamed) {
  auto decoder = Decode(Bytes("01 'N'  00 00 00 00 00 00 00 00  'mess'"));
  EXPECT_THAT([&] { decoder.get_header(); },
              ThrowsMessage<std::invalid_argument>("Unknown type: mess"));
}

// Numbers whose product with an element's width wraps around 64 bits, among them those for which
// it wraps to a length that is there.
TEST_F(DecoderTest, HostileCountIsTooShortBeforeAnythingIsAllocated) {
  const auto not_enough = ThrowsMessage<std::length_error>("Not enough data read from network");
  for (const std::string count :
       {"ff ff ff ff ff ff ff ff", "00 00 00 00 00 00 00 20", "00 00 00 00 00 00 00 40",
        "01 00 00 00 00 00 00 20", "00 00 00 00 00 00 00 80", "03 00 00 00 00 00 00 00"}) {
    const std::string name_and_count = Bytes("00").append(Bytes(count));
    const auto message = [&](const char* tag_and_data) {
      return std::string(name_and_count).append(Bytes(tag_and_data));
    };
    EXPECT_THAT([&] { Decode(message("'DOUB0123456789abcdef'")).get_header_and_data<double>(""); },
                not_enough)
        << count;
    EXPECT_THAT(
        [&] { Decode(message("'CSTR0123456789abcdef'")).get_header_and_data<std::string>(""); },
        not_enough)
        << count;
    EXPECT_THAT([&] { Decode(message("'INTE0123456789a'")).get_header_and_data<int>(""); },
                not_enough)
        << count;
  }
}

TEST_F(DecoderTest, HostileStringLengthIsTooShort) {
  for (const std::string length :
       {"ff ff ff ff ff ff ff ff", "f8 ff ff ff ff ff ff ff", "03 00 00 00 00 00 00 00"}) {
    auto decoder = Decode(Bytes("00  01 00 00 00 00 00 00 00  'CSTR'" + length + "'ab'"));
    EXPECT_THAT([&] { decoder.get_header_and_data<std::string>(""); },
                ThrowsMessage<std::length_error>("Not enough data read from network"))
        << length;
  }
}

TEST_F(DecoderTest, LengthCheckDoesNotWrapAround) {
  auto decoder = Decode(Mess("END") + "x");
  decoder.get_header();
  EXPECT_NO_THROW(decoder.check_length(1));
  EXPECT_THROW(decoder.check_length(2), std::length_error);
  EXPECT_THROW(decoder.check_length(std::numeric_limits<std::uint64_t>::max()), std::length_error);
}

TEST_F(DecoderTest, NamedReadComparesNameTypeAndCount) {
  const std::string message = Inte("DATE", {1, 2, 3});
  EXPECT_THAT([&] { Decode(message).get_header_and_data<int>("DATE", 6); },
              ThrowsMessage<std::length_error>(
                  "Incorrect header (received: DATE-3-INTE vs expected: DATE-6-INTE)"));
  EXPECT_THAT([&] { Decode(message).get_header_and_data<double>("DATE"); },
              ThrowsMessage<std::length_error>(
                  "Incorrect header (received: DATE-3-INTE vs expected: DATE-3-DOUB)"));
  EXPECT_THAT([&] { Decode(message).get_header_and_data<int>("TIME"); },
              ThrowsMessage<std::length_error>(
                  "Incorrect header (received: DATE-3-INTE vs expected: TIME-3-INTE)"));
}

TEST_F(DecoderTest, TypedReadOfAnotherTypeNamesBothTypes) {
  EXPECT_THAT(
      [&] {
        auto decoder = Decode(Inte("DATE", {1}));
        decoder.get_data<std::string>(decoder.get_header());
      },
      ThrowsMessage<std::invalid_argument>("Incorrect header (received: INTE vs expected: CSTR )"));
}

TEST_F(DecoderTest, ExtraHeaderBeforeTheEndFailsAtTheEndExpectation) {
  auto decoder = Decode(Doub("EXTRA", {1}) + Mess("END"));
  EXPECT_THAT([&] { decoder.get_header().check_expectation_MESS("END", 0); },
              ThrowsMessage<std::length_error>(
                  "Incorrect header (received: EXTRA-1-DOUB vs expected: END-0-MESS)"));
}

TEST_F(DecoderTest, BytesAfterTheEndAreCounted) {
  auto decoder = Decode(Mess("END") + "xyz");
  decoder.get_header();
  EXPECT_THAT([&] { decoder.finalize(); },
              ThrowsMessage<std::length_error>(
                  "Received message is longer than expected (received: 19 vs expected: 16)"));
  EXPECT_EQ(message_.size(), 19U);
}

TEST(HeaderTest, ExpectationWithTypeComparesAllThree) {
  const Header header{"VALUES", 2, MessageMgr::DOUB};
  EXPECT_NO_THROW(header.check_expectation("VALUES", 2, MessageMgr::DOUB));
  EXPECT_THAT([&] { header.check_expectation("VALUES", 2, MessageMgr::CSTR); },
              ThrowsMessage<std::length_error>(
                  "Incorrect header (received: VALUES-2-DOUB vs expected: VALUES-2-CSTR)"));
  EXPECT_THAT([&] { header.check_expectation("VALUES", 3, MessageMgr::DOUB); },
              ThrowsMessage<std::length_error>(
                  "Incorrect header (received: VALUES-2-DOUB vs expected: VALUES-3-DOUB)"));
  EXPECT_THAT([&] { header.check_expectation("ITEMS", 2, MessageMgr::DOUB); },
              ThrowsMessage<std::length_error>(
                  "Incorrect header (received: VALUES-2-DOUB vs expected: ITEMS-2-DOUB)"));
}

TEST(HeaderTest, ExpectationWithoutTypeAcceptsAnyType) {
  for (const auto type : {MessageMgr::MESS, MessageMgr::DOUB, MessageMgr::INTE, MessageMgr::CSTR})
    EXPECT_NO_THROW(Header({"ITEM", 1, type}).check_expectation("ITEM", 1));
  EXPECT_THAT(
      [] {
        Header({"ITEM", 2, MessageMgr::CSTR}).check_expectation("ITEM", 1);
      },
      ThrowsMessage<std::length_error>(
          "Incorrect header (received: ITEM-2-CSTR vs expected: ITEM-1-...)"));
  EXPECT_THAT(
      [] {
        Header({"ITEM", 1, MessageMgr::CSTR}).check_expectation("NAME", 1);
      },
      ThrowsMessage<std::length_error>(
          "Incorrect header (received: ITEM-1-CSTR vs expected: NAME-1-...)"));
}

TEST(HeaderTest, FirstHeaderMayHaveAnyNameButNotAnyTypeOrCount) {
  EXPECT_NO_THROW(Header({"STEP", 0, MessageMgr::MESS}).check_expectation_MESS(0));
  EXPECT_THAT(
      [] {
        Header({"STEP", 0, MessageMgr::DOUB}).check_expectation_MESS(0);
      },
      ThrowsMessage<std::length_error>(
          "Incorrect header (received: STEP-0-DOUB vs expected: STEP-0-MESS)"));
  EXPECT_THAT(
      [] {
        Header({"STEP", 1, MessageMgr::MESS}).check_expectation_MESS(0);
      },
      ThrowsMessage<std::length_error>(
          "Incorrect header (received: STEP-1-MESS vs expected: STEP-0-MESS)"));
}

TEST(HeaderTypeTest, TypesHaveTheirNumbersTagsAndNames) {
  EXPECT_EQ(MessageMgr::MESS, 0);
  EXPECT_EQ(MessageMgr::headerType_for<double>(), 1);
  EXPECT_EQ(MessageMgr::headerType_for<int>(), 2);
  EXPECT_EQ(MessageMgr::headerType_for<std::string>(), 3);
  EXPECT_EQ(MessageMgr::ztyp_for<double>(), MessageMgr::tDOUB);
  EXPECT_EQ(MessageMgr::ztyp_for<int>(), MessageMgr::tINTE);
  EXPECT_EQ(MessageMgr::to_string(MessageMgr::MESS), "MESS");
  EXPECT_EQ(MessageMgr::to_string(MessageMgr::DOUB), "DOUB");
  EXPECT_EQ(MessageMgr::to_string(MessageMgr::INTE), "INTE");
  EXPECT_EQ(MessageMgr::to_string(MessageMgr::CSTR), "CSTR");
  EXPECT_EQ(MessageMgr::MessageDecoder::decode_type(MessageMgr::tCSTR), MessageMgr::CSTR);
}

TEST(HeaderTypeTest, UnknownTypeHasNoName) {
  EXPECT_THAT([] { MessageMgr::to_string(static_cast<MessageMgr::HeaderType>(4)); },
              ThrowsMessage<std::invalid_argument>(""));
}

TEST_F(DecoderTest, ExpectedHeaderIsPassedOver) {
  auto decoder = Decode(Cstr("A", {"x"}));
  EXPECT_TRUE(decoder.skip_header(Bytes("01 'A' 01 00 00 00 00 00 00 00 'CSTR'")));
  EXPECT_EQ(decoder.get_text(), "x");
  EXPECT_EQ(decoder.remaining(), 0U);
}

TEST_F(DecoderTest, AnotherHeaderStaysWhereItIs) {
  auto decoder = Decode(Cstr("A", {"x"}));
  for (const char* other :
       {"01 'B' 01 00 00 00 00 00 00 00 'CSTR'", "01 'A' 02 00 00 00 00 00 00 00 'CSTR'",
        "01 'A' 01 00 00 00 00 00 00 00 'DOUB'"}) {
    EXPECT_FALSE(decoder.skip_header(Bytes(other))) << other;
  }
  EXPECT_EQ(decoder.get_header().name, "A");
}

TEST_F(DecoderTest, HeaderThatTheMessageIsTooShortForIsNotPassedOver) {
  const std::string header = Bytes("01 'A' 01 00 00 00 00 00 00 00 'CSTR'");
  auto decoder = Decode(header.substr(0, header.size() - 1));
  EXPECT_FALSE(decoder.skip_header(header));
}

TEST_F(DecoderTest, EncodedHeaderIsTheOneThatTravels) {
  using Decoder = MessageMgr::MessageDecoder;
  EXPECT_EQ(Decoder::encode_header("VALUES", 258, MessageMgr::DOUB),
            Bytes("06 'VALUES' 02 01 00 00 00 00 00 00 'DOUB'"));
}

TEST_F(DecoderTest, DataAreAppended) {
  auto decoder = Decode(Doub("A", {1, 2}));
  std::vector<double> values = {0};
  decoder.append(decoder.get_header().count, values);
  EXPECT_THAT(values, ElementsAre(0, 1, 2));
}

TEST_F(MessageTest, AbandonedMessageStaysInProgress) {
  manager().createMessageBuilder().add_MESS_header("SET", 0).add_string("NAME", "ab");
  EXPECT_THAT([&] { manager().createMessageBuilder(); }, Throws<std::logic_error>());
}

TEST_F(MessageTest, MessageOfManyItemsLeavesWithoutTheRoomAfterThem) {
  std::string expected;
  auto builder = manager().createMessageBuilder();
  for (int item = 0; item < 300; ++item) {
    const std::string name(static_cast<std::size_t>(item % 50), 'n');
    builder.add_string(name, "ab").add_MESS_header("SET", 0);
    expected += Cstr(name, {"ab"}) + Mess("SET");
  }
  EXPECT_EQ(builder.size(), expected.size());
  MessageMgr::MessageBuilder copy = builder;
  copy.add_data("VALUES", std::vector<double>{1.5});
  expected += Doub("VALUES", {1.5});
  copy.send();
  EXPECT_EQ(copy.size(), 0U);
  EXPECT_EQ(ReadAsPeer(16 + expected.size()), Framed(expected));
}

TEST_F(MessageTest, SendKeepsAUsualBufferAndGivesBackAHugeOne) {
  // What the next message is built in after one of this size.
  const auto capacity_after = [this](std::size_t size) {
    const std::string text(size, 'x');
    const std::string expected = Framed(Cstr("TEXT", {text}));
    std::string received;
    std::thread peer([&] { received = ReadAsPeer(expected.size()); });
    manager().createMessageBuilder().add_string("TEXT", text).send();
    peer.join();
    EXPECT_TRUE(received == expected) << size;
    return manager().createMessageBuilder().add_MESS_header("END", 0).release().capacity();
  };
  EXPECT_GE(capacity_after(1 << 20), 1U << 20);
  EXPECT_LT(capacity_after(9 << 20), 1U << 20);
}

TEST_F(MessageTest, StringIsAListOfOne) {
  manager().createMessageBuilder().add_string("NAME", "ab").send();
  EXPECT_EQ(ReadAsPeer(16 + 17 + 10), Framed(Cstr("NAME", {"ab"})));
}

}  // namespace
