#include "tools/vkmaster/output/output.h"

#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <system_error>

#include <gtest/gtest.h>

#include "tests/tools/memory_stream.h"

namespace {

using vkmaster::Form;
using vkmaster::Output;
using vkmaster::Result;

/// What an output writes, in memory.
class Written {
 public:
  explicit Written(Form form) : output(form, out_.get(), notes_.get()) {}
  std::string out() const { return out_.Text(); }
  std::string notes() const { return notes_.Text(); }

 private:
  MemoryStream out_;
  MemoryStream notes_;

 public:
  Output output;
};

Result WellTable() {
  Result result{.command = "data"};
  result.tables.push_back({"wells",
                           "",
                           {{"well", "well", ""}, {"oil_rate", "oil", "sm3/d"}},
                           {{std::string("P1"), 1234.5678}, {std::string("LONG \"P\", 2"), 0.5}}});
  return result;
}

Result Row(double day) {
  Result result{.command = "until"};
  result.row = true;
  result.fields.push_back({"time_days", "day", day, ""});
  return result;
}

TEST(TextOutput, FieldsAreAlignedLinesWithUnits) {
  Written written(Form::kText);
  Result result{.command = "x"};
  result.fields = {
      {"a", "short", 1.5, "days"}, {"b", "much longer", true, ""}, {"c", "none", {}, ""}};
  written.output.Write(result);
  EXPECT_EQ(written.out(), "short        1.5 days\nmuch longer  yes\nnone\n");
}

TEST(TextOutput, TableColumnsAreAlignedNumbersToTheRight) {
  Written written(Form::kText);
  written.output.Write(WellTable());
  EXPECT_EQ(written.out(),
            "well         oil [sm3/d]\n"
            "P1               1234.57\n"
            "LONG \"P\", 2          0.5\n");
}

TEST(TextOutput, RowsGoOnUnderOneHeaderUntilSomethingElseComes) {
  Written written(Form::kText);
  written.output.Write(Row(1));
  written.output.Write(Row(2));
  written.output.Write({.command = "x", .fields = {{"a", "a", 1.0, ""}}});
  written.output.Write(Row(3));
  EXPECT_EQ(written.out(),
            "         day\n           1\n           2\na  1\n         day\n           3\n");
}

TEST(TextOutput, ControlCharactersOfNamesAreNotPassedOn) {
  Written written(Form::kText);
  Result result = WellTable();
  result.tables[0].rows = {{std::string("\033[31mP1"), 1.0}};
  written.output.Write(result);
  EXPECT_EQ(written.out(), "well     oil [sm3/d]\n?[31mP1            1\n");
}

TEST(TextOutput, NotesGoToTheOtherStream) {
  Written written(Form::kText);
  written.output.Write({.command = "x", .notes = {"look"}});
  EXPECT_EQ(written.out(), "");
  EXPECT_EQ(written.notes(), "note: look\n");
}

TEST(JsonOutput, ResultIsOneLineWithTablesAndUnits) {
  Written written(Form::kJson);
  Result result = WellTable();
  result.notes = {"look"};
  written.output.Write(result);
  EXPECT_EQ(written.out(),
            R"({"command":"data","wells":[{"well":"P1","oil_rate":1234.5678},)"
            R"({"well":"LONG \"P\", 2","oil_rate":0.5}],"units":{"oil_rate":"sm3/d"},)"
            R"("notes":["look"]})"
            "\n");
  EXPECT_EQ(written.notes(), "");
}

TEST(JsonOutput, NumbersThatJsonCannotHoldAreNullAndBadUtf8IsReplaced) {
  Written written(Form::kJson);
  written.output.Write(
      {.command = "x",
       .fields = {
           {"a", "a", std::nan(""), ""}, {"b", "b", {}, ""}, {"c", "c", std::string("\xff"), ""}}});
  EXPECT_EQ(written.out(), "{\"command\":\"x\",\"a\":null,\"b\":null,\"c\":\"\xEF\xBF\xBD\"}\n");
}

TEST(JsonOutput, ErrorIsAnObjectInItsPlaceAndATextOnTheOtherStream) {
  Written written(Form::kJson);
  written.output.WriteError("until 30", "failed", "look there");
  EXPECT_EQ(written.out(),
            R"({"command":"until","text":"until 30","error":"failed","hint":"look there"})"
            "\n");
  EXPECT_EQ(written.notes(), "vkmaster: failed\nhint: look there\n");
}

TEST(TextOutput, ErrorIsOnTheNotesStreamOnly) {
  Written written(Form::kText);
  written.output.WriteError("until 30", "failed", "");
  EXPECT_EQ(written.out(), "");
  EXPECT_EQ(written.notes(), "vkmaster: failed\n");
}

TEST(CsvOutput, NumbersAreExactAndCellsQuotedWhereNeeded) {
  Written written(Form::kCsv);
  Result result = WellTable();
  result.tables[0].rows[0][1] = 0.1 + 0.2;
  written.output.Write(result);
  EXPECT_EQ(written.out(), "well,oil_rate\nP1,0.30000000000000004\n\"LONG \"\"P\"\", 2\",0.5\n");
}

TEST(CsvOutput, TablesOfSeveralResultsAreParted) {
  Written written(Form::kCsv);
  written.output.Write(Row(1));
  written.output.Write(Row(2));
  written.output.Write(WellTable());
  written.output.Write({.command = "x", .fields = {{"a", "a", true, ""}}});
  EXPECT_EQ(written.out(),
            "time_days\n1\n2\n\nwell,oil_rate\nP1,1234.5678\n\"LONG \"\"P\"\", 2\",0.5\n\n"
            "a\ntrue\n");
}

TEST(TextOutput, TablesAreSetOffFromWhatIsAboveAndHaveTheirTitle) {
  Written written(Form::kText);
  Result result = WellTable();
  result.fields = {{"a", "wells", 2.0, ""}};
  result.tables.push_back({"more", "a title", {{"x", "x", ""}}, {{1.0}}});
  written.output.Write(result);
  EXPECT_EQ(written.out(),
            "wells  2\n"
            "\n"
            "well         oil [sm3/d]\n"
            "P1               1234.57\n"
            "LONG \"P\", 2          0.5\n"
            "\n"
            "a title\n"
            "x\n"
            "1\n");
}

TEST(Output, FullDiskIsAnErrorForOneLineAndForMany) {
  for (const std::size_t rows : {1U, 10000U}) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> full(std::fopen("/dev/full", "w"),
                                                               std::fclose);
    const MemoryStream notes;
    // Text goes out whole, so that many rows fill the stream itself.
    Output output(Form::kText, full.get(), notes.get());
    Result result = WellTable();
    result.tables[0].rows.resize(rows, result.tables[0].rows[0]);
    try {
      output.Write(result);
      ADD_FAILURE() << rows << " rows were written";
    } catch (const std::system_error& error) {
      EXPECT_STREQ(error.what(), "The results cannot be written: No space left on device");
    }
  }
}

TEST(FormatValue, LargeRatesAreNotShownInPowersOfTen) {
  EXPECT_EQ(vkmaster::FormatValue(2817400000.0, false), "2817400000");
  EXPECT_EQ(vkmaster::FormatValue(1000000.0, false), "1000000");
  EXPECT_EQ(vkmaster::FormatValue(123456.7, false), "123457");
  EXPECT_EQ(vkmaster::FormatValue(1e15, false), "1e+15");
  EXPECT_EQ(vkmaster::FormatValue(0.00012345678, false), "0.000123457");
}

}  // namespace
