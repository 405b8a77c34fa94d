#include <limits>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "tests/relay/allocations.h"
#include "tests/relay/controller_fixture.h"

namespace {

class HandlersTest : public ControllerTest {
 protected:
  // Serves what was sent; after `replies` the run ends with this failure of the master's link.
  void ExpectCommsFailure(const std::string& replies, const std::string& failure) {
    EXPECT_EQ(Serve(), 2);
    EXPECT_EQ(replies_, replies);
    EXPECT_EQ(error_,
              "Failed to handle data packet received from master: Exception returned from Corvane "
              "comms: " +
                  failure);
  }
};
using Calls = std::vector<std::string>;

TEST_F(HandlersTest, ConnectPassesHostPortAndTimeout) {
  EXPECT_EQ(ReplyTo("01 00 00 00"), "08 00 00 00 01 00 00 00 00 00 00 00");
  EXPECT_EQ(stub_->calls, Calls{"Connect(node17,9001,60)"});
  EXPECT_NE(Logged().find("\nConnect on host: node17, port: 9001, timeout: 60\n"),
            std::string::npos);
}

TEST_F(HandlersTest, ConnectIsLoggedBeforeItFails) {
  stub_->fail = [] { throw std::runtime_error("Connection timed out."); };
  MasterSends("01 00 00 00");
  EXPECT_EQ(Serve(), 2);
  EXPECT_NE(Logged().find("Connect on host: node17, port: 9001, timeout: 60\nException"),
            std::string::npos);
}

TEST_F(HandlersTest, DatesAreDayMonthYear) {
  stub_->date[0] = 31;
  stub_->date[1] = 12;
  stub_->date[2] = 2026;
  EXPECT_EQ(ReplyTo("02 00 00 00"),
            "14 00 00 00 02 00 00 00 1f 00 00 00 0c 00 00 00 ea 07 00 00 00 00 00 00");
  EXPECT_NE(Logged().find("\nGetting date: 31, 12, 2026\n"), std::string::npos);
}

TEST_F(HandlersTest, StartDateIsDayMonthYear) {
  stub_->start_date[0] = 1;
  stub_->start_date[1] = 2;
  stub_->start_date[2] = 2000;
  EXPECT_EQ(ReplyTo("14 00 00 00"),
            "14 00 00 00 14 00 00 00 01 00 00 00 02 00 00 00 d0 07 00 00 00 00 00 00");
  EXPECT_NE(Logged().find("\nGetting start date: 1, 2, 2000\n"), std::string::npos);
}

TEST_F(HandlersTest, MetricModelRepliesOneThenZero) {
  stub_->metric = true;
  EXPECT_EQ(ReplyTo("03 00 00 00"), "0c 00 00 00 03 00 00 00 01 00 00 00 00 00 00 00");
}

TEST_F(HandlersTest, FieldModelRepliesZeroThenZero) {
  EXPECT_EQ(ReplyTo("03 00 00 00"), "0c 00 00 00 03 00 00 00 00 00 00 00 00 00 00 00");
}

TEST_F(HandlersTest, TimeIsDaysAsADouble) {
  stub_->days = 365.25;
  EXPECT_EQ(ReplyTo("04 00 00 00"), "10 00 00 00 04 00 00 00 00 00 00 00 00 d4 76 40 00 00 00 00");
  EXPECT_NE(Logged().find("\nGetTimeDays: 365.25\n"), std::string::npos);
}

TEST_F(HandlersTest, CompositionalFlag) {
  stub_->compositional = true;
  EXPECT_EQ(ReplyTo("05 00 00 00"), "0c 00 00 00 05 00 00 00 01 00 00 00 00 00 00 00");
}

TEST_F(HandlersTest, NewtonIsAcknowledged) {
  EXPECT_EQ(ReplyTo("07 00 00 00"), "08 00 00 00 07 00 00 00 00 00 00 00");
  EXPECT_EQ(Logged().substr(0, 26), "Received header: 7\nNewton\n");
}

TEST_F(HandlersTest, RunUntilLogsTheTimeBeforeItRuns) {
  stub_->fail = [this] { EXPECT_EQ(Logged(), "Received header: 8\nRunning until 365.25\n"); };
  EXPECT_EQ(ReplyTo("08 00 00 00 00 00 00 00 00 d4 76 40"), "08 00 00 00 08 00 00 00 00 00 00 00");
  EXPECT_EQ(stub_->calls, Calls{"RunUntil(365.250000)"});
}

// Lines that show request data only are written before the simulator is asked: a run that hangs
// shows where.
class EarlyLogLineTest : public ControllerTest,
                         public testing::WithParamInterface<std::pair<const char*, const char*>> {};

TEST_P(EarlyLogLineTest, IsWrittenBeforeTheCall) {
  const auto [request, line] = GetParam();
  stub_->fail = [this, text = std::string(line)] {
    EXPECT_EQ(Logged().substr(Logged().find('\n') + 1), text);
  };
  MasterSends(request);
  Serve();
  EXPECT_EQ(stub_->calls.size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Requests, EarlyLogLineTest,
                         testing::Values(std::pair("07 00 00 00", "Newton\n"),
                                         std::pair("0e 00 00 00", "Getting EOS props\n"),
                                         std::pair("12 00 00 00", "SetWellInjectionSource\n"),
                                         std::pair("13 00 00 00", "SetWellInjectionComposition\n"),
                                         std::pair("f0 ff 00 00", "Shutting down\n")));

TEST_F(HandlersTest, RequestThatCannotBeReadLeavesNoLineOfItsHandler) {
  MasterSends("12 00 00 00 ff ff ff 7f");
  EXPECT_EQ(Serve(), 2);
  EXPECT_EQ(Logged().find("SetWellInjectionSource"), std::string::npos);
}

TEST_F(HandlersTest, TermFlagIsOneAtTheEnd) {
  stub_->ended = true;
  EXPECT_EQ(ReplyTo("09 00 00 00"), "0c 00 00 00 09 00 00 00 01 00 00 00 00 00 00 00");
}

TEST_F(HandlersTest, VersionIsADouble) {
  stub_->version = 2016.2;
  EXPECT_EQ(ReplyTo("11 00 00 00"), "10 00 00 00 11 00 00 00 cd cc cc cc cc 80 9f 40 00 00 00 00");
}

TEST_F(HandlersTest, BytesAfterACodeWithoutFieldsAreIgnored) {
  EXPECT_EQ(ReplyTo("07 00 00 00 ff ff ff ff ff"), "08 00 00 00 07 00 00 00 00 00 00 00");
}

TEST_F(HandlersTest, WellStatusIsNameTypeStatusPerWell) {
  stub_->wells = {{"P1", "PRODUCER", "OPEN"}, {"I", "", "SHUT"}};
  EXPECT_EQ(ReplyTo("06 00 00 00"),
            "37 00 00 00 06 00 00 00 02 00 00 00 "
            "02 00 00 00 50 31 08 00 00 00 50 52 4f 44 55 43 45 52 04 00 00 00 4f 50 45 4e "
            "01 00 00 00 49 00 00 00 00 04 00 00 00 53 48 55 54 00 00 00 00");
  EXPECT_NE(Logged().find("\nWell status: P1, PRODUCER, OPEN\nWell status: I, , SHUT\n"),
            std::string::npos);
}

DynWellOpPt OperatingPoint(const std::string& status, double first) {
  return {status,      first,       first + 1.0, first + 2.0, first + 3.0,
          first + 4.0, first + 5.0, first + 6.0, first + 7.0};
}

TEST_F(HandlersTest, WellDataSendsOneRecordPerSubRequestInTheMastersOrder) {
  stub_->operating_points = {OperatingPoint("OPEN", 1), OperatingPoint("S", 2)};
  MasterSends("0a 00 00 00 02 00 00 00 01 00 00 00 41 01 00 00 00 42");
  MasterSends("00 10 00 00 99");
  MasterSends("00 10 00 00");
  EXPECT_EQ(Serve(), 1);
  EXPECT_EQ(stub_->calls, Calls{"GetWellOpPtData([A B])"});
  EXPECT_EQ(replies_,
            "0c 00 00 00 0a 00 00 00 02 00 00 00 00 00 00 00 "
            "50 00 00 00 00 10 00 00 04 00 00 00 4f 50 45 4e "
            "00 00 00 00 00 00 f0 3f 00 00 00 00 00 00 00 40 00 00 00 00 00 00 08 40 "
            "00 00 00 00 00 00 10 40 00 00 00 00 00 00 14 40 00 00 00 00 00 00 18 40 "
            "00 00 00 00 00 00 1c 40 00 00 00 00 00 00 20 40 00 00 00 00 "
            "4d 00 00 00 00 10 00 00 01 00 00 00 53 "
            "00 00 00 00 00 00 00 40 00 00 00 00 00 00 08 40 00 00 00 00 00 00 10 40 "
            "00 00 00 00 00 00 14 40 00 00 00 00 00 00 18 40 00 00 00 00 00 00 1c 40 "
            "00 00 00 00 00 00 20 40 00 00 00 00 00 00 22 40 00 00 00 00");
  EXPECT_NE(Logged().find("\nGetWellData for 2 wells\n"), std::string::npos);
}

TEST_F(HandlersTest, WellDataOfNoWellsAwaitsNoSubRequest) {
  EXPECT_EQ(ReplyTo("0a 00 00 00 00 00 00 00"), "0c 00 00 00 0a 00 00 00 00 00 00 00 00 00 00 00");
}

TEST_F(HandlersTest, MissingWellRecordGetsNoReplyAtAll) {
  stub_->operating_points = {OperatingPoint("OPEN", 1)};
  MasterSends("0a 00 00 00 02 00 00 00 01 00 00 00 41 01 00 00 00 42");
  ExpectCommsFailure("",
                     "Discrepancy returned in well data from Corvane: well count in routine "
                     "VK_GETWELLDATA");
  EXPECT_EQ(Logged().find("GetWellData for"), std::string::npos);
}

TEST_F(HandlersTest, WellRecordTooManyGetsNoReplyAtAll) {
  stub_->operating_points = {OperatingPoint("OPEN", 1), OperatingPoint("SHUT", 2)};
  MasterSends("0a 00 00 00 01 00 00 00 01 00 00 00 41");
  MasterSends("00 10 00 00");
  ExpectCommsFailure("",
                     "Discrepancy returned in well data from Corvane: well count in routine "
                     "VK_GETWELLDATA");
}

TEST_F(HandlersTest, WellRecordForNoNameGetsNoReplyAtAll) {
  stub_->operating_points = {OperatingPoint("OPEN", 1)};
  MasterSends("0a 00 00 00 00 00 00 00");
  EXPECT_EQ(Serve(), 2);
  EXPECT_EQ(replies_, "");
}

TEST_F(HandlersTest, WrongSecondSubRequestOfWellDataEndsTheRunAfterTheFirstRecord) {
  stub_->operating_points = {OperatingPoint("", 1), OperatingPoint("", 2)};
  MasterSends("0a 00 00 00 02 00 00 00 01 00 00 00 41 01 00 00 00 42");
  MasterSends("00 10 00 00");
  MasterSends("0a 00 00 00");
  ExpectCommsFailure(
      "0c 00 00 00 0a 00 00 00 02 00 00 00 00 00 00 00 "
      "4c 00 00 00 00 10 00 00 00 00 00 00 "
      "00 00 00 00 00 00 f0 3f 00 00 00 00 00 00 00 40 00 00 00 00 00 00 08 40 "
      "00 00 00 00 00 00 10 40 00 00 00 00 00 00 14 40 00 00 00 00 00 00 18 40 "
      "00 00 00 00 00 00 1c 40 00 00 00 00 00 00 20 40 00 00 00 00",
      "Unexpected data received from Corvane, routine VK_GETWELLDATA_SUB");
}

TEST_F(HandlersTest, WrongSubRequestOfWellDataEndsTheRun) {
  stub_->operating_points = {OperatingPoint("OPEN", 1)};
  MasterSends("0a 00 00 00 01 00 00 00 01 00 00 00 41");
  MasterSends("01 10 00 00");
  ExpectCommsFailure("0c 00 00 00 0a 00 00 00 01 00 00 00 00 00 00 00",
                     "Unexpected data received from Corvane, routine VK_GETWELLDATA_SUB");
}

TEST_F(HandlersTest, MasterThatLeavesInTheSubExchangeEndsTheRun) {
  stub_->operating_points = {OperatingPoint("OPEN", 1)};
  MasterSends("0a 00 00 00 01 00 00 00 01 00 00 00 41");
  EXPECT_EQ(Serve(), 2);
  EXPECT_NE(error_.find("VK_GETWELLDATA_SUB"), std::string::npos);
}

TEST_F(HandlersTest, SetWellStatusPassesListsOfDifferentLengthAsTheyAre) {
  EXPECT_EQ(ReplyTo("0b 00 00 00 02 00 00 00 01 00 00 00 01 00 00 00 41 01 00 00 00 42 "
                    "04 00 00 00 4f 50 45 4e"),
            "08 00 00 00 0b 00 00 00 00 00 00 00");
  EXPECT_EQ(stub_->calls, Calls{"SetWellStatus([A B],[OPEN])"});
}

TEST_F(HandlersTest, SetWellUptimePassesNamesAndFractions) {
  EXPECT_EQ(ReplyTo("0c 00 00 00 01 00 00 00 02 00 00 00 01 00 00 00 41 "
                    "00 00 00 00 00 00 e0 3f 00 00 00 00 00 00 f0 3f"),
            "08 00 00 00 0c 00 00 00 00 00 00 00");
  EXPECT_EQ(stub_->calls, Calls{"SetWellUptime([A],[0.5 1.])"});
}

TEST_F(HandlersTest, SetWellConstraintsPassesGroupsPerWell) {
  EXPECT_EQ(ReplyTo("0d 00 00 00 02 00 00 00 01 00 00 00 41 01 00 00 00 42 "
                    "02 00 00 00 02 00 00 00 01 00 00 00 58 01 00 00 00 59 00 00 00 00 "
                    "01 00 00 00 02 00 00 00 00 00 00 00 00 00 f0 3f 00 00 00 00 00 00 00 40"),
            "08 00 00 00 0d 00 00 00 00 00 00 00");
  EXPECT_EQ(stub_->calls, Calls{"SetWellConstraints([A B],[[X Y] []],[[1. 2.]])"});
}

TEST_F(HandlersTest, EosIsPackedInTheOrderOfItsMembersWithTheEmptySlot) {
  stub_->eos.name = "PR";
  stub_->eos.components = {"C1"};
  stub_->eos.molecular_weight = {1};
  stub_->eos.critical_temperature = {2};
  stub_->eos.critical_pressure = {3};
  stub_->eos.critical_volume = {4};
  stub_->eos.acentric_factor = {5};
  stub_->eos.boiling_point = {6};
  stub_->eos.volume_shift = {7};
  stub_->eos.omega_a = {8};
  stub_->eos.omega_b = {9};
  stub_->eos.parachor = {10};
  stub_->eos.binary_interaction = {11, 12};
  EXPECT_EQ(ReplyTo("0e 00 00 00"),
            "a8 00 00 00 0e 00 00 00 02 00 00 00 50 52 01 00 00 00 02 00 00 00 43 31 "
            "01 00 00 00 00 00 00 00 00 00 f0 3f 01 00 00 00 00 00 00 00 00 00 00 40 "
            "01 00 00 00 00 00 00 00 00 00 08 40 01 00 00 00 00 00 00 00 00 00 10 40 "
            "01 00 00 00 00 00 00 00 00 00 14 40 00 00 00 00 "
            "01 00 00 00 00 00 00 00 00 00 18 40 01 00 00 00 00 00 00 00 00 00 1c 40 "
            "01 00 00 00 00 00 00 00 00 00 20 40 01 00 00 00 00 00 00 00 00 00 22 40 "
            "01 00 00 00 00 00 00 00 00 00 24 40 02 00 00 00 00 00 00 00 00 00 26 40 "
            "00 00 00 00 00 00 28 40 00 00 00 00");
  EXPECT_EQ(Logged().substr(0, 38), "Received header: 14\nGetting EOS props\n");
}

TEST_F(HandlersTest, WellVariablesAreASeries) {
  stub_->variables = {1, 2};
  EXPECT_EQ(ReplyTo("0f 00 00 00 01 00 00 00 41 02 00 00 00 01 00 00 00 58 01 00 00 00 59"),
            "1c 00 00 00 0f 00 00 00 02 00 00 00 00 00 00 00 00 00 f0 3f 00 00 00 00 00 00 00 40 "
            "00 00 00 00");
  EXPECT_EQ(stub_->calls, Calls{"GetWellVariables(A,[X Y])"});
}

DynWellIPR Table() {
  DynWellIPR table;
  table.pressure = {1};
  table.oil_rate = {2};
  table.water_rate = {3};
  table.gas_rate = {4};
  table.temperature = {5};
  table.gas_density = {6};
  table.oil_density = {7};
  table.water_density = {8};
  return table;
}

// The eight lists of Table().
const std::string kTableBytes =
    "01 00 00 00 00 00 00 00 00 00 f0 3f 01 00 00 00 00 00 00 00 00 00 00 40 "
    "01 00 00 00 00 00 00 00 00 00 08 40 01 00 00 00 00 00 00 00 00 00 10 40 "
    "01 00 00 00 00 00 00 00 00 00 14 40 01 00 00 00 00 00 00 00 00 00 18 40 "
    "01 00 00 00 00 00 00 00 00 00 1c 40 01 00 00 00 00 00 00 00 00 00 20 40 ";

TEST_F(HandlersTest, IprTablesHaveEightSeries) {
  stub_->tables = {Table()};
  MasterSends("10 00 00 00 00 00 00 00 01 00 00 00 01 00 00 00 41 01 00 00 00 00 00 00 00 40");
  MasterSends("01 10 00 00");
  EXPECT_EQ(Serve(), 1);
  EXPECT_EQ(stub_->calls, Calls{"GetWellIPRData(0,[A],bottom,2.000000)"});
  EXPECT_EQ(replies_,
            "10 00 00 00 10 00 00 00 01 00 00 00 0a 00 00 00 00 00 00 00 "
            "68 00 00 00 01 10 00 00 " +
                kTableBytes + "00 00 00 00");
}

TEST_F(HandlersTest, IprTablesEndWithTenMoleFractionSeriesWhenAskedFor) {
  stub_->tables = {Table()};
  stub_->tables[0].mole_fractions.assign(10, {});
  stub_->tables[0].mole_fractions[0] = {1};
  stub_->tables[0].mole_fractions[9] = {2};
  MasterSends("10 00 00 00 01 00 00 00 01 00 00 00 01 00 00 00 41 00 00 00 00 00 00 00 00 40");
  MasterSends("01 10 00 00");
  EXPECT_EQ(Serve(), 1);
  EXPECT_EQ(stub_->calls, Calls{"GetWellIPRData(1,[A],top,2.000000)"});
  EXPECT_EQ(replies_,
            "10 00 00 00 10 00 00 00 01 00 00 00 0a 00 00 00 00 00 00 00 "
            "a0 00 00 00 01 10 00 00 " +
                kTableBytes +
                "01 00 00 00 00 00 00 00 00 00 f0 3f "
                "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
                "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
                "01 00 00 00 00 00 00 00 00 00 00 40 00 00 00 00");
}

TEST_F(HandlersTest, MissingMoleFractionSeriesAreSentEmpty) {
  stub_->tables = {Table()};
  stub_->tables[0].mole_fractions = {{1}};
  MasterSends("10 00 00 00 01 00 00 00 01 00 00 00 01 00 00 00 41 00 00 00 00 00 00 00 00 40");
  MasterSends("01 10 00 00");
  EXPECT_EQ(Serve(), 1);
  EXPECT_EQ(replies_,
            "10 00 00 00 10 00 00 00 01 00 00 00 0a 00 00 00 00 00 00 00 "
            "98 00 00 00 01 10 00 00 " +
                kTableBytes +
                "01 00 00 00 00 00 00 00 00 00 f0 3f "
                "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
                "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
                "00 00 00 00 00 00 00 00");
}

TEST_F(HandlersTest, TableWithoutMoleFractionsSendsTenEmptySeries) {
  stub_->tables = {Table()};
  MasterSends("10 00 00 00 02 00 00 00 01 00 00 00 01 00 00 00 41 00 00 00 00 00 00 00 00 40");
  MasterSends("01 10 00 00");
  EXPECT_EQ(Serve(), 1);
  EXPECT_EQ(replies_,
            "10 00 00 00 10 00 00 00 01 00 00 00 0a 00 00 00 00 00 00 00 "
            "90 00 00 00 01 10 00 00 " +
                kTableBytes +
                "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
                "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
                "00 00 00 00");
}

TEST_F(HandlersTest, MoleFractionsAfterTheTenthAreNotSent) {
  stub_->tables = {Table()};
  stub_->tables[0].mole_fractions.assign(12, {});
  stub_->tables[0].mole_fractions[9] = {1};
  stub_->tables[0].mole_fractions[10] = {2};
  stub_->tables[0].mole_fractions[11] = {3};
  MasterSends("10 00 00 00 01 00 00 00 01 00 00 00 01 00 00 00 41 00 00 00 00 00 00 00 00 40");
  MasterSends("01 10 00 00");
  EXPECT_EQ(Serve(), 1);
  EXPECT_EQ(replies_,
            "10 00 00 00 10 00 00 00 01 00 00 00 0a 00 00 00 00 00 00 00 "
            "98 00 00 00 01 10 00 00 " +
                kTableBytes +
                "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
                "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
                "01 00 00 00 00 00 00 00 00 00 f0 3f 00 00 00 00");
}

TEST_F(HandlersTest, MoleFractionsThatNobodyAskedForAreNotSent) {
  for (const char* components : {"00 00 00 00", "ff ff ff ff"}) {
    MasterSends(std::string("10 00 00 00 ") + components +
                " 01 00 00 00 01 00 00 00 41 00 00 00 00 00 00 00 00 40");
    MasterSends("01 10 00 00");
  }
  stub_->tables = {Table()};
  stub_->tables[0].mole_fractions.assign(10, {1});
  EXPECT_EQ(Serve(), 1);
  const std::string reply =
      "10 00 00 00 10 00 00 00 01 00 00 00 0a 00 00 00 00 00 00 00 "
      "68 00 00 00 01 10 00 00 " +
      kTableBytes + "00 00 00 00";
  EXPECT_EQ(replies_, reply + " " + reply);
}

TEST_F(HandlersTest, IprTableTooManyGetsNoReplyAtAll) {
  stub_->tables = {Table(), Table()};
  MasterSends("10 00 00 00 00 00 00 00 01 00 00 00 01 00 00 00 41 01 00 00 00 00 00 00 00 40");
  MasterSends("01 10 00 00");
  ExpectCommsFailure("",
                     "Discrepancy returned in well data from Corvane: well count in routine "
                     "VK_GETWELLIPRDATA");
}

TEST_F(HandlersTest, WrongSecondSubRequestOfIprDataEndsTheRunAfterTheFirstTable) {
  stub_->tables = {Table(), Table()};
  MasterSends(
      "10 00 00 00 00 00 00 00 02 00 00 00 01 00 00 00 41 01 00 00 00 42 "
      "01 00 00 00 00 00 00 00 40");
  MasterSends("01 10 00 00");
  MasterSends("00 10 00 00");
  ExpectCommsFailure(
      "10 00 00 00 10 00 00 00 02 00 00 00 0a 00 00 00 00 00 00 00 "
      "68 00 00 00 01 10 00 00 " +
          kTableBytes + "00 00 00 00",
      "Unexpected data received from Corvane, routine VK_GETWELLIPRDATA_SUB");
}

TEST_F(HandlersTest, MissingIprTableGetsNoReplyAtAll) {
  MasterSends("10 00 00 00 00 00 00 00 01 00 00 00 01 00 00 00 41 01 00 00 00 00 00 00 00 40");
  EXPECT_EQ(Serve(), 2);
  EXPECT_EQ(replies_, "");
  EXPECT_NE(error_.find("Discrepancy returned in well data from Corvane: well count in routine "
                        "VK_GETWELLIPRDATA"),
            std::string::npos);
}

TEST_F(HandlersTest, WrongSubRequestOfIprDataEndsTheRun) {
  stub_->tables = {Table()};
  MasterSends("10 00 00 00 00 00 00 00 01 00 00 00 01 00 00 00 41 01 00 00 00 00 00 00 00 40");
  MasterSends("00 10 00 00");
  EXPECT_EQ(Serve(), 2);
  EXPECT_NE(error_.find("Unexpected data received from Corvane, routine VK_GETWELLIPRDATA_SUB"),
            std::string::npos);
}

TEST_F(HandlersTest, InjectionSourceRepliesTheLowByteOfTheResult) {
  stub_->source_result = 0x1ff;
  EXPECT_EQ(ReplyTo("12 00 00 00 01 00 00 00 57 02 00 00 00 53 31"),
            "0c 00 00 00 12 00 00 00 ff 00 00 00 00 00 00 00");
  EXPECT_EQ(stub_->calls, Calls{"SetWellInjectionSource(W,S1)"});
  EXPECT_NE(Logged().find("\nSetWellInjectionSource\n"), std::string::npos);
}

TEST_F(HandlersTest, InjectionCompositionPassesNamesAndSeries) {
  EXPECT_EQ(ReplyTo("13 00 00 00 01 00 00 00 01 00 00 00 53 01 00 00 00 "
                    "02 00 00 00 00 00 00 00 00 00 e0 3f 00 00 00 00 00 00 d0 3f"),
            "08 00 00 00 13 00 00 00 00 00 00 00");
  EXPECT_EQ(stub_->calls, Calls{"SetWellInjectionComposition([S],[[0.5 0.25]])"});
  EXPECT_NE(Logged().find("\nSetWellInjectionComposition\n"), std::string::npos);
}

// The room for a reply is made in one piece, since every later growth copies what is there: after
// the ten bytes that every reply begins with comes an allocation of its whole size, in tens. Each
// has eight bytes more, for the frame's length and the code.
class ReplyRoomTest : public ControllerTest {
 protected:
  using Sizes = std::vector<std::size_t>;

  Sizes RoomsFor(std::string_view request, std::string_view sub_request = {}) {
    MasterSends(request);
    if (!sub_request.empty()) MasterSends(sub_request);
    Allocations::Forget();
    EXPECT_EQ(Serve(), 1) << error_;
    return Allocations::Arrays();
  }
};

TEST_F(ReplyRoomTest, WellStatus) {
  stub_->wells = {{"PRODUCER-1", "PRODUCER", "OPEN"}, {"I", "INJECT", "SHUT"}};
  EXPECT_EQ(RoomsFor("06 00 00 00"), (Sizes{18, 78}));  // 65 bytes
}

TEST_F(ReplyRoomTest, WellStatusOfAnOddByteMore) {
  stub_->wells = {{"PRODUCER-1", "PRODUCER", "OPEN"}, {"I1234567", "INJECT", "SHUT"}};
  EXPECT_EQ(RoomsFor("06 00 00 00"), (Sizes{18, 88}));  // 72 bytes
}

TEST_F(ReplyRoomTest, WellData) {
  stub_->operating_points = {OperatingPoint("IN-WORK-1", 1)};
  EXPECT_EQ(RoomsFor("0a 00 00 00 01 00 00 00 01 00 00 00 41", "00 10 00 00"),
            (Sizes{18, 18, 98}));  // 81 bytes
}

TEST_F(ReplyRoomTest, InflowTable) {
  stub_->tables = {DynWellIPR()};
  stub_->tables[0].pressure = {1, 2};
  EXPECT_EQ(RoomsFor("10 00 00 00 00 00 00 00 01 00 00 00 01 00 00 00 41 01 "
                     "00 00 00 00 00 00 00 40",
                     "01 10 00 00"),
            (Sizes{18, 28, 18, 68}));  // 52 bytes
}

TEST_F(ReplyRoomTest, EquationOfState) {
  stub_->eos.name = "NINE-LONG";
  stub_->eos.components = {"C1"};
  stub_->eos.molecular_weight = {1, 2, 3, 4, 5, 6};
  stub_->eos.binary_interaction = {1, 2, 3, 4, 5, 6};
  EXPECT_EQ(RoomsFor("0e 00 00 00"), (Sizes{18, 188}));  // 171 bytes
}

TEST_F(ReplyRoomTest, WellVariables) {
  stub_->variables = {1, 2, 3};
  EXPECT_EQ(RoomsFor("0f 00 00 00 01 00 00 00 41 00 00 00 00"), (Sizes{18, 48}));  // 32 bytes
}

// The fields after a short request, up to byte 2,047 of the frame, are zeros whatever came before;
// those after that are what an earlier frame has left.
TEST_F(HandlersTest, TwoThousandAndFortyEightBytesAreClearedBeforeEachFrame) {
  std::string ones;
  for (int i = 0; i < 3000; ++i) ones += "01 ";
  MasterSends(ones);  // of an unknown code
  // A well's name that ends before the last four cleared bytes: no properties are asked for.
  MasterSends("0f 00 00 00 f4 07 00 00");
  // One byte longer, the number of properties reaches into the frame before.
  MasterSends("0f 00 00 00 f5 07 00 00");
  EXPECT_EQ(Serve(), 2);
  EXPECT_EQ(stub_->calls, Calls{"GetWellVariables(,[])"});
}

// A request reads past its end what earlier requests have left there, and nothing of the frames
// that asked for the records of one.
TEST_F(HandlersTest, SubRequestsLeaveTheBufferOfTheRequestsAlone) {
  std::string zeros;
  std::string ones;
  for (int i = 0; i < 3000; ++i) {
    zeros += "00 ";
    ones += "01 ";
  }
  stub_->operating_points = {OperatingPoint("OPEN", 1)};
  stub_->tables = {DynWellIPR()};
  const std::string properties = "0f 00 00 00 f5 07 00 00";  // whose number begins at byte 2,045
  MasterSends(ones);                                         // of an unknown code
  MasterSends("0a 00 00 00 01 00 00 00 01 00 00 00 41" + zeros);
  MasterSends("00 10 00 00" + ones);
  MasterSends(properties);
  MasterSends("10 00 00 00 00 00 00 00 01 00 00 00 01 00 00 00 41" + zeros);
  MasterSends("01 10 00 00" + ones);
  MasterSends(properties);
  EXPECT_EQ(Serve(), 1) << error_;
  EXPECT_EQ(stub_->calls, (Calls{"GetWellOpPtData([A])", "GetWellVariables(,[])",
                                 "GetWellIPRData(0,[A],top,0.000000)", "GetWellVariables(,[])"}));
}

TEST_F(HandlersTest, FieldsOfAShortRequestAreReadAsTheZerosAfterIt) {
  EXPECT_EQ(ReplyTo("0b 00 00 00"), "08 00 00 00 0b 00 00 00 00 00 00 00");
  EXPECT_EQ(stub_->calls, Calls{"SetWellStatus([],[])"});
}

// A count or length that the buffer cannot hold ends the run before the connector is called.
class HostileCountTest : public ControllerTest, public testing::WithParamInterface<const char*> {};

TEST_P(HostileCountTest, EndsTheRunWithoutACallOrAReply) {
  MasterSends(GetParam());
  EXPECT_EQ(Serve(), 2);
  EXPECT_EQ(replies_, "");
  EXPECT_EQ(stub_->calls, Calls{});
  EXPECT_EQ(error_, "Failed to handle data packet received from master: Unknown exception");
}

INSTANTIATE_TEST_SUITE_P(
    Requests, HostileCountTest,
    testing::Values("0a 00 00 00 ff ff ff 7f",                          // texts
                    "0a 00 00 00 01 00 00 00 ff ff ff 7f",              // length of a text
                    "0a 00 00 00 01 00 00 00 f8 ff 00 00",              // one past the buffer
                    "0b 00 00 00 00 00 00 00 ff ff ff 7f",              // second list
                    "0c 00 00 00 00 00 00 00 ff ff ff 7f",              // numbers
                    "0c 00 00 00 00 00 00 00 00 20 00 00",              // numbers past the end
                    "0d 00 00 00 00 00 00 00 ff ff ff 7f",              // groups
                    "0d 00 00 00 00 00 00 00 01 00 00 00 ff ff ff 7f",  // a group of texts
                    "0d 00 00 00 00 00 00 00 00 00 00 00 01 00 00 00 ff ff ff 7f",
                    "0f 00 00 00 ff ff ff 7f", "0f 00 00 00 00 00 00 00 ff ff ff 7f",
                    "10 00 00 00 00 00 00 00 ff ff ff 7f", "12 00 00 00 ff ff ff 7f",
                    "13 00 00 00 ff ff ff 7f", "13 00 00 00 00 00 00 00 ff ff ff 7f"));

TEST_F(HandlersTest, NegativeCountsAreEmptyLists) {
  MasterSends("0b 00 00 00 ff ff ff ff 00 00 00 80");
  MasterSends("0c 00 00 00 ff ff ff ff ff ff ff ff");
  MasterSends("0d 00 00 00 ff ff ff ff ff ff ff ff ff ff ff ff");
  MasterSends("13 00 00 00 ff ff ff ff ff ff ff ff");
  EXPECT_EQ(Serve(), 1);
  EXPECT_EQ(stub_->calls,
            (Calls{"SetWellStatus([],[])", "SetWellUptime([],[])", "SetWellConstraints([],[],[])",
                   "SetWellInjectionComposition([],[])"}));
}

}  // namespace
