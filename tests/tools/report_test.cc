// What the report makes of a directory of results, before any browser sees it.

#include "tools/vkmaster/report/report.h"

#include <cmath>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/temporary_directory.h"
#include "tools/vkmaster/report/block.h"
#include "tools/vkmaster/report/csv.h"
#include "tools/vkmaster/report/live_report.h"
#include "tools/vkmaster/report/results.h"
#include "tools/vkmaster/text/usage_error.h"

namespace vkmaster {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsNan;
using testing::Pointee;

class ReportTest : public testing::Test {
 protected:
  std::string Directory() const { return directory_.path().string(); }

  std::string Refusal() const {
    try {
      ReadResults(Directory());
      return "understood";
    } catch (const UsageError& error) {
      return error.what();
    }
  }

  TemporaryDirectory directory_;
};

TEST_F(ReportTest, CellsMayHoldQuotesCommasAndLineEnds) {
  CsvFile file(directory_.Write("a.csv", "well,status\n\"P,1\",\"a \"\"b\"\"\"\n\"x\ny\",\n"));
  EXPECT_THAT(file.header(), ElementsAre("well", "status"));
  EXPECT_THAT(file.Next(), Pointee(ElementsAre("P,1", "a \"b\"")));
  EXPECT_THAT(file.Next(), Pointee(ElementsAre("x\ny", "")));
  EXPECT_EQ(file.Next(), nullptr);
}

TEST_F(ReportTest, QuoteThatIsNotClosedInItsCellEndsWithTheLine) {
  CsvFile file(directory_.Write("a.csv", "well,status\n5\" tubing,\"OPEN\nP2,SHUT\n"));
  EXPECT_THAT(file.Next(), Pointee(ElementsAre("5\" tubing", "OPEN")));
  EXPECT_THAT(file.Next(), Pointee(ElementsAre("P2", "SHUT")));
}

TEST_F(ReportTest, EmptyFileHasNeitherHeaderNorRows) {
  CsvFile file(directory_.Write("a.csv", ""));
  EXPECT_THAT(file.header(), IsEmpty());
  EXPECT_EQ(file.Next(), nullptr);
}

// Half a table would be shown as the whole one.
TEST_F(ReportTest, FileThatCannotBeReadIsAnErrorAndNotShort) {
  directory_.Write("steps.csv", "time_days,date,ended\n0,2020-01-01,false\n");
  std::filesystem::create_directory(directory_.File("data.csv"));
  EXPECT_EQ(Refusal(), "Cannot read the file '" + directory_.File("data.csv") + "'");
  EXPECT_THROW(CsvFile(directory_.File("none.csv")), UsageError);
}

TEST_F(ReportTest, LineThatIsStillBeingWrittenIsLeftOut) {
  CsvFile file(directory_.Write("a.csv", "time_days,date\n0,2020-01-01\n30,2020-"));
  EXPECT_THAT(file.Next(), Pointee(ElementsAre("0", "2020-01-01")));
  EXPECT_EQ(file.Next(), nullptr);
}

TEST_F(ReportTest, LinesEndingAsOnWindowsAreRead) {
  CsvFile file(directory_.Write("a.csv", "time_days,date\r\n0,2020-01-01\r\n"));
  EXPECT_THAT(file.header(), ElementsAre("time_days", "date"));
  EXPECT_THAT(file.Next(), Pointee(ElementsAre("0", "2020-01-01")));
}

TEST_F(ReportTest, DirectoryWithoutResultsAndBrokenFilesAreNamed) {
  EXPECT_THAT(Refusal(), EndsWith("has no results of a plan: there is no steps.csv"));
  directory_.Write("steps.csv", "time_days,date,ended\n0,2020-01-01\n");
  EXPECT_THAT(Refusal(), EndsWith("steps.csv, line 2: 2 cells, but 3 in the header"));
  for (const char* day : {"", "x", "nan", "inf"}) {
    directory_.Write("steps.csv", "time_days,date,ended\n" + std::string(day) + ",x,false\n");
    EXPECT_THAT(Refusal(),
                EndsWith("steps.csv, line 2: '" + std::string(day) + "' is no number of days"));
  }
  directory_.Write("steps.csv", "time_days,date,ended\n");
  directory_.Write("run.json", "{\"title\": ");
  EXPECT_THAT(Refusal(), EndsWith("has a run.json that is not understood"));
}

TEST_F(ReportTest, FileThatIsNoReportIsLeftAsItIs) {
  directory_.Write("steps.csv", "time_days,date,ended\n0,2020-01-01,false\n");
  const Results results = ReadResults(directory_.path().string());
  const std::string plan = directory_.Write("plan.toml", "[advance]\nuntil = 30\n");
  EXPECT_THROW(WriteReport(results, plan), UsageError);
  EXPECT_THROW(CheckWritable(plan), UsageError);
  EXPECT_EQ(directory_.Read("plan.toml"), "[advance]\nuntil = 30\n");
  const std::string page = directory_.File("report.html");
  WriteReport(results, page);
  EXPECT_NO_THROW(CheckWritable(page));
  EXPECT_NO_THROW(WriteReport(results, page));
}

TEST_F(ReportTest, DataAndVarsOfTheSameQuantityAreOne) {
  directory_.Write("steps.csv", "time_days,date,ended\n0,2020-01-01,false\n30,2020-01-31,false\n");
  directory_.Write(
      "data.csv",
      "time_days,date,well,status,oil_rate [sm3/d]\n"
      "0,2020-01-01,P1,OPEN,100.5\n0,2020-01-01,P2,OPEN,50\n30,2020-01-31,P1,SHUT,0\n");
  directory_.Write("vars.csv",
                   "time_days,date,well,OIL_PRODUCTION_RATE [sm3/d],WATER_CUT,VISCOSITY\n"
                   "0,2020-01-01,P1,100.5,0.25,3\n30,2020-01-31,P2,40,0.5,4\n");
  const Results results = ReadResults(Directory());
  EXPECT_EQ(results.start_date, "2020-01-01");
  EXPECT_THAT(results.days, ElementsAre(0, 30));
  EXPECT_THAT(results.quantities, ElementsAre(Heading{"oil_rate", "sm3/d"},
                                              Heading{"water_cut", ""}, Heading{"viscosity", ""}));
  ASSERT_EQ(results.wells.size(), 2U);
  EXPECT_EQ(results.wells[0].status, "SHUT");
  EXPECT_THAT(results.wells[0].values[0], ElementsAre(100.5F, 0));
  EXPECT_THAT(results.wells[0].values[1], ElementsAre(0.25F, IsNan()));
  EXPECT_THAT(results.wells[1].values[0], ElementsAre(50, 40));
  EXPECT_FALSE(results.field_recorded);
  EXPECT_THAT(results.field_quantities, ElementsAre(Heading{"oil_rate", "sm3/d"}));
  EXPECT_THAT(results.field[0], ElementsAre(150.5F, 40));
}

TEST_F(ReportTest, CellsAndHeadingsOfOtherFormsAreNoValuesAndNoUnits) {
  directory_.Write("steps.csv", "time_days,date,ended\n30,2020-01-31,false\n");
  directory_.Write("data.csv",
                   "time_days,date,well,status,oil_rate [sm3/d\n30,x,P1,OPEN,12 or so\n");
  directory_.Write("data_old.csv", "of another program\n");
  for (const char* run : {"{}", "{\"start_date\": 2020}"}) {
    directory_.Write("run.json", run);
    const Results results = ReadResults(Directory());
    EXPECT_EQ(results.start_date, "") << "the first stop is not the start";
    EXPECT_THAT(results.quantities, ElementsAre(Heading{"oil_rate [sm3/d", ""}));
    EXPECT_THAT(results.wells.at(0).values[0], ElementsAre(IsNan()));
  }
  directory_.Write("run.json", "{\"start_date\": \"2019-12-31\"}");
  EXPECT_EQ(ReadResults(Directory()).start_date, "2019-12-31");
}

// A well that was recorded under a second command, too, is the same well at the same time.
TEST_F(ReportTest, RepeatedRecordIsTheSameOnlyWithTheSameGaps) {
  directory_.Write("steps.csv", "time_days,date,ended\n");
  directory_.Write("data.csv",
                   "time_days,date,well,status,oil_rate,gas_rate\n"
                   "10,x,P1,OPEN,100,\n10,x,P1,OPEN,100,\n"
                   "20,x,P1,OPEN,100,\n20,x,P1,OPEN,100,7\n"
                   "30,x,P1,OPEN,100,8\n30,x,P1,OPEN,100,\n");
  const Results results = ReadResults(Directory());
  EXPECT_THAT(results.days, ElementsAre(10, 20, 20, 30, 30));
  EXPECT_THAT(results.wells[0].values[1], ElementsAre(IsNan(), IsNan(), 7, 8, 8));
}

TEST_F(ReportTest, TypesAreThoseOfTheWellsThatHaveValues) {
  directory_.Write("steps.csv", "time_days,date,ended\n");
  directory_.Write("vars.csv", "time_days,date,well,oil_rate\n0,x,P1,1\n");
  directory_.Write("data.csv", "time_days,date,well,status,oil_rate\n0,x,P2,SHUT,0\n");
  directory_.Write("wells.csv",
                   "time_days,date,well,type,status\n0,x,P1,PRODUCER,OPEN\n"
                   "0,x,P2,PRODUCER,OPEN\n0,x,P3,PRODUCER,OPEN\n");
  const Results results = ReadResults(Directory());
  ASSERT_EQ(results.wells.size(), 2U);
  EXPECT_EQ(results.wells[0].name + results.wells[0].type + results.wells[0].status, "P2PRODUCER")
      << "nothing tells which of the two statuses is newer";
  EXPECT_EQ(results.wells[1].name + results.wells[1].type + results.wells[1].status,
            "P1PRODUCEROPEN");
}

TEST_F(ReportTest, RecordsBeforeAndAfterAnEventStandBesideEachOther) {
  directory_.Write("steps.csv", "time_days,date,ended\n");
  directory_.Write("data.csv",
                   "time_days,date,well,status,oil_rate\n"
                   "10,x,P1,OPEN,100\n10,x,P2,OPEN,50\n"
                   "10,x,P1,SHUT,0\n"                  // after the event
                   "20,x,P1,SHUT,0\n20,x,P1,SHUT,0\n"  // twice the same
                   "20,x,P2,OPEN,60\n");
  const Results results = ReadResults(Directory());
  EXPECT_THAT(results.days, ElementsAre(10, 10, 20));
  EXPECT_THAT(results.wells[0].values[0], ElementsAre(100, 0, 0));
  EXPECT_THAT(results.wells[1].values[0], ElementsAre(50, 50, 60));
  EXPECT_THAT(results.field[0], ElementsAre(150, 50, 60));
}

// P1 whenever there is a record, P2 from its second stop on, P3 at one stop only, P4 since the last
// stop, P5 without rates.
TEST_F(ReportTest, SumsLeaveOutWellsWithGaps) {
  directory_.Write("steps.csv", "time_days,date,ended\n0,x,false\n10,x,false\n20,x,false\n");
  directory_.Write("data.csv",
                   "time_days,date,well,status,oil_rate\n"
                   "0,x,P1,OPEN,1\n0,x,P3,OPEN,100\n"
                   "10,x,P1,OPEN,1\n10,x,P2,OPEN,10\n10,x,P1,OPEN,2\n"
                   "20,x,P1,OPEN,1\n20,x,P2,OPEN,10\n20,x,P4,OPEN,1000\n");
  directory_.Write("vars.csv", "time_days,date,well,WATER_CUT\n0,x,P5,0.5\n");
  EXPECT_THAT(ReadResults(Directory()).days, ElementsAre(0, 10, 10, 20));
  EXPECT_THAT(ReadResults(Directory()).field, ElementsAre(ElementsAre(1, 11, 12, 11)));
  directory_.Write("data.csv",
                   "time_days,date,well,status,oil_rate\n0,x,P1,OPEN,1\n20,x,P2,OPEN,1\n");
  EXPECT_THAT(ReadResults(Directory()).field, IsEmpty()) << "no well is without gaps";
}

// P1 has no water_injection_rate, WI1 no gas_rate, and of the gas_rate of P2 there are gaps.
TEST_F(ReportTest, RateOfSomeWellsIsAddedUpOverThem) {
  directory_.Write("steps.csv", "time_days,date,ended\n0,x,false\n10,x,false\n");
  directory_.Write("data.csv",
                   "time_days,date,well,status,oil_rate\n"
                   "0,x,P1,OPEN,100\n0,x,WI1,OPEN,0\n10,x,P1,OPEN,100\n10,x,WI1,OPEN,0\n");
  directory_.Write("vars.csv",
                   "time_days,date,well,WATER_INJECTION_RATE\n0,x,WI1,40\n10,x,WI1,40\n");
  directory_.Write("vars_2.csv", "time_days,date,well,GAS_PRODUCTION_RATE\n0,x,P2,7\n");
  const Results results = ReadResults(Directory());
  EXPECT_THAT(results.field, ElementsAre(ElementsAre(100, 100), ElementsAre(40, 40),
                                         ElementsAre(IsNan(), IsNan())));
  WriteReport(results, directory_.File("report.html"));
  EXPECT_THAT(directory_.Read("report.html"), HasSubstr("\"field\":{\"from\":\"wells\",\"wells\":2,"
                                                        "\"totals\":[1000.0,400.0,null],"));
}

// What is not recorded at the last stop is not known there.
TEST_F(ReportTest, StatusIsThatOfTheLastStop) {
  directory_.Write("steps.csv", "time_days,date,ended\n0,x,false\n10,x,false\n");
  const auto statuses = [&](const std::string& data, const std::string& wells) {
    directory_.Write("data.csv", "time_days,date,well,status,oil_rate\n" + data);
    directory_.Write("wells.csv", "time_days,date,well,type,status\n" + wells);
    std::vector<std::string> texts;
    for (const WellResults& well : ReadResults(Directory()).wells) texts.push_back(well.status);
    return texts;
  };
  EXPECT_THAT(statuses("0,x,P1,OPEN,1\n10,x,P2,OPEN,1\n", ""), ElementsAre("", "OPEN"));
  EXPECT_THAT(statuses("0,x,P1,OPEN,1\n", "0,x,P1,PRODUCER,OPEN\n10,x,P1,PRODUCER,SHUT\n"),
              ElementsAre("SHUT"));
  // The one has been recorded before an event, the other one after it as well.
  EXPECT_THAT(statuses("10,x,P1,OPEN,1\n10,x,P1,SHUT,0\n", "10,x,P1,PRODUCER,OPEN\n"),
              ElementsAre("SHUT"));
  EXPECT_THAT(statuses("10,x,P1,OPEN,1\n", "10,x,P1,PRODUCER,OPEN\n10,x,P1,PRODUCER,SHUT\n"),
              ElementsAre("SHUT"));
  EXPECT_THAT(statuses("10,x,P1,OPEN,1\n", "10,x,P1,PRODUCER,SHUT\n"), ElementsAre(""))
      << "nobody knows which of them is the newer";
  // A file of other columns, which is read later, may end before the first one.
  directory_.Write("data_2.csv", "time_days,date,well,status,gas_rate\n0,x,P1,SHUT,1\n");
  EXPECT_THAT(statuses("10,x,P1,OPEN,1\n", ""), ElementsAre("OPEN"));
}

TEST_F(ReportTest, FieldOfItsOwnRecordStandsForTheSums) {
  directory_.Write("steps.csv", "time_days,date,ended\n0,x,false\n30,x,false\n");
  directory_.Write("data.csv",
                   "time_days,date,well,status,oil_rate\n0,x,P1,OPEN,1\n30,x,P1,OPEN,1\n");
  directory_.Write("field.csv", "time_days,date,oil_rate,oil_total\n0,x,70,0\n30,x,80,2400\n");
  const Results results = ReadResults(Directory());
  EXPECT_TRUE(results.field_recorded);
  EXPECT_THAT(results.field[0], ElementsAre(70, 80));
  // Recorded now and then only, as by an event, it says less than the sums.
  directory_.Write("field.csv", "time_days,date,oil_rate,oil_total\n30,x,80,2400\n");
  EXPECT_FALSE(ReadResults(Directory()).field_recorded);
  EXPECT_THAT(ReadResults(Directory()).field[0], ElementsAre(1, 1));
  // Of a day that was recorded twice the first row stays.
  directory_.Write("field.csv", "time_days,date,oil_rate,oil_total\n0,x,70,0\n0,x,75,0\n");
  EXPECT_FALSE(ReadResults(Directory()).field_recorded);
  directory_.Write("field.csv", "time_days,date,oil_rate,oil_total\n");
  EXPECT_FALSE(ReadResults(Directory()).field_recorded);
  // Without wells there are no sums.
  std::filesystem::remove(directory_.File("data.csv"));
  EXPECT_FALSE(ReadResults(Directory()).field_recorded);
  directory_.Write("field.csv", "time_days,date,oil_rate,gas_rate\n30,x,-80,0\n");
  const Results field = ReadResults(Directory());
  EXPECT_THAT(field.field[0], ElementsAre(-80));
  WriteReport(field, directory_.File("report.html"));
  EXPECT_THAT(directory_.Read("report.html"),
              AllOf(HasSubstr("\"from\":\"field.csv\""), HasSubstr("\"idle\":[\"gas_rate\"]")));
}

TEST_F(ReportTest, InflowTablesAreToldApartByTheirFirstPoints) {
  directory_.Write("steps.csv", "time_days,date,ended\n");
  directory_.Write("ipr.csv",
                   "time_days,date,well,point,bottom_hole_pressure [bar],oil_rate [sm3/d]\n"
                   "0,x,P1,1,200,90\n0,x,P1,2,220,45\n0,x,P2,1,210,50\n30,x,P1,1,190,80\n");
  // Points whose first one is missing are of no table.
  directory_.Write("ipr_3.csv", "time_days,date,well,point,oil_rate [sm3/d]\n50,x,P3,2,70\n");
  directory_.Write("ipr_2.csv",
                   "time_days,date,well,point,tubing_head_pressure [bar],oil_rate [sm3/d]\n"
                   "40,x,P2,1,30,70\n");
  const Results results = ReadResults(Directory());
  ASSERT_EQ(results.inflow.size(), 3U);
  EXPECT_THAT(results.inflow[2].tables, IsEmpty());
  ASSERT_EQ(results.inflow[0].tables.size(), 2U);
  EXPECT_EQ(results.inflow[0].tables[0].points, 2U);
  EXPECT_EQ(results.inflow[0].tables[1].day, 30);
  EXPECT_THAT(results.inflow[0].values[0], ElementsAre(200, 220, 190));
  EXPECT_THAT(results.inflow[1].values[0], ElementsAre(210, IsNan()));
  EXPECT_THAT(results.inflow[1].values[2], ElementsAre(IsNan(), 30));
}

TEST_F(ReportTest, RatesHoldForTheDaysBeforeThem) {
  const float none = std::nanf("");
  EXPECT_EQ(AddedUp({0, 30, 60}, {100, 90, 80}), 90 * 30 + 80 * 30);
  EXPECT_EQ(AddedUp({0, 30, 60}, {none, none, 80}), 80 * 30) << "a well that the model adds";
  EXPECT_EQ(AddedUp({10, 10, 20}, {100, 0, 5}), 50) << "an event at day 10";
  EXPECT_THAT(AddedUp({0, 30}, {none, none}), IsNan());
}

TEST_F(ReportTest, BytesAreWrittenInBase64) {
  EXPECT_EQ(Base64(""), "");
  EXPECT_EQ(Base64("f"), "Zg==");
  EXPECT_EQ(Base64("fo"), "Zm8=");
  EXPECT_EQ(Base64("foo"), "Zm9v");
  EXPECT_EQ(Base64("\xff\xfe\xfd\xfc"), "//79/A==");
}

TEST_F(ReportTest, PageHasTheLicenceOfWhatItEmbeds) {
  WriteReport({}, directory_.File("report.html"));
  EXPECT_THAT(directory_.Read("report.html"), HasSubstr("The MIT License (MIT)\n\nCopyright (c)"));
}

TEST_F(ReportTest, PageThatCannotBeWrittenLeavesTheFormerOne) {
  const std::string file =
      directory_.Write("report.html", "<meta content=\"vkmaster report\">the former one");
  WriteReport({}, file);
  EXPECT_THAT(directory_.Read("report.html"), HasSubstr("</html>"));
  EXPECT_FALSE(std::filesystem::exists(file + ".new"));
  std::filesystem::create_directory(directory_.File("taken.html"));
  EXPECT_THROW(WriteReport({}, directory_.File("taken.html")), UsageError);
  EXPECT_FALSE(std::filesystem::exists(directory_.File("taken.html.new")));
  EXPECT_THROW(CheckWritable("/proc/none/report.html"), UsageError);
  EXPECT_NO_THROW(CheckWritable(directory_.File("fresh/report.html")));
  EXPECT_NO_THROW(CheckWritable(directory_.Write("empty.html", "")));
  EXPECT_THAT(directory_.Read("fresh/report.html"), IsEmpty());
  const std::filesystem::path here = std::filesystem::current_path();
  std::filesystem::current_path(directory_.path());
  EXPECT_NO_THROW(CheckWritable("page.html"));
  EXPECT_NO_THROW(WriteReport({}, "page.html"));
  std::filesystem::current_path(here);
  EXPECT_THAT(directory_.Read("page.html"), HasSubstr("</html>"));
}

}  // namespace
}  // namespace vkmaster
