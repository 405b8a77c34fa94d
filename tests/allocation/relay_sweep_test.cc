#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "connector/v2016_2/connector.h"
#include "connector/v2017_2/connector.h"
#include "log/flog.h"
#include "net/socket.h"
#include "relay/connector_socket_wrapper.h"
#include "tests/allocation/failing_allocations.h"
#include "tests/allocation/frames.h"
#include "tests/support/bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/scripted_simulator.h"
#include "tests/support/socket_pair.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/wire_bytes.h"

// Every allocation of a request fails once, and then every one of them with all that follow. The
// request is then either served, or it ends the controller with the texts for it; the master sees
// whole frames only; nothing stays allocated or open.

namespace {

using Strings = std::vector<std::string>;

constexpr std::size_t kRoom = 1 << 16;
constexpr long kUndisturbed = 1'000'000'000;

// Names that do not fit into a string without memory of its own.
const std::string kNorth = "PRODUCER-OF-THE-NORTH-FLANK";
const std::string kSouth = "INJECTOR-OF-THE-SOUTH-FLANK";

const std::string kEnd = wire::Mess("END");
const std::string kReady = wire::Mess("READY") + kEnd;

Strings Reply(const std::string& headers) {
  return {wire::Mess("REPLY") + headers + kEnd, kReady};
}
Strings Step(const std::string& position) {
  return {wire::Mess("STEP") + wire::Cstr("POSITION", {position}) + wire::Doub("TIME", {1.5}) +
          wire::Inte("DATE", {2026, 1, 2, 0, 0, 0}) + kEnd};
}
Strings SetUpAnswer() {
  Strings messages = {wire::Mess("STARTED") + wire::Cstr("ERRORS", {}) + kEnd};
  messages.push_back(Step("MODEL_DEFINITION").front());
  return messages;
}
const Strings kShutdownAnswer = {wire::Mess("FINISHED") + kEnd};

// One request of the master: its frames' bodies, and what the simulator answers to what it makes
// the connector ask.
struct Request {
  std::string name;
  Strings frames;
  std::vector<Strings> answers;
};

void PrintTo(const Request& request, std::ostream* out) {
  *out << request.name;
}

std::string Row(const std::string& well, const std::vector<double>& values) {
  return wire::Cstr("WELLNAME", {well}) + wire::Doub("VALUES", values);
}
std::string Words(const std::string& well, const Strings& words) {
  return wire::Cstr("WELLNAME", {well}) + wire::Cstr("VALUES", words);
}

Request GetWellData() {
  const Strings asked = {"OIL_PRODUCTION_RATE",  "GAS_PRODUCTION_RATE", "WATER_PRODUCTION_RATE",
                         "WATER_INJECTION_RATE", "GAS_INJECTION_RATE",  "UPTIME_FRACTION",
                         "BOTTOM_HOLE_PRESSURE", "TUBING_HEAD_PRESSURE"};
  const std::vector<double> values = {1, 2, 3, 4, 5, 6, 7, 8};
  return {
      "GetWellData",
      {Image(10) + Image(2) + PackedText(kNorth) + PackedText(kSouth), Image(4096), Image(4096)},
      {Reply(wire::Cstr("QITEMS", asked) + Row(kSouth, values) + Row(kNorth, values)),
       Reply(wire::Cstr("QITEMS", {"STATUS"}) + Words(kSouth, {"OPEN"}) +
             Words(kNorth, {"OPEN"}))}};
}

Request GetWellIPRData() {
  Strings asked = {"OIL_PRODUCTION_RATE",   "GAS_PRODUCTION_RATE",  "WATER_PRODUCTION_RATE",
                   "WATER_INJECTION_RATE",  "GAS_INJECTION_RATE",   "TEMPERATURE",
                   "GAS_DENSITY",           "WATER_DENSITY",        "OIL_DENSITY",
                   "BOTTOM_HOLE_PRESSURE",  "TUBING_HEAD_PRESSURE", "TOTAL_MOLE_FRACTION[1]",
                   "TOTAL_MOLE_FRACTION[2]"};
  std::vector<Strings> answers = {
      Reply(wire::Cstr("QITEM", {"UNIT_SYSTEM"}) + wire::Cstr("VALUES", {"TOLMEN_METRIC"})),
      {kReady},
      Reply(wire::Cstr("QITEMS", {"TYPE"}) + Words(kNorth, {"PRODUCER"}))};
  for (int point = 0; point < 10; ++point) {
    answers.push_back({kReady});
    answers.push_back(Reply(wire::Cstr("QITEMS", asked) +
                            Row(kNorth, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13})));
  }
  return {"GetWellIPRData",
          {Image(16) + Image(2) + Image(1) + PackedText(kNorth) + std::string(1, '\1') + Image(1.0),
           Image(4097)},
          answers};
}

