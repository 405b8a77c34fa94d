#include <stdexcept>
#include <string>
#include <vector>

#include <boost/system/system_error.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/wire_bytes.h"
#include "tests/vk_ec/client_fixture.h"
#include "vk_ec/constraint_setter.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::ThrowsMessage;
using ::vk_ec::ConstraintSetter;
using wire::Cstr;
using wire::Inte;
using wire::Mess;

const std::string kReady = Bytes(
    "05 'READY'  00 00 00 00 00 00 00 00  'MESS'"
    "03 'END'    00 00 00 00 00 00 00 00  'MESS'");

template <typename Version>
class ClientSettersTest : public ClientTest<Version> {
 protected:
  template <typename Setter>
  void ExpectRefusedBeforeSending(Setter setter, const std::string& text) {
    EXPECT_THAT(setter, ThrowsMessage<std::invalid_argument>(text));
    EXPECT_THAT(this->Requests(), IsEmpty());
    this->ExpectUsable();
  }
};

TYPED_TEST_SUITE(ClientSettersTest, BothVersions, VersionNames);

TYPED_TEST(ClientSettersTest, ConstraintsTravelWellByWell) {
  this->simulator_.AnswerNext({kReady});
  this->client_.set_constraints_for_wells({"P1", "P2"}, {{"QOP"}, {}}, {{100}, {}}, {{"USER"}, {}});
  EXPECT_THAT(this->Requests(),
              ElementsAre(Bytes("03 'SET'              00 00 00 00 00 00 00 00  'MESS'"
                                "0f 'SETWCONSTRAINTS'  00 00 00 00 00 00 00 00  'MESS'"
                                "08 'WELLNAME'         01 00 00 00 00 00 00 00  'CSTR'"
                                "                      02 00 00 00 00 00 00 00  'P1'"
                                "05 'ITEMS'            01 00 00 00 00 00 00 00  'CSTR'"
                                "                      03 00 00 00 00 00 00 00  'QOP'"
                                "06 'VALUES'           01 00 00 00 00 00 00 00  'DOUB'"
                                "                      00 00 00 00 00 00 59 40"
                                "07 'SETTERS'          01 00 00 00 00 00 00 00  'CSTR'"
                                "                      04 00 00 00 00 00 00 00  'USER'"
                                "08 'WELLNAME'         01 00 00 00 00 00 00 00  'CSTR'"
                                "                      02 00 00 00 00 00 00 00  'P2'"
                                "05 'ITEMS'            00 00 00 00 00 00 00 00  'CSTR'"
                                "06 'VALUES'           00 00 00 00 00 00 00 00  'DOUB'"
                                "07 'SETTERS'          00 00 00 00 00 00 00 00  'CSTR'"
                                "03 'END'              00 00 00 00 00 00 00 00  'MESS'")));
  this->ExpectUsable();
}

TYPED_TEST(ClientSettersTest, ConstraintsOfNoWellsAreStillSent) {
  this->simulator_.AnswerNext({kReady});
  this->client_.set_constraints_for_wells({}, {}, {}, {});
  EXPECT_THAT(this->Requests(), ElementsAre(Mess("SET") + Mess("SETWCONSTRAINTS") + Mess("END")));
  this->ExpectUsable();
}

TYPED_TEST(ClientSettersTest, ConstraintSetterRepeatsTheMessageWithOtherValues) {
  const std::vector<std::string> wells = {"P1", "I1", "P2"};
  const std::vector<std::vector<std::string>> items = {{"QOP", "QGP"}, {}, {"QWP"}};
  const std::vector<std::vector<std::string>> setters = {{"USER", "U"}, {}, {"USER"}};
  const std::vector<std::vector<double>> first = {{1, 2}, {}, {3}};
  const std::vector<std::vector<double>> second = {{4, 5}, {}, {6}};
  for (int request = 0; request < 4; ++request) this->simulator_.AnswerNext({kReady});
  this->client_.set_constraints_for_wells(wells, items, first, setters);
  this->client_.set_constraints_for_wells(wells, items, second, setters);
  ConstraintSetter setter(this->client_, wells, items, first, setters);
  setter.send();
  setter.change(second);
  setter.send();
  const auto requests = this->Requests();
  ASSERT_EQ(requests.size(), 4U);
  EXPECT_NE(requests[0], requests[1]);
  EXPECT_EQ(requests[2], requests[0]);
  EXPECT_EQ(requests[3], requests[1]);
  this->ExpectUsable();
}

