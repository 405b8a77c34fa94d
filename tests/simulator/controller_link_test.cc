#include "simulator/controller_link.h"

#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/simulator/decks.h"
#include "tests/support/socket_pair.h"
#include "tests/support/wire_bytes.h"

namespace simulator {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

// Headers as they travel: length of the name, name, count, type.
const std::string kEnd = "03 'END' 0000000000000000 'MESS' ";
const std::string kReply = "05 'REPLY' 0000000000000000 'MESS' ";
const std::string kReady =
    "2200000000000000 2200000000000000 05 'READY' 0000000000000000 'MESS' " + kEnd;

/// A controller that sends and expects literal bytes, with the link in a thread.
class ControllerLinkTest : public testing::Test {
 public:
  ~ControllerLinkTest() override { Leave(); }

 protected:
  void Start(const std::string& deck = decks::kBlackOil, const Faults& faults = {},
             ControllerLink::Version version = ControllerLink::Version::k2017_2) {
    reservoir_ = std::make_unique<Reservoir>(parse_deck(deck, "X.afi"));
    link_ = std::make_unique<ControllerLink>(
        *reservoir_, version, faults, stop_,
        ControllerLink::Listeners{.stepped = nullptr, .noticed = [this](const std::string& line) {
                                    notices_ += line + "\n";
                                  }});
    thread_ = std::thread([this] { ending_ = link_->serve(std::move(pair_.peer)); });
  }

  /// Ends the controller's side, and tells how the link ended.
  ControllerLink::Ending Leave() {
    pair_.ours.Reset();
    return Join();
  }
  ControllerLink::Ending Join() {
    if (thread_.joinable()) thread_.join();
    return ending_;
  }

  void SendBytes(const std::string& hex) { WriteAll(pair_.ours.get(), Bytes(hex)); }
  void Send(const std::string& message) { WriteAll(pair_.ours.get(), wire::Framed(message)); }
  /// What comes, compared with bytes written as for Bytes().
  void Expect(const std::string& hex) {
    const std::string expected = Bytes(hex);
    EXPECT_EQ(Hex(ReadExactly(pair_.ours.get(), expected.size())), Hex(expected));
  }

  /// The first 16 bytes of the next message tell its length; here it is the rest.
  std::string Receive() {
    const std::string lengths = ReadExactly(pair_.ours.get(), 16);
    if (lengths.size() < 16) return "closed";
    std::size_t size = 0;
    for (int i = 7; i >= 0; --i) {
      size = size * 256 + static_cast<unsigned char>(lengths[static_cast<std::size_t>(i)]);
    }
    return ReadExactly(pair_.ours.get(), size);
  }

  void SetUpRun() {
    Send(wire::Mess("SETUP") + wire::Cstr("VERSION", {"V2"}) + wire::Mess("END"));
    Receive();
    Receive();
  }

  static std::string Hex(const std::string& bytes) {
    std::string text;
    for (const char c : bytes) {
      const bool shown = c >= ' ' && c <= '~';
      const char* digits = "0123456789abcdef";
      const auto b = static_cast<unsigned char>(c);
      text += shown ? std::string(1, c) : std::string("<") + digits[b / 16] + digits[b % 16] + ">";
    }
    return text;
  }

