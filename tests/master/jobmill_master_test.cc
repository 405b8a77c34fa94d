// The interface for other languages, by the shared library itself.

#include "master/jobmill_master.h"

#include <array>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tools/fake_daemon.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// Programs of other languages have these numbers, not the names.
static_assert(JOBMILL_INTERNAL == -1 && JOBMILL_USAGE == -2 && JOBMILL_NOT_LAUNCHED == -3 &&
              JOBMILL_REQUEST_FAILED == -4 && JOBMILL_LINK_LOST == -5 && JOBMILL_BAD_ANSWER == -6 &&
              JOBMILL_TIMED_OUT == -7 && JOBMILL_CANCELLED == -8);
static_assert(JOBMILL_OIL_RATE == 0 && JOBMILL_UPTIME_FRACTION == 7 && JOBMILL_WELL_VALUES == 8);
static_assert(JOBMILL_INFLOW_PRESSURE == 0 && JOBMILL_INFLOW_COLUMNS == 8);
static_assert(JOBMILL_MOLECULAR_WEIGHT == 0 && JOBMILL_BINARY_INTERACTION == 10);

struct Freeing {
  void operator()(jobmill_run* run) const { jobmill_free(run); }
};
using Handle = std::unique_ptr<jobmill_run, Freeing>;

std::string ErrorOf(const Handle& run) {
  std::array<char, 300> text{};
  EXPECT_GE(jobmill_error_text(run.get(), text.data(), text.size()), 0);
  return text.data();
}

Handle RunThrough(int port) {
  Handle run(jobmill_new());
  const std::string number = std::to_string(port);
  for (const auto& [name, value] : {std::pair{"host", "127.0.0.1"},
                                    {"port", number.c_str()},
                                    {"path", "/data/"},
                                    {"root", "CASE"},
                                    {"user", "alice"}}) {
    EXPECT_EQ(jobmill_set(run.get(), name, value), 0);
  }
  return run;
}

class LibraryTest : public testing::Test {
 protected:
  void Launch() { ASSERT_EQ(jobmill_launch(run_.get()), 0) << ErrorOf(run_); }

  // The last request that the daemon got.
  std::string Last() {
    run_.reset();
    return daemon_.Requests().back();
  }

  FakeRun served_;
  FakeDaemon daemon_{FakeDaemon::Launching(served_)};
  Handle run_ = RunThrough(daemon_.port());
};

TEST_F(LibraryTest, LaunchConnectsAndKnowsTheHost) {
  Launch();
  std::array<char, 100> host{};
  EXPECT_EQ(jobmill_host(run_.get(), host.data(), host.size()), 6);
  EXPECT_STREQ(host.data(), "node17");
  EXPECT_EQ(jobmill_shutdown(run_.get(), 10), 0);
  run_.reset();
  EXPECT_THAT(daemon_.Requests(), ElementsAre("01 00 00 00", "f0 ff 00 00"));
}

TEST_F(LibraryTest, SimpleQuestionsAreAnswered) {
  Launch();
  int32_t flag = -1;
  EXPECT_EQ(jobmill_is_metric(run_.get(), &flag), 0);
  EXPECT_EQ(flag, 1);
  EXPECT_EQ(jobmill_is_compositional(run_.get(), &flag), 0);
  EXPECT_EQ(flag, 1);
  double number = 0;
  EXPECT_EQ(jobmill_simulator_version(run_.get(), &number), 0);
  EXPECT_EQ(number, 2017.2);
  served_.end = 40;
  EXPECT_EQ(jobmill_first_step(run_.get()), 0);
  EXPECT_EQ(jobmill_run_until(run_.get(), 31), 0);
  EXPECT_EQ(jobmill_has_ended(run_.get(), &flag), 0);
  EXPECT_EQ(flag, 0);
  EXPECT_EQ(jobmill_time(run_.get(), &number), 0);
  EXPECT_EQ(number, 31);
  std::array<int32_t, 3> date{};
  EXPECT_EQ(jobmill_date(run_.get(), &date[0], &date[1], &date[2]), 0);
  EXPECT_THAT(date, ElementsAre(1, 2, 2020));
  EXPECT_EQ(jobmill_start_date(run_.get(), &date[0], &date[1], &date[2]), 0);
  EXPECT_THAT(date, ElementsAre(1, 1, 2020));
}

