#include <algorithm>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "master/errors.h"
#include "tests/support/socket_pair.h"
#include "tests/tools/fake_daemon.h"
#include "tests/tools/memory_stream.h"
#include "tools/vkmaster/commands/fluid.h"
#include "tools/vkmaster/commands/ipr.h"
#include "tools/vkmaster/commands/registry.h"
#include "tools/vkmaster/commands/wells.h"
#include "tools/vkmaster/session/quantities.h"
#include "tools/vkmaster/text/usage_error.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;
using vkmaster::Form;
using vkmaster::UsageError;

/// Commands on a run whose daemon is in this process.
// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): only the framework destroys it
class WellCommandsTest : public testing::Test {
 protected:
  WellCommandsTest()
      : session_(master::Run(master::FrameChannel(std::move(pair_.ours))), {}),
        end_(pair_.peer.get()) {
    daemon_ = std::thread([this] { run_.Serve(end_); });
    session_.Connect();
  }
  ~WellCommandsTest() override {
    session_.Shutdown();
    daemon_.join();
  }

  // What the commands write, notes after it.
  std::string Do(const std::string& line, Form form = Form::kCsv) {
    const MemoryStream stream;
    vkmaster::Output output(form, stream.get(), stream.get());
    vkmaster::Progress progress(false, stream.get());
    vkmaster::Context context{session_, output, progress, {}};
    for (const vkmaster::Command& command : vkmaster::ParseCommands(vkmaster::SplitWords(line))) {
      command.execute(context);
    }
    return stream.Text();
  }

  // What a command says before the run when it would be refused then; "fine" else.
  std::string Check(const std::string& line) {
    try {
      vkmaster::ParseCommands(vkmaster::SplitWords(line)).at(0).check(session_);
      return "fine";
    } catch (const UsageError& error) {
      return error.what();
    }
  }

  // The last requests of the kind, as hex; the daemon's answer has come, so they are all there.
  std::vector<std::string> Requests(int code) {
    std::vector<std::string> found;
    for (const std::string& frame : end_.received()) {
      if (NumberAt<int>(frame) == code) found.push_back(Hex(frame));
    }
    return found;
  }

  // The sizes of what a command over all wells sends: twice `count` wells with names of 200
  // letters, and one more with a name of `last` letters after each of these series.
  std::vector<std::size_t> SizesOf(const std::string& line, int code, std::size_t count,
                                   std::size_t last) {
    run_.wells.clear();
    for (const char series : {'A', 'B'}) {
      for (std::size_t i = 0; i < count; ++i) {
        run_.wells.push_back({std::to_string(1000 + i) + std::string(196, series), "", ""});
      }
      run_.wells.push_back({std::string(last, series), "", ""});
    }
    session_.Wells();
    const std::size_t before = end_.received().size();
    Do(line);
    std::vector<std::size_t> sizes;
    for (std::size_t i = before; i < end_.received().size(); ++i) {
      const std::string& frame = end_.received()[i];
      if (frame.starts_with(static_cast<char>(code)) && frame[1] == 0)
        sizes.push_back(frame.size());
    }
    return sizes;
  }

  SocketPair pair_;
  FakeRun run_;
  vkmaster::Session session_;
  DaemonEnd end_;
  std::thread daemon_;
};

std::string Refusal(const std::string& line) {
  try {
    vkmaster::ParseCommands(vkmaster::SplitWords(line));
    return "understood";
  } catch (const UsageError& error) {
    return error.what();
  }
}

TEST_F(WellCommandsTest, WellsListsTypeAndStatus) {
  EXPECT_EQ(Do("wells"),
            "well,type,status\nP1,PRODUCER,OPEN\nP2,PRODUCER,SHUT\nI1,WATER_INJECTOR,OPEN\n");
  EXPECT_EQ(Do("wells I*"), "well,type,status\nI1,WATER_INJECTOR,OPEN\n");
}

TEST_F(WellCommandsTest, WellsOfAModelWithoutWellsIsAnEmptyTable) {
  run_.wells.clear();
  EXPECT_EQ(Do("wells"), "well,type,status\n");
}

TEST_F(WellCommandsTest, DataIsATableOfOperatingPoints) {
  EXPECT_EQ(Do("data P2,P1"),
            "well,status,oil_rate,water_rate,gas_rate,water_injection_rate,gas_injection_rate,"
            "bottom_hole_pressure,tubing_head_pressure,uptime_fraction\n"
            "P2,OPEN,100,102,101,103,104,250.5,30.25,0.95\n"
            "P1,OPEN,200,202,201,203,204,250.5,30.25,0.95\n");
}

TEST_F(WellCommandsTest, FieldAddsRatesUpOverTheDaysBetween) {
  Do("field");
  run_.time = 10;
  EXPECT_EQ(Do("field"),
            "oil_rate,water_rate,gas_rate,water_injection_rate,gas_injection_rate,oil_total,"
            "water_total,gas_total,water_injection_total,gas_injection_total\n"
            "600,606,603,609,612,6000,6060,6030,6090,6120\n");
  EXPECT_THAT(Do("field", Form::kText), HasSubstr("oil total       6000 sm3\n"));
}

// Zeros would look as if the field had not produced.
TEST_F(WellCommandsTest, FieldHasNoTotalsWhereNothingWasAddedUp) {
  run_.time = 365;
  EXPECT_EQ(Do("field"),
            "oil_rate,water_rate,gas_rate,water_injection_rate,gas_injection_rate,oil_total,"
            "water_total,gas_total,water_injection_total,gas_injection_total\n"
            "600,606,603,609,612,,,,,\n"
            "note: The totals add up from here, day 365, on: field was not asked for before. Ask "
            "for it often, each rate counts for the days since the time before\n");
  run_.time = 375;
  EXPECT_THAT(Do("field"), HasSubstr("\n600,606,603,609,612,6000,6060,6030,6090,6120\n"));
}