Request GetEOSProps() {
  return {"GetEOSProps",
          {Image(14)},
          {Reply(wire::Cstr("FLUIDMODELDNAME", {"THE-MODEL-OF-THE-FLUID"}) +
                 wire::Cstr("EOSNAME", {"THE-EQUATION-OF-STATE"}) +
                 wire::Cstr("NCOMPS", {"A-LONG-COMPONENT-NAME", "ANOTHER-COMPONENT-NAME"}) +
                 wire::Doub("BIC", {0.5}) + wire::Cstr("EOSPROPNAME", {"Molecular weight"}) +
                 wire::Doub("VALUES", {16, 44}) + wire::Cstr("EOSPROPNAME", {"TCrit"}) +
                 wire::Doub("VALUES", {190, 369}))}};
}

std::vector<Request> Requests() {
  const std::string two_wells = PackedText(kNorth) + PackedText(kSouth);
  return {
      {"GetDate", {Image(2)}, {}},
      {"GetMetricFlag",
       {Image(3)},
       {Reply(wire::Cstr("QITEM", {"UNIT_SYSTEM"}) + wire::Cstr("VALUES", {"TOLMEN_METRIC"}))}},
      {"GetTimeDays", {Image(4)}, {}},
      {"GetCompFlag",
       {Image(5)},
       {Reply(wire::Cstr("QITEM", {"FM_FLUID_MODEL"}) + wire::Cstr("VALUES", {"COMPOSITIONAL"}) +
              wire::Cstr("QITEM", {"RES_FLUID_MODEL"}) + wire::Cstr("VALUES", {"BLACK_OIL"}))}},
      {"GetWellStatus",
       {Image(6)},
       {Reply(wire::Cstr("QITEMS", {"TYPE", "STATUS"}) + Words(kNorth, {"PRODUCER", "OPEN"}) +
              Words(kSouth, {"WATER_INJECTOR_OF_OURS", "SHUT"}))}},
      {"Newton", {Image(7)}, {Step("BEGIN_NEWTON")}},
      {"RunUntil", {Image(8) + Image(365.25)}, {Step("BEGIN_NEWTON")}},
      {"GetTermFlag", {Image(9)}, {}},
      GetWellData(),
      {"SetWellStatus",
       {Image(11) + Image(2) + Image(2) + two_wells + PackedText("OPEN") + PackedText("SHUT")},
       {{kReady}}},
      {"SetWellUptime",
       {Image(12) + Image(2) + Image(2) + two_wells + Image(0.5) + Image(1.0)},
       {{kReady}}},
      {"SetWellConstraints",
       {Image(13) + Image(2) + two_wells + Image(2) + Image(1) + PackedText("OIL_PRODUCTION_RATE") +
        Image(1) + PackedText("WATER_INJECTION_RATE") + Image(2) + Image(1) + Image(100.0) +
        Image(1) + Image(200.0)},
       {{kReady}}},
      GetEOSProps(),
      {"GetWellVariables",
       {Image(15) + PackedText(kNorth) + Image(1) + PackedText("OIL_PRODUCTION_RATE")},
       {Reply(wire::Cstr("QITEMS", {"OIL_PRODUCTION_RATE"}) + Row(kNorth, {7}))}},
      GetWellIPRData(),
      {"GetVersion",
       {Image(17)},
       {Reply(wire::Cstr("QITEM", {"VK_VERSION"}) + wire::Cstr("VALUES", {"2017.2"}))}},
      {"SetWellInjectionSource",
       {Image(18) + PackedText(kSouth) + PackedText("THE-SOURCE-OF-THE-GAS")},
       {Reply(wire::Inte("STRET", {1}))}},
      {"SetWellInjectionComposition",
       {Image(19) + Image(1) + PackedText("THE-SOURCE-OF-THE-GAS") + Image(1) + Image(2) +
        Image(0.9) + Image(0.1)},
       {{kReady}}},
      {"GetStartDate",
       {Image(20)},
       {Reply(wire::Cstr("QITEM", {"START_DATE"}) + wire::Inte("VALUES", {2026, 1, 2, 0, 0, 0}))}},
      {"UnknownCode", {Image(99)}, {}},
  };
}