TEST_F(LibraryTest, TextsAreCutToTheirRoomAndTellTheirLength) {
  Launch();
  ASSERT_EQ(jobmill_read_wells(run_.get()), 3);
  std::array<char, 6> text{'x', 'x', 'x', 'x', 'x', 'x'};
  EXPECT_EQ(jobmill_well_type(run_.get(), 2, text.data(), 5), 14);
  EXPECT_STREQ(text.data(), "WATE");
  EXPECT_EQ(text[5], 'x') << "past the room";
  EXPECT_EQ(jobmill_well_type(run_.get(), 2, nullptr, 0), 14);
  EXPECT_EQ(jobmill_well_name(run_.get(), 0, text.data(), text.size()), 2);
  EXPECT_STREQ(text.data(), "P1");
  EXPECT_EQ(jobmill_well_status(run_.get(), 1, text.data(), text.size()), 4);
  EXPECT_STREQ(text.data(), "SHUT");
  for (const int32_t nowhere : {-1, 3}) {
    EXPECT_EQ(jobmill_well_name(run_.get(), nowhere, text.data(), text.size()), JOBMILL_USAGE);
  }
  EXPECT_EQ(jobmill_well_name(run_.get(), 0, nullptr, 6), JOBMILL_USAGE);
}

TEST_F(LibraryTest, DataOfWellsFollowEachOther) {
  Launch();
  std::vector<double> values(std::size_t{2} * JOBMILL_WELL_VALUES);
  EXPECT_EQ(jobmill_read_data(run_.get(), "P1\r\nI1\n", values.data(), 16), 16);
  EXPECT_THAT(values, ElementsAre(100, 101, 102, 103, 104, 250.5, 30.25, 0.95, 200, 201, 202, 203,
                                  204, 250.5, 30.25, 0.95));
}

TEST_F(LibraryTest, TooLittleRoomIsFoundBeforeAnythingIsSent) {
  Launch();
  std::vector<double> values(15);
  EXPECT_EQ(jobmill_read_data(run_.get(), "P1\nI1", values.data(), 15), JOBMILL_USAGE);
  EXPECT_EQ(ErrorOf(run_), "There is room for 15 values, but there are 16");
  EXPECT_EQ(jobmill_read_data(run_.get(), "P1", nullptr, 8), JOBMILL_USAGE);
  EXPECT_EQ(jobmill_time(run_.get(), nullptr), JOBMILL_USAGE);
  EXPECT_EQ(Last(), "01 00 00 00");
}

TEST_F(LibraryTest, VariablesAreReadByTheSimulatorsNames) {
  Launch();
  std::array<double, 3> values{};
  EXPECT_EQ(jobmill_read_variables(run_.get(), "P1", "BOTTOM_HOLE_PRESSURE\nGOR", values.data(), 3),
            2);
  EXPECT_THAT(values, ElementsAre(10.5, 21, 0));
}

TEST_F(LibraryTest, StatusIsSetForAllWellsNamed) {
  Launch();
  EXPECT_EQ(jobmill_set_status(run_.get(), "P1\nP2", "SHUT"), 0);
  EXPECT_EQ(Last(), Hex(Bytes("i(11) i(2) i(2) text('P1') text('P2') text('SHUT') text('SHUT')")));
}

TEST_F(LibraryTest, UptimeIsSetForAllWellsNamed) {
  Launch();
  EXPECT_EQ(jobmill_set_uptime(run_.get(), "P1", 0.5), 0);
  EXPECT_EQ(served_.uptimes.at("P1"), 0.5);
}