// 630 and 660 a day for ten days each; the last rate alone would make 13,200 of them.
TEST_F(WellCommandsTest, TotalsCountAllRatesThatWereRead) {
  run_.rise = 1;
  for (const char* before : {"field then until 20 step 10 rates", "until 20 step 10 rates",
                             "field then until 10 then field then until 20",
                             "field then until 10 then data then until 20"}) {
    run_.time = 0;
    session_.totals() = {};
    Do(before);
    EXPECT_THAT(Do("field"), HasSubstr("\n660,666,663,669,672,12900,")) << before;
  }
}

TEST_F(WellCommandsTest, TotalsOfOneRateForAWholeAdvanceSaySo) {
  run_.rise = 1;
  for (const char* advance : {"until 20", "until 20 rates", "until 20 step 10"}) {
    run_.time = 0;
    session_.totals() = {};
    Do("field");
    Do(advance);
    const std::string field = Do("field");
    EXPECT_THAT(field, HasSubstr(",13200,")) << advance;
    EXPECT_THAT(field, HasSubstr("\nnote: The totals take the rates of day 20 for all 20 days "
                                 "before it, since no others were read. until TARGET step monthly "
                                 "rates reads them in between\n"))
        << advance;
  }
}

TEST_F(WellCommandsTest, TotalsOfSomeWellsAreNotCounted) {
  run_.rise = 1;
  Do("field then until 10 then data P1 then until 20");
  EXPECT_THAT(Do("field"), HasSubstr(",13200,"));
}

TEST_F(WellCommandsTest, TotalsThatBeginLateSaySo) {
  Do("until 365 then until 375 step 5 rates");
  EXPECT_THAT(Do("field"),
              HasSubstr(",6000,6060,6030,6090,6120\nnote: The totals count from day 365 on\n"));
  EXPECT_THAT(Do("field"), Not(HasSubstr("note")));
}

TEST_F(WellCommandsTest, FieldWithoutTotalsSaysSoToPeople) {
  run_.time = 365;
  EXPECT_THAT(Do("field", Form::kText), HasSubstr("\noil total\nwater total\n"));
}

TEST_F(WellCommandsTest, FieldAtTheStartHasTotalsOfNothing) {
  EXPECT_THAT(Do("field"), HasSubstr("\n600,606,603,609,612,0,0,0,0,0\n"));
}

TEST_F(WellCommandsTest, UnitsFollowTheRun) {
  EXPECT_THAT(Do("data P1", Form::kText), HasSubstr("oil [sm3/d]"));
  EXPECT_THAT(Do("data P1", Form::kText), HasSubstr("bhp [bar]"));
}

TEST_F(WellCommandsTest, UnitsOfAFieldRunAreFieldUnits) {
  run_.metric = false;
  EXPECT_THAT(Do("data P1", Form::kText), HasSubstr("oil [STB/d]"));
  EXPECT_THAT(Do("data P1", Form::kText), HasSubstr("bhp [psi]"));
}

TEST_F(WellCommandsTest, VarsAsksForTheSimulatorsNamesWellByWell) {
  EXPECT_EQ(Do("vars P1,P2 bhp as-is:GAS_LIFT"),
            "well,BOTTOM_HOLE_PRESSURE,GAS_LIFT\nP1,10.5,21\nP2,10.5,21\n");
  EXPECT_EQ(Requests(15).size(), 2U);
  EXPECT_EQ(Requests(15)[0], Hex(Bytes("0f000000 02000000 5031 02000000"
                                       "14000000 424f54544f4d5f484f4c455f5052455353555245"
                                       "08000000 4741535f4c494654")));
  EXPECT_EQ(Do("vars P1 P2 bhp"), "well,BOTTOM_HOLE_PRESSURE\nP1,10.5\nP2,10.5\n");
}

TEST_F(WellCommandsTest, OpenAndShutSendTheStatus) {
  EXPECT_EQ(Do("open P1 I1"), "well,status\nP1,OPEN\nI1,OPEN\n");
  Do("shut P2");
  Do("set-status as-is:PAUSED P2");
  EXPECT_THAT(
      Requests(11),
      ElementsAre(Hex(Bytes("0b000000 02000000 02000000 02000000 5031 02000000 4931"
                            "04000000 4f50454e 04000000 4f50454e")),
                  Hex(Bytes("0b000000 01000000 01000000 02000000 5032 04000000 53485554")),
                  Hex(Bytes("0b000000 01000000 01000000 02000000 5032 06000000 504155534544"))));
}

TEST_F(WellCommandsTest, UptimeSendsTheFractionForEachWell) {
  EXPECT_EQ(Do("uptime P1 P2 0.5"), "well,uptime_fraction\nP1,0.5\nP2,0.5\n");
  EXPECT_THAT(Requests(12),
              ElementsAre(Hex(Bytes("0c000000 02000000 02000000 02000000 5031 02000000 5032"
                                    "000000000000e03f 000000000000e03f"))));
}

TEST_F(WellCommandsTest, ConstrainSendsNamesAndValuesPerWell) {
  EXPECT_EQ(Do("constrain P1 P2 bhp=1 I1 as-is:X=2"),
            "well,constraint,value,unit\n"
            "P1,BOTTOM_HOLE_PRESSURE,1,bar\n"
            "P2,BOTTOM_HOLE_PRESSURE,1,bar\n"
            "I1,X,2,\n");
  const std::string bhp = "14000000 424f54544f4d5f484f4c455f5052455353555245";
  EXPECT_THAT(Requests(13),
              ElementsAre(Hex(Bytes("0d000000 03000000 02000000 5031 02000000 5032 02000000 4931"
                                    "03000000 01000000" +
                                    bhp + "01000000" + bhp +
                                    "01000000 01000000 58"
                                    "03000000 01000000 000000000000f03f 01000000 000000000000f03f"
                                    "01000000 0000000000000040"))));
}

TEST_F(WellCommandsTest, LaterValueOfAWellNamedTwiceCounts) {
  EXPECT_EQ(Do("constrain all bhp=1 P1 bhp=2 oil=300"),
            "well,constraint,value,unit\n"
            "P1,BOTTOM_HOLE_PRESSURE,2,bar\n"
            "P1,OIL_PRODUCTION_RATE,300,sm3/d\n"
            "P2,BOTTOM_HOLE_PRESSURE,1,bar\n"
            "I1,BOTTOM_HOLE_PRESSURE,1,bar\n");
}