  StopSignal stop_;
  std::unique_ptr<Reservoir> reservoir_;
  std::unique_ptr<ControllerLink> link_;
  std::string notices_;  // read after Join
  std::thread thread_;
  ControllerLink::Ending ending_ = ControllerLink::Ending::kBroken;
  SocketPair pair_;
};

TEST_F(ControllerLinkTest, SetupIsAnsweredByStartedAndTheModelDefinition) {
  Start();
  // 18 + 20 + 8 + 2 + 16 = 64 bytes.
  SendBytes(
      "4000000000000000 4000000000000000 05 'SETUP' 0000000000000000 'MESS' "
      "07 'VERSION' 0100000000000000 'CSTR' 0200000000000000 'V2' " +
      kEnd);
  // 20 + 19 + 16 = 55 bytes.
  Expect(
      "3700000000000000 3700000000000000 07 'STARTED' 0000000000000000 'MESS' "
      "06 'ERRORS' 0000000000000000 'CSTR' " +
      kEnd);
  // 17 + 21 + 24 + 17 + 8 + 17 + 24 + 16 = 144 bytes; 27 February 2020.
  Expect(
      "9000000000000000 9000000000000000 04 'STEP' 0000000000000000 'MESS' "
      "08 'POSITION' 0100000000000000 'CSTR' 1000000000000000 'MODEL_DEFINITION' "
      "04 'TIME' 0100000000000000 'DOUB' 0000000000000000 "
      "04 'DATE' 0600000000000000 'INTE' e4070000 02000000 1b000000 00000000 00000000 00000000 " +
      kEnd);
}

TEST_F(ControllerLinkTest, ContinueGoesToTheFirstTimeStepAtTimeZero) {
  Start();
  SetUpRun();
  SendBytes("2500000000000000 2500000000000000 08 'CONTINUE' 0000000000000000 'MESS' " + kEnd);
  Expect(
      "8c00000000000000 8c00000000000000 04 'STEP' 0000000000000000 'MESS' "
      "08 'POSITION' 0100000000000000 'CSTR' 0c00000000000000 'BEGIN_NEWTON' "
      "04 'TIME' 0100000000000000 'DOUB' 0000000000000000 "
      "04 'DATE' 0600000000000000 'INTE' e4070000 02000000 1b000000 00000000 00000000 00000000 " +
      kEnd);
}

TEST_F(ControllerLinkTest, ContinueUntilStopsAtExactlyThatTime) {
  Start();
  SetUpRun();
  // 2.25 days: 6 hours into the 29th of February.
  SendBytes(
      "4400000000000000 4400000000000000 0e 'CONTINUE_UNTIL' 0000000000000000 'MESS' "
      "04 'TIME' 0100000000000000 'DOUB' 0000000000000240 " +
      kEnd);
  Expect(
      "8c00000000000000 8c00000000000000 04 'STEP' 0000000000000000 'MESS' "
      "08 'POSITION' 0100000000000000 'CSTR' 0c00000000000000 'BEGIN_NEWTON' "
      "04 'TIME' 0100000000000000 'DOUB' 0000000000000240 "
      "04 'DATE' 0600000000000000 'INTE' e4070000 02000000 1d000000 06000000 00000000 00000000 " +
      kEnd);
}

TEST_F(ControllerLinkTest, TimePastTheEndEndsTheRunAndThenItIsFinished) {
  Start(decks::Replaced(decks::kBlackOil, "end_time = 3650", "end_time = 2"));
  SetUpRun();
  const std::string until =
      wire::Mess("CONTINUE_UNTIL") + wire::Doub("TIME", {100}) + wire::Mess("END");
  Send(until);
  Expect(
      "8c00000000000000 8c00000000000000 04 'STEP' 0000000000000000 'MESS' "
      "08 'POSITION' 0100000000000000 'CSTR' 0c00000000000000 'END_SIMULATE' "
      "04 'TIME' 0100000000000000 'DOUB' 0000000000000040 "
      "04 'DATE' 0600000000000000 'INTE' e4070000 02000000 1d000000 00000000 00000000 00000000 " +
      kEnd);
  Send(until);
  Expect("2500000000000000 2500000000000000 08 'FINISHED' 0000000000000000 'MESS' " + kEnd);
}

TEST_F(ControllerLinkTest, ShutdownIsAnsweredByFinishedAndEndsTheRun) {
  Start();
  SetUpRun();
  SendBytes("2500000000000000 2500000000000000 08 'SHUTDOWN' 0000000000000000 'MESS' " + kEnd);
  Expect("2500000000000000 2500000000000000 08 'FINISHED' 0000000000000000 'MESS' " + kEnd);
  EXPECT_EQ(ReadExactly(pair_.ours.get(), 1), "");
  EXPECT_EQ(Join(), ControllerLink::Ending::kShutdown);
}

TEST_F(ControllerLinkTest, NumberQueryAnswersKnownWellsAndItemsOnly) {
  Start();
  SetUpRun();
  // 18 + 19 + 19+23+12 + 21+10+10 + 16 = 148 bytes.
  SendBytes(
      "9400000000000000 9400000000000000 05 'QUERY' 0000000000000000 'MESS' "
      "06 'QWELLS' 0000000000000000 'MESS' "
      "06 'QITEMS' 0200000000000000 'CSTR' 0f00000000000000 'UPTIME_FRACTION' "
      "0400000000000000 'SKIN' "
      "08 'WELNAMES' 0200000000000000 'CSTR' 0200000000000000 'XX' 0200000000000000 'W1' " +
      kEnd);
  // 18 + 19 + 23 + 21 + 10 + 19 + 8 + 16 = 134 bytes.
  Expect("8600000000000000 8600000000000000 " + kReply +
         "06 'QITEMS' 0100000000000000 'CSTR' 0f00000000000000 'UPTIME_FRACTION' "
         "08 'WELLNAME' 0100000000000000 'CSTR' 0200000000000000 'W1' "
         "06 'VALUES' 0100000000000000 'DOUB' 000000000000f03f " +
         kEnd);
  Expect(kReady);
}

TEST_F(ControllerLinkTest, TextQueryOfAllWellsAnswersTheirTypesAndStatuses) {
  Start();
  SetUpRun();
  Send(wire::Mess("QUERY") + wire::Mess("QWELLS_STR") + wire::Cstr("QITEMS", {"TYPE", "STATUS"}) +
       wire::Cstr("WELNAMES", {"*"}) + wire::Mess("END"));
  // 18 + 19+12+14 + 3*(21+10+19) + 16+12 + 22+12 + 20+12 + 16 = 323 bytes.
  Expect("4301000000000000 4301000000000000 " + kReply +
         "06 'QITEMS' 0200000000000000 'CSTR' 0400000000000000 'TYPE' 0600000000000000 'STATUS' "
         "08 'WELLNAME' 0100000000000000 'CSTR' 0200000000000000 'P1' "
         "06 'VALUES' 0200000000000000 'CSTR' 0800000000000000 'PRODUCER' 0400000000000000 'OPEN' "
         "08 'WELLNAME' 0100000000000000 'CSTR' 0200000000000000 'W1' "
         "06 'VALUES' 0200000000000000 'CSTR' 0e00000000000000 'WATER_INJECTOR' "
         "0400000000000000 'OPEN' "
         "08 'WELLNAME' 0100000000000000 'CSTR' 0200000000000000 'G1' "
         "06 'VALUES' 0200000000000000 'CSTR' 0c00000000000000 'GAS_INJECTOR' "
         "0400000000000000 'OPEN' " +
         kEnd);
}

TEST_F(ControllerLinkTest, ReservoirIntegersAreTheStartDate) {
  Start();
  SetUpRun();
  Send(wire::Mess("QUERY") + wire::Mess("QRESVR") + wire::Cstr("QITEMS", {"START_DATE"}) +
       wire::Mess("END"));
  // 18 + 18 + 18 + 19 + 24 + 16 = 113 bytes.
  Expect(
      "7100000000000000 7100000000000000 " + kReply +
      "05 'QITEM' 0100000000000000 'CSTR' 0a00000000000000 'START_DATE' "
      "06 'VALUES' 0600000000000000 'INTE' e4070000 02000000 1b000000 00000000 00000000 00000000 " +
      kEnd);
  Expect(kReady);
}

TEST_F(ControllerLinkTest, ReservoirTextsTellVersionUnitsAndFluids) {
  Start();
  SetUpRun();
  Send(wire::Mess("QUERY") + wire::Mess("QRESVR_STR") +
       wire::Cstr("QITEMS", {"VK_VERSION", "UNIT_SYSTEM", "X", "FM_FLUID_MODEL"}) +
       wire::Mess("END"));
  // 18 + (18+18+19+14) + (18+19+19+21) + (18+22+19+17) + 16 = 256 bytes.
  Expect("0001000000000000 0001000000000000 " + kReply +
         "05 'QITEM' 0100000000000000 'CSTR' 0a00000000000000 'VK_VERSION' "
         "06 'VALUES' 0100000000000000 'CSTR' 0600000000000000 '2017.2' "
         "05 'QITEM' 0100000000000000 'CSTR' 0b00000000000000 'UNIT_SYSTEM' "
         "06 'VALUES' 0100000000000000 'CSTR' 0d00000000000000 'TOLMEN_METRIC' "
         "05 'QITEM' 0100000000000000 'CSTR' 0e00000000000000 'FM_FLUID_MODEL' "
         "06 'VALUES' 0100000000000000 'CSTR' 0900000000000000 'BLACK_OIL' " +
         kEnd);
}

TEST_F(ControllerLinkTest, ConstraintsAreThoseOfTheDeckAndOfTheUser) {
  Start();
  SetUpRun();
  // 16.5 is 0x4030800000000000.
  Send(wire::Mess("SET") + wire::Mess("SETWCONSTRAINTS") + wire::Cstr("WELLNAME", {"P1"}) +
       wire::Cstr("ITEMS", {"LIQUID_PRODUCTION_RATE"}) + wire::Doub("VALUES", {16.5}) +
       wire::Cstr("SETTERS", {"USER"}) + wire::Mess("END"));
  Expect(kReady);
  Send(wire::Mess("QUERY") + wire::Mess("QWCONSTRAINTS") + wire::Cstr("WELNAMES", {"P1"}) +
       wire::Mess("END"));
  // 18 + 21+10 + 18+30+28 + 19+16 + 20+12+12 + 16 = 220 bytes. 120 is 0x405e000000000000.
  Expect("dc00000000000000 dc00000000000000 " + kReply +
         "08 'WELLNAME' 0100000000000000 'CSTR' 0200000000000000 'P1' "
         "05 'ITEMS' 0200000000000000 'CSTR' 1600000000000000 'LIQUID_PRODUCTION_RATE' "
         "1400000000000000 'BOTTOM_HOLE_PRESSURE' "
         "06 'VALUES' 0200000000000000 'DOUB' 0000000000803040 0000000000005e40 "
         "07 'SETTERS' 0200000000000000 'CSTR' 0400000000000000 'USER' 0400000000000000 'DECK' " +
         kEnd);
  Expect(kReady);
  Leave();
  EXPECT_NEAR(reservoir_->well_property("P1", "LIQUID_PRODUCTION_RATE"), 16.5, 1e-9);
}

TEST_F(ControllerLinkTest, InflowQueryAnswersACurvePerItem) {
  Start();
  SetUpRun();
  Send(wire::Mess("QUERY") + wire::Mess("QIPRDATA") + wire::Cstr("WELNAMES", {"W1"}) +
       wire::Cstr("PRESSURETYPES", {"BOTTOM_HOLE_PRESSURE"}) + wire::Inte("NPOINTS", {2}) +
       wire::Doub("SKEWNESS", {1}) + wire::Mess("END"));
  const std::string reply = Receive();
  const std::string injected = Bytes(
      "04 'ITEM' 0100000000000000 'CSTR' 1400000000000000 'WATER_INJECTION_RATE' "
      "06 'VALUES' 0200000000000000 'DOUB' ");
  EXPECT_THAT(reply, StartsWith(Bytes(kReply +
                                      "08 'WELLNAME' 0100000000000000 'CSTR' 0200000000000000 'W1' "
                                      "07 'NPOINTS' 0100000000000000 'INTE' 02000000 "
                                      "04 'ITEM' 0100000000000000 'CSTR' 1400000000000000 "
                                      "'BOTTOM_HOLE_PRESSURE' "
                                      "06 'VALUES' 0200000000000000 'DOUB' ")));
  EXPECT_THAT(reply, HasSubstr(injected));
  EXPECT_EQ(reply.size(), 18U + 31 + 24 + 2 * (17 + 28 + 19 + 16) + 16);
  EXPECT_EQ(Receive(), Bytes("05 'READY' 0000000000000000 'MESS' " + kEnd));
}

TEST_F(ControllerLinkTest, InflowOfSeveralWellsIsACurveOfEachInTheirOrder) {
  Start();
  SetUpRun();
  Send(wire::Mess("QUERY") + wire::Mess("QIPRDATA") + wire::Cstr("WELNAMES", {"W1", "P1"}) +
       wire::Cstr("PRESSURETYPES", {"BOTTOM_HOLE_PRESSURE", "TUBING_HEAD_PRESSURE"}) +
       wire::Inte("NPOINTS", {2}) + wire::Doub("SKEWNESS", {1}) + wire::Mess("END"));
  const std::string reply = Receive();
  const std::string names = wire::Cstr("WELLNAME", {"W1"}) + wire::Inte("NPOINTS", {2}) +
                            wire::Cstr("ITEM", {"BOTTOM_HOLE_PRESSURE"});
  const std::string second = wire::Cstr("WELLNAME", {"P1"}) + wire::Inte("NPOINTS", {2}) +
                             wire::Cstr("ITEM", {"TUBING_HEAD_PRESSURE"});
  EXPECT_THAT(reply, StartsWith(wire::Mess("REPLY") + names));
  EXPECT_THAT(reply, HasSubstr(second));
  // Two lists of an injector and four of a producer; nothing else.
  const std::size_t list = 19 + 16;
  EXPECT_EQ(reply.size(), 18 + names.size() + list + (17 + 28 + list) + second.size() + list +
                              (17 + 27 + list) + (17 + 27 + list) + (17 + 29 + list) + 16);
}

TEST_F(ControllerLinkTest, BlackOilHasNoFluidModelsToDescribe) {
  Start();
  SetUpRun();
  const std::string nothing = "2200000000000000 2200000000000000 " + kReply + kEnd;
  for (const char* kind : {"QFMFLUIDMODEL", "QRFLUIDMODEL"}) {
    Send(wire::Mess("QUERY").append(wire::Mess(kind)).append(wire::Mess("END")));
    Expect(nothing);
    Expect(kReady);
  }
}

TEST_F(ControllerLinkTest, FieldManagementModelNamesTheComponents) {
  Start(decks::kCompositional);
  SetUpRun();
  Send(wire::Mess("QUERY") + wire::Mess("QFMFLUIDMODEL") + wire::Mess("END"));
  // 18 + 19 + 10 + 10 + 10 + 10 + 11 + 16 = 104 bytes.
  Expect("6800000000000000 6800000000000000 " + kReply +
         "06 'NCOMPS' 0500000000000000 'CSTR' 0200000000000000 'N2' 0200000000000000 'C1' "
         "0200000000000000 'C3' 0200000000000000 'C6' 0300000000000000 'C7+' " +
         kEnd);
}

TEST_F(ControllerLinkTest, ReservoirModelGivesTheEquationOfState) {
  Start(decks::kCompositional);
  SetUpRun();
  Send(wire::Mess("QUERY") + wire::Mess("QRFLUIDMODEL") + wire::Mess("END"));
  // 0.025 is 0x3f9999999999999a, the coefficient of N2 with C1.
  const std::string reply = Receive();
  EXPECT_THAT(
      reply,
      StartsWith(Bytes(
          kReply + "0f 'FLUIDMODELDNAME' 0100000000000000 'CSTR' 0f00000000000000 "
                   "'RESERVOIR_FLUID' 07 'EOSNAME' 0100000000000000 'CSTR' 0d00000000000000 "
                   "'PENG_ROBINSON' 06 'NCOMPS' 0500000000000000 'CSTR' 0200000000000000 'N2' "
                   "0200000000000000 'C1' 0200000000000000 'C3' 0200000000000000 'C6' "
                   "0300000000000000 'C7+' 03 'BIC' 0a00000000000000 'DOUB' 9a9999999999993f")));
  // Ten properties in the order in which the component table is documented; 190.4 K of C1 is
  // 0x4067cccccccccccd.
  std::size_t at = 0;
  for (const char* name : {"Molecular weight", "TCrit", "PCrit", "VCRIT", "Acentric factor", "BP",
                           "VSHIFT", "OMEGAA", "OMEGAB", "Parachor"}) {
    const std::size_t found = reply.find(
        wire::Cstr("EOSPROPNAME", {name}) + Bytes("06 'VALUES' 0500000000000000 'DOUB'"), at);
    ASSERT_NE(found, std::string::npos) << name;
    at = found;
  }
  EXPECT_THAT(reply, HasSubstr(Bytes("'TCrit' 06 'VALUES' 0500000000000000 'DOUB' "
                                     "cdcccccccc8c5f40 cdcccccccccc6740")));
  EXPECT_THAT(reply, EndsWith(Bytes(kEnd)));
}

TEST_F(ControllerLinkTest, StatusSetterShutsTheWell) {
  Start();
  SetUpRun();
  // 16 + 23 + 21+12 + 20+14 + 21+10 + 19+12 + 16 = 184 bytes.
  SendBytes(
      "b800000000000000 b800000000000000 03 'SET' 0000000000000000 'MESS' "
      "0a 'SETWSTATUS' 0000000000000000 'MESS' "
      "08 'WCLOSURE' 0100000000000000 'CSTR' 0400000000000000 'USER' "
      "07 'SETITEM' 0100000000000000 'CSTR' 0600000000000000 'STATUS' "
      "08 'WELNAMES' 0100000000000000 'CSTR' 0200000000000000 'P1' "
      "06 'VALUES' 0100000000000000 'CSTR' 0400000000000000 'SHUT' " +
      kEnd);
  Expect(kReady);
  Leave();
  EXPECT_FALSE(reservoir_->well(0).is_open());
}

TEST_F(ControllerLinkTest, UptimeSetterTakesAFraction) {
  Start();
  SetUpRun();
  // 16 + 21 + 20+23 + 21+10 + 19+8 + 16 = 154 bytes; 0.5 is 0x3fe0000000000000.
  SendBytes(
      "9a00000000000000 9a00000000000000 03 'SET' 0000000000000000 'MESS' "
      "08 'SETWELLS' 0000000000000000 'MESS' "
      "07 'SETITEM' 0100000000000000 'CSTR' 0f00000000000000 'UPTIME_FRACTION' "
      "08 'WELNAMES' 0100000000000000 'CSTR' 0200000000000000 'P1' "
      "06 'VALUES' 0100000000000000 'DOUB' 000000000000e03f " +
      kEnd);
  Expect(kReady);
  Leave();
  EXPECT_EQ(reservoir_->well(0).uptime(), 0.5);
}

TEST_F(ControllerLinkTest, ExternalSourceIsCreatedAndFilled) {
  Start(decks::kCompositional);
  SetUpRun();
  // 16 + 29 + 21+10 + 19+11 + 20+11 + 16 = 153 bytes.
  SendBytes(
      "9900000000000000 9900000000000000 03 'SET' 0000000000000000 'MESS' "
      "10 'CREATE_FLDSRCEXT' 0000000000000000 'MESS' "
      "08 'WELLNAME' 0100000000000000 'CSTR' 0200000000000000 'G1' "
      "06 'STNAME' 0100000000000000 'CSTR' 0300000000000000 'SRC' "
      "07 'STPHASE' 0100000000000000 'CSTR' 0300000000000000 'GAS' " +
      kEnd);
  // 18 + 18 + 4 + 16 = 56 bytes.
  Expect("3800000000000000 3800000000000000 " + kReply +
         "05 'STRET' 0100000000000000 'INTE' 01000000 " + kEnd);
  Expect(kReady);
  Send(wire::Mess("SET") + wire::Mess("SETWSTRE") + wire::Cstr("STNAME", {"SRC"}) +
       wire::Doub("STCMPVALUES", {1, 3}) +
       wire::Cstr("STCMPNAMES", {"TOTAL_MOLE_FRACTION[1]", "TOTAL_MOLE_FRACTION[2]"}) +
       wire::Cstr("STPHASE", {""}) + wire::Mess("END"));
  Expect(kReady);
  Leave();
  EXPECT_EQ(reservoir_->well_property("G1", "TOTAL_MOLE_FRACTION[2]"), 0.75);
}

TEST_F(ControllerLinkTest, SourceThatCannotBeAttachedAnswersZero) {
  Start(decks::kCompositional);
  SetUpRun();
  Send(wire::Mess("SET") + wire::Mess("CREATE_FLDSRCEXT") + wire::Cstr("WELLNAME", {"P1"}) +
       wire::Cstr("STNAME", {"SRC"}) + wire::Cstr("STPHASE", {"GAS"}) + wire::Mess("END"));
  Expect("3800000000000000 3800000000000000 " + kReply +
         "05 'STRET' 0100000000000000 'INTE' 00000000 " + kEnd);
}

TEST_F(ControllerLinkTest, OlderVersionRefusesSourcesAndNamesItself) {
  Start(decks::kCompositional, {}, ControllerLink::Version::k2016_2);
  SetUpRun();
  Send(wire::Mess("QUERY") + wire::Mess("QRESVR_STR") + wire::Cstr("QITEMS", {"VK_VERSION"}) +
       wire::Mess("END"));
  EXPECT_THAT(Receive(), HasSubstr("2016.2"));
  Receive();
  Send(wire::Mess("SET") + wire::Mess("CREATE_FLDSRCEXT") + wire::Cstr("WELLNAME", {"G1"}) +
       wire::Cstr("STNAME", {"SRC"}) + wire::Cstr("STPHASE", {"GAS"}) + wire::Mess("END"));
  EXPECT_EQ(Receive(), "closed");
  EXPECT_EQ(Join(), ControllerLink::Ending::kBroken);
  EXPECT_THAT(notices_, HasSubstr("Version 2016.2 has no setter CREATE_FLDSRCEXT"));
}

TEST_F(ControllerLinkTest, StarInASetterMeansAllWells) {
  Start();
  SetUpRun();
  Send(wire::Mess("SET") + wire::Mess("SETWSTATUS") + wire::Cstr("WCLOSURE", {"USER"}) +
       wire::Cstr("SETITEM", {"STATUS"}) + wire::Cstr("WELNAMES", {"*"}) +
       wire::Cstr("VALUES", {"SHUT"}) + wire::Mess("END"));
  Receive();
  Leave();
  for (std::size_t i = 0; i < 3; ++i) EXPECT_FALSE(reservoir_->well(i).is_open());
}

TEST_F(ControllerLinkTest, SetterOfUnknownNamesIsNotedAndAnsweredReady) {
  Start();
  SetUpRun();
  Send(wire::Mess("SET") + wire::Mess("SETWELLS") + wire::Cstr("SETITEM", {"UPTIME_FRACTION"}) +
       wire::Cstr("WELNAMES", {"XX"}) + wire::Doub("VALUES", {1}) + wire::Mess("END"));
  EXPECT_EQ(Receive(), Bytes("05 'READY' 0000000000000000 'MESS' " + kEnd));
  EXPECT_EQ(Leave(), ControllerLink::Ending::kControllerLeft);
  EXPECT_THAT(notices_, HasSubstr("Ignored: uptime of unknown well XX"));
}

TEST_F(ControllerLinkTest, AnswerAboveAChunkIsCutAt65536Bytes) {
  std::string deck = decks::kBlackOilHead;
  for (int i = 0; i < 2000; ++i) {
    std::string name = "\"P";
    name += std::to_string(i);
    name += '"';
    deck += decks::Replaced(decks::kProducer, "\"P1\"", name);
  }
  Start(deck);
  SetUpRun();
  Send(wire::Mess("QUERY") + wire::Mess("QWELLS_STR") + wire::Cstr("QITEMS", {"STATUS"}) +
       wire::Cstr("WELNAMES", {"*"}) + wire::Mess("END"));
  // Each well takes 21 + 8 + name + 19 + 8 + 4 bytes; names have 2 to 5 characters.
  const std::size_t names = 10 * 2 + 90 * 3 + 900 * 4 + 1000 * 5;
  const std::size_t total = 18 + 19 + 14 + 2000 * 60 + names + 16;
  ASSERT_EQ(total, 128957U);
  const std::string bytes = ReadExactly(pair_.ours.get(), 16 + 65536 + 8 + total - 65536);
  EXPECT_EQ(Hex(bytes.substr(0, 16)), Hex(Bytes("bdf7010000000000 0000010000000000")));
  EXPECT_EQ(Hex(bytes.substr(16 + 65536, 8)), Hex(Bytes("bdf7000000000000")));
  EXPECT_THAT(bytes, EndsWith(Bytes(kEnd)));
}

TEST_F(ControllerLinkTest, SetupIsRefusedWithTheGivenText) {
  Start(decks::kBlackOil, {.refuse_setup = "No licence"});
  Send(wire::Mess("SETUP") + wire::Cstr("VERSION", {"V2"}) + wire::Mess("END"));
  // 20 + 19 + 18 + 16 = 73 bytes.
  Expect(
      "4900000000000000 4900000000000000 07 'STARTED' 0000000000000000 'MESS' "
      "06 'ERRORS' 0100000000000000 'CSTR' 0a00000000000000 'No licence' " +
      kEnd);
  EXPECT_EQ(Leave(), ControllerLink::Ending::kControllerLeft);
}

TEST_F(ControllerLinkTest, OtherSetupVersionIsRefused) {
  Start();
  Send(wire::Mess("SETUP") + wire::Cstr("VERSION", {"V3"}) + wire::Mess("END"));
  EXPECT_THAT(Receive(), HasSubstr("Unsupported external-controller version V3"));
}

TEST_F(ControllerLinkTest, CutComesInTheMiddleOfTheChosenMessage) {
  Start(decks::kBlackOil, {.cut_after = 3});
  SetUpRun();  // messages 1 and 2
  Send(wire::Mess("CONTINUE") + wire::Mess("END"));
  Expect("e803000000000000 e803000000000000 04 'STEP' 0000000000000000 'MESS'");
  EXPECT_EQ(ReadExactly(pair_.ours.get(), 1), "");
  EXPECT_EQ(Join(), ControllerLink::Ending::kFault);
}

TEST_F(ControllerLinkTest, WrongHeaderReplacesTheChosenOne) {
  Start(decks::kBlackOil, {.wrong_header = 3});
  SetUpRun();
  Send(wire::Mess("CONTINUE") + wire::Mess("END"));
  EXPECT_THAT(Receive(), StartsWith(Bytes("05 'BOGUS' 0000000000000000 'MESS' 08 'POSITION'")));
}

TEST_F(ControllerLinkTest, StepsTakeAsLongAsAsked) {
  Start(decks::kBlackOil, {.step_delay = std::chrono::milliseconds(150)});
  SetUpRun();
  const auto before = std::chrono::steady_clock::now();
  Send(wire::Mess("CONTINUE") + wire::Mess("END"));
  Receive();
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(150));
}

