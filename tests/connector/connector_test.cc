#include <chrono>
#include <functional>
#include <memory>

#include "tests/connector/connector_fixture.h"
#include "tests/support/leaks.h"
#include "tests/support/ports.h"
#include "tests/support/socket_pair.h"

namespace {

template <class Connector>
using SteppingTest = ConnectorTest<Connector>;
TYPED_TEST_SUITE(SteppingTest, ConnectorTypes);

TYPED_TEST(SteppingTest, ConnectSetsUpAndEndsAtTheModelDefinition) {
  this->Connect();
  EXPECT_EQ(
      this->simulator_.Requests(),
      std::vector<std::string>{wire::Mess("SETUP") + wire::Cstr("VERSION", {"V2"}) + this->End()});
}

TYPED_TEST(SteppingTest, ConnectionAtAnotherPositionFails) {
  this->simulator_.AnswerNext(
      {this->Started(), this->Step("BEGIN_NEWTON", 0, {1900, 1, 1, 0, 0, 0})});
  EXPECT_EQ(this->FailureOf([this] { this->ConnectToSimulator(); }),
            "Incorrect algorithmic position after connection");
}

// Shows the client that it speaks through.
template <class Connector>
struct Exposed : Connector {
  using Connector::client;
};

TYPED_TEST(SteppingTest, ConnectionAtAnotherPositionIsKept) {
  this->simulator_.AnswerNext(
      {this->Started(), this->Step("BEGIN_NEWTON", 12.5, {2026, 1, 13, 12, 0, 0})});
  EXPECT_THROW(this->ConnectToSimulator(), std::runtime_error);
  EXPECT_EQ(this->connector_.GetTimeDays(), 12.5);
  // The client is not only remembered: it still speaks.
  this->AnswerStep("BEGIN_NEWTON", 13);
  this->connector_.RunUntil(13);
  EXPECT_EQ(this->connector_.GetTimeDays(), 13);
}

TYPED_TEST(SteppingTest, SecondConnectLeavesTheFirstConnectionAlone) {
  Exposed<TypeParam> connector;
  this->AnswerSetUp();
  connector.Connect("127.0.0.1", static_cast<int>(this->simulator_.Port()), 5);
  const std::unique_ptr<vk_ec::Client> first(&connector.client());

  ScriptedSimulator second(ScriptedSimulator::Link::kLoopback);
  second.AnswerNext({this->Started(), this->Step("MODEL_DEFINITION", 7, {2026, 1, 8, 0, 0, 0})});
  connector.Connect("127.0.0.1", static_cast<int>(second.Port()), 5);
  EXPECT_EQ(connector.GetTimeDays(), 7);
  ASSERT_THROW(this->simulator_.WaitForClientToLeave(std::chrono::milliseconds(50)),
               std::runtime_error);

  // The first simulator was not told to end either: the next thing that it reads is this.
  this->AnswerStep("BEGIN_NEWTON", 1);
  first->do_continue();
  EXPECT_EQ(this->Requests(), std::vector<std::string>{wire::Mess("CONTINUE") + this->End()});
  second.AnswerNext({this->Finished()});
  connector.Shutdown();
  second.WaitForClientToLeave();
}

// The client that could not read its answer is of no more use, but the connector is.
TYPED_TEST(SteppingTest, ConnectAfterASetUpThatCouldNotBeReadBeginsAnew) {
  const ExpectedLeaks leaks;
  for (int attempt = 0; attempt < 2; ++attempt) {
    ScriptedSimulator strange(ScriptedSimulator::Link::kLoopback);
    strange.AnswerNext({wire::Mess("STARTED") + wire::Inte("ERRORS", {0}) + this->End()});
    EXPECT_THROW(this->connector_.Connect("127.0.0.1", static_cast<int>(strange.Port()), 5),
                 std::length_error);
    EXPECT_THROW(this->connector_.Newton(), std::logic_error);
  }
  this->Connect();
  this->AnswerStep("BEGIN_NEWTON", 1);
  this->connector_.Newton();
  EXPECT_EQ(this->connector_.GetTimeDays(), 1);
}

// A time-out of one second is over when two have passed.
TYPED_TEST(SteppingTest, TimeOutIsHandedOnUnchanged) {
  const Descriptor nobody = BindFreePort();
  const ExpectedLeaks leaks;  // the connector gives up the first client for the second
  for (const int timeout : {0, 1}) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(this->FailureOf(
                  [&] { this->connector_.Connect("127.0.0.1", PortOf(nobody.get()), timeout); }),
              "Connection timed out.");
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed.count(), timeout + 1);
    EXPECT_LT(elapsed.count(), timeout + 1.9);
  }
}