TEST_F(WellCommandsTest, UnknownWellIsRefusedWithoutSendingTheCommand) {
  EXPECT_THROW(Do("shut P9"), UsageError);
  EXPECT_THROW(Do("constrain P1 bhp=1 P9 bhp=2"), UsageError);
  EXPECT_THAT(Requests(11), IsEmpty());
  EXPECT_THAT(Requests(13), IsEmpty());
}

TEST_F(WellCommandsTest, IPRIsATableOfPointsAndAPlotPerWell) {
  const std::string csv = Do("ipr P1 keep");
  EXPECT_THAT(csv, StartsWith("well,point,pressure,oil_rate,water_rate,gas_rate,temperature,"
                              "oil_density,gas_density,water_density\n"
                              "P1,1,200,1000,250,100000,80,80,80,80\n"
                              "P1,2,210,900,225,90000,80,80,80,80\n"));
  const std::string text = Do("ipr P1 P2 keep", Form::kText);
  EXPECT_THAT(text, HasSubstr("\nP1\n   bhp bar\n       290 |*"));
  EXPECT_THAT(text, HasSubstr("\nP2\n   bhp bar\n       290 |*"));
  // Oil and water together, from 100 and 25 to 1000 and 250.
  EXPECT_THAT(text, testing::ContainsRegex("\n +125 +liquid sm3/d +1250\n"));
  EXPECT_THAT(Do("ipr P1 keep no-plot", Form::kText), testing::Not(HasSubstr("liquid")));
}

TEST_F(WellCommandsTest, IPRSendsPressureSkewnessAndComponents) {
  const std::string csv = Do("ipr P1 thp skewness 2 components all keep");
  EXPECT_THAT(csv, HasSubstr("water_density,mole_fraction_1,mole_fraction_2\n"));
  EXPECT_THAT(csv, HasSubstr("P1,1,200,1000,250,100000,80,80,80,80,0.5,0.5\n"));
  EXPECT_THAT(Requests(16), ElementsAre(Hex(Bytes("10000000 02000000 01000000 02000000 5031 00"
                                                  "0000000000000040"))));
}

TEST_F(WellCommandsTest, IPRPutsStatusesAndRateLimitsBack) {
  Do("constrain P2 liquid=1 bhp=2");
  EXPECT_THAT(Do("ipr P2 I1 no-plot lift"), HasSubstr("note: The wells have their statuses again"));
  ASSERT_EQ(Requests(13).size(), 2U);
  // P2: liquid back to 1, gas out of the way, its pressure limit again; I1: water out of the way.
  EXPECT_EQ(Requests(13)[1],
            Hex(Bytes("0d000000 02000000 02000000 5032 02000000 4931 02000000 03000000"
                      "16000000 4c49515549445f50524f44554354494f4e5f52415445"
                      "13000000 4741535f50524f44554354494f4e5f52415445"
                      "14000000 424f54544f4d5f484f4c455f5052455353555245"
                      "01000000"
                      "14000000 57415445525f494e4a454354494f4e5f52415445"
                      "02000000 03000000 000000000000f03f 00000098c3fde441 0000000000000040"
                      "01000000 99999999590dcf40")));
  EXPECT_THAT(Requests(11),
              ElementsAre(Hex(Bytes("0b000000 02000000 02000000 02000000 5032 02000000 4931"
                                    "04000000 53485554 04000000 4f50454e"))));
}

TEST_F(WellCommandsTest, IPRInFieldUnitsFreesAWellToTheFieldsRate) {
  run_.metric = false;
  Do("ipr I1 no-plot lift");
  EXPECT_THAT(Requests(13),
              ElementsAre(Hex(Bytes("0d000000 01000000 02000000 4931 01000000 01000000"
                                    "14000000 57415445525f494e4a454354494f4e5f52415445"
                                    "01000000 01000000 00000000006af840"))));
}

TEST_F(WellCommandsTest, IPROfMoreWellsThanARequestNamesIsBuiltInGroups) {
  run_.wells.clear();
  for (int i = 0; i < 7000; ++i) {
    run_.wells.push_back({"WELL" + std::to_string(i), "PRODUCER", "OPEN"});
  }
  const std::string csv = Do("ipr all no-plot lift");
  EXPECT_THAT(csv, HasSubstr("\nWELL6999,10,"));
  EXPECT_THAT(csv, HasSubstr("note: These are more wells than one request can name: they were cut "
                             "back in 2 groups"));
  const std::vector<std::string> requests = Requests(16);
  EXPECT_THAT(requests, SizeIs(2));
  for (const std::string& request : requests) EXPECT_LE(Bytes(request).size(), 65536U);
  // The first group has its statuses again before the second is cut back.
  std::string order;
  for (const std::string& frame : end_.received()) {
    if (frame[0] == 16 || frame[0] == 11) order += frame[0] == 16 ? 'T' : 's';
  }
  EXPECT_EQ(order, "TssTs");
}

TEST_F(WellCommandsTest, IPROfMoreComponentsThanTheModelHasIsNotAskedFor) {
  EXPECT_THROW(Do("ipr P1 components 3"), UsageError);
  run_.compositional = false;
  EXPECT_THROW(Do("ipr P1 components 3"), UsageError);
  EXPECT_THAT(Requests(16), IsEmpty());
}