struct Nonsense {
  const char* name;
  std::string message;
  const char* notice;
};

class NonsenseTest : public ControllerLinkTest, public testing::WithParamInterface<Nonsense> {};

TEST_P(NonsenseTest, EndsTheConnectionWithANotice) {
  Start();
  SetUpRun();
  Send(GetParam().message);
  EXPECT_EQ(Receive(), "closed");
  EXPECT_EQ(Join(), ControllerLink::Ending::kBroken);
  EXPECT_THAT(notices_, HasSubstr(GetParam().notice));
}

INSTANTIATE_TEST_SUITE_P(
    All, NonsenseTest,
    testing::Values(
        Nonsense{"UnknownMessage", wire::Mess("JUMP") + wire::Mess("END"), "Unknown message: JUMP"},
        Nonsense{"UnknownQuery", wire::Mess("QUERY") + wire::Mess("QALL") + wire::Mess("END"),
                 "Unknown query: QALL"},
        Nonsense{"UnknownSetter", wire::Mess("SET") + wire::Mess("SETALL") + wire::Mess("END"),
                 "Unknown setter: SETALL"},
        Nonsense{"EmptyMessage", "", "Not enough data read from network"},
        Nonsense{"MissingEnd", wire::Mess("CONTINUE"), "Not enough data read from network"},
        Nonsense{"BytesAfterEnd", wire::Mess("CONTINUE") + wire::Mess("END") + "x",
                 "Received message is longer than expected"},
        Nonsense{"TimeOfAnotherType",
                 wire::Mess("CONTINUE_UNTIL") + wire::Inte("TIME", {1}) + wire::Mess("END"),
                 "TIME-1-INTE vs expected: TIME-1-DOUB"},
        Nonsense{"FewerValuesThanWells",
                 wire::Mess("SET") + wire::Mess("SETWELLS") +
                     wire::Cstr("SETITEM", {"UPTIME_FRACTION"}) +
                     wire::Cstr("WELNAMES", {"P1", "W1"}) + wire::Doub("VALUES", {1}) +
                     wire::Mess("END"),
                 "VALUES-1-DOUB vs expected: VALUES-2-DOUB"},
        Nonsense{"FewerPressureTypesThanWells",
                 wire::Mess("QUERY") + wire::Mess("QIPRDATA") + wire::Cstr("WELNAMES", {"P1"}) +
                     wire::Cstr("PRESSURETYPES", {}) + wire::Inte("NPOINTS", {2}) +
                     wire::Doub("SKEWNESS", {1}) + wire::Mess("END"),
                 "Lists of different lengths in QIPRDATA"}),
    [](const auto& each) { return std::string(each.param.name); });

