#include "tests/connector/connector_fixture.h"

namespace {

template <class Connector>
class FluidTest : public ConnectorTest<Connector> {
 protected:
  static std::string Model(const std::string& eos, const std::string& properties) {
    return wire::Cstr("FLUIDMODELDNAME", {"F"}) + wire::Cstr("EOSNAME", {eos}) +
           wire::Cstr("NCOMPS", {"C1", "C2"}) + wire::Doub("BIC", {0.5}) + properties;
  }
  static std::string Property(const std::string& name, double first) {
    return wire::Cstr("EOSPROPNAME", {name}) + wire::Doub("VALUES", {first, first + 0.5});
  }
  void SetUp() override { this->Connect(); }
};
TYPED_TEST_SUITE(FluidTest, ConnectorTypes);

TYPED_TEST(FluidTest, EachPropertyFillsItsMember) {
  std::string properties;
  double first = 0;
  for (const char* name : {"Molecular weight", "TCrit", "PCrit", "VCRIT", "Acentric factor", "BP",
                           "VSHIFT", "OMEGAA", "OMEGAB", "Parachor"}) {
    properties += this->Property(name, ++first);
  }
  this->AnswerQuery(this->Model("PR", properties));
  EOS eos;
  this->connector_.GetStaticComposition(&eos);
  EXPECT_EQ(eos.name, "PR");
  EXPECT_EQ(eos.components, (std::vector<std::string>{"C1", "C2"}));
  EXPECT_EQ(eos.component_count, 2);
  EXPECT_EQ(eos.molecular_weight, (std::vector<double>{1, 1.5}));
  EXPECT_EQ(eos.critical_temperature, (std::vector<double>{2, 2.5}));
  EXPECT_EQ(eos.critical_pressure, (std::vector<double>{3, 3.5}));
  EXPECT_EQ(eos.critical_volume, (std::vector<double>{4, 4.5}));
  EXPECT_EQ(eos.acentric_factor, (std::vector<double>{5, 5.5}));
  EXPECT_TRUE(eos.reserved.empty());
  EXPECT_EQ(eos.boiling_point, (std::vector<double>{6, 6.5}));
  EXPECT_EQ(eos.volume_shift, (std::vector<double>{7, 7.5}));
  EXPECT_EQ(eos.omega_a, (std::vector<double>{8, 8.5}));
  EXPECT_EQ(eos.omega_b, (std::vector<double>{9, 9.5}));
  EXPECT_EQ(eos.parachor, (std::vector<double>{10, 10.5}));
  EXPECT_EQ(eos.binary_interaction, std::vector<double>{0.5});
}

TYPED_TEST(FluidTest, NoModelLeavesAnEmptyEos) {
  this->AnswerQuery("");
  EOS eos;
  eos.name = "before";
  eos.component_count = 5;
  this->connector_.GetStaticComposition(&eos);
  EXPECT_EQ(eos.name, "");
  EXPECT_EQ(eos.component_count, 0);
}

TYPED_TEST(FluidTest, FailedQueryLeavesAnEmptyEos) {
  this->simulator_.AnswerNextAndHangUp("");
  EOS eos;
  eos.name = "before";
  eos.components = {"C1"};
  eos.parachor = {1};
  eos.component_count = 1;
  EXPECT_EQ(this->FailureOf([&] { this->connector_.GetStaticComposition(&eos); }),
            "read: End of file");
  EXPECT_EQ(eos.name, "");
  EXPECT_TRUE(eos.components.empty());
  EXPECT_TRUE(eos.parachor.empty());
  EXPECT_EQ(eos.component_count, 0);
}

TYPED_TEST(FluidTest, PropertiesOfOtherNamesAreLeftOut) {
  this->AnswerQuery(this->Model("PR", this->Property("TCRIT", 1) + this->Property("ZCRIT", 2)));
  EOS eos;
  this->connector_.GetStaticComposition(&eos);
  EXPECT_TRUE(eos.critical_temperature.empty());
}

TYPED_TEST(FluidTest, LaterOfEqualPropertiesCounts) {
  this->AnswerQuery(this->Model("PR", this->Property("BP", 1) + this->Property("BP", 2)));
  EOS eos;
  this->connector_.GetStaticComposition(&eos);
  EXPECT_EQ(eos.boiling_point, (std::vector<double>{2, 2.5}));
}

TYPED_TEST(FluidTest, OnlyTheFirstModelIsUsed) {
  this->AnswerQuery(this->Model("PR", "") + this->Model("SRK", this->Property("BP", 1)));
  EOS eos;
  this->connector_.GetStaticComposition(&eos);
  EXPECT_EQ(eos.name, "PR");
  EXPECT_TRUE(eos.boiling_point.empty());
}

using Injection2016Test = ConnectorTest<v2016_2::Connector>;
using Injection2017Test = ConnectorTest<v2017_2::Connector>;

TEST_F(Injection2016Test, SourcesDoNothing) {
  Connect();
  EXPECT_EQ(connector_.SetWellInjectionSource("I1", "S"), 0);
  connector_.SetWellInjectionComposition({"S", "T"}, {{1}});
  EXPECT_TRUE(Requests().empty());
}

TEST_F(Injection2017Test, SourceIsAttachedAsGas) {
  Connect();
  for (const int answer : {1, 0, -3}) {
    simulator_.AnswerNext({wire::Mess("REPLY") + wire::Inte("STRET", {answer}) + End(), Ready()});
    EXPECT_EQ(connector_.SetWellInjectionSource("I1", "S"), answer != 0 ? 1 : 0);
  }
  EXPECT_EQ(Requests().front(), wire::Mess("SET") + wire::Mess("CREATE_FLDSRCEXT") +
                                    wire::Cstr("WELLNAME", {"I1"}) + wire::Cstr("STNAME", {"S"}) +
                                    wire::Cstr("STPHASE", {"GAS"}) + End());
}

TEST_F(Injection2017Test, CompositionIsSetSourceBySource) {
  Connect();
  AnswerSetter();
  AnswerSetter();
  connector_.SetWellInjectionComposition({"S", "T"}, {{0.9, 0.1}, {1}});
  const auto set = [](const std::string& source, const Numbers& values, const Names& names) {
    return wire::Mess("SET") + wire::Mess("SETWSTRE") + wire::Cstr("STNAME", {source}) +
           wire::Doub("STCMPVALUES", values) + wire::Cstr("STCMPNAMES", names) +
           wire::Cstr("STPHASE", {""}) + End();
  };
  EXPECT_EQ(Requests(),
            (std::vector<std::string>{
                set("S", {0.9, 0.1}, {"TOTAL_MOLE_FRACTION[1]", "TOTAL_MOLE_FRACTION[2]"}),
                set("T", {1}, {"TOTAL_MOLE_FRACTION[1]"})}));
}

TEST_F(Injection2017Test, FailingSecondSourceLeavesTheFirstSetAndTheOthersUnsent) {
  Connect();
  AnswerSetter();
  simulator_.AnswerNext({wire::Mess("BUSY") + End()});
  EXPECT_THROW(connector_.SetWellInjectionComposition({"S", "T", "U"}, {{1}, {1}, {1}}),
               std::length_error);
  const auto source_of = [](const std::string& source) {
    return wire::Mess("SET") + wire::Mess("SETWSTRE") + wire::Cstr("STNAME", {source}) +
           wire::Doub("STCMPVALUES", {1}) + wire::Cstr("STCMPNAMES", {"TOTAL_MOLE_FRACTION[1]"}) +
           wire::Cstr("STPHASE", {""}) + End();
  };
  EXPECT_EQ(Requests(), (std::vector<std::string>{source_of("S"), source_of("T")}));
}

TEST_F(Injection2017Test, SourcesOfDifferentLengthAreSetAsTheyAre) {
  Connect();
  AnswerSetter();
  AnswerSetter();
  connector_.SetWellInjectionComposition({"S", "S"}, {{}, {0.25, 0.75, 0}});
  EXPECT_EQ(Requests()[0], wire::Mess("SET") + wire::Mess("SETWSTRE") +
                               wire::Cstr("STNAME", {"S"}) + wire::Doub("STCMPVALUES", {}) +
                               wire::Cstr("STCMPNAMES", {}) + wire::Cstr("STPHASE", {""}) + End());
  EXPECT_EQ(Requests().size(), 2U);
}

TEST_F(Injection2017Test, NoSourcesSendNothing) {
  Connect();
  connector_.SetWellInjectionComposition({}, {});
  EXPECT_TRUE(Requests().empty());
}

TEST_F(Injection2017Test, NoSourcesNeedNoConnection) {
  EXPECT_NO_THROW(connector_.SetWellInjectionComposition({}, {}));
}

TEST_F(Injection2017Test, ListsOfDifferentLengthFailBeforeAnythingIsSent) {
  Connect();
  EXPECT_EQ(FailureOf([this] {
              connector_.SetWellInjectionComposition({"S", "T"}, {{1}});
            }),
            "Inconsistent data sent to SetWellInjectionComposition");
  EXPECT_TRUE(Requests().empty());
}

TEST_F(Injection2017Test, SourcesBeforeConnectFail) {
  EXPECT_EQ(FailureOf([this] { connector_.SetWellInjectionSource("I1", "S"); }),
            "Not connected to the simulator");
  EXPECT_EQ(FailureOf([this] { connector_.SetWellInjectionComposition({"S"}, {{1}}); }),
            "Not connected to the simulator");
}

}  // namespace