TEST_F(LibraryTest, ConstraintsAreTheSameForAllWellsNamed) {
  Launch();
  const std::array<double, 2> values{500, 150};
  EXPECT_EQ(jobmill_set_constraints(run_.get(), "P1\nP2", "A\nB", values.data(), 1), JOBMILL_USAGE);
  EXPECT_EQ(ErrorOf(run_), "There are 2 properties and 1 values");
  EXPECT_EQ(jobmill_set_constraints(run_.get(), "P1\nP2", "A\nB", values.data(), 2), 0);
  EXPECT_EQ(Last(), Hex(Bytes("i(13) i(2) text('P1') text('P2') i(2) i(2) text('A') text('B') i(2) "
                              "text('A') text('B') i(2) i(2) d(500) d(150) i(2) d(500) d(150)")));
}

TEST_F(LibraryTest, InflowTablesAreGivenColumnByColumn) {
  Launch();
  std::array<double, 10> values{};
  EXPECT_EQ(jobmill_read_inflow(run_.get(), "P1\nP2", 1, 1.5, 2), 10);
  EXPECT_EQ(jobmill_inflow(run_.get(), 1, JOBMILL_INFLOW_OIL_RATE, values.data(), 10), 10);
  EXPECT_EQ(values[0], 1000);
  EXPECT_EQ(values[9], 100);
  EXPECT_EQ(jobmill_inflow(run_.get(), 1, JOBMILL_INFLOW_COLUMNS + 1, values.data(), 10), 10);
  EXPECT_EQ(values[3], 0.5);
  for (const int32_t column : {-1, JOBMILL_INFLOW_COLUMNS + 2}) {
    EXPECT_EQ(jobmill_inflow(run_.get(), 1, column, values.data(), 10), JOBMILL_USAGE) << column;
  }
  EXPECT_EQ(jobmill_inflow(run_.get(), 2, 0, values.data(), 10), JOBMILL_USAGE);
  EXPECT_EQ(jobmill_inflow(run_.get(), 0, 0, values.data(), 9), JOBMILL_USAGE);
}

TEST_F(LibraryTest, FluidIsGivenPropertyByProperty) {
  Launch();
  ASSERT_EQ(jobmill_read_fluid(run_.get()), 2);
  std::array<char, 10> name{};
  EXPECT_EQ(jobmill_component_name(run_.get(), 1, name.data(), name.size()), 3);
  EXPECT_STREQ(name.data(), "CO2");
  std::array<double, 2> values{};
  EXPECT_EQ(jobmill_fluid(run_.get(), JOBMILL_PARACHOR, values.data(), 2), 2);
  EXPECT_THAT(values, ElementsAre(77, 78));
  EXPECT_EQ(jobmill_fluid(run_.get(), JOBMILL_BINARY_INTERACTION, values.data(), 2), 1);
  EXPECT_EQ(values[0], 0.1);
  EXPECT_EQ(jobmill_fluid(run_.get(), JOBMILL_BINARY_INTERACTION + 1, values.data(), 2),
            JOBMILL_USAGE);
}

TEST_F(LibraryTest, SourceAndItsCompositionAreSet) {
  Launch();
  EXPECT_EQ(jobmill_set_source(run_.get(), "I1", "CAP"), 1);
  const std::array<double, 2> fractions{0.25, 0.75};
  EXPECT_EQ(jobmill_set_composition(run_.get(), "CAP", fractions.data(), 2), 0);
  EXPECT_EQ(Last(), Hex(Bytes("i(19) i(1) text('CAP') i(1) i(2) d(0.25) d(0.75)")));
}

