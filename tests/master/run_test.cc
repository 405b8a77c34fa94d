#include "master/run.h"

#include <stdexcept>
#include <thread>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "master/errors.h"
#include "tests/master/exchanges.h"
#include "tests/support/bytes.h"
#include "tests/support/socket_pair.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class RunTest : public testing::Test {
 protected:
  void Reply(const std::string& body) { WriteAll(pair_.peer.get(), Frame(body)); }
  void ReplyAsIn(const std::string& name) {
    for (const char* reply : ExchangeNamed(name).replies) Reply(Bytes(reply));
  }
  std::string Sent() { return Arrived(pair_.peer.get()); }

  SocketPair pair_;
  master::Run run_{master::FrameChannel(std::move(pair_.ours))};
};

class EveryRequest : public RunTest, public testing::WithParamInterface<Exchange> {};

TEST_P(EveryRequest, SendsItsBytesAndTakesItsAnswer) {
  for (const char* reply : GetParam().replies) Reply(Bytes(reply));
  GetParam().call(run_);
  EXPECT_EQ(Hex(Sent()), Hex(Bytes(GetParam().requests)));
}

INSTANTIATE_TEST_SUITE_P(Codes, EveryRequest, testing::ValuesIn(Exchanges()),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST_F(RunTest, DateIsDayMonthYear) {
  ReplyAsIn("GetDate");
  EXPECT_EQ(run_.GetDate(), (master::Date{31, 12, 2020}));
}

TEST_F(RunTest, StartDateIsDayMonthYear) {
  ReplyAsIn("GetStartDate");
  EXPECT_EQ(run_.GetStartDate(), (master::Date{1, 2, 2018}));
}

TEST_F(RunTest, FlagOfOneIsTrueAndOfZeroFalse) {
  Reply(Bytes("03000000 01000000 00000000"));
  Reply(Bytes("03000000 00000000 00000000"));
  EXPECT_TRUE(run_.GetMetricFlag());
  EXPECT_FALSE(run_.GetMetricFlag());
  Reply(Bytes("05000000 01000000 00000000"));
  Reply(Bytes("05000000 00000000 00000000"));
  EXPECT_TRUE(run_.GetCompFlag());
  EXPECT_FALSE(run_.GetCompFlag());
  Reply(Bytes("09000000 01000000 00000000"));
  Reply(Bytes("09000000 00000000 00000000"));
  EXPECT_TRUE(run_.GetTermFlag());
  EXPECT_FALSE(run_.GetTermFlag());
}

TEST_F(RunTest, TimeAndVersionAreDoubles) {
  ReplyAsIn("GetTimeDays");
  EXPECT_EQ(run_.GetTimeDays(), 365.25);
  ReplyAsIn("GetVersion");
  EXPECT_EQ(run_.GetVersion(), 2016.0);
}

TEST_F(RunTest, WellStatusIsNameTypeStatusPerWell) {
  ReplyAsIn("GetWellStatus");
  EXPECT_THAT(run_.GetWellStatus(),
              ElementsAre(master::WellStatus{"P1", "PRODUCER", "OPEN"},
                          master::WellStatus{"I1", "WATER_INJECTOR", "SHUT"}));
}

TEST_F(RunTest, WellDataHasRatesInjectionPressuresUptimeInOrder) {
  ReplyAsIn("GetWellData");
  EXPECT_THAT(run_.GetWellData({"P1", "P2"}),
              ElementsAre(master::WellData{"OPEN", 1, 2, 3, 4, 5, 6, 7, 8},
                          master::WellData{"SHUT", 0, 0, 0, 0, 0, 0, 0, 0.5}));
}

TEST_F(RunTest, WellDataOfNoWellsAsksForNoRecords) {
  Reply(Bytes("0a000000 00000000 00000000"));
  EXPECT_THAT(run_.GetWellData({}), IsEmpty());
  EXPECT_EQ(Hex(Sent()), "08 00 00 00 0a 00 00 00 00 00 00 00");
}

TEST_F(RunTest, EOSListsComeInTheirPlacesWithTheReservedOneBeforeTheBoilingPoints) {
  ReplyAsIn("GetEOSProps");
  const master::EOSProps eos = run_.GetEOSProps();
  EXPECT_EQ(eos.name, "PR");
  EXPECT_THAT(eos.components, ElementsAre("C1", "CO2"));
  EXPECT_THAT(eos.molecular_weight, ElementsAre(1, 2));
  EXPECT_THAT(eos.critical_temperature, ElementsAre(3));
  EXPECT_THAT(eos.critical_pressure, ElementsAre(4));
  EXPECT_THAT(eos.critical_volume, ElementsAre(5));
  EXPECT_THAT(eos.acentric_factor, ElementsAre(6));
  EXPECT_THAT(eos.reserved, IsEmpty());
  EXPECT_THAT(eos.boiling_point, ElementsAre(7));
  EXPECT_THAT(eos.volume_shift, ElementsAre(8));
  EXPECT_THAT(eos.omega_a, ElementsAre(9));
  EXPECT_THAT(eos.omega_b, ElementsAre(10));
  EXPECT_THAT(eos.parachor, ElementsAre(11));
  EXPECT_THAT(eos.binary_interaction, ElementsAre(0.5));
}

TEST_F(RunTest, VariablesComeAsTheirSeries) {
  ReplyAsIn("GetWellVariables");
  EXPECT_THAT(run_.GetWellVariables("P1", {"A", "BC"}), ElementsAre(1, 2));
}

TEST_F(RunTest, IPRTableHasItsListsInOrderAndTenCompositions) {
  ReplyAsIn("GetWellIPRDataWithComponents");
  const master::IPRTables tables =
      run_.GetWellIPRData({.wells = {"P1"}, .components = 1, .bottom_hole = true, .skewness = 2});
  EXPECT_EQ(tables.points, 10);
  ASSERT_THAT(tables.wells, SizeIs(1));
  const master::WellIPR& table = tables.wells[0];
  EXPECT_THAT(table.pressure, ElementsAre(1));
  EXPECT_THAT(table.oil_rate, ElementsAre(2));
  EXPECT_THAT(table.water_rate, ElementsAre(3));
  EXPECT_THAT(table.gas_rate, ElementsAre(4));
  EXPECT_THAT(table.temperature, ElementsAre(5));
  EXPECT_THAT(table.gas_density, ElementsAre(6));
  EXPECT_THAT(table.oil_density, ElementsAre(7));
  EXPECT_THAT(table.water_density, ElementsAre(8));
  ASSERT_THAT(table.mole_fractions, SizeIs(10));
  EXPECT_THAT(table.mole_fractions[0], ElementsAre(1));
  EXPECT_THAT(table.mole_fractions[9], ElementsAre(10));
}

TEST_F(RunTest, IPRTableWithoutComponentsHasNoCompositions) {
  ReplyAsIn("GetWellIPRDataOfTubingHead");
  const master::IPRTables tables =
      run_.GetWellIPRData({.wells = {"P1"}, .components = 0, .bottom_hole = false});
  ASSERT_THAT(tables.wells, SizeIs(1));
  EXPECT_THAT(tables.wells[0].mole_fractions, IsEmpty());
}

TEST_F(RunTest, InjectionSourceReturnsTheSimulatorsResult) {
  Reply(Bytes("12000000 ff000000 00000000"));
  EXPECT_EQ(run_.SetWellInjectionSource("G1", "SRC"), 255);
}

TEST_F(RunTest, StatusOfFiveThousandWellsIsReadWhole) {
  std::string body = Bytes("06000000 88130000");
  for (int i = 0; i < 5000; ++i) {
    body += Bytes("05000000 5745 4c4c58 08000000 50524f4455434552 04000000 4f50454e");
  }
  body += Bytes("00000000");
  ASSERT_GT(body.size(), 65536U);
  std::thread daemon([&] { Reply(body); });
  const auto wells = run_.GetWellStatus();
  daemon.join();
  ASSERT_THAT(wells, SizeIs(5000));
  EXPECT_EQ(wells.back(), (master::WellStatus{"WELLX", "PRODUCER", "OPEN"}));
}

TEST_F(RunTest, RequestLongerThanTheDaemonReadsIsNotSent) {
  const std::vector<std::string> wells(10000, "WELL");
  EXPECT_THROW(run_.GetWellIPRData({.wells = wells}), master::RequestTooLong);
  EXPECT_THROW(run_.SetWellUptime(wells, {1}), master::RequestTooLong);
  EXPECT_EQ(Sent(), "");
  ReplyAsIn("GetTimeDays");
  EXPECT_EQ(run_.GetTimeDays(), 365.25) << "the link is as good as before";
}

TEST_F(RunTest, LongestRequestThatTheDaemonReadsIsSent) {
  // Code, count and 8,191 names of four characters: 65,536 bytes.
  const std::vector<std::string> wells(8191, "WELL");
  std::string sent;
  std::thread daemon([&] {
    sent = ReadExactly(pair_.peer.get(), 65540);
    pair_.peer.Reset();
  });
  EXPECT_THROW(run_.GetWellData(wells), master::RequestFailed);
  daemon.join();
  EXPECT_EQ(Hex(sent.substr(0, 12)), "00 00 01 00 0a 00 00 00 ff 1f 00 00");
  EXPECT_EQ(sent.size(), 65540U);
}

TEST_F(RunTest, EndOfConnectionNamesTheRequestThatFailed) {
  pair_.peer.Reset();
  // A socket pair refuses to send once the peer is closed; a daemon that fails has read before.
  SocketPair pair;
  master::Run run{master::FrameChannel(std::move(pair.ours))};
  shutdown(pair.peer.get(), SHUT_WR);
  try {
    run.RunUntil(30);
    FAIL() << "no exception";
  } catch (const master::RequestFailed& failure) {
    EXPECT_STREQ(failure.what(),
                 "The daemon ended the connection while waiting for the answer of request 8 "
                 "(RunUntil)");
  }
}

TEST_F(RunTest, BrokenConnectionIsLinkLost) {
  pair_.peer.Reset();
  EXPECT_THROW(run_.Connect(), master::LinkLost);
}

TEST(NameOf, CodeIsNamedByItsNumberAndWhatItAsksFor) {
  EXPECT_EQ(master::NameOf(master::Code::kRunUntil), "request 8 (RunUntil)");
  EXPECT_EQ(master::NameOf(static_cast<master::Code>(99)), "request 99");
}

}  // namespace
