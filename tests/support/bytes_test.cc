#include "tests/support/bytes.h"

#include <fstream>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::HasSubstr;

// A row of the table in tests/hostile/README.md: what is written, and which bytes it is.
struct Row {
  std::string notation;
  std::string hex;
};

std::vector<Row> DocumentedRows() {
  std::ifstream page(NOTATION_PAGE);
  std::vector<Row> rows;
  bool there = false;
  for (std::string line; std::getline(page, line);) {
    if (line.starts_with("## ")) there = line == "## Bytes";
    if (!there || !line.starts_with("| `")) continue;
    const std::size_t end = line.find("` | `");
    const std::size_t last = line.find("` |", end + 5);
    if (end == std::string::npos || last == std::string::npos) {
      ADD_FAILURE() << "not a notation and its bytes: " << line;
      continue;
    }
    rows.push_back({line.substr(3, end - 3), line.substr(end + 5, last - end - 5)});
  }
  return rows;
}

TEST(BytesTest, NotationMeansTheBytesOfItsTable) {
  for (const Row& row : DocumentedRows()) {
    SCOPED_TRACE(row.notation);
    EXPECT_EQ(Hex(Bytes(row.notation)), row.hex);
  }
}

TEST(BytesTest, TableHasEveryWordOfTheNotation) {
  std::set<std::string> documented;
  for (const Row& row : DocumentedRows()) {
    documented.insert(row.notation.substr(0, row.notation.find('(')));
  }
  for (const std::string& word : NotationWords()) {
    EXPECT_TRUE(documented.contains(word)) << word << "() has no row";
  }
}

TEST(BytesTest, WhatIsNoNotationIsRefusedWithItsPlace) {
  const auto refusal = [](const std::string& text) {
    try {
      return "no failure: " + Hex(Bytes(text));
    } catch (const std::invalid_argument& failure) {
      return std::string(failure.what());
    }
  };
  EXPECT_THAT(refusal("00 0"), HasSubstr("no hexadecimal byte: '0' at 4"));
  EXPECT_THAT(refusal("0x"), HasSubstr("no hexadecimal byte: '0x' at 2"));
  EXPECT_THAT(refusal("'AB"), HasSubstr("quote without its end at 1"));
  EXPECT_THAT(refusal("nothing(1)"), HasSubstr("unknown function nothing at 8"));
  EXPECT_THAT(refusal("i(one)"), HasSubstr("not a number: 'one' at 5"));
  EXPECT_THAT(refusal("i(1"), HasSubstr("no ')' at 3"));
  EXPECT_THAT(refusal("i(1))"), HasSubstr("unexpected character at 4"));
}

TEST(BytesTest, FramesAreTakenApartAndATornOneIsNamed) {
  const std::string bytes = Frame("A") + Frame("") + Frame("BC");
  EXPECT_EQ(Hex(bytes), "01 00 00 00 41 00 00 00 00 02 00 00 00 42 43");
  EXPECT_EQ(FramesOf(bytes), (std::vector<std::string>{"A", "", "BC"}));
  EXPECT_EQ(FramesOf(bytes.substr(0, 14)),
            (std::vector<std::string>{"A", "", "torn: " + Bytes("02000000 'B'")}));
  EXPECT_EQ(FramesOf("AB"), (std::vector<std::string>{"torn: AB"}));
}

}  // namespace