TYPED_TEST(ClientSettersTest, ConstraintSetterRefusesOtherConstraintsThanBefore) {
  this->simulator_.AnswerNext({kReady});
  ConstraintSetter setter(this->client_, {"A", "B"}, {{"X"}, {"X", "Y"}}, {{1}, {2, 3}},
                          {{"U"}, {"U", "U"}});
  const auto refused = ThrowsMessage<std::invalid_argument>(
      "ConstraintSetter::change: other constraints than before");
  EXPECT_THAT([&] { setter.change({{1}}); }, refused);
  EXPECT_THAT([&] { setter.change({{1}, {2}}); }, refused);
  EXPECT_THAT([&] { setter.change({{1}, {2, 3}, {}}); }, refused);
  EXPECT_THAT(this->Requests(), IsEmpty());
  setter.send();
  EXPECT_EQ(this->Requests().size(), 1U);
  this->ExpectUsable();
}

TYPED_TEST(ClientSettersTest, ConstraintSetterRefusesListsThatDoNotGoTogether) {
  this->ExpectRefusedBeforeSending(
      [&] {
        ConstraintSetter setter(this->client_, {"A", "B", "C"}, {{}, {}}, {}, {});
      },
      "VarnokClient::set_constraints_for_wells: inconsistent size of arguments 1 and 2 (3 vs 2)");
}

TYPED_TEST(ClientSettersTest, ConstraintSetterIsRefusedWhileAMessageIsInProgress) {
  ConstraintSetter setter(this->client_, {"A"}, {{"X"}}, {{1}}, {{"U"}});
  this->simulator_.AnswerNext({Mess("STOP") + Mess("END")});
  EXPECT_THROW(setter.send(), std::length_error);
  EXPECT_THROW(setter.send(), std::logic_error);
  EXPECT_EQ(this->Requests().size(), 1U);
}

TYPED_TEST(ClientSettersTest, ConstraintSetterThatCouldNotSendIsOfNoMoreUse) {
  this->simulator_.AnswerNextAndHangUp("");
  EXPECT_THROW(this->client_.do_continue(), boost::system::system_error);
  this->simulator_.WaitForClientToLeave();
  ConstraintSetter setter(this->client_, {"A"}, {{"X"}}, {{1}}, {{"U"}});
  EXPECT_THROW(setter.send(), boost::system::system_error);
  EXPECT_THROW(setter.change({{2}}), std::logic_error);
  EXPECT_THROW(setter.send(), std::logic_error);
}

TYPED_TEST(ClientSettersTest, ConstraintItemsForTooFewWellsAreRefused) {
  this->ExpectRefusedBeforeSending(
      [&] {
        this->client_.set_constraints_for_wells({"A", "B", "C"}, {{}, {}}, {}, {});
      },
      "VarnokClient::set_constraints_for_wells: inconsistent size of arguments 1 and 2 (3 vs 2)");
}

TYPED_TEST(ClientSettersTest, ConstraintValuesForTooManyWellsAreRefused) {
  this->ExpectRefusedBeforeSending(
      [&] {
        this->client_.set_constraints_for_wells({"A"}, {{}}, {{}, {}}, {});
      },
      "VarnokClient::set_constraints_for_wells: inconsistent size of arguments 1 and 3 (1 vs 2)");
}

TYPED_TEST(ClientSettersTest, ConstraintSettersForTooFewWellsAreRefused) {
  this->ExpectRefusedBeforeSending(
      [&] { this->client_.set_constraints_for_wells({"A"}, {{}}, {{}}, {}); },
      "VarnokClient::set_constraints_for_wells: inconsistent size of arguments 1 and 4 (1 vs 0)");
}

TYPED_TEST(ClientSettersTest, MissingValueInsideAWellIsReportedWithTheNumberOfWells) {
  this->ExpectRefusedBeforeSending(
      [&] {
        this->client_.set_constraints_for_wells({"A", "B"}, {{"X"}, {"X", "Y", "Z"}}, {{1}, {1, 2}},
                                                {{"U"}, {"U"}});
      },
      "VarnokClient::set_constraints_for_wells: inconsistent size of arguments 2 and 3 (2 vs 2)");
}

// A well is checked whole before the next one: the second well's values are short as well.
TYPED_TEST(ClientSettersTest, MissingSetterInsideAWellIsReportedBeforeTheNextWell) {
  this->ExpectRefusedBeforeSending(
      [&] {
        this->client_.set_constraints_for_wells({"A", "B"}, {{"X"}, {"X"}}, {{1}, {}}, {{}, {"U"}});
      },
      "VarnokClient::set_constraints_for_wells: inconsistent size of arguments 2 and 4 (2 vs 2)");
}