TEST_F(WellCommandsTest, ChecksFindWhatTheRunWouldRefuseAndChangeNothing) {
  run_.wells.push_back({"G1", "GAS_INJECTOR", "OPEN"});
  for (const char* line :
       {"data", "wells P1", "open P1", "uptime P1 1", "vars P* bhp", "ipr P1 lift", "ipr P1 keep",
        "constrain P1 oil=5", "constrain later:X oil=5", "source G1 S", "source later:X S",
        "composition S C1=1", "shut later:P9", "ipr P1 --keep", "ipr P1 lift components 2",
        "ipr later:X", "unconstrain later:X", "constrain P1 as-is:SKIN=-1"}) {
    EXPECT_EQ(Check(line), "fine") << line;
  }
  for (const char* line : {"data P9", "wells P9", "open P9", "uptime P9 1", "vars P9 bhp", "ipr P9",
                           "constrain P1 water-injection=5", "constrain X oil=5", "source P1 S",
                           "source P* S", "composition S H2=1", "ipr P1 components 9",
                           "vars P1 TOTAL_MOLE_FRACTION[9]", "ipr P2", "unconstrain P9"}) {
    EXPECT_NE(Check(line), "fine") << line;
  }
  // An order of a plan counts for those after it.
  EXPECT_EQ(Check("unconstrain P2 liquid gas"), "fine");
  EXPECT_EQ(Check("ipr P2"), "fine");
  for (const int code : {10, 11, 12, 13, 15, 16, 18, 19}) EXPECT_THAT(Requests(code), IsEmpty());
}

// Limits of the model cannot be read: tables that lift them change the forecast, and nobody
// notices.
TEST_F(WellCommandsTest, IPRAsksBeforeItLiftsLimitsThatTheModelMayHave) {
  try {
    Do("ipr P1 I1");
    FAIL() << "limits of the model would be lifted";
  } catch (const UsageError& error) {
    EXPECT_THAT(error.what(),
                HasSubstr("cannot be asked for: P1 (liquid, gas), I1 (water-injection). Say what "
                          "holds, constrain P1 liquid=... gas=..., or that nothing does, "
                          "unconstrain P1 liquid gas; lift "));
  }
  EXPECT_THAT(Requests(16), IsEmpty());
  EXPECT_THAT(Do("ipr P1 I1 lift no-plot"),
              HasSubstr("Lifted for good, in case the model had any: P1 (liquid, gas), I1 "
                        "(water-injection)\n"));
}

// Whoever has set a limit of the oil thinks of the well as limited.
TEST_F(WellCommandsTest, IPRSaysWhyTheLimitsThatWereSetAreNotEnough) {
  Do("constrain P1 oil=900 gas=1e6 bhp=100");
  try {
    Do("ipr P1");
    FAIL() << "limits of the model would be lifted";
  } catch (const UsageError& error) {
    EXPECT_THAT(error.what(), HasSubstr("P1 (liquid). Limits that were set on oil are others, "
                                        "and stay. Say what holds, constrain P1 liquid=..., "
                                        "or that nothing does, unconstrain P1 liquid; lift "));
  }
}

TEST_F(WellCommandsTest, IPRNeedsNoLeaveWhereThisSessionHasSetTheLimits) {
  Do("constrain P1 liquid=900 gas=900");
  EXPECT_THAT(Do("ipr P1 no-plot"),
              HasSubstr("note: The wells have their statuses and rate limits again\n"));
  Do("unconstrain P2 liquid gas");
  EXPECT_THAT(Do("ipr P* no-plot"), HasSubstr("rate limits again\n"));
}

TEST_F(WellCommandsTest, UnconstrainTakesLimitsOff) {
  EXPECT_THROW(Do("unconstrain P1"), UsageError) << "none was set in this session";
  EXPECT_THROW(Do("unconstrain I1 oil"), UsageError);
  Do("constrain P1 oil=500 bhp=150");
  EXPECT_EQ(Do("unconstrain P1"),
            "well,constraint\nP1,OIL_PRODUCTION_RATE\nP1,BOTTOM_HOLE_PRESSURE\n"
            "note: No limit of these kinds is in force on these wells now: one that the model had "
            "is gone, too\n");
  EXPECT_THAT(Do("unconstrain all bhp gas-injection"),
              StartsWith("well,constraint\nP1,BOTTOM_HOLE_PRESSURE\nP2,BOTTOM_HOLE_PRESSURE\n"
                         "I1,BOTTOM_HOLE_PRESSURE\nnote: "));
  const std::string bhp = "01000000" + Hex(PackedText("BOTTOM_HOLE_PRESSURE"));
  EXPECT_EQ(Requests(13).back(),
            Hex(Bytes("0d000000 03000000 02000000 5031 02000000 5032 02000000 4931 03000000" + bhp +
                      bhp + bhp +
                      "03000000 01000000 0000000000000000 01000000 0000000000000000"
                      "01000000 00000000006af840")));
  Do("unconstrain P1 thp");
  EXPECT_EQ(Requests(13).back(), Hex(Bytes("0d000000 01000000 02000000 5031 01000000 01000000" +
                                           Hex(PackedText("TUBING_HEAD_PRESSURE")) +
                                           "01000000 01000000 0000000000000000")));
}

TEST_F(WellCommandsTest, LimitsAreTakenOffOnce) {
  Do("constrain P1 oil=500 bhp=150 P2 oil=100 then unconstrain P1 oil");
  EXPECT_THAT(Do("unconstrain all"),
              StartsWith("well,constraint\nP1,BOTTOM_HOLE_PRESSURE\nP2,OIL_PRODUCTION_RATE\n"
                         "note: "));
  const std::size_t sent = Requests(13).size();
  EXPECT_THROW(Do("unconstrain all"), UsageError);
  EXPECT_EQ(Requests(13).size(), sent);
  Do("ipr P2 keep");
  EXPECT_THAT(Do("unconstrain all"), StartsWith("well,constraint\nP2,OIL_PRODUCTION_RATE\nnote: "))
      << "the tables have set limits";
}

TEST_F(WellCommandsTest, HintSaysWhatTheSimulatorDoesWithAnUnknownName) {
  EXPECT_THAT(
      Refusal("vars P1 rate"),
      EndsWith("as-is:rate is sent as it stands, which ends the run when the simulator does "
               "not know it"));
  EXPECT_THAT(Refusal("constrain P1 rate=500"),
              EndsWith("as-is:rate is sent as it stands, which the simulator acknowledges without "
                       "effect when it does not know it"));
}

TEST_F(WellCommandsTest, IPRListsItsOptions) {
  const std::string text = Do("ipr ?");
  for (const char* option :
       {"bhp", "thp", "skewness X", "components N|all", "lift", "keep", "no-plot"}) {
    EXPECT_THAT(text, HasSubstr(std::string("\n") + option + ",")) << option;
  }
}

