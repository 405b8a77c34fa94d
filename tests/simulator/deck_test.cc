#include "simulator/deck.h"

#include <string>

#include <gtest/gtest.h>

#include "tests/simulator/decks.h"

namespace simulator {
namespace {

using decks::kBlackOil;
using decks::kCompositional;
using decks::Replaced;

std::string Complaint(const std::string& text) {
  try {
    parse_deck(text, "X.afi");
  } catch (const DeckError& error) {
    return error.what();
  }
  return "accepted";
}

TEST(DeckTest, MetricNumbersAreTakenAsTheyStand) {
  const Deck deck = parse_deck(kBlackOil, "X.afi");
  EXPECT_EQ(deck.units.name(), "TOLMEN_METRIC");
  EXPECT_DOUBLE_EQ(deck.pressure, 280);
  EXPECT_DOUBLE_EQ(deck.pore_volume, 3000.0 * 2000 * 15 * 0.2);
  ASSERT_EQ(deck.wells.size(), 3U);
  EXPECT_EQ(deck.wells[1].name, "W1");
  EXPECT_EQ(deck.wells[1].type, WellType::kWaterInjector);
  EXPECT_DOUBLE_EQ(deck.wells[0].tubing_diameter, 0.0889);
  EXPECT_FALSE(deck.composition.has_value());
}

TEST(DeckTest, FieldNumbersAreConverted) {
  const Deck deck = parse_deck(Replaced(kBlackOil, "\"METRIC\"", "\"FIELD\""), "X.afi");
  EXPECT_EQ(deck.units.name(), "TOLMEN_FIELD");
  EXPECT_NEAR(deck.pressure, 19.305, 0.001);                 // 280 psi
  EXPECT_NEAR(deck.temperature, 32.222, 0.001);              // 90 deg F
  EXPECT_NEAR(deck.wells[0].depth, 396.24, 1e-9);            // 1300 ft
  EXPECT_NEAR(deck.wells[0].index, 11.5296, 0.0001);         // 5 stb/d/psi
  EXPECT_NEAR(*deck.wells[2].limits[5], 2.8316846592e9, 1);  // 100000 MMscf/d
}

TEST(DeckTest, EndMayBeADateInsteadOfDays) {
  const std::string text = Replaced(kBlackOil, "end_time = 3650", "end = 2021-02-27");
  EXPECT_DOUBLE_EQ(parse_deck(text, "X.afi").end_time, 366);  // over 29 February 2020
}

TEST(DeckTest, CompositionsAddUpToOne) {
  const Deck deck = parse_deck(kCompositional, "X.afi");
  ASSERT_TRUE(deck.composition.has_value());
  EXPECT_EQ(deck.composition->components[4].name, "C7+");
  EXPECT_DOUBLE_EQ(deck.composition->components[1].critical_temperature, 190.4);
}

TEST(DeckTest, OwnComponentReplacesTheBuiltInOne) {
  const std::string own = R"(
[[component]]
name = "C7+"
molecular_weight = 210
critical_temperature = 720
critical_pressure = 17
critical_volume = 0.9
acentric_factor = 0.7
boiling_point = 560
)";
  const Deck deck = parse_deck(kCompositional + own, "X.afi");
  EXPECT_DOUBLE_EQ(deck.composition->components[4].molecular_weight, 210);
}

TEST(DeckTest, PathIsDirectorySlashRootAfi) {
  EXPECT_EQ(deck_path("/d/run", "CASE"), "/d/run/CASE.afi");
}

TEST(DeckTest, UnreadableFileIsReportedWithItsName) {
  try {
    read_deck("/nonexistent/X.afi");
    FAIL() << "accepted";
  } catch (const DeckError& error) {
    EXPECT_STREQ(error.what(), "/nonexistent/X.afi:1: cannot be read: No such file or directory");
  }
}

struct BadDeck {
  const char* name;
  const std::string& deck;
  const char* from;
  const char* to;
  const char* complaint;
};

class BadDeckTest : public testing::TestWithParam<BadDeck> {};

TEST_P(BadDeckTest, IsRefusedWithFileLineAndReason) {
  const BadDeck& bad = GetParam();
  EXPECT_EQ(Complaint(Replaced(bad.deck, bad.from, bad.to)), bad.complaint);
}

INSTANTIATE_TEST_SUITE_P(
    All, BadDeckTest,
    testing::Values(
        BadDeck{"UnknownKey", kBlackOil, "max_step = 10", "max_stepp = 10",
                "X.afi:6: unknown key \"max_stepp\" in section [run]"},
        BadDeck{"UnknownSection", kBlackOil, "[flow]", "[flux]",
                "X.afi:22: unknown key \"flux\" in the deck"},
        BadDeck{"UnknownWellKey", kBlackOil, "depth = 1300", "deepth = 1300",
                "X.afi:26: [[well]] lacks \"depth\""},
        BadDeck{"WrongType", kBlackOil, "porosity = 0.2", "porosity = \"0.2\"",
                "X.afi:14: \"porosity\" must be a number"},
        BadDeck{"NegativePorosity", kBlackOil, "porosity = 0.2", "porosity = -0.2",
                "X.afi:14: \"porosity\" must lie between 0 and 1, not -0.2"},
        BadDeck{"InfiniteNumber", kBlackOil, "porosity = 0.2", "porosity = nan",
                "X.afi:14: \"porosity\" must lie between 0 and 1, not nan"},
        BadDeck{"ZeroThickness", kBlackOil, "thickness = 15", "thickness = 0",
                "X.afi:13: \"thickness\" must be positive, not 0"},
        BadDeck{"EndlessRun", kBlackOil, "end_time = 3650", "end_time = 3650e9",
                "X.afi:5: \"end_time\" must lie between 0 and 1e+06, not 3.65e+12"},
        BadDeck{"MissingKey", kBlackOil, "thickness = 15", "",
                "X.afi:8: section [reservoir] lacks \"thickness\""},
        BadDeck{"MissingSection", kBlackOil, "[black_oil]", "[blackoil]",
                "X.afi:1: missing section [black_oil]"},
        BadDeck{"MissingRun", kBlackOil, "[run]", "[ran]", "X.afi:1: missing section [run]"},
        BadDeck{"WrongUnits", kBlackOil, "\"METRIC\"", "\"metric\"",
                "X.afi:2: \"units\" must be \"FIELD\" or \"METRIC\", not \"metric\""},
        BadDeck{"WrongFluid", kBlackOil, "\"BLACK_OIL\"", "\"GAS\"",
                "X.afi:3: \"fluid\" must be \"BLACK_OIL\" or \"COMPOSITIONAL\", not \"GAS\""},
        BadDeck{"DateAsText", kBlackOil, "start = 2020-02-27", "start = \"2020-02-27\"",
                "X.afi:4: \"start\" must be a date such as 2020-01-31"},
        BadDeck{"BubblePointTooHigh", kBlackOil, "bubble_point = 180", "bubble_point = 300",
                "X.afi:20: \"bubble_point\" must not be above the reservoir's \"pressure\""},
        BadDeck{"DuplicateWell", kBlackOil, "name = \"W1\"", "name = \"P1\"",
                "X.afi:35: duplicate well \"P1\""},
        BadDeck{"WrongWellType", kBlackOil, "\"WATER_INJECTOR\"", "\"INJECTOR\"",
                "X.afi:36: \"type\" must be \"PRODUCER\", \"WATER_INJECTOR\" or "
                "\"GAS_INJECTOR\", not \"INJECTOR\""},
        BadDeck{"UnknownConstraint", kBlackOil, "BOTTOM_HOLE_PRESSURE", "BHP",
                "X.afi:33: unknown constraint \"BHP\""},
        BadDeck{"ConstraintOfAnotherType", kBlackOil, "WATER_INJECTION_RATE", "GAS_INJECTION_RATE",
                "X.afi:41: \"GAS_INJECTION_RATE\" does not apply to a WATER_INJECTOR"},
        BadDeck{"UnknownComponent", kCompositional, "\"C6\"", "\"C66\"",
                "X.afi:18: unknown component \"C66\""},
        BadDeck{"ComponentTwice", kCompositional, "\"C6\"", "\"C3\"",
                "X.afi:18: component \"C3\" is listed twice"},
        BadDeck{"CompositionTooShort", kCompositional, "0.09, 0.25]", "0.34]",
                "X.afi:19: \"composition\" has 4 values for 5 components"},
        BadDeck{"CompositionNotOne", kCompositional, "0.25]", "0.5]",
                "X.afi:19: \"composition\" adds up to 1.25, not to 1"},
        BadDeck{"NegativeOrNoCompressibility", kBlackOil, "thickness = 15",
                "thickness = 15\nrock_compressibility = -1",
                "X.afi:14: \"rock_compressibility\" must not be negative, not -1"},
        BadDeck{"TextThatIsNone", kBlackOil, "\"METRIC\"", "3",
                "X.afi:2: \"units\" must be a text"},
        BadDeck{"ListThatIsNone", kCompositional, "[0.01, 0.50, 0.15, 0.09, 0.25]", "1",
                "X.afi:19: \"composition\" must be a list"},
        BadDeck{"ListOfOtherThanTexts", kCompositional, "\"C6\"", "6",
                "X.afi:18: \"components\" must be a list of texts"},
        BadDeck{"ListOfOtherThanNumbers", kCompositional, "0.50", "\"half\"",
                "X.afi:19: \"composition\" must be a list of numbers that are not negative"},
        BadDeck{"ListWithAnInfiniteNumber", kCompositional, "0.50", "inf",
                "X.afi:19: \"composition\" must be a list of numbers that are not negative"},
        BadDeck{"ListWithANegativeNumber", kCompositional, "0.50", "-0.5",
                "X.afi:19: \"composition\" must be a list of numbers that are not negative"},
        BadDeck{"SectionThatIsNone", kBlackOil, "[flow]\noil_viscosity = 0.8", "[[flow]]\n",
                "X.afi:22: \"flow\" must be a section"},
        BadDeck{"WellsThatAreOneSection", decks::kBlackOilHead, "[black_oil]",
                "[well]\n[black_oil]", "X.afi:17: \"well\" must be written as [[well]] sections"},
        BadDeck{"WellsThatAreNumbers", decks::kBlackOilHead, "[run]", "well = [1]\n[run]",
                "X.afi:1: \"well\" must be written as [[well]] sections"},
        BadDeck{"WellsThatAreNone", decks::kBlackOilHead, "[run]", "well = []\n[run]",
                "X.afi:1: \"well\" must be written as [[well]] sections"},
        BadDeck{"TwoEnds", kBlackOil, "end_time = 3650", "end_time = 3650\nend = 2021-02-27",
                "X.afi:5: \"end_time\" and \"end\" exclude each other"},
        BadDeck{"EndBeforeTheStart", kBlackOil, "end_time = 3650", "end = 2020-02-27",
                "X.afi:5: \"end\" must be later than \"start\""},
        BadDeck{"FracturePressureTooLow", kBlackOil, "thickness = 15",
                "thickness = 15\nfracture_pressure = 280",
                "X.afi:14: \"fracture_pressure\" must be above the reservoir's \"pressure\""},
        BadDeck{"CubeOfOneFoot", kBlackOil, "length = 3000\nwidth = 2000\nthickness = 15",
                "length = 0.3048\nwidth = 0.3048\nthickness = 0.3048",
                "X.afi:8: the reservoir is too small for its wells: fully open they would empty it "
                "in 4.04526e-06 days, and 0.1 is the least"},
        BadDeck{"NoRoomToFlow", kBlackOil, "oil_viscosity = 0.8",
                "connate_water = 0.5\nresidual_oil = 0.5",
                "X.afi:22: \"connate_water\", \"residual_oil\" and \"critical_gas\" leave no room"},
        BadDeck{"OneComponentOnly", kCompositional, "[\"N2\", \"C1\", \"C3\", \"C6\", \"C7+\"]",
                "[\"C1\"]", "X.afi:18: \"components\" must name two components or more"},
        BadDeck{"ComponentWithoutAName", kCompositional, "[composition]",
                "[[component]]\nname = \"\"\n[composition]",
                "X.afi:18: \"name\" must not be empty"},
        BadDeck{"WrongStatus", kBlackOil, "depth = 1300", "depth = 1300\nstatus = \"CLOSED\"",
                "X.afi:31: \"status\" must be \"OPEN\" or \"SHUT\", not \"CLOSED\""},
        BadDeck{"WellWithoutAName", kBlackOil, "\"P1\"", "\"\"",
                "X.afi:27: \"name\" must be a well name, not \"\""},
        BadDeck{"WellNamedLikeAllWells", kBlackOil, "\"P1\"", "\"*\"",
                "X.afi:27: \"name\" must be a well name, not \"*\""}),
    [](const auto& each) { return std::string(each.param.name); });

TEST(DeckTest, BrokenTomlIsReportedAtItsLine) {
  EXPECT_EQ(Complaint("[run]\nunits = \n").substr(0, 8), "X.afi:2:");
}

TEST(DeckTest, WellMayBeginShutAndWithoutLimits) {
  const std::string text =
      Replaced(Replaced(kBlackOil, "[well.constraints]\nBOTTOM_HOLE_PRESSURE = 120\n", ""),
               "depth = 1300", "depth = 1300\nstatus = \"SHUT\"");
  const Deck deck = parse_deck(text, "X.afi");
  EXPECT_FALSE(deck.wells[0].open);
  for (const auto& limit : deck.wells[0].limits) EXPECT_FALSE(limit.has_value());
  EXPECT_TRUE(deck.wells[1].open);
}

TEST(DeckTest, DeckWithoutWellsIsRefused) {
  EXPECT_EQ(Complaint(decks::kBlackOilHead), "X.afi:1: missing section [[well]]");
}

}  // namespace
}  // namespace simulator