TYPED_TEST(SteppingTest, RefusedSetupPassesTheSimulatorsTextOn) {
  this->simulator_.AnswerNext(
      {wire::Mess("STARTED") + wire::Cstr("ERRORS", {"no licence", "second"}) + this->End()});
  try {
    this->ConnectToSimulator();
    FAIL() << "connected";
  } catch (const std::invalid_argument& failure) {
    EXPECT_STREQ(failure.what(), "no licence");
  }
}

// What the simulator says in its first step can be no witness of what was there before it.
TYPED_TEST(SteppingTest, DateAndTimeAfterARefusedSetupAreTheInitialOnes) {
  this->simulator_.AnswerNext(
      {wire::Mess("STARTED") + wire::Cstr("ERRORS", {"no licence"}) + this->End()});
  EXPECT_THROW(this->ConnectToSimulator(), std::invalid_argument);
  int day = 0;
  int month = 0;
  int year = 0;
  this->connector_.GetDate(day, month, year);
  EXPECT_EQ((std::vector<int>{day, month, year}), (std::vector<int>{1, 1, 1900}));
  EXPECT_EQ(this->connector_.GetTimeDays(), 0);
  EXPECT_FALSE(this->connector_.SimulationEnded());
}

TYPED_TEST(SteppingTest, NewtonContinuesToTheFirstTimeStep) {
  this->Connect();
  this->AnswerStep("BEGIN_NEWTON", 1.5, {2026, 2, 3, 4, 5, 6});
  this->connector_.Newton();
  EXPECT_EQ(this->Requests(), std::vector<std::string>{wire::Mess("CONTINUE") + this->End()});
  int day = 0;
  int month = 0;
  int year = 0;
  this->connector_.GetDate(day, month, year);
  EXPECT_EQ((std::vector<int>{day, month, year}), (std::vector<int>{3, 2, 2026}));
  EXPECT_EQ(this->connector_.GetTimeDays(), 1.5);
}

TYPED_TEST(SteppingTest, NewtonThatEndsElsewhereFails) {
  this->Connect();
  this->AnswerStep("MODEL_DEFINITION");
  EXPECT_EQ(this->FailureOf([this] { this->connector_.Newton(); }),
            "Incorrect algorithmic position after advancing to first timestep");
}

TYPED_TEST(SteppingTest, NewtonOfAFinishedRunFails) {
  this->Connect();
  this->simulator_.AnswerNext({wire::Mess("FINISHED") + this->End()});
  EXPECT_EQ(this->FailureOf([this] { this->connector_.Newton(); }),
            "Incorrect algorithmic position after advancing to first timestep");
}

TYPED_TEST(SteppingTest, RunUntilSendsTheTime) {
  this->Connect();
  this->AnswerStep("BEGIN_NEWTON", 365.25);
  this->connector_.RunUntil(365.25);
  EXPECT_EQ(this->Requests(), std::vector<std::string>{wire::Mess("CONTINUE_UNTIL") +
                                                       wire::Doub("TIME", {365.25}) + this->End()});
  EXPECT_FALSE(this->connector_.SimulationEnded());
}

TYPED_TEST(SteppingTest, RunUntilThatEndsAtTheModelDefinitionDoesNotFail) {
  this->Connect();
  this->AnswerStep("MODEL_DEFINITION", 5);
  this->connector_.RunUntil(10);
  EXPECT_FALSE(this->connector_.SimulationEnded());
  EXPECT_EQ(this->connector_.GetTimeDays(), 5);
}

TYPED_TEST(SteppingTest, RunUntilPastTheEndEndsTheSimulationWithoutFailing) {
  this->Connect();
  this->AnswerStep("END_SIMULATE", 3650);
  this->connector_.RunUntil(1e9);
  EXPECT_TRUE(this->connector_.SimulationEnded());
  EXPECT_EQ(this->connector_.GetTimeDays(), 3650);
}

TYPED_TEST(SteppingTest, FinishedKeepsTheLastTime) {
  this->Connect();
  this->AnswerStep("BEGIN_NEWTON", 30);
  this->connector_.RunUntil(30);
  this->simulator_.AnswerNext({wire::Mess("FINISHED") + this->End()});
  this->connector_.RunUntil(60);
  EXPECT_TRUE(this->connector_.SimulationEnded());
  EXPECT_EQ(this->connector_.GetTimeDays(), 30);
}