TEST_F(WellCommandsTest, IPRWithKeepLeavesTheWellsAsTheyAre) {
  EXPECT_THAT(Do("ipr P1 keep"), HasSubstr("note: The wells are open and limited"));
  EXPECT_THAT(Requests(13), IsEmpty());
  EXPECT_THAT(Requests(11), IsEmpty());
}

TEST_F(WellCommandsTest, EOSIsATableOfComponents) {
  EXPECT_EQ(Do("eos"),
            "name,component_count\nPR,2\n\n"
            "number,component,molecular_weight,critical_temperature,critical_pressure,"
            "critical_volume,acentric_factor,boiling_point,volume_shift,omega_a,omega_b,parachor\n"
            "1,C1,16.04,190.6,46,99,0.011,111.6,-0.15,0.457,0.0778,77\n"
            "2,CO2,44.01,304.1,73.8,94,0.239,194.7,-0.08,0.457,0.0778,78\n\n"
            "number,coefficient\n1,0.1\n");
}

TEST_F(WellCommandsTest, FullSquareOfInteractionCoefficientsIsShownAsOne) {
  run_.interaction = {0, 0.1, 0.2, 0};
  EXPECT_THAT(Do("eos"), testing::EndsWith("component,C1,CO2\nC1,0,0.1\nCO2,0.2,0\n"));
}

TEST_F(WellCommandsTest, NoInteractionCoefficientsAreNoTable) {
  run_.interaction = {};
  EXPECT_THAT(Do("eos"), testing::EndsWith("0.457,0.0778,78\n"));
}

TEST_F(WellCommandsTest, ModelWithoutAnEquationOfStateIsSaidToHaveNone) {
  run_.has_eos = false;
  EXPECT_EQ(Do("eos"), "name,component_count\n,0\nnote: The model has no equation of state\n");
}

TEST_F(WellCommandsTest, MissingPropertyOfAComponentIsAnEmptyCell) {
  run_.short_lists = true;
  EXPECT_THAT(Do("eos"), HasSubstr(",0.457,0.0778,77\n2,CO2,44.01,304.1,73.8,94,0.239,194.7,-0.08,"
                                   "0.457,0.0778,\n"));
}

TEST_F(WellCommandsTest, MissingPointOfAnInflowTableIsAnEmptyCell) {
  run_.short_lists = true;
  const std::string csv = Do("ipr P1 keep");
  EXPECT_THAT(csv, HasSubstr("P1,9,280,200,50,20000,80,80,80,80\n"));
  EXPECT_THAT(csv, HasSubstr("P1,10,290,100,25,10000,,80,80,80\n"));
}

TEST_F(WellCommandsTest, FractionsOfTheTimeHaveNoUnit) {
  EXPECT_EQ(Do("vars P1 bhp uptime", Form::kText),
            "well  bhp [bar]  uptime\nP1         10.5      21\n");
}

TEST_F(WellCommandsTest, ConstraintsOfManyWellsAreSentInSeveralRequests) {
  run_.wells.clear();
  // 4 + 5 for the name, 4 for each count, 8 + 20 + 4 for the constraint: 49 bytes a well.
  for (int i = 10000; i < 12000; ++i) run_.wells.push_back({std::to_string(i), "PRODUCER", "OPEN"});
  const std::string csv = Do("constrain all bhp=1");
  EXPECT_THAT(csv, HasSubstr("\n10000,BOTTOM_HOLE_PRESSURE,1,bar\n"));
  EXPECT_THAT(csv, HasSubstr("\n11999,BOTTOM_HOLE_PRESSURE,1,bar\n"));
  std::vector<std::string> wells;
  for (const std::string& hex : Requests(13)) {
    const std::string request = Bytes(hex);
    EXPECT_LE(request.size(), 65536U);
    Fields fields(request.substr(4));
    for (std::string& name : fields.Strings(fields.Int())) wells.push_back(std::move(name));
  }
  EXPECT_EQ(Requests(13).size(), 2U);
  ASSERT_EQ(wells.size(), 2000U);
  EXPECT_EQ(wells.front(), "10000");
  EXPECT_EQ(wells.back(), "11999");
  EXPECT_TRUE(std::is_sorted(wells.begin(), wells.end()));
  EXPECT_EQ(std::adjacent_find(wells.begin(), wells.end()), wells.end());
}

// A request that were a byte longer would end in an exception.
TEST_F(WellCommandsTest, RequestsOverManyWellsAreFilledToTheirLastByte) {
  struct Case {
    const char* line;
    int code;
    std::size_t head;  // bytes of code and counts
    std::size_t well;  // bytes of a well besides its name
  };
  for (const Case& each :
       {Case{"data", 10, 8, 4}, Case{"shut all", 11, 12, 4 + 8},
        Case{"set-status open all", 11, 12, 4 + 8}, Case{"uptime all 0.5", 12, 12, 4 + 8},
        Case{"constrain all bhp=1", 13, 16, 4 + 4 + 4 + 20 + 4 + 8}}) {
    SCOPED_TRACE(each.line);
    const std::size_t room = 65536 - each.head;
    const std::size_t count = room / (200 + each.well) - 1;
    const std::size_t last = room - count * (200 + each.well) - each.well;
    EXPECT_THAT(SizesOf(each.line, each.code, count, last), ElementsAre(65536, 65536));
    EXPECT_THAT(SizesOf(each.line, each.code, count, last + 1), SizeIs(3));
  }
}

// As when the wells of a survey get their own statuses back.
TEST_F(WellCommandsTest, StatusesOfSeveralRequestsStayWithTheirWells) {
  std::vector<std::string> wells;
  std::vector<std::string> statuses;
  for (int i = 10000; i < 15000; ++i) {
    wells.push_back(std::to_string(i));
    statuses.emplace_back(i < 13000 ? "OPEN" : "SHUT");
  }
  SetStatuses(session_, wells, statuses);
  std::vector<std::string> named;
  std::vector<std::string> given;
  for (const std::string& hex : Requests(11)) {
    Fields fields(Bytes(hex).substr(4));
    const int names = fields.Int();
    const int values = fields.Int();
    for (std::string& name : fields.Strings(names)) named.push_back(std::move(name));
    for (std::string& value : fields.Strings(values)) given.push_back(std::move(value));
  }
  EXPECT_EQ(Requests(11).size(), 2U);
  EXPECT_EQ(named, wells);
  EXPECT_EQ(given, statuses);
}

