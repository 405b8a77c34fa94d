#include <array>
#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/scripted_simulator.h"
#include "tests/support/wire_bytes.h"
#include "tests/vk_ec/client_fixture.h"

namespace {

using ::testing::ElementsAre;
using ::testing::ThrowsMessage;
using vk_ec::AlgPos;
using vk_ec::PositionInfo;
using wire::Cstr;
using wire::Doub;
using wire::Inte;
using wire::Mess;
using Date = std::array<int, 6>;

const std::string kStarted = Mess("STARTED") + Cstr("ERRORS", {}) + Mess("END");
const std::string kFinished = Mess("FINISHED") + Mess("END");

std::string Step(const std::string& position, double time, const std::vector<int>& date) {
  return Mess("STEP") + Cstr("POSITION", {position}) + Doub("TIME", {time}) + Inte("DATE", date) +
         Mess("END");
}

const std::string kModelDefinition = Bytes(
    "04 'STEP'      00 00 00 00 00 00 00 00  'MESS'"
    "08 'POSITION'  01 00 00 00 00 00 00 00  'CSTR'  10 00 00 00 00 00 00 00  'MODEL_DEFINITION'"
    "04 'TIME'      01 00 00 00 00 00 00 00  'DOUB'  00 00 00 00 00 00 00 00"
    "04 'DATE'      06 00 00 00 00 00 00 00  'INTE'  e8 07 00 00  02 00 00 00  1d 00 00 00"
    "                                                00 00 00 00  00 00 00 00  00 00 00 00"
    "03 'END'       00 00 00 00 00 00 00 00  'MESS'");

TYPED_TEST_SUITE(ClientTest, BothVersions, VersionNames);

TYPED_TEST(ClientTest, FreshClientIsUnconnectedAtTheBeginningOf1900) {
  const TypeParam client;
  EXPECT_EQ(client.position_info().position, AlgPos::UNCONNECTED);
  EXPECT_EQ(client.position_info().display_algorithmic_position(), "UNCONNECTED");
  EXPECT_EQ(client.position_info().time, 0);
  EXPECT_EQ(client.position_info().date, (Date{1900, 1, 1, 0, 0, 0}));
  EXPECT_EQ(TypeParam::default_port(), 9001U);
}

TYPED_TEST(ClientTest, ConnectSetsUpAndTakesTheFirstPosition) {
  ScriptedSimulator simulator(ScriptedSimulator::Link::kLoopback);
  simulator.AnswerNext({kStarted, kModelDefinition});
  TypeParam client;
  client.connect("127.0.0.1", simulator.Port(), 5);
  EXPECT_THAT(simulator.Requests(),
              ElementsAre(Bytes("05 'SETUP'    00 00 00 00 00 00 00 00  'MESS'"
                                "07 'VERSION'  01 00 00 00 00 00 00 00  'CSTR'"
                                "              02 00 00 00 00 00 00 00  'V2'"
                                "03 'END'      00 00 00 00 00 00 00 00  'MESS'")));
  EXPECT_EQ(client.position_info().position, AlgPos::MODEL_DEFINITION);
  EXPECT_EQ(client.position_info().date, (Date{2024, 2, 29, 0, 0, 0}));
}

TYPED_TEST(ClientTest, SecondConnectFailsBeforeAnyNetworkActivity) {
  this->simulator_.AnswerNext({kStarted, kModelDefinition});
  this->client_.set_up();
  // A host that cannot be looked up, so that going there would show.
  EXPECT_THAT([&] { this->client_.connect("::1", 1, 1); },
              ThrowsMessage<std::invalid_argument>("Already connected to VARNOK."));
  EXPECT_EQ(this->client_.position_info().position, AlgPos::MODEL_DEFINITION);
  this->ExpectUsable();
}

TYPED_TEST(ClientTest, RefusedSetUpThrowsTheFirstErrorAlone) {
  this->simulator_.AnswerNext(
      {Mess("STARTED") + Cstr("ERRORS", {"No licence.", "No model."}) + Mess("END")});
  EXPECT_THAT([&] { this->client_.set_up(); }, ThrowsMessage<std::invalid_argument>("No licence."));
  EXPECT_EQ(this->client_.position_info().position, AlgPos::UNCONNECTED);
  this->ExpectUsable();
}

// The second simulator's first words are not what the first one said after its refusal.
TYPED_TEST(ClientTest, ConnectAfterARefusalBeginsAnew) {
  ScriptedSimulator refusing(ScriptedSimulator::Link::kLoopback);
  refusing.AnswerNext({Mess("STARTED") + Cstr("ERRORS", {"No licence."}) + Mess("END"), kFinished});
  ScriptedSimulator willing(ScriptedSimulator::Link::kLoopback);
  willing.AnswerNext({kStarted, kModelDefinition});
  TypeParam client;
  EXPECT_THAT([&] { client.connect("127.0.0.1", refusing.Port(), 5); },
              ThrowsMessage<std::invalid_argument>("No licence."));
  client.connect("127.0.0.1", willing.Port(), 5);
  EXPECT_EQ(client.position_info().position, AlgPos::MODEL_DEFINITION);
}

// What is left of the answer stands in the way of every message, over whatever connection.
TYPED_TEST(ClientTest, ConnectAfterASetUpThatCouldNotBeReadConnectsAndSaysNothing) {
  ScriptedSimulator strange(ScriptedSimulator::Link::kLoopback);
  strange.AnswerNext({Mess("STARTED") + Inte("ERRORS", {0}) + Mess("END")});
  TypeParam client;
  EXPECT_THAT([&] { client.connect("127.0.0.1", strange.Port(), 5); },
              ThrowsMessage<std::length_error>(
                  "Incorrect header (received: ERRORS-1-INTE vs expected: ERRORS-1-CSTR)"));
  EXPECT_EQ(client.position_info().position, AlgPos::UNCONNECTED);
  for (int again = 0; again < 2; ++again) {
    ScriptedSimulator usual(ScriptedSimulator::Link::kLoopback);
    usual.AnswerNext({kStarted, kModelDefinition});
    EXPECT_THAT([&] { client.connect("127.0.0.1", usual.Port(), 5); },
                ThrowsMessage<std::logic_error>("Cannot create a new out-going message as the "
                                                "previous message is still on going."));
    EXPECT_EQ(client.position_info().position, AlgPos::UNCONNECTED);
    EXPECT_THAT(usual.Requests(), ElementsAre());
  }
}

TYPED_TEST(ClientTest, EmptyMessageIsTooShortForAnAnswerAndRefusesNothing) {
  this->simulator_.AnswerNext({""});
  EXPECT_THAT([&] { this->client_.do_continue(); },
              ThrowsMessage<std::length_error>("Not enough data read from network"));
  this->ExpectUsable();
}

TYPED_TEST(ClientTest, SetUpAnswerOfAnotherKindIsRefused) {
  this->simulator_.AnswerNext({Mess("READY") + Mess("END")});
  EXPECT_THAT([&] { this->client_.set_up(); },
              ThrowsMessage<std::length_error>(
                  "Incorrect header (received: READY-0-MESS vs expected: STARTED-0-MESS)"));
  EXPECT_EQ(this->client_.position_info().position, AlgPos::UNCONNECTED);
}

TYPED_TEST(ClientTest, FailedFirstStepLeavesTheClientStarting) {
  this->simulator_.AnswerNext({kStarted, Mess("READY") + Mess("END")});
  EXPECT_THAT([&] { this->client_.set_up(); },
              ThrowsMessage<std::invalid_argument>("Incorrect header received (READY)"));
  EXPECT_EQ(this->client_.position_info().position, AlgPos::STARTING);
}

TYPED_TEST(ClientTest, ContinueTakesThePositionOfTheStepAnswer) {
  this->simulator_.AnswerNext({Step("BEGIN_NEWTON", 31.25, {2024, 3, 31, 6, -7, 8})});
  this->client_.do_continue();
  EXPECT_THAT(this->Requests(),
              ElementsAre(Bytes("08 'CONTINUE'  00 00 00 00 00 00 00 00  'MESS'"
                                "03 'END'       00 00 00 00 00 00 00 00  'MESS'")));
  EXPECT_EQ(this->client_.position_info().position, AlgPos::BEGIN_NEWTON);
  EXPECT_EQ(this->client_.position_info().time, 31.25);
  EXPECT_EQ(this->client_.position_info().date, (Date{2024, 3, 31, 6, -7, 8}));
  this->ExpectUsable();
}

TYPED_TEST(ClientTest, ContinueUntilSendsTheTime) {
  this->simulator_.AnswerNext({Step("END_SIMULATE", 365, {2025, 1, 1, 0, 0, 0})});
  this->client_.do_continue_until(365.5);
  EXPECT_THAT(this->Requests(),
              ElementsAre(Bytes("0e 'CONTINUE_UNTIL'  00 00 00 00 00 00 00 00  'MESS'"
                                "04 'TIME'            01 00 00 00 00 00 00 00  'DOUB'"
                                "                     00 00 00 00 00 d8 76 40"
                                "03 'END'             00 00 00 00 00 00 00 00  'MESS'")));
  EXPECT_EQ(this->client_.position_info().position, AlgPos::END_SIMULATE);
  EXPECT_EQ(this->client_.position_info().time, 365);
}

TYPED_TEST(ClientTest, ShutdownIsAnsweredByFinished) {
  this->simulator_.AnswerNext(
      {Bytes("08 'FINISHED'  00 00 00 00 00 00 00 00  'MESS'"
             "03 'END'       00 00 00 00 00 00 00 00  'MESS'")});
  this->client_.do_shutdown();
  EXPECT_THAT(this->Requests(),
              ElementsAre(Bytes("08 'SHUTDOWN'  00 00 00 00 00 00 00 00  'MESS'"
                                "03 'END'       00 00 00 00 00 00 00 00  'MESS'")));
  EXPECT_EQ(this->client_.position_info().position, AlgPos::END_SIMULATE);
}

TYPED_TEST(ClientTest, FinishedKeepsTheLastTimeAndDate) {
  this->simulator_.AnswerNext({Step("BEGIN_NEWTON", 10, {2024, 1, 11, 0, 0, 0})});
  this->simulator_.AnswerNext({kFinished});
  this->client_.do_continue();
  this->client_.do_continue_until(99);
  EXPECT_EQ(this->client_.position_info().position, AlgPos::END_SIMULATE);
  EXPECT_EQ(this->client_.position_info().time, 10);
  EXPECT_EQ(this->client_.position_info().date, (Date{2024, 1, 11, 0, 0, 0}));
}

TYPED_TEST(ClientTest, PositionThatTheSimulatorNeverSendsIsRefused) {
  this->simulator_.AnswerNext({Step("STARTING", 1, {2024, 1, 1, 0, 0, 0})});
  EXPECT_THAT(
      [&] { this->client_.do_continue(); },
      ThrowsMessage<std::invalid_argument>("Incorrect algorithmic position received (STARTING)"));
  EXPECT_EQ(this->client_.position_info().position, AlgPos::UNCONNECTED);
}

TYPED_TEST(ClientTest, DateOfThreeNumbersIsRefusedAfterPositionAndTimeAreTaken) {
  this->simulator_.AnswerNext({Step("BEGIN_NEWTON", 7, {2024, 1, 8})});
  EXPECT_THAT([&] { this->client_.do_continue(); },
              ThrowsMessage<std::length_error>(
                  "Incorrect header (received: DATE-3-INTE vs expected: DATE-6-INTE)"));
  EXPECT_EQ(this->client_.position_info().position, AlgPos::BEGIN_NEWTON);
  EXPECT_EQ(this->client_.position_info().time, 7);
  EXPECT_EQ(this->client_.position_info().date, (Date{1900, 1, 1, 0, 0, 0}));
}

TYPED_TEST(ClientTest, TwoPositionsAreRefused) {
  this->simulator_.AnswerNext(
      {Mess("STEP") + Cstr("POSITION", {"BEGIN_NEWTON", "END_SIMULATE"}) + Mess("END")});
  EXPECT_THAT([&] { this->client_.do_continue(); },
              ThrowsMessage<std::length_error>(
                  "Incorrect header (received: POSITION-2-CSTR vs expected: POSITION-1-CSTR)"));
}

TYPED_TEST(ClientTest, TwoTimesAreRefused) {
  this->simulator_.AnswerNext(
      {Mess("STEP") + Cstr("POSITION", {"BEGIN_NEWTON"}) + Doub("TIME", {1, 2}) + Mess("END")});
  EXPECT_THAT([&] { this->client_.do_continue(); },
              ThrowsMessage<std::length_error>(
                  "Incorrect header (received: TIME-2-DOUB vs expected: TIME-1-DOUB)"));
}

TYPED_TEST(ClientTest, AnswerOfAnotherKindIsNamedAndEndsTheUse) {
  this->simulator_.AnswerNext({Mess("REPLY") + Mess("END")});
  EXPECT_THAT([&] { this->client_.do_continue(); },
              ThrowsMessage<std::invalid_argument>("Incorrect header received (REPLY)"));
  this->ExpectUnusable();
}

TYPED_TEST(ClientTest, AnswerThatBeginsWithDataIsRefused) {
  this->simulator_.AnswerNext({Doub("STEP", {}) + Mess("END")});
  EXPECT_THAT([&] { this->client_.do_continue(); },
              ThrowsMessage<std::length_error>(
                  "Incorrect header (received: STEP-0-DOUB vs expected: STEP-0-MESS)"));
}

// Whatever the kind of the answer, a header too many is found where the end should be.
constexpr const char* kNotTheEnd =
    "Incorrect header (received: EXTRA-1-INTE vs expected: END-0-MESS)";

TYPED_TEST(ClientTest, ExtraHeaderInTheSetUpAnswerIsRefused) {
  this->simulator_.AnswerNext(
      {Mess("STARTED") + Cstr("ERRORS", {}) + Inte("EXTRA", {1}) + Mess("END"), kModelDefinition});
  EXPECT_THAT([&] { this->client_.set_up(); }, ThrowsMessage<std::length_error>(kNotTheEnd));
  EXPECT_EQ(this->client_.position_info().position, AlgPos::UNCONNECTED);
}

TYPED_TEST(ClientTest, ExtraHeaderInAStepAnswerIsRefused) {
  this->simulator_.AnswerNext({Mess("STEP") + Cstr("POSITION", {"BEGIN_NEWTON"}) +
                               Doub("TIME", {1}) + Inte("DATE", {2024, 1, 2, 0, 0, 0}) +
                               Inte("EXTRA", {1}) + Mess("END")});
  EXPECT_THAT([&] { this->client_.do_continue(); }, ThrowsMessage<std::length_error>(kNotTheEnd));
}

TYPED_TEST(ClientTest, ExtraHeaderInAFinishedAnswerIsRefusedAndThePositionStays) {
  this->simulator_.AnswerNext({Step("BEGIN_NEWTON", 1, {2024, 1, 2, 0, 0, 0})});
  this->client_.do_continue();
  this->simulator_.AnswerNext({Mess("FINISHED") + Inte("EXTRA", {1}) + Mess("END")});
  EXPECT_THAT([&] { this->client_.do_continue(); }, ThrowsMessage<std::length_error>(kNotTheEnd));
  EXPECT_EQ(this->client_.position_info().position, AlgPos::BEGIN_NEWTON);
}

TYPED_TEST(ClientTest, ExtraHeaderInAReadyAnswerIsRefused) {
  this->simulator_.AnswerNext({kFinished, Mess("READY") + Inte("EXTRA", {1}) + Mess("END")});
  this->client_.do_continue();
  EXPECT_THAT([&] { this->client_.read_READY_answer(); },
              ThrowsMessage<std::length_error>(kNotTheEnd));
}

TYPED_TEST(ClientTest, BytesAfterAStepAnswerAreCounted) {
  this->simulator_.AnswerNext({kFinished + "x"});
  EXPECT_THAT([&] { this->client_.do_continue(); },
              ThrowsMessage<std::length_error>(
                  "Received message is longer than expected (received: 38 vs expected: 37)"));
}

TYPED_TEST(ClientTest, SimulatorThatLeavesIsEndOfFile) {
  this->simulator_.AnswerNextAndHangUp("");
  EXPECT_THAT([&] { this->client_.do_continue(); },
              ThrowsMessage<std::runtime_error>("read: End of file"));
}

TYPED_TEST(ClientTest, ReadyAnswerIsReadWhole) {
  this->simulator_.AnswerNext({kFinished, Mess("READY") + Mess("END")});
  this->client_.do_continue();
  this->client_.read_READY_answer();
  this->ExpectUsable();
}

TYPED_TEST(ClientTest, AnswerOtherThanReadyIsRefused) {
  this->simulator_.AnswerNext({kFinished, Mess("BUSY") + Mess("END")});
  this->client_.do_continue();
  EXPECT_THAT([&] { this->client_.read_READY_answer(); },
              ThrowsMessage<std::length_error>(
                  "Incorrect header (received: BUSY-0-MESS vs expected: READY-0-MESS)"));
}

TYPED_TEST(ClientTest, InconsistentArgumentsAreNamedByPosition) {
  EXPECT_THAT(
      [] {
        TypeParam::throw_invalid_argument("VarnokClient::set_constraints_for_wells", 1, 2, 3, 2);
      },
      ThrowsMessage<std::invalid_argument>("VarnokClient::set_constraints_for_wells: inconsistent "
                                           "size of arguments 1 and 2 (3 vs 2)"));
}

TEST(PositionInfoTest, EveryPositionHasANumberAndAName) {
  const std::vector<std::string> names = {"UNCONNECTED", "STARTING", "MODEL_DEFINITION",
                                          "BEGIN_NEWTON", "END_SIMULATE"};
  for (std::size_t i = 0; i < names.size(); ++i) {
    PositionInfo info;
    info.position = static_cast<AlgPos>(i);
    EXPECT_EQ(info.display_algorithmic_position(), names[i]);
  }
  EXPECT_EQ(sizeof(AlgPos), 4U);
}

TEST(PositionInfoTest, UnknownPositionHasNoName) {
  PositionInfo info;
  info.position = static_cast<AlgPos>(5);
  EXPECT_THAT([&] { return info.display_algorithmic_position(); },
              ThrowsMessage<std::invalid_argument>("Incorrect algorithmic position"));
}

TEST(PositionInfoTest, OnlyTheThreePositionsOfAStepAreUnderstood) {
  EXPECT_EQ(PositionInfo::to_AlgPos("MODEL_DEFINITION"), AlgPos::MODEL_DEFINITION);
  EXPECT_EQ(PositionInfo::to_AlgPos("BEGIN_NEWTON"), AlgPos::BEGIN_NEWTON);
  EXPECT_EQ(PositionInfo::to_AlgPos("END_SIMULATE"), AlgPos::END_SIMULATE);
  for (const std::string text : {"UNCONNECTED", "STARTING", "begin_newton", ""})
    EXPECT_THAT([&] { PositionInfo::to_AlgPos(text); },
                ThrowsMessage<std::invalid_argument>("Incorrect algorithmic position received (" +
                                                     text + ")"));
}

TEST(ScriptedSimulatorTest, ClientThatStaysIsAFailureRatherThanAHang) {
  ScriptedSimulator simulator(ScriptedSimulator::Link::kSocketPair);
  EXPECT_THAT(
      [&] { simulator.WaitForClientToLeave(std::chrono::milliseconds(10)); },
      ThrowsMessage<std::runtime_error>("The client has not left the scripted simulator in time."));
}

}  // namespace
