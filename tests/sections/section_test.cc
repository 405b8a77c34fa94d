#include "sections/section.h"

#include <functional>

#include <gtest/gtest.h>

#include "tests/support/temporary_directory.h"

namespace {

using sections::Error;
using sections::Section;

std::string Complaint(const std::function<void()>& call) {
  try {
    call();
  } catch (const Error& error) {
    return error.place().file + ":" + std::to_string(error.place().line) + ": " + error.what();
  }
  return "none";
}

TEST(SectionTest, EachTypeIsReadAsItselfOnly) {
  Section top = Section::Parse("t = 'a'\ni = 3\nn = 2.5\nd = 2030-01-31\nl = [1, 'b']\n[s]\n", "F");
  EXPECT_EQ(top.Find("t")->Text(), "a");
  EXPECT_EQ(top.Find("i")->Integer(), 3);
  EXPECT_EQ(top.Find("i")->Number(), 3.0);
  EXPECT_EQ(top.Find("n")->Number(), 2.5);
  using namespace std::chrono_literals;
  EXPECT_EQ(top.Find("d")->Date(), 2030y / 1 / 31);
  EXPECT_EQ(top.Find("l")->List("").at(1).Text(), "b");
  EXPECT_EQ(top.Find("s")->Table("").place().line, 6U);
  for (const char* key : {"i", "n", "d", "l", "s"}) EXPECT_FALSE(top.Find(key)->Text()) << key;
  for (const char* key : {"t", "n", "d", "l", "s"}) EXPECT_FALSE(top.Find(key)->Integer()) << key;
  for (const char* key : {"t", "d", "l", "s"}) EXPECT_FALSE(top.Find(key)->Number()) << key;
  for (const char* key : {"t", "i", "n", "l", "s"}) EXPECT_FALSE(top.Find(key)->Date()) << key;
  for (const char* key : {"t", "i", "n", "d", "s"}) {
    EXPECT_EQ(Complaint([&] { top.Find(key)->List("no list"); }).substr(5), "no list") << key;
  }
  for (const char* key : {"t", "i", "n", "d", "l"}) {
    EXPECT_EQ(Complaint([&] { top.Find(key)->Table("no table"); }).substr(5), "no table") << key;
  }
}

TEST(SectionTest, PlacesAreLinesOfTheFile) {
  Section top = Section::Parse("\n[s]\nb = [\n1,\n2]\n", "F");
  Section section = top.Find("s")->Table("");
  EXPECT_EQ(section.place().line, 2U);
  EXPECT_EQ(section.PlaceOf("b").line, 3U);
  EXPECT_EQ(section.PlaceOf("missing").line, 2U);
  EXPECT_EQ(Complaint([&] { section.Find("b")->List("").at(1).place().Fail("odd"); }), "F:5: odd");
}

TEST(SectionTest, KeyThatWasNotAskedForIsUnknownTopmostFirst) {
  Section top = Section::Parse("known = 1\nz = 2\na = 3\n", "F");
  top.Find("known");
  ASSERT_TRUE(top.Unknown());
  EXPECT_EQ(top.Unknown()->first, "z");
  EXPECT_EQ(top.Unknown()->second.line, 2U);
  top.Find("z");
  top.Find("a");
  EXPECT_FALSE(top.Unknown());
}

TEST(SectionTest, ValueOutlivesTheSectionThatItCameFrom) {
  const auto value = Section::Parse("[s]\nl = ['a']\n", "F").Find("s")->Table("").Find("l");
  EXPECT_EQ(value->List("").at(0).Text(), "a");
}

TEST(SectionTest, TextThatIsNoTomlIsRefusedAtItsLine) {
  EXPECT_EQ(Complaint([] { Section::Parse("a = 1\nb = \n", "F"); }).substr(0, 4), "F:2:");
}

TEST(SectionTest, FileThatCannotBeOpenedHasNoLine) {
  const TemporaryDirectory directory;
  const std::string file = directory.File("none.toml");
  EXPECT_EQ(Complaint([&] { Section::ReadFile(file); }).substr(0, file.size() + 3), file + ":0:");
}

}  // namespace