TEST_F(WellCommandsTest, MissingVariablesBreakTheProtocol) {
  run_.missing_variables = 1;
  EXPECT_THROW(Do("vars P1 bhp oil"), master::ProtocolError);
}

TEST_F(WellCommandsTest, IPROfAGasInjectorIsPlottedOverGasAndFreedOfItsGasLimit) {
  run_.wells = {{"G1", "GAS_INJECTOR", "OPEN"}};
  run_.metric = false;
  run_.flows_liquid = false;
  EXPECT_THAT(Do("ipr G1 lift", Form::kText), HasSubstr("gas MMscf/d"));
  EXPECT_THAT(Requests(13),
              ElementsAre(Hex(Bytes("0d000000 01000000 02000000 4731 01000000 01000000"
                                    "12000000 4741535f494e4a454354494f4e5f52415445"
                                    "01000000 01000000 00000000006af840"))));
}

TEST_F(WellCommandsTest, OnlyTheFirstWellsOfALongListArePlotted) {
  run_.wells.clear();
  for (int i = 0; i < 12; ++i) {
    run_.wells.push_back({"W" + std::to_string(i), "PRODUCER", "OPEN"});
  }
  const std::string text = Do("ipr all keep", Form::kText);
  EXPECT_THAT(text, HasSubstr("\nW0\n   bhp"));
  EXPECT_THAT(text, testing::Not(HasSubstr("\nW11\n   bhp")));
}

TEST_F(WellCommandsTest, SourceSendsWellAndName) {
  run_.wells.push_back({"G1", "GAS_INJECTOR", "OPEN"});
  EXPECT_EQ(Do("source G1 GAS"), "well,source,result\nG1,GAS,1\n");
  EXPECT_THAT(Requests(18), ElementsAre(Hex(Bytes("12000000 02000000 4731 03000000 474153"))));
  EXPECT_THROW(Do("source P* GAS"), UsageError);
}

TEST_F(WellCommandsTest, CompositionIsSentInComponentOrder) {
  Do("composition as-is:S1 0.5 0.5 as-is:S2 1 anyway");
  EXPECT_EQ(Do("composition as-is:S3 co2=1"),
            "source,component,mole_fraction\nS3,C1,0\nS3,CO2,1\n");
  EXPECT_THAT(
      Requests(19),
      ElementsAre(
          Hex(Bytes("13000000 02000000 02000000 5331 02000000 5332 02000000"
                    "02000000 000000000000e03f 000000000000e03f 01000000 000000000000f03f")),
          Hex(Bytes("13000000 01000000 02000000 5333 01000000"
                    "02000000 0000000000000000 000000000000f03f"))));
}

TEST_F(WellCommandsTest, CompositionThatIsNoWholeOneIsRefusedUnlessItIsMeant) {
  const auto refused = [this](const std::string& line) {
    try {
      return Do(line);
    } catch (const UsageError& error) {
      return std::string(error.what());
    }
  };
  EXPECT_EQ(refused("composition as-is:S1 CO2=0.9 C1=0.2"),
            "composition: The mole fractions of S1 add up to 1.1; anyway at the end sends them as "
            "they are");
  EXPECT_EQ(refused("composition as-is:S1 1"),
            "S1 has 1 of the model's 2 mole fractions; anyway at the end sends them as they are");
  EXPECT_THAT(Requests(19), IsEmpty());
  EXPECT_THAT(Do("composition as-is:S1 CO2=0.9 C1=0.2 anyway"),
              HasSubstr("note: The mole fractions of S1 add up to 1.1\n"));
  EXPECT_THAT(Do("composition as-is:S1 1 anyway"),
              HasSubstr("note: S1 has 1 of the model's 2 mole fractions\n"));
}

TEST_F(WellCommandsTest, CompositionOfRoundedFractionsIsSentAndNoted) {
  EXPECT_THAT(Do("composition as-is:S1 0.333 0.666"),
              HasSubstr("note: The mole fractions of S1 add up to 0.999\n"));
}

TEST_F(WellCommandsTest, UnknownComponentIsRefusedWithoutSendingTheCommand) {
  EXPECT_THROW(Do("composition as-is:S1 H2=1"), UsageError);
  EXPECT_THAT(Requests(19), IsEmpty());
}

TEST_F(WellCommandsTest, NamesAreUnderstoodInAnyLetterCase) {
  Do("vars P1 BHP Oil GAS_oil_RATIO Total_Mole_Fraction[2]");
  EXPECT_THAT(
      Requests(15),
      ElementsAre(Hex(Bytes("0f000000 02000000 5031 04000000") +
                      PackedText("BOTTOM_HOLE_PRESSURE") + PackedText("OIL_PRODUCTION_RATE") +
                      PackedText("GAS_OIL_RATIO") + PackedText("TOTAL_MOLE_FRACTION[2]"))));
  EXPECT_THAT(Do("constrain P1 OIL=500"), HasSubstr("P1,OIL_PRODUCTION_RATE,500,sm3/d"));
}