TYPED_TEST(ClientSettersTest, StatusTravelsWithItsClosure) {
  this->simulator_.AnswerNext({kReady});
  this->client_.set_status_for_wells({"P1"}, {"SHUT"}, "USER");
  EXPECT_THAT(this->Requests(),
              ElementsAre(Bytes("03 'SET'         00 00 00 00 00 00 00 00  'MESS'"
                                "0a 'SETWSTATUS'  00 00 00 00 00 00 00 00  'MESS'"
                                "08 'WCLOSURE'    01 00 00 00 00 00 00 00  'CSTR'"
                                "                 04 00 00 00 00 00 00 00  'USER'"
                                "07 'SETITEM'     01 00 00 00 00 00 00 00  'CSTR'"
                                "                 06 00 00 00 00 00 00 00  'STATUS'"
                                "08 'WELNAMES'    01 00 00 00 00 00 00 00  'CSTR'"
                                "                 02 00 00 00 00 00 00 00  'P1'"
                                "06 'VALUES'      01 00 00 00 00 00 00 00  'CSTR'"
                                "                 04 00 00 00 00 00 00 00  'SHUT'"
                                "03 'END'         00 00 00 00 00 00 00 00  'MESS'")));
  this->ExpectUsable();
}

TYPED_TEST(ClientSettersTest, StatusOfNoWellsIsStillTheFullMessage) {
  this->simulator_.AnswerNext({kReady});
  this->client_.set_status_for_wells({}, {}, "USER");
  EXPECT_THAT(this->Requests(),
              ElementsAre(Mess("SET") + Mess("SETWSTATUS") + Cstr("WCLOSURE", {"USER"}) +
                          Cstr("SETITEM", {"STATUS"}) + Cstr("WELNAMES", {}) + Cstr("VALUES", {}) +
                          Mess("END")));
  this->ExpectUsable();
}

TYPED_TEST(ClientSettersTest, StatusesThatAreNotAsManyAsTheWellsAreRefused) {
  this->ExpectRefusedBeforeSending(
      [&] {
        this->client_.set_status_for_wells({"A"}, {"OPEN", "SHUT"}, "USER");
      },
      "VarnokClient::set_status_for_wells: inconsistent size of arguments 1 and 2 (1 vs 2)");
}

TYPED_TEST(ClientSettersTest, UptimeFractionsAreNumbers) {
  this->simulator_.AnswerNext({kReady});
  this->client_.set_uptime_fractions_for_wells({"P1", "P2"}, {1, 0.5});
  EXPECT_THAT(this->Requests(),
              ElementsAre(Bytes("03 'SET'       00 00 00 00 00 00 00 00  'MESS'"
                                "08 'SETWELLS'  00 00 00 00 00 00 00 00  'MESS'"
                                "07 'SETITEM'   01 00 00 00 00 00 00 00  'CSTR'"
                                "               0f 00 00 00 00 00 00 00  'UPTIME_FRACTION'"
                                "08 'WELNAMES'  02 00 00 00 00 00 00 00  'CSTR'"
                                "               02 00 00 00 00 00 00 00  'P1'"
                                "               02 00 00 00 00 00 00 00  'P2'"
                                "06 'VALUES'    02 00 00 00 00 00 00 00  'DOUB'"
                                "               00 00 00 00 00 00 f0 3f   00 00 00 00 00 00 e0 3f"
                                "03 'END'       00 00 00 00 00 00 00 00  'MESS'")));
  this->ExpectUsable();
}

TYPED_TEST(ClientSettersTest, FractionsThatAreNotAsManyAsTheWellsAreRefused) {
  this->ExpectRefusedBeforeSending(
      [&] {
        this->client_.set_uptime_fractions_for_wells({"A", "B"}, {1});
      },
      "VarnokClient::set_uptime_fractions_for_wells: inconsistent size of arguments 1 and 2 "
      "(2 vs 1)");
}

TYPED_TEST(ClientSettersTest, SetterThatIsNotAnsweredByReadyFails) {
  this->simulator_.AnswerNext({Mess("REPLY") + Mess("END")});
  EXPECT_THAT([&] { this->client_.set_status_for_wells({"A"}, {"OPEN"}, "USER"); },
              ThrowsMessage<std::length_error>(
                  "Incorrect header (received: REPLY-0-MESS vs expected: READY-0-MESS)"));
  EXPECT_THROW(this->client_.do_continue(), std::logic_error);
}

using FluidSourceTest = ClientSettersTest<v2017_2::vk_ec::VarnokClient>;