TEST_F(ControllerLinkTest, SecondSetupIsRefused) {
  Start();
  SetUpRun();
  Send(wire::Mess("SETUP") + wire::Cstr("VERSION", {"V2"}) + wire::Mess("END"));
  EXPECT_THAT(Receive(), HasSubstr("The run is set up already"));
  Leave();
  EXPECT_EQ(notices_, "Controller connected\nSet-up refused: The run is set up already\n");
}

TEST_F(ControllerLinkTest, SecondContinueAdvancesByTheLongestStep) {
  Start();
  SetUpRun();
  for (int i = 0; i < 2; ++i) {
    Send(wire::Mess("CONTINUE") + wire::Mess("END"));
    EXPECT_THAT(Receive(), HasSubstr("BEGIN_NEWTON"));
  }
  EXPECT_DOUBLE_EQ(reservoir_->time(), 10);
}

TEST_F(ControllerLinkTest, LinkWithoutListenersServesAsWell) {
  Reservoir reservoir(parse_deck(decks::kBlackOil, "X.afi"));
  ControllerLink link(reservoir, ControllerLink::Version::k2017_2, {}, stop_, {});
  thread_ = std::thread([&] { ending_ = link.serve(std::move(pair_.peer)); });
  SetUpRun();
  Send(wire::Mess("SHUTDOWN") + wire::Mess("END"));
  EXPECT_EQ(Hex(Receive()), Hex(wire::Mess("FINISHED") + wire::Mess("END")));
  EXPECT_EQ(Leave(), ControllerLink::Ending::kShutdown);
}