TEST_F(LibraryTest, RequestThatTheDaemonRefusesEndsTheRun) {
  served_.fails = {8};
  Launch();
  EXPECT_EQ(jobmill_run_until(run_.get(), 30), JOBMILL_REQUEST_FAILED);
  EXPECT_EQ(ErrorOf(run_),
            "The daemon ended the connection while waiting for the answer of request 8 (RunUntil)");
  double days = 0;
  EXPECT_EQ(jobmill_time(run_.get(), &days), JOBMILL_USAGE);
  EXPECT_EQ(ErrorOf(run_), "The run is over: the handle can only be freed");
  EXPECT_EQ(jobmill_shutdown(run_.get(), 1), JOBMILL_USAGE);
}

TEST_F(LibraryTest, CancelledStepLeavesTheShutdown) {
  std::promise<void> stepping;
  std::promise<void> over;
  served_.before = [&](std::uint32_t code) {
    if (code != 8) return;
    stepping.set_value();
    over.get_future().wait();
  };
  Launch();
  std::thread other([&] {
    stepping.get_future().wait();
    jobmill_cancel(run_.get());
  });
  EXPECT_EQ(jobmill_run_until(run_.get(), 30), JOBMILL_CANCELLED);
  other.join();
  double days = 0;
  EXPECT_EQ(jobmill_time(run_.get(), &days), JOBMILL_USAGE);
  EXPECT_THAT(ErrorOf(run_), HasSubstr("can only be shut down"));
  over.set_value();
  EXPECT_EQ(jobmill_shutdown(run_.get(), 20), 0) << ErrorOf(run_);
  EXPECT_EQ(Last(), "f0 ff 00 00");
}

TEST_F(LibraryTest, ShutdownOfABusyRunTimesOut) {
  std::promise<void> over;
  served_.before = [&](std::uint32_t code) {
    if (code == 8) over.get_future().wait();
  };
  Launch();
  ASSERT_EQ(jobmill_on_wait(
                run_.get(), 1, [](void* run) { jobmill_cancel(static_cast<jobmill_run*>(run)); },
                run_.get()),
            0);
  EXPECT_EQ(jobmill_run_until(run_.get(), 30), JOBMILL_CANCELLED);
  ASSERT_EQ(jobmill_on_wait(run_.get(), 0, nullptr, nullptr), 0);
  EXPECT_EQ(jobmill_shutdown(run_.get(), 0), JOBMILL_TIMED_OUT);
  over.set_value();
  EXPECT_EQ(Last(), "f0 ff 00 00") << "the daemon has the order";
}

TEST_F(LibraryTest, TickIsCalledWhileACallWaits) {
  std::promise<void> ticked;
  served_.before = [&](std::uint32_t code) {
    if (code == 4) ticked.get_future().wait();
  };
  Launch();
  EXPECT_EQ(jobmill_on_wait(
                run_.get(), 0, [](void*) {}, nullptr),
            JOBMILL_USAGE);
  struct Ticks {
    int count = 0;
    std::promise<void>* third = nullptr;
  } ticks{0, &ticked};
  const auto count = [](void* user) {
    auto* counted = static_cast<Ticks*>(user);
    if (++counted->count == 3) counted->third->set_value();
  };
  ASSERT_EQ(jobmill_on_wait(run_.get(), 1, count, &ticks), 0);
  double days = -1;
  EXPECT_EQ(jobmill_time(run_.get(), &days), 0);
  EXPECT_GE(ticks.count, 3);
}

TEST(LibraryFailure, RefusedRunHasTheDaemonsSentence) {
  FakeDaemon daemon(FakeDaemon::Refusing("No host detected"));
  const Handle run = RunThrough(daemon.port());
  EXPECT_EQ(jobmill_launch(run.get()), JOBMILL_NOT_LAUNCHED);
  EXPECT_EQ(ErrorOf(run), "No host detected");
  EXPECT_EQ(jobmill_launch(run.get()), JOBMILL_USAGE);
}