TYPED_TEST(SteppingTest, DateAndTimeBeforeAnyStepAreTheInitialOnesWithoutTraffic) {
  this->Connect();
  int day = 0;
  int month = 0;
  int year = 0;
  this->connector_.GetDate(day, month, year);
  EXPECT_EQ((std::vector<int>{day, month, year}), (std::vector<int>{1, 1, 1900}));
  EXPECT_EQ(this->connector_.GetTimeDays(), 0);
  EXPECT_FALSE(this->connector_.SimulationEnded());
  EXPECT_TRUE(this->Requests().empty());
}

TYPED_TEST(SteppingTest, ShutdownAsksTheSimulatorAndReleasesTheConnection) {
  this->Connect();
  this->simulator_.AnswerNext({wire::Mess("FINISHED") + this->End()});
  EXPECT_EQ(this->connector_.Shutdown(), 0);
  this->simulator_.WaitForClientToLeave();
  EXPECT_EQ(this->Requests(), std::vector<std::string>{wire::Mess("SHUTDOWN") + this->End()});
}

TYPED_TEST(SteppingTest, ShutdownThatTheSimulatorDoesNotAnswerReleasesTheConnection) {
  const std::set<int> before = this->OpenDescriptors();
  this->Connect();
  this->simulator_.AnswerNextAndHangUp("");
  EXPECT_EQ(this->connector_.Shutdown(), 0);
  EXPECT_EQ(this->Requests(), std::vector<std::string>{wire::Mess("SHUTDOWN") + this->End()});
  // The simulator's own end is the only one left.
  EXPECT_EQ(this->OpenDescriptors().size(), before.size() + 1);
}

TYPED_TEST(SteppingTest, ShutdownOfASimulatorThatHasGoneReleasesTheConnection) {
  const std::set<int> before = this->OpenDescriptors();
  this->simulator_.AnswerNextAndHangUp(wire::Framed(this->Started()) +
                                       wire::Framed(this->ModelDefinition()));
  this->ConnectToSimulator();
  this->simulator_.WaitForClientToLeave();
  EXPECT_EQ(this->connector_.Shutdown(), 0);
  EXPECT_EQ(this->OpenDescriptors().size(), before.size() + 1);
}

// A controller that ends on an error must not stop a run that goes on without it.
TYPED_TEST(SteppingTest, DestructionWithoutShutdownLeavesTheConnectionAlone) {
  auto connector = std::make_unique<Exposed<TypeParam>>();
  this->AnswerSetUp();
  connector->Connect("127.0.0.1", static_cast<int>(this->simulator_.Port()), 5);
  vk_ec::Client* const client = &connector->client();
  const std::set<int> open = this->OpenDescriptors();
  connector.reset();
  ASSERT_EQ(this->OpenDescriptors(), open);  // so that the client is still there

  // It was neither told to end nor left: the next thing that it reads is this.
  this->simulator_.AnswerNext({this->Finished()});
  client->do_continue();
  EXPECT_EQ(this->Requests(), std::vector<std::string>{wire::Mess("CONTINUE") + this->End()});
  delete client;
  this->simulator_.WaitForClientToLeave();
}

TYPED_TEST(SteppingTest, ConnectorThatWasNeverConnectedShutsDownAndGoes) {
  const std::unique_ptr<ConnectorBase> unused = std::make_unique<TypeParam>();
  EXPECT_EQ(unused->Shutdown(), 0);
}

TYPED_TEST(SteppingTest, OperationsBeforeConnectFail) {
  TypeParam connector;
  int number = 0;
  std::vector<double> values;
  std::vector<DynWellOpPt> points;
  std::vector<DynWellIPR> tables;
  std::vector<StaticWellDef> wells;
  EOS eos;
  const std::vector<std::function<void()>> operations = {
      [&] { connector.GetVersion(); },
      [&] { connector.IsMetric(); },
      [&] { connector.GetTimeDays(); },
      [&] { connector.GetDate(number, number, number); },
      [&] { connector.GetStartDate(number, number, number); },
      [&] { connector.IsCompositional(); },
      [&] { connector.GetStaticComposition(&eos); },
      [&] { connector.GetWellStatus(wells); },
      [&] { connector.GetWellStatus(); },
      [&] { connector.GetWellConstraints(); },
      [&] { connector.GetWellVariables("W", {}, values); },
      [&] { connector.GetWellOpPtData({}, points); },
      [&] { connector.GetWellIPRData(0, {}, true, 1, tables); },
      [&] { connector.SetWellUptime({"W"}, {1}); },
      [&] { connector.SetWellStatus({"W"}, {"OPEN"}); },
      [&] { connector.SetWellConstraints({"W"}, {{}}, {{}}); },
      [&] { connector.Newton(); },
      [&] { connector.RunUntil(1); },
      [&] { connector.SimulationEnded(); }};
  for (std::size_t i = 0; i < operations.size(); ++i) {
    EXPECT_EQ(this->FailureOf(operations[i]), "Not connected to the simulator") << i;
  }
}