TEST_F(ControllerLinkTest, UnknownReservoirNumberIsLeftOut) {
  Start();
  SetUpRun();
  Send(wire::Mess("QUERY") + wire::Mess("QRESVR") + wire::Cstr("QITEMS", {"OTHER", "START_DATE"}) +
       wire::Mess("END"));
  EXPECT_EQ(Hex(Receive()), Hex(wire::Mess("REPLY") + wire::Cstr("QITEM", {"START_DATE"}) +
                                wire::Inte("VALUES", {2020, 2, 27, 0, 0, 0}) + wire::Mess("END")));
}

TEST_F(ControllerLinkTest, InflowOfAnUnknownPressureIsLeftOut) {
  Start();
  SetUpRun();
  Send(wire::Mess("QUERY") + wire::Mess("QIPRDATA") + wire::Cstr("WELNAMES", {"P1"}) +
       wire::Cstr("PRESSURETYPES", {"MIDDLE_PRESSURE"}) + wire::Inte("NPOINTS", {3}) +
       wire::Doub("SKEWNESS", {1}) + wire::Mess("END"));
  EXPECT_EQ(Hex(Receive()), Hex(wire::Mess("REPLY") + wire::Mess("END")));
}

TEST_F(ControllerLinkTest, StatusSetterOfAnotherItemEndsTheConnection) {
  Start();
  SetUpRun();
  Send(wire::Mess("SET") + wire::Mess("SETWSTATUS") + wire::Cstr("WCLOSURE", {"USER"}) +
       wire::Cstr("SETITEM", {"TYPE"}) + wire::Cstr("WELNAMES", {"P1"}) +
       wire::Cstr("VALUES", {"SHUT"}) + wire::Mess("END"));
  EXPECT_EQ(Join(), ControllerLink::Ending::kBroken);
  EXPECT_THAT(notices_, HasSubstr("Unknown SETWSTATUS item: TYPE"));
}