// A name that the simulator does not know ends the run, or is acknowledged and does nothing.
TEST_F(WellCommandsTest, MistypedNamesAreNotSentAndLikelyOnesNamed) {
  EXPECT_THAT(Refusal("vars P1 bph"), HasSubstr("is no property that is known here (bhp?)"));
  EXPECT_THAT(Refusal("vars P1 B"), HasSubstr("(bhp, BOTTOM_HOLE_PRESSURE?)"));
  EXPECT_THAT(Refusal("vars P1 OIL_PRODUCTION_RTAE"), HasSubstr("(OIL_PRODUCTION_RATE?)"));
  for (const char* fraction : {"0", "x", "1.5", "123456", "1]x"}) {
    EXPECT_THAT(Refusal("vars P1 TOTAL_MOLE_FRACTION[" + std::string(fraction) + "]"),
                HasSubstr("is no property"));
  }
  EXPECT_THAT(Refusal("vars P1 TOTAL_MOLE_FRACTION[1"), HasSubstr("is no property"));
  EXPECT_THAT(Refusal("vars P1 TOTAL_MOLE_FRICTIONS[1]"), HasSubstr("is no property"));
  EXPECT_THAT(Refusal("vars P1 as-is:"), HasSubstr("is no property"));
  EXPECT_THAT(Refusal("constrain P1 oli=5"), HasSubstr("is no limit that is known here (oil?)"));
  EXPECT_THAT(Refusal("constrain P1 uptime=1"), HasSubstr("(the command uptime sets it)"));
  EXPECT_THAT(Refusal("constrain P1 gor=1"), HasSubstr("cannot be limited"));
  EXPECT_THAT(Refusal("constrain P1 oil=-1"), HasSubstr("no limit is below 0"));
  EXPECT_THAT(Refusal("set-status SHUTT P1"), HasSubstr("no status that is known here (SHUT?)"));
  try {
    Do("vars P11 bhp");
    FAIL() << "no such well";
  } catch (const UsageError& error) {
    EXPECT_STREQ(error.what(), "No well is called 'P11' (P1?)");
  }
}

TEST_F(WellCommandsTest, ComponentThatTheModelLacksIsNotAskedFor) {
  EXPECT_THROW(Do("vars P1 TOTAL_MOLE_FRACTION[3]"), UsageError);
  EXPECT_THROW(Do("composition as-is:S 0.2 0.2 0.6"), UsageError);
  EXPECT_THAT(Requests(15), IsEmpty());
  EXPECT_THAT(Requests(19), IsEmpty());
}

TEST_F(WellCommandsTest, BlackOilHasNoComponentsAndNoSources) {
  run_.compositional = false;
  run_.wells.push_back({"G1", "GAS_INJECTOR", "OPEN"});
  EXPECT_THROW(Do("vars P1 TOTAL_MOLE_FRACTION[1]"), UsageError);
  EXPECT_THROW(Do("source G1 S"), UsageError);
  EXPECT_THROW(Do("composition as-is:S 1"), UsageError);
  EXPECT_THAT(Requests(18), IsEmpty());
  const std::string none = "he model is black oil and has no components";
  for (const char* line :
       {"composition S 1", "ipr P1 components 1", "vars P1 TOTAL_MOLE_FRACTION[1]"}) {
    EXPECT_THAT(Check(line), EndsWith(none)) << line;
  }
  EXPECT_THAT(Do("vars ?"), Not(HasSubstr("TOTAL_MOLE_FRACTION")));
}

// Whether a well is known can then only be said when it is used.
TEST_F(WellCommandsTest, WellsOfAModelThatHasNoneYetAreNotCheckedBefore) {
  run_.wells.clear();
  EXPECT_EQ(Check("shut P1"), "fine");
  EXPECT_THROW(Do("shut P1"), UsageError);
}

TEST_F(WellCommandsTest, SourceThatTheSimulatorRefusesIsSaidToBeRefused) {
  run_.wells.push_back({"G1", "GAS_INJECTOR", "OPEN"});
  run_.source_answer = 0;
  EXPECT_EQ(Do("source G1 GAS"),
            "well,source,result\nG1,GAS,0\n"
            "note: The simulator has refused the source: nothing was changed\n");
}

TEST_F(WellCommandsTest, SourceIsForGasInjectorsAndCompositionForASourceThatWasAttached) {
  run_.wells.push_back({"G1", "GAS_INJECTOR", "OPEN"});
  EXPECT_THROW(Do("source I1 CAP"), UsageError);
  EXPECT_THROW(Do("composition CAP C1=1"), UsageError);
  Do("source G1 CAP");
  EXPECT_THAT(Do("composition CAP C1=1"), StartsWith("source,component,mole_fraction\nCAP,C1,1\n"));
  EXPECT_THROW(Do("composition CPA C1=1"), UsageError);
  EXPECT_THAT(Requests(19), SizeIs(1));
}

TEST_F(WellCommandsTest, LimitIsLeftOutWhereItConcernsNoWellOfThatType) {
  EXPECT_THAT(
      Do("constrain all oil=900"),
      testing::EndsWith("P1,OIL_PRODUCTION_RATE,900,sm3/d\nP2,OIL_PRODUCTION_RATE,900,sm3/d\n"
                        "note: oil does not limit I1 (WATER_INJECTOR): left out there\n"));
  EXPECT_THROW(Do("constrain I1 oil=900"), UsageError);
  EXPECT_THROW(Do("constrain P* water-injection=900"), UsageError);
  EXPECT_THAT(Requests(13), SizeIs(1));
}

TEST_F(WellCommandsTest, WhatIsAcknowledgedWithoutEffectIsSaid) {
  run_.obeys = false;
  EXPECT_THAT(Do("shut P*"),
              HasSubstr("note: The simulator has acknowledged it, but P1 is OPEN\n"));
  EXPECT_THAT(Do("uptime P1 0.5"), HasSubstr("acknowledged it, but P1 is on for 0.95\n"));
  EXPECT_THAT(Do("constrain P1 oil=60 liquid=500"),
              HasSubstr("acknowledged it, but P1 has oil 100\n"));
  EXPECT_THAT(Do("constrain P1 water=60"), HasSubstr("acknowledged it, but P1 has water 102\n"));
  EXPECT_THAT(Do("constrain I1 water-injection=60"),
              HasSubstr("acknowledged it, but I1 has water-injection 103\n"));
  run_.wells.push_back({"G1", "GAS_INJECTOR", "OPEN"});
  EXPECT_THAT(Do("constrain G1 gas-injection=60"),
              HasSubstr("acknowledged it, but G1 has gas-injection 104\n"));
  EXPECT_THROW(Do("constrain G1 water-injection=60"), UsageError);
  EXPECT_THAT(Do("constrain P1 oil=100"), testing::Not(HasSubstr("note")));
  run_.wells.clear();
  for (int i = 0; i < 9; ++i) run_.wells.push_back({"W" + std::to_string(i), "PRODUCER", "OPEN"});
  EXPECT_THAT(Do("shut W*"), HasSubstr("W4 is OPEN and 4 more\n"));
}