struct Outcome {
  int result = -1;  ///< of the request loop; -1 when the failure left it
  std::string error;
  std::string log;
  std::string replies;  ///< all that the master received
  bool reached = false;
  long leaked = 0;
  long leaked_descriptors = 0;
};

// The controller's whole loop, with the request and then the shutdown of the run in it. With
// `connected` the set-up exchange has gone well before.
template <class Connector>
Outcome Serve(const Request& request, bool connected, long failing, Failing mode) {
  Outcome outcome;
  // Filled below without an allocation of their own.
  for (std::string* text : {&outcome.error, &outcome.log, &outcome.replies}) text->reserve(kRoom);
  const auto descriptors = static_cast<long>(OpenDescriptors(getpid()));
  const long live = LiveAllocations();
  {
    const TemporaryDirectory directory;
    flog log(directory.File("log"), true);
    ScriptedSimulator simulator(ScriptedSimulator::Link::kLoopback);
    auto owned = std::make_unique<Connector>();
    Connector* connector = owned.get();
    if (connected) {
      simulator.AnswerNext(SetUpAnswer());
      connector->Connect("127.0.0.1", static_cast<int>(simulator.Port()), 5);
    }
    for (const Strings& answer : request.answers) simulator.AnswerNext(answer);
    simulator.AnswerNext(kShutdownAnswer);

    SocketPair pair;
    Socket socket(pair.ours.Release());
    ConnectorSocketWrapper controller(std::move(owned), "127.0.0.1", &socket,
                                      static_cast<int>(simulator.Port()), 5, log);
    for (const std::string& frame : request.frames) WriteAll(pair.peer.get(), Frame(frame));
    WriteAll(pair.peer.get(), Frame(Image(65520)));
    shutdown(pair.peer.get(), SHUT_WR);

    std::string error;
    {
      const FailingAllocations failures(failing, mode);
      try {
        outcome.result = controller.ProcessRequests(error);
      } catch (const std::bad_alloc&) {
        outcome.result = -1;
      }
    }
    outcome.reached = FailingAllocations::Reached();
    connector->Shutdown();  // a failed controller leaves the client to the end of its process
    socket.Close();
    outcome.error.assign(error);
    outcome.log.assign(directory.Read("log"));
    outcome.replies.assign(ReadExactly(pair.peer.get(), kRoom));
  }
  outcome.leaked = LiveAllocations() - live;
  outcome.leaked_descriptors = static_cast<long>(OpenDescriptors(getpid())) - descriptors;
  return outcome;
}

const std::string kReason = "Failed to handle data packet received from master: Unknown exception";