TEST_F(ControllerLinkTest, NumberSetterOfAnotherItemEndsTheConnection) {
  Start();
  SetUpRun();
  Send(wire::Mess("SET") + wire::Mess("SETWELLS") + wire::Cstr("SETITEM", {"SKIN"}) +
       wire::Cstr("WELNAMES", {"P1"}) + wire::Doub("VALUES", {1}) + wire::Mess("END"));
  EXPECT_EQ(Join(), ControllerLink::Ending::kBroken);
  EXPECT_THAT(notices_, HasSubstr("Unknown SETWELLS item: SKIN"));
}

TEST_F(ControllerLinkTest, SourceCompositionOfThePhaseGasIsTakenAndOfAnotherIgnored) {
  Start(decks::kCompositional);
  SetUpRun();
  ASSERT_TRUE(reservoir_->create_source("G1", "S", "GAS"));
  for (const char* phase : {"GAS", "OIL"}) {
    Send(wire::Mess("SET") + wire::Mess("SETWSTRE") + wire::Cstr("STNAME", {"S"}) +
         wire::Doub("STCMPVALUES", {1}) + wire::Cstr("STCMPNAMES", {"C1"}) +
         wire::Cstr("STPHASE", {phase}) + wire::Mess("END"));
    EXPECT_EQ(Hex(Receive()), Hex(wire::Mess("READY") + wire::Mess("END"))) << phase;
  }
  Leave();
  EXPECT_THAT(notices_, EndsWith("connected\nIgnored: composition of source S\n"));
}