TEST_F(WellCommandsTest, QuestionMarkListsWhatIsKnown) {
  const std::string vars = Do("vars ?");
  EXPECT_THAT(vars, StartsWith("name,property,unit,meaning\noil,OIL_PRODUCTION_RATE,sm3/d,oil "
                               "produced\n"));
  EXPECT_THAT(vars, HasSubstr("\nwater-cut,WATER_CUT,,"));
  EXPECT_THAT(vars, HasSubstr("\n,TOTAL_MOLE_FRACTION[n],,"));
  const std::string limits = Do("constrain ?");
  EXPECT_THAT(limits, HasSubstr("\nthp,TUBING_HEAD_PRESSURE,bar,"));
  EXPECT_THAT(limits, testing::Not(HasSubstr("WATER_CUT")));
  EXPECT_EQ(Do("set-status ?"), "status\nOPEN\nSHUT\n");
}

TEST(WellCommandsWithTheOlderVersion, SourcesAreNotedAsWithoutEffect) {
  SocketPair pair;
  FakeRun run;
  DaemonEnd end(pair.peer.get());
  std::thread daemon([&] { run.Serve(end); });
  vkmaster::Launched launched;
  launched.request.version = "2016.2";
  vkmaster::Session session(master::Run(master::FrameChannel(std::move(pair.ours))), launched);
  session.Connect();
  const MemoryStream stream;
  vkmaster::Output output(Form::kCsv, stream.get(), stream.get());
  vkmaster::Progress progress(false, stream.get());
  vkmaster::Context context{session, output, progress, {}};
  run.wells.push_back({"G1", "GAS_INJECTOR", "OPEN"});
  run.source_answer = 0;
  vkmaster::ParseCommand({"source", "G1", "GAS"}).execute(context);
  EXPECT_THAT(stream.Text(), HasSubstr("has no external sources"));
  EXPECT_THAT(stream.Text(), Not(HasSubstr("refused")));
  session.Shutdown();
  daemon.join();
}

TEST(ParseWellCommands, MissingOrWrongArgumentsAreRefused) {
  EXPECT_THAT(Refusal("open"), HasSubstr("Which wells?"));
  EXPECT_THAT(Refusal("vars P1"), HasSubstr("vars WELLS NAME..."));
  EXPECT_THAT(Refusal("vars P1 pressure"),
              HasSubstr("'pressure' is no property that is known here; vars ? lists them, and "
                        "as-is:pressure is sent as it stands"));
  EXPECT_THAT(Refusal("set-status OPEN"), HasSubstr("STATUS WELLS"));
  EXPECT_THAT(Refusal("uptime P1"), HasSubstr("uptime WELLS FRACTION"));
  EXPECT_THAT(Refusal("uptime P1 P2"), HasSubstr("A fraction of the time, 0 to 1, wanted"));
  EXPECT_THAT(Refusal("uptime P1 1.5"), HasSubstr("is 0 to 1"));
  EXPECT_THAT(Refusal("constrain"), HasSubstr("To what?"));
  EXPECT_THAT(Refusal("constrain P1"), HasSubstr("To what?"));
  EXPECT_THAT(Refusal("constrain P1 oil=5 P2"), HasSubstr("To what?"));
  EXPECT_THAT(Refusal("unconstrain"), HasSubstr("unconstrain WELLS [NAME...]"));
  EXPECT_THAT(Refusal("unconstrain P1 oil P2"), HasSubstr("'P2' comes after the names"));
  EXPECT_THAT(Refusal("constrain oil=5"), HasSubstr("of which well?"));
  for (const char* blanks : {"oil = 500", "oil= 500", "oil =500"}) {
    EXPECT_THAT(Refusal(std::string("constrain P1 ") + blanks), HasSubstr("no blanks around ="));
  }
  EXPECT_THAT(Refusal("constrain P1 oil=5 oil=6"), HasSubstr("stands twice for the same wells"));
  EXPECT_THAT(Refusal("constrain P1 oil=much"), HasSubstr("A number after oil= wanted"));
  EXPECT_THAT(Refusal("ipr bhp"), HasSubstr("Of which wells?"));
  EXPECT_THAT(Refusal("ipr P1 skewness 0"), HasSubstr("above 0"));
  EXPECT_THAT(Refusal("ipr P1 components -1"), HasSubstr("no number of components"));
  EXPECT_THAT(Refusal("ipr P1 components 2.5"), HasSubstr("no number of components"));
  EXPECT_THAT(Refusal("source P1"), HasSubstr("source WELL SOURCE"));
  EXPECT_THAT(Refusal("composition"), HasSubstr("Of what?"));
  EXPECT_THAT(Refusal("composition S1"), HasSubstr("Of what?"));
  EXPECT_THAT(Refusal("composition S1 S2 1"), HasSubstr("Of what?"));
  EXPECT_THAT(Refusal("composition S1 0.5 CO2=0.5"), HasSubstr("not mixed"));
  EXPECT_THAT(Refusal("composition S1 1.5"), HasSubstr("0 to 1"));
  EXPECT_THAT(Refusal("composition C1=1"), HasSubstr("of which source?"));
}

TEST(PropertyOf, TakesShortNamesTheSimulatorsNamesAndOthersInCapitals) {
  EXPECT_EQ(vkmaster::PropertyOf("oil"), "OIL_PRODUCTION_RATE");
  EXPECT_EQ(vkmaster::PropertyOf("oil_production_rate"), "OIL_PRODUCTION_RATE");
  EXPECT_EQ(vkmaster::PropertyOf("TOTAL_MOLE_FRACTION[1]"), "TOTAL_MOLE_FRACTION[1]");
  EXPECT_THROW(vkmaster::PropertyOf(""), UsageError);
}

}  // namespace