TEST(LibraryFailure, DaemonThatIsNotThereIsNotLaunched) {
  const Descriptor bound = BindFreePort();
  const Handle run = RunThrough(PortOf(bound.get()));
  EXPECT_EQ(jobmill_launch(run.get()), JOBMILL_NOT_LAUNCHED);
  EXPECT_THAT(ErrorOf(run), HasSubstr("Connection refused"));
}

TEST(LibraryFailure, TickIsCalledWhileADaemonThatSaysNothingIsWaitedFor) {
  std::promise<void> over;
  FakeDaemon daemon([&](DaemonEnd&) { over.get_future().wait(); });
  const Handle run = RunThrough(daemon.port());
  const auto cancel = [](void* handle) { jobmill_cancel(static_cast<jobmill_run*>(handle)); };
  ASSERT_EQ(jobmill_on_wait(run.get(), 1, cancel, run.get()), 0);
  ASSERT_EQ(jobmill_set(run.get(), "connect-wait", "5"), 0);
  EXPECT_EQ(jobmill_launch(run.get()), JOBMILL_CANCELLED);
  over.set_value();
}

TEST(LibraryFailure, AnotherProgramOnThePortIsABadAnswer) {
  FakeDaemon daemon([](DaemonEnd& end) { end.Send("SSH-2.0"); });
  const Handle run = RunThrough(daemon.port());
  EXPECT_EQ(jobmill_launch(run.get()), JOBMILL_BAD_ANSWER);
}

TEST(LibraryFailure, LaunchThatTakesTooLongIsGivenUp) {
  FakeDaemon daemon([](DaemonEnd& end) {
    FakeDaemon::Handshake(end);
    while (end.Receive()) {
    }
  });
  Handle run = RunThrough(daemon.port());
  EXPECT_EQ(jobmill_set(run.get(), "launch-wait", "1"), 0);
  EXPECT_EQ(jobmill_launch(run.get()), JOBMILL_TIMED_OUT);
  run.reset();
  EXPECT_THAT(daemon.Requests(), ElementsAre("01 00 00 00", "f0 ff 00 00"));
}

TEST(LibraryFailure, WhatCannotBeLaunchedIsSaidBeforeAnythingIsSent) {
  const Handle run(jobmill_new());
  EXPECT_EQ(jobmill_launch(run.get()), JOBMILL_USAGE);
  EXPECT_EQ(ErrorOf(run), "The daemon's port has not been set");
  for (const char* wrong : {"", "0", "65536", "50x", "-1"}) {
    EXPECT_EQ(jobmill_set(run.get(), "port", wrong), JOBMILL_USAGE) << wrong;
  }
  EXPECT_EQ(jobmill_set(run.get(), "prot", "5000"), JOBMILL_USAGE);
  EXPECT_EQ(ErrorOf(run), "There is nothing called 'prot' to set");
  EXPECT_EQ(jobmill_set(run.get(), nullptr, nullptr), JOBMILL_USAGE);
  EXPECT_EQ(jobmill_set(run.get(), "port", "5000"), 0);
  EXPECT_EQ(jobmill_launch(run.get()), JOBMILL_USAGE);
  EXPECT_THAT(ErrorOf(run), HasSubstr("path"));
}

TEST(LibraryFailure, NothingButTheLaunchIsPossibleBeforeIt) {
  const Handle run(jobmill_new());
  int32_t flag = 0;
  EXPECT_EQ(jobmill_is_metric(run.get(), &flag), JOBMILL_USAGE);
  EXPECT_EQ(ErrorOf(run), "The run has not been launched");
  EXPECT_EQ(jobmill_shutdown(run.get(), 1), JOBMILL_USAGE);
}

TEST(LibraryFailure, NoHandleIsUsage) {
  double days = 0;
  EXPECT_EQ(jobmill_time(nullptr, &days), JOBMILL_USAGE);
  EXPECT_EQ(jobmill_error_text(nullptr, nullptr, 0), JOBMILL_USAGE);
  jobmill_cancel(nullptr);
  jobmill_free(nullptr);
}

}  // namespace