TEST_F(ControllerLinkTest, StopEndsADelayedStep) {
  Faults faults;
  faults.step_delay = std::chrono::seconds(60);
  Start(decks::kBlackOil, faults);
  SetUpRun();
  Send(wire::Mess("CONTINUE") + wire::Mess("END"));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // nothing tells that it has begun
  stop_.raise();
  EXPECT_EQ(Join(), ControllerLink::Ending::kStopped);
}

TEST_F(ControllerLinkTest, QueryBeforeSetupEndsTheConnection) {
  Start();
  Send(wire::Mess("CONTINUE") + wire::Mess("END"));
  EXPECT_EQ(Receive(), "closed");
  EXPECT_EQ(Join(), ControllerLink::Ending::kBroken);
  EXPECT_THAT(notices_, HasSubstr("Message before SETUP: CONTINUE"));
}

TEST_F(ControllerLinkTest, ControllerThatDiesInMidMessageIsTold) {
  Start();
  SetUpRun();
  SendBytes("2500000000000000 2500000000000000 08 'CONT'");
  EXPECT_EQ(Leave(), ControllerLink::Ending::kBroken);
}

TEST_F(ControllerLinkTest, StopEndsAWaitForAMessage) {
  Start();
  SetUpRun();
  stop_.raise();
  EXPECT_EQ(Join(), ControllerLink::Ending::kStopped);
}

TEST_F(ControllerLinkTest, StopAfterTheEndDoesNothingToAConnectionWithTheSameNumber) {
  Start();
  SetUpRun();
  Leave();
  const SocketPair other;  // takes the numbers that have become free
  stop_.raise();
  WriteAll(other.ours.get(), "A");
  EXPECT_EQ(ReadExactly(other.peer.get(), 1), "A");
}

TEST_F(ControllerLinkTest, StopEndsAReadOfAHalfMessage) {
  Start();
  SetUpRun();
  SendBytes("2500000000000000 2500000000000000 08 'CONT'");
  stop_.raise();
  EXPECT_EQ(Join(), ControllerLink::Ending::kStopped);
}

}  // namespace
}  // namespace simulator