TEST_F(FluidSourceTest, CompositionTravelsAsValuesThenNames) {
  simulator_.AnswerNext({kReady});
  client_.set_composition_of_fluid_source_external("SRC", {0.75, 0.25}, {"C1", "C2"}, "GAS");
  EXPECT_THAT(Requests(), ElementsAre(Bytes(
                              "03 'SET'          00 00 00 00 00 00 00 00  'MESS'"
                              "08 'SETWSTRE'     00 00 00 00 00 00 00 00  'MESS'"
                              "06 'STNAME'       01 00 00 00 00 00 00 00  'CSTR'"
                              "                  03 00 00 00 00 00 00 00  'SRC'"
                              "0b 'STCMPVALUES'  02 00 00 00 00 00 00 00  'DOUB'"
                              "                  00 00 00 00 00 00 e8 3f   00 00 00 00 00 00 d0 3f"
                              "0a 'STCMPNAMES'   02 00 00 00 00 00 00 00  'CSTR'"
                              "                  02 00 00 00 00 00 00 00  'C1'"
                              "                  02 00 00 00 00 00 00 00  'C2'"
                              "07 'STPHASE'      01 00 00 00 00 00 00 00  'CSTR'"
                              "                  03 00 00 00 00 00 00 00  'GAS'"
                              "03 'END'          00 00 00 00 00 00 00 00  'MESS'")));
  ExpectUsable();
}

TEST_F(FluidSourceTest, CompositionWithoutANamePerValueIsRefused) {
  ExpectRefusedBeforeSending(
      [&] {
        client_.set_composition_of_fluid_source_external("SRC", {1, 2, 3, 4}, {"A", "B", "C"},
                                                         "GAS");
      },
      "VarnokClient::set_composition_of_fluid_source_external: inconsistent size of arguments 2 "
      "and 3 (4 vs 3)");
}

TEST_F(FluidSourceTest, CreationIsAcceptedByANonZeroCode) {
  simulator_.AnswerNext({Bytes("05 'REPLY'  00 00 00 00 00 00 00 00  'MESS'"
                               "05 'STRET'  01 00 00 00 00 00 00 00  'INTE'  01 00 00 00"
                               "03 'END'    00 00 00 00 00 00 00 00  'MESS'"),
                         kReady});
  EXPECT_TRUE(client_.create_attached_fluid_source_external("I1", "SRC", "GAS"));
  EXPECT_THAT(Requests(),
              ElementsAre(Bytes("03 'SET'               00 00 00 00 00 00 00 00  'MESS'"
                                "10 'CREATE_FLDSRCEXT'  00 00 00 00 00 00 00 00  'MESS'"
                                "08 'WELLNAME'          01 00 00 00 00 00 00 00  'CSTR'"
                                "                       02 00 00 00 00 00 00 00  'I1'"
                                "06 'STNAME'            01 00 00 00 00 00 00 00  'CSTR'"
                                "                       03 00 00 00 00 00 00 00  'SRC'"
                                "07 'STPHASE'           01 00 00 00 00 00 00 00  'CSTR'"
                                "                       03 00 00 00 00 00 00 00  'GAS'"
                                "03 'END'               00 00 00 00 00 00 00 00  'MESS'")));
  ExpectUsable();
}

TEST_F(FluidSourceTest, OnlyZeroRefusesACreation) {
  for (const int code : {0, 2, -1}) {
    simulator_.AnswerNext({Mess("REPLY") + Inte("STRET", {code}) + Mess("END"), kReady});
    EXPECT_EQ(client_.create_attached_fluid_source_external("I1", "SRC", "GAS"), code != 0) << code;
  }
  ExpectUsable();
}

TEST_F(FluidSourceTest, TwoCodesOfACreationAreRefused) {
  simulator_.AnswerNext({Mess("REPLY") + Inte("STRET", {1, 0}) + Mess("END"), kReady});
  EXPECT_THAT([&] { client_.create_attached_fluid_source_external("I1", "SRC", "GAS"); },
              ThrowsMessage<std::length_error>(
                  "Incorrect header (received: STRET-2-INTE vs expected: STRET-1-INTE)"));
}

TEST_F(FluidSourceTest, ExtraHeaderInTheReplyToACreationIsRefused) {
  simulator_.AnswerNext(
      {Mess("REPLY") + Inte("STRET", {1}) + Inte("EXTRA", {1}) + Mess("END"), kReady});
  EXPECT_THAT([&] { client_.create_attached_fluid_source_external("I1", "SRC", "GAS"); },
              ThrowsMessage<std::length_error>(
                  "Incorrect header (received: EXTRA-1-INTE vs expected: END-0-MESS)"));
}

template <typename Version>
concept HasFluidSources = requires(Version& client) {
  client.create_attached_fluid_source_external("", "", "");
};
static_assert(!HasFluidSources<v2016_2::vk_ec::VarnokClient>);
static_assert(HasFluidSources<v2017_2::vk_ec::VarnokClient>);

}  // namespace
