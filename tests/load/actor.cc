#include "tests/load/actor.h"

#include <sys/socket.h>
#include <sys/timerfd.h>

#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <utility>

#include "master/errors.h"
#include "master/launch.h"
#include "simulator/reservoir.h"
#include "tests/support/bytes.h"

namespace load {
namespace {

using Names = std::vector<std::string>;

const Names kWells = {"P1", "P2", "P3", "P4", "P5", "P6"};

std::string WellDataRequest(const Names& wells) {
  std::string bytes = Image(10) + Image(static_cast<std::int32_t>(wells.size()));
  for (const std::string& well : wells) bytes += PackedText(well);
  return bytes;
}

// The next close ends the connection with a reset.
void CloseWithReset(Descriptor& connection) {
  const linger now{1, 0};
  setsockopt(connection.get(), SOL_SOCKET, SO_LINGER, &now, sizeof(now));
  connection.Reset();
}

void CheckSameWells(master::Run& run, const simulator::Reservoir& model) {
  const std::vector<master::WellData> data = run.GetWellData(kWells);
  Check(data.size() == kWells.size(), "records of other wells than asked for");
  for (std::size_t i = 0; i < kWells.size(); ++i) {
    Check(
        data[i].oil_rate == model.well_property(kWells[i], "OIL_PRODUCTION_RATE") &&
            data[i].bottom_hole_pressure == model.well_property(kWells[i], "BOTTOM_HOLE_PRESSURE"),
        "another operating point of " + kWells[i] + " than the model's");
  }
}

void CheckEnd(master::Run& run) {
  try {
    Check(!run.channel().Receive(master::Clock::now() + LoadSite::kPatience),
          "an answer that nobody asked for");
  } catch (const master::LinkLost&) {
    // A reset: bytes were left unread. An end as well.
  }
}

}  // namespace

void Actor::Perform(const Action& action, const std::string& id) {
  const std::uint32_t parameter = action.parameter;
  switch (action.kind) {
    case Kind::kLeavesAtOnce:
      site_.Connect();
      return;
    case Kind::kLeavesInHandshake:
      return LeaveInHandshake(parameter, false);
    case Kind::kResetsInHandshake:
      return LeaveInHandshake(parameter, true);
    case Kind::kRefusesVersion:
      return RefuseVersion(parameter);
    case Kind::kStranger:
      return SendStrangersBytes(parameter);
    case Kind::kDeniedUser:
    case Kind::kUnknownUser:
    case Kind::kMissingAccount: {
      if (!LoadSite::MapsUsers()) return RefuseVersion(parameter);
      master::RunRequest request = site_.Request(LoadSite::Root(SimulatorFarm::kGood, id));
      if (action.kind == Kind::kDeniedUser) {
        request.user = "mallory";
        return ExpectRefusal(request,
                             "Windows user 'mallory' does not have permissions to run Varnok");
      }
      if (action.kind == Kind::kUnknownUser) {
        request.user = "eve";
        return ExpectRefusal(request, "Windows user 'eve' not found in administration file");
      }
      request.user = "ghost";
      return ExpectRefusal(request, "Failed to get password entry for 'no-such-account'");
    }
    case Kind::kScriptWithoutHost:
      return ExpectNoHost("nohost-" + id);
    case Kind::kScriptKilled:
      return ExpectNoHost("killed-" + id);
    case Kind::kScriptWithBlankHost:
      return ExpectNoHost("blank-" + id);
    case Kind::kScriptChatty:
      return RunWhole(site_.Request("chatty-" + id), parameter);
    case Kind::kScriptStays:
      return RunWhole(site_.Request("stays-" + id), parameter);
    case Kind::kLeavesInLaunch:
      return LeaveInLaunch(id);
    case Kind::kLeavesLaunched:
      site_.Launch(site_.Request(LoadSite::Root(SimulatorFarm::kGood, id)), alarm_);
      return;
    case Kind::kSimulatorAbsent:
      return ExpectEndOfConnect(SimulatorFarm::kAbsent, id);
    case Kind::kSimulatorRefuses:
      return ExpectEndOfConnect(SimulatorFarm::kRefusesSetUp, id);
    case Kind::kSimulatorHangsUp:
      return ExpectEndOfConnect(SimulatorFarm::kHangsUp, id);
    case Kind::kSimulatorCuts:
      return ExpectFault(
          SimulatorFarm::kCutsMessage + 1 + static_cast<int>(parameter % SimulatorFarm::kFaults),
          id);
    case Kind::kSimulatorSpoils:
      return ExpectFault(
          SimulatorFarm::kWrongHeader + 1 + static_cast<int>(parameter % SimulatorFarm::kFaults),
          id);
    case Kind::kRun:
      return RunWhole(site_.Request(LoadSite::Root(SimulatorFarm::kGood, id)), parameter);
    case Kind::kClusterRun: {
      master::RunRequest request = site_.Request(LoadSite::Root(SimulatorFarm::kGood, id));
      request.cluster = std::to_string(parameter % 9 + 1);
      site_.data().Write(request.root + ".afi", "a model");
      RunWhole(request, parameter);
      Check(site_.data().Read(request.root + "_" + request.cluster + ".afi") == "a model",
            "the cluster run has no input file of its own");
      return;
    }
    case Kind::kLeavesRun:
      return LeaveRun(id, parameter);
    case Kind::kResetsRun:
      return ResetRun(id, parameter);
    case Kind::kLeavesRequest:
      return LeaveRequest(id, parameter, false);
    case Kind::kResetsRequest:
      return LeaveRequest(id, parameter, true);
    case Kind::kLeavesRecords:
      return LeaveRecords(id, parameter);
    case Kind::kHostileRequest:
      return SendHostileRequest(id, parameter);
    case Kind::kUnknownRequest:
      return SendUnknownRequest(id, parameter);
  }
}

void Actor::LeaveInHandshake(std::uint32_t parameter, bool reset) {
  Descriptor connection = site_.Connect();
  // All bytes but the last: a script would be started.
  const std::string bytes = HandshakeOf(site_.Request("unfinished"));
  const std::string part = bytes.substr(0, parameter % bytes.size());
  if (parameter % 3 != 0) Check(ReadFrame(connection.get()) == "3", "no version");
  WriteAll(connection.get(), part);
  if (reset) CloseWithReset(connection);
}

void Actor::RefuseVersion(std::uint32_t parameter) {
  static const Names kAnswers = {"0", "abc", ""};
  const Descriptor connection = site_.Connect();
  Check(ReadFrame(connection.get()) == "3", "no version");
  WriteAll(connection.get(), Frame(kAnswers[parameter % kAnswers.size()]));
  Check(ReadFrame(connection.get()).empty(), "an answer to a refused version");
}

void Actor::SendStrangersBytes(std::uint32_t parameter) {
  static const Names kTexts = {"GET / HTTP/1.0\r\n\r\n", std::string(1000, '\xff'),
                               std::string(1000, '\0'), "\x16\x03\x01\x02"};
  const Descriptor connection = site_.Connect();
  WriteAll(connection.get(), kTexts[parameter % kTexts.size()]);
}

void Actor::ExpectRefusal(const master::RunRequest& request, const std::string& text) {
  const Descriptor connection = site_.Connect();
  Check(ReadFrame(connection.get()) == "3", "no version");
  WriteAll(connection.get(), HandshakeOf(request));
  const std::string answer = ReadFrame(connection.get());
  Check(answer == text, "'" + answer + "' instead of '" + text + "'");
  Check(ReadFrame(connection.get()).empty(), "more after a refusal");
}

void Actor::ExpectNoHost(const std::string& root) {
  ExpectRefusal(site_.Request(root), "No host detected");
}

void Actor::LeaveInLaunch(const std::string& id) {
  const Descriptor connection = site_.Connect();
  WriteAll(connection.get(), HandshakeOf(site_.Request("slow-" + id)));
}

void Actor::ExpectEndOfConnect(int simulator, const std::string& id) {
  auto run = site_.Launch(site_.Request(LoadSite::Root(simulator, id)), alarm_);
  try {
    run->Connect();
  } catch (const master::RequestFailed&) {
    return;
  }
  throw std::runtime_error("connected to a simulator that was not to be had");
}

// Somewhere in the first messages the simulator fails. Until then all is well, then the run ends.
void Actor::ExpectFault(int simulator, const std::string& id) {
  auto run = site_.Launch(site_.Request(LoadSite::Root(simulator, id)), alarm_);
  try {
    run->Connect();
    Check(run->GetVersion() == 2017.2, "another version");
    run->Newton();
    for (int i = 0; i < SimulatorFarm::kFaults; ++i) run->GetMetricFlag();
  } catch (const master::RequestFailed&) {
    return;
  }
  throw std::runtime_error("the simulator's fault went unnoticed");
}

void Actor::RunWhole(master::RunRequest request, std::uint32_t parameter) {
  // The 2016.2 interface for every fourth.
  if (parameter % 4 == 0) request.version = "20162";
  auto run = site_.Launch(request, alarm_);
  simulator::Reservoir model(site_.simulators().deck());
  run->Connect();
  Check(run->GetVersion() == 2017.2 && !run->GetMetricFlag() && !run->GetCompFlag() &&
            run->GetStartDate() == master::Date{1, 1, 2020},
        "other answers than the model's");
  run->Newton();
  const unsigned steps = parameter / 4 % 6;
  for (unsigned step = 1; step <= steps; ++step) {
    run->RunUntil(30.0 * step);
    model.advance_to(30.0 * step);
    Check(run->GetTimeDays() == 30.0 * step, "another time than asked for");
    CheckSameWells(*run, model);
  }
  if (parameter / 32 % 8 == 0) {
    Check(run->GetWellIPRData({kWells, 0, true, 1.0}).wells.size() == kWells.size(),
          "tables of other wells than asked for");
  }
  run->Shutdown();
  CheckEnd(*run);
  requests_ += 7 + 3 * steps;
}

void Actor::LeaveRun(const std::string& id, std::uint32_t parameter) {
  auto run = site_.Launch(site_.Request(LoadSite::Root(SimulatorFarm::kGood, id)), alarm_);
  run->Connect();
  run->Newton();
  for (unsigned step = 1; step <= parameter % 4; ++step) run->RunUntil(10.0 * step);
}

Descriptor Actor::Connected(const std::string& id) {
  Descriptor connection = site_.Connect();
  WriteAll(connection.get(), HandshakeOf(site_.Request(LoadSite::Root(SimulatorFarm::kGood, id))));
  Check(ReadFrame(connection.get()) == "3", "no version");
  Check(ReadFrame(connection.get()).starts_with("OK|"), "no host");
  WriteAll(connection.get(), Frame(Image(1)));
  Check(ReadFrame(connection.get()) == Image(1) + Image(0), "no connection");
  return connection;
}

void Actor::ResetRun(const std::string& id, std::uint32_t parameter) {
  Descriptor connection = Connected(id);
  std::string requests;
  for (unsigned i = 0; i <= parameter % 64; ++i) requests += Frame(Image(i % 2 == 0 ? 6 : 17));
  WriteAll(connection.get(), requests);
  CloseWithReset(connection);
}

void Actor::LeaveRequest(const std::string& id, std::uint32_t parameter, bool reset) {
  Descriptor connection = Connected(id);
  const std::string request = Frame(WellDataRequest(kWells));
  WriteAll(connection.get(), request.substr(0, 1 + parameter % (request.size() - 1)));
  if (reset) CloseWithReset(connection);
}

void Actor::LeaveRecords(const std::string& id, std::uint32_t parameter) {
  const Descriptor connection = Connected(id);
  WriteAll(connection.get(), Frame(WellDataRequest(kWells)));
  Check(ReadFrame(connection.get()) ==
            Image(10) + Image(static_cast<std::int32_t>(kWells.size())) + Image(0),
        "another count of records");
  for (unsigned i = 0; i < parameter % kWells.size(); ++i) {
    WriteAll(connection.get(), Frame(Image(4096)));
    Check(ReadFrame(connection.get()).starts_with(Image(4096)), "no record");
  }
}

void Actor::SendHostileRequest(const std::string& id, std::uint32_t parameter) {
  const std::vector<std::string> requests = {
      Frame(Image(10) + Image(0x7fffffff)),                       // a count beyond the buffer
      Frame(Image(15) + Image(0x7fffffff)),                       // a text beyond it
      Frame(Image(16) + Image(0x7fffffff) + std::string(64, 0)),  // components
      Image(0x7fffffff) + "x",                                    // a frame beyond it
      Frame(WellDataRequest({"NO_SUCH_WELL"})),
      Frame(""),
  };
  const Descriptor connection = Connected(id);
  WriteAll(connection.get(), requests[parameter % requests.size()]);
  try {
    const std::string answer = ReadFrame(connection.get());
    // No wells are asked for: the number of components alone does no harm.
    Check(answer.empty() || answer.starts_with(Image(16)), "an answer to a hostile request");
  } catch (const std::runtime_error& error) {
    // A reset is an end as well.
    if (std::string(error.what()).find("broke") == std::string::npos) throw;
  }
}

void Actor::SendUnknownRequest(const std::string& id, std::uint32_t parameter) {
  const Descriptor connection = Connected(id);
  WriteAll(connection.get(), Frame(Image(21 + parameter % 1000)) + Frame(Image(65520)));
  Check(ReadFrame(connection.get()) == Image(65520) + Image(0), "no shutdown");
  Check(ReadFrame(connection.get()).empty(), "more after a shutdown");
}

void CarryOut(LoadSite& site, const std::vector<Action>& plan, unsigned workers,
              std::chrono::seconds limit, const std::string& life, Report& report) {
  const Descriptor alarm(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
  const itimerspec time{{0, 0}, {limit.count(), 0}};
  timerfd_settime(alarm.get(), 0, &time, nullptr);
  Actor actor(site, alarm.get());
  std::atomic<std::size_t> next = 0;
  const auto work = [&] {
    for (std::size_t i = next++; i < plan.size(); i = next++) {
      const std::string id = life + "-" + std::to_string(i);
      try {
        actor.Perform(plan[i], id);
      } catch (const std::exception& error) {
        report.Require(false, "action " + std::to_string(i) + " (" + NameOf(plan[i].kind) + " " +
                                  std::to_string(plan[i].parameter) + "): " + error.what());
      } catch (const std::string& error) {
        report.Require(false, "action " + std::to_string(i) + ": " + error);
      }
    }
  };
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < workers; ++i) threads.emplace_back(work);
  for (std::thread& thread : threads) thread.join();
}

}  // namespace load