template <class Connector>
using SimpleQueryTest = ConnectorTest<Connector>;
TYPED_TEST_SUITE(SimpleQueryTest, ConnectorTypes);

TYPED_TEST(SimpleQueryTest, VersionIsTheLeadingNumber) {
  this->Connect();
  const std::vector<std::pair<std::string, double>> cases = {
      {"2016.2", 2016.2}, {"2017.2-rc1", 2017.2}, {"beta", 0}, {"", 0}};
  for (const auto& [text, number] : cases) {
    this->AnswerQuery(this->Item("VK_VERSION", {text}));
    EXPECT_EQ(this->connector_.GetVersion(), number) << text;
  }
  EXPECT_EQ(this->Requests().front(), this->RunQuery("QRESVR_STR", {"VK_VERSION"}));
}

TYPED_TEST(SimpleQueryTest, FirstOfSeveralVersionTextsCounts) {
  this->Connect();
  this->AnswerQuery(this->Item("VK_VERSION", {"2016.2", "2017.2"}));
  EXPECT_EQ(this->connector_.GetVersion(), 2016.2);
}

TYPED_TEST(SimpleQueryTest, VersionOfAnotherShapeFails) {
  const std::vector<std::string> answers = {
      "", this->Item("VERSION", {"1"}), this->Item("VK_VERSION", {}),
      this->Item("VK_VERSION", {"1"}) + this->Item("VK_VERSION", {"1"})};
  this->Connect();
  for (const std::string& answer : answers) {
    this->AnswerQuery(answer);
    EXPECT_EQ(this->FailureOf([this] { this->connector_.GetVersion(); }),
              "Unexpected answer when querying the VARNOK version.");
  }
}

TYPED_TEST(SimpleQueryTest, OnlyTheExactMetricWordIsMetric) {
  this->Connect();
  const std::vector<std::pair<std::string, bool>> cases = {
      {"TOLMEN_METRIC", true},
      {"TOLMEN_FIELD", false},
      {"tolmen_metric", false},
      {"TOLMEN_METRIC ", false},
      {"", false},
  };
  for (const auto& [text, metric] : cases) {
    this->AnswerQuery(this->Item("UNIT_SYSTEM", {text}));
    EXPECT_EQ(this->connector_.IsMetric(), metric) << text;
  }
  EXPECT_EQ(this->Requests().front(), this->RunQuery("QRESVR_STR", {"UNIT_SYSTEM"}));
}

TYPED_TEST(SimpleQueryTest, UnitSystemOfAnotherShapeFails) {
  const std::vector<std::string> answers = {
      "", this->Item("UNITS", {"TOLMEN_METRIC"}), this->Item("UNIT_SYSTEM", {}),
      this->Item("UNIT_SYSTEM", {"TOLMEN_METRIC", "TOLMEN_METRIC"}),
      this->Item("UNIT_SYSTEM", {"TOLMEN_METRIC"}) + this->Item("OTHER", {"1"})};
  this->Connect();
  for (const std::string& answer : answers) {
    this->AnswerQuery(answer);
    EXPECT_EQ(this->FailureOf([this] { this->connector_.IsMetric(); }),
              "Unexpected answer when querying the unit system.");
  }
}

TYPED_TEST(SimpleQueryTest, FieldManagementModelDecidesInAnyOrder) {
  this->Connect();
  this->AnswerQuery(this->Item("FM_FLUID_MODEL", {"COMPOSITIONAL"}) +
                    this->Item("RES_FLUID_MODEL", {"BLACK_OIL"}));
  EXPECT_TRUE(this->connector_.IsCompositional());
  this->AnswerQuery(this->Item("RES_FLUID_MODEL", {"COMPOSITIONAL"}) +
                    this->Item("FM_FLUID_MODEL", {"BLACK_OIL"}));
  EXPECT_FALSE(this->connector_.IsCompositional());
  this->AnswerQuery(this->Item("RES_FLUID_MODEL", {"BLACK_OIL"}) +
                    this->Item("FM_FLUID_MODEL", {"COMPOSITIONAL"}));
  EXPECT_TRUE(this->connector_.IsCompositional());
  this->AnswerQuery(this->Item("FM_FLUID_MODEL", {"Compositional"}) + this->Item("X", {"Y"}));
  EXPECT_FALSE(this->connector_.IsCompositional());
  EXPECT_EQ(this->Requests().front(),
            this->RunQuery("QRESVR_STR", {"FM_FLUID_MODEL", "RES_FLUID_MODEL"}));
}

