// The stand-in simulator: runs a deck under the control of whoever connects to its port.

#include <signal.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <utility>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "base/descriptor.h"
#include "simulator/controller_link.h"
#include "simulator/deck.h"
#include "simulator/listener.h"
#include "simulator/reservoir.h"
#include "simulator/stop_signal.h"
#include "tools/vksim/run_log.h"
#include "vk_ec/transport.h"

namespace {

using simulator::ControllerLink;

enum ExitStatus { kOk = 0, kCannotRun = 1, kUsage = 2, kBrokenConnection = 3 };

struct Options {
  std::string path;
  std::string root;
  std::uint16_t port = vk_ec::Transporter::default_port();
  std::string address = "127.0.0.1";
  std::string version = "2017.2";
  int processes = 1;
  bool debug = false;
  double wait_seconds = 300;
  double slow_start = 0;
  int step_delay = 0;
  std::optional<double> early_end;
  simulator::Faults faults;
};

std::string WithoutDot(std::string version) {
  std::erase(version, '.');
  return version;
}

void Declare(CLI::App& app, Options& options) {
  const CLI::Range seconds(0.0, 1e6);
  app.add_option("path", options.path, "Directory of the deck")->required();
  app.add_option("root", options.root, "Name of the deck without .afi")->required();
  app.add_option("--port", options.port, "Port to listen on; 0 takes a free one")
      ->capture_default_str();
  app.add_option("--address", options.address, "IPv4 address to listen on; 0.0.0.0 for all")
      ->capture_default_str();
  app.add_option("--api", options.version, "Version to stand in for; also without the dot")
      ->transform(CLI::IsMember({"2016.2", "2017.2"}, WithoutDot))
      ->capture_default_str();
  app.add_option("--processes", options.processes, "Accepted and noted; one process computes")
      ->capture_default_str();
  app.add_flag("--debug", options.debug, "Logs every well at every step");
  app.add_option("--wait-seconds", options.wait_seconds, "How long to wait for a controller")
      ->check(seconds)
      ->capture_default_str();
  const auto faults = app.add_option_group("Faults", "What to do wrong on purpose");
  faults->add_option("--slow-start", options.slow_start, "Seconds before it listens")
      ->check(seconds);
  faults->add_option("--refuse-setup", options.faults.refuse_setup, "Refuse SETUP with this text");
  faults->add_option("--cut-after", options.faults.cut_after,
                     "Cut the connection within the message of that number");
  faults->add_option("--wrong-header", options.faults.wrong_header,
                     "Begin the message of that number with a wrong header");
  faults->add_option("--early-end", options.early_end, "End the run after so many days")
      ->check(CLI::NonNegativeNumber);
  faults->add_option("--step-delay", options.step_delay, "Milliseconds that every step takes")
      ->check(CLI::Range(0, 3'600'000));
}

simulator::StopSignal* g_stop = nullptr;

extern "C" void HandleSignal(int /*signal*/) {
  g_stop->raise();
}

void StopAtSignals(simulator::StopSignal& stop) {
  g_stop = &stop;
  struct sigaction action {};
  action.sa_handler = HandleSignal;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  // The run goes on when nobody reads the log any more.
  action.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &action, nullptr);
}

std::chrono::milliseconds Milliseconds(double seconds) {
  return std::chrono::milliseconds{std::llround(seconds * 1000)};
}

int Report(ControllerLink::Ending ending, const RunLog& log) {
  switch (ending) {
    case ControllerLink::Ending::kShutdown:
      log.Line("Shut down by the controller");
      return kOk;
    case ControllerLink::Ending::kControllerLeft:
      log.Line("The controller left");
      return kOk;
    case ControllerLink::Ending::kStopped:
      log.Line("Stopped by a signal");
      return kOk;
    case ControllerLink::Ending::kBroken:
    case ControllerLink::Ending::kFault:
      break;
  }
  log.Line("The connection broke");
  return kBrokenConnection;
}

int Run(const Options& options) {
  simulator::StopSignal stop;
  StopAtSignals(stop);
  RunLog log(options.debug);
  const std::string path = simulator::deck_path(options.path, options.root);
  simulator::Reservoir reservoir(simulator::read_deck(path));
  if (options.early_end) reservoir.limit_end_time(*options.early_end);
  log.Summary(reservoir, path);
  log.Line(fmt::format("External controller {}; processes asked for: {}", options.version,
                       options.processes));
  if (options.slow_start > 0 &&
      stop.wait(-1, Milliseconds(options.slow_start)) == simulator::StopSignal::Wait::kStopped) {
    return Report(ControllerLink::Ending::kStopped, log);
  }
  simulator::Listener listener(options.address, options.port);
  log.Line(fmt::format("Listening on port {}", listener.port()));
  Descriptor connection = listener.accept(Milliseconds(options.wait_seconds), stop);
  if (!connection) {
    if (stop.raised()) return Report(ControllerLink::Ending::kStopped, log);
    fmt::print(stderr, "vksim: no controller came within {:g} s\n", options.wait_seconds);
    return kCannotRun;
  }
  simulator::Faults faults = options.faults;
  faults.step_delay = std::chrono::milliseconds{options.step_delay};
  const auto version = options.version == "2016.2" ? ControllerLink::Version::k2016_2
                                                   : ControllerLink::Version::k2017_2;
  ControllerLink link(reservoir, version, faults, stop,
                      {.stepped = [&log](const simulator::Reservoir& now) { log.Step(now); },
                       .noticed = [&log](const std::string& line) { log.Line(line); }});
  const ControllerLink::Ending ending = link.serve(std::move(connection));
  log.Totals(reservoir);
  return Report(ending, log);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    CLI::App app("A stand-in for the reservoir simulator, driven by an external controller");
    Options options;
    Declare(app, options);
    app.set_version_flag("--version", "vksim " JOBMILL_VERSION);
    try {
      app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
      return app.exit(error) == 0 ? kOk : kUsage;
    }
    return Run(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vksim: %s\n", error.what());
    return kCannotRun;
  }
}