void Check(const Outcome& outcome, const Outcome& undisturbed, long failing, Failing mode) {
  SCOPED_TRACE(testing::Message() << "allocation " << failing << " fails " << mode << "; result "
                                  << outcome.result << " " << outcome.error << "\nlogged:\n"
                                  << outcome.log);
  EXPECT_EQ(outcome.leaked, 0);
  EXPECT_EQ(outcome.leaked_descriptors, 0);
  const Strings replies = FramesOf(outcome.replies);
  const Strings all = FramesOf(undisturbed.replies);
  switch (outcome.result) {
    case 0:  // served; a reply for which there was no memory is lost, as one that cannot be sent
      EXPECT_EQ(outcome.error, "");
      EXPECT_EQ(outcome.log, undisturbed.log);
      EXPECT_GE(Missing(replies, all), 0);
      if (mode == Failing::kOnce) {
        EXPECT_LE(Missing(replies, all), 1);
      }
      break;
    case 2:
      EXPECT_EQ(outcome.error, kReason);
      EXPECT_TRUE(outcome.log.ends_with("Unknown exception\n" + kReason + "\n"));
      if (mode == Failing::kOnce) {
        EXPECT_TRUE(IsBeginningOf(replies, all));
      } else {
        EXPECT_GE(Missing(replies, all), 0);
      }
      break;
    default:  // only before the first frame is received
      EXPECT_EQ(outcome.result, -1);
      EXPECT_EQ(outcome.log, "");
      EXPECT_TRUE(replies.empty());
  }
}

template <class Connector>
void Sweep(const Request& request, bool connected) {
  signal(SIGPIPE, SIG_IGN);
  const Descriptor printed(dup(STDOUT_FILENO));
  const Descriptor nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
  dup2(nowhere.get(), STDOUT_FILENO);  // what is logged there is in the log's file too
  Serve<Connector>(request, connected, kUndisturbed,
                   Failing::kOnce);  // warms what is kept for good
  const Outcome undisturbed = Serve<Connector>(request, connected, kUndisturbed, Failing::kOnce);
  EXPECT_EQ(undisturbed.result, 0) << undisturbed.error;
  EXPECT_EQ(undisturbed.leaked, 0);
  long failed = 0;
  for (const Failing mode : {Failing::kOnce, Failing::kForGood}) {
    for (long failing = 1; !testing::Test::HasFailure(); ++failing) {
      const Outcome outcome = Serve<Connector>(request, connected, failing, mode);
      if (!outcome.reached) {
        EXPECT_GT(failing, 3);  // the sweep was one
        break;
      }
      ++failed;
      Check(outcome, undisturbed, failing, mode);
    }
  }
  dup2(printed.get(), STDOUT_FILENO);
  testing::Test::RecordProperty("failed_allocations", static_cast<int>(failed));
}

class RelaySweep : public testing::TestWithParam<Request> {};

TEST_P(RelaySweep, FailedAllocationIsServedOrEndsTheLoopOver2016) {
  Sweep<v2016_2::Connector>(GetParam(), true);
}

TEST_P(RelaySweep, FailedAllocationIsServedOrEndsTheLoopOver2017) {
  Sweep<v2017_2::Connector>(GetParam(), true);
}

INSTANTIATE_TEST_SUITE_P(Requests, RelaySweep, testing::ValuesIn(Requests()),
                         [](const auto& instance) { return instance.param.name; });

// Fails with a long reason just when memory runs out.
class ExhaustedConnector : public v2017_2::Connector {
 public:
  double GetTimeDays() override {
    failures_.emplace(1, Failing::kForGood);
    throw failure_;
  }

 private:
  std::runtime_error failure_{std::string(1000, 'x')};
  std::optional<FailingAllocations> failures_;
};

TEST(ReasonSweep, ReasonForWhichThereIsNoMemoryIsLeftOut) {
  const TemporaryDirectory directory;
  flog log(directory.File("log"), true);
  SocketPair pair;
  Socket socket(pair.ours.Release());
  std::string error;
  int result = 0;
  {
    ConnectorSocketWrapper controller(std::make_unique<ExhaustedConnector>(), "127.0.0.1", &socket,
                                      1, 5, log);
    constexpr int kGetTimeDays = 4;
    WriteAll(pair.peer.get(), Frame(Image(kGetTimeDays)));
    result = controller.ProcessRequests(error);
  }
  EXPECT_EQ(result, 2);
  EXPECT_EQ(error, "Failed to handle data packet received from master: ");
  // The log needs none.
  EXPECT_NE(directory.Read("log").find("Exception returned from VK controller: xxx"),
            std::string::npos);
}

TEST(SetUpSweep, FailedAllocationIsServedOrEndsTheLoop) {
  Sweep<v2017_2::Connector>(Request{"Connect", {Image(1)}, {SetUpAnswer()}}, false);
}

}  // namespace