TYPED_TEST(SimpleQueryTest, FirstOfTwoFieldManagementModelsDecides) {
  this->Connect();
  const std::string compositional = this->Item("FM_FLUID_MODEL", {"COMPOSITIONAL"});
  const std::string black_oil = this->Item("FM_FLUID_MODEL", {"BLACK_OIL"});
  this->AnswerQuery(compositional + black_oil);
  EXPECT_TRUE(this->connector_.IsCompositional());
  this->AnswerQuery(black_oil + compositional);
  EXPECT_FALSE(this->connector_.IsCompositional());
}

// What does not fit is complained about once the simulator is ready again, as often as it comes.
TYPED_TEST(SimpleQueryTest, QueriesGoOnAfterAnswersOfAnotherShape) {
  this->Connect();
  for (int again = 0; again < 2; ++again) {
    this->AnswerQuery(this->Item("OTHER", {"1"}));
    EXPECT_THROW(this->connector_.GetVersion(), std::runtime_error);
    this->AnswerQuery(this->Item("OTHER", {"1"}));
    EXPECT_THROW(this->connector_.IsMetric(), std::runtime_error);
    this->AnswerQuery(this->Item("OTHER", {"1"}));
    EXPECT_THROW(this->connector_.IsCompositional(), std::runtime_error);
  }
  this->AnswerQuery(this->Item("VK_VERSION", {"2016.2"}));
  EXPECT_EQ(this->connector_.GetVersion(), 2016.2);
}

TYPED_TEST(SimpleQueryTest, FluidModelsOfAnotherShapeFail) {
  const std::string fm = this->Item("FM_FLUID_MODEL", {"COMPOSITIONAL"});
  const std::string res = this->Item("RES_FLUID_MODEL", {"COMPOSITIONAL"});
  const std::vector<std::string> answers = {"",
                                            fm,
                                            fm + res + res,
                                            res + res,
                                            fm + this->Item("RES_FLUID_MODEL", {}),
                                            this->Item("FM_FLUID_MODEL", {"A", "B"}) + res,
                                            fm + this->Item("RES_FLUID_MODEL", {"A", "B"})};
  this->Connect();
  for (const std::string& answer : answers) {
    this->AnswerQuery(answer);
    EXPECT_EQ(this->FailureOf([this] { this->connector_.IsCompositional(); }),
              "Unexpected answer when querying the fluid models.");
  }
}

TYPED_TEST(SimpleQueryTest, StartDateIsTakenFromSixIntegers) {
  this->Connect();
  this->AnswerQuery(this->Dates("START_DATE", {2020, 2, 29, 12, 30, 0}));
  int day = 0;
  int month = 0;
  int year = 0;
  this->connector_.GetStartDate(day, month, year);
  EXPECT_EQ((std::vector<int>{day, month, year}), (std::vector<int>{29, 2, 2020}));
  EXPECT_EQ(this->Requests().front(), this->RunQuery("QRESVR", {"START_DATE"}));
}

TYPED_TEST(SimpleQueryTest, StartDateOfAnotherShapeFails) {
  const std::vector<std::string> answers = {"", this->Dates("START_DATE", {2020, 2, 29, 0, 0}),
                                            this->Dates("START_DATE", {2020, 2, 29, 0, 0, 0, 0}),
                                            this->Dates("DATE", {2020, 2, 29, 0, 0, 0})};
  this->Connect();
  for (const std::string& answer : answers) {
    this->AnswerQuery(answer);
    int number = 0;
    EXPECT_EQ(this->FailureOf([&] { this->connector_.GetStartDate(number, number, number); }),
              "Unexpected answer when querying the VARNOK start date.");
  }
}

TYPED_TEST(SimpleQueryTest, ClientErrorsPassThroughUnchanged) {
  this->Connect();
  this->simulator_.AnswerNext({wire::Mess("NONSENSE") + this->End()});
  EXPECT_THROW(this->connector_.GetVersion(), std::length_error);
  // What was not read of the answer makes the client refuse to go on.
  EXPECT_THROW(this->connector_.GetVersion(), std::logic_error);
}

TYPED_TEST(SimpleQueryTest, SimulatorThatHangsUpInMidMessageIsASystemError) {
  this->Connect();
  this->simulator_.AnswerNextAndHangUp(Bytes("40 00 00 00 00 00 00 00"));
  EXPECT_EQ(this->FailureOf([this] { this->connector_.GetVersion(); }), "read: End of file");
}

}  // namespace
