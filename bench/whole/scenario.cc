// A fixed run, for counting what the controller does in it: this process is the controller, master
// and simulator are played by children.
//
//   bench_scenario FLOW SIZE REPEATS
//
// SIZE is the number of wells or variables, for flows that have one. "data first" and "tables
// first" are without the requests for the records. "logged" is "days" with a comms log. When the
// library that counts allocations is loaded, their number is told on standard error.

#include <dlfcn.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>

#include <fmt/format.h>

#include "bench/whole/flows.h"
#include "bench/whole/peer.h"
#include "log/flog.h"
#include "net/socket.h"
#include "relay/connector_socket_wrapper.h"
#include "tests/support/ports.h"
#include "tests/support/temporary_directory.h"

namespace bench {
namespace {

const std::map<std::string, std::function<Flow(int)>> kFlows = {
    {"days", [](int) { return TimeDays(); }},
    {"logged", [](int) { return TimeDays(); }},
    {"flag", [](int) { return TermFlag(); }},
    {"version", [](int) { return Version(); }},
    {"until", [](int) { return RunUntil(); }},
    {"variables", Variables},
    {"status", WellStatus},
    {"data", WellData},
    {"reordered", ReorderedWellData},
    {"tables", InflowTables}};

// How often this process has allocated; 0 without the library that counts.
std::uint64_t Allocations() {
  void* counter = dlsym(RTLD_DEFAULT, "bench_allocations");
  return counter == nullptr ? 0 : reinterpret_cast<std::uint64_t (*)()>(counter)();
}

template <class Play>
pid_t InChild(Play play) {
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("fork failed");
  if (child != 0) return child;
  try {
    play();
    _exit(0);
  } catch (const std::exception& error) {
    fmt::print(stderr, "bench_scenario: {}\n", error.what());
    _exit(1);
  }
}

void Ask(Socket& controller, const Step& step) {
  int length = 0;
  if (controller.SendBytes(step.request) != 0) throw std::runtime_error("the controller has gone");
  // The status of many wells is longer than the buffer of a frame, so the reply is skipped in
  // pieces.
  std::string head;
  while (head.size() < 4) {
    char byte = 0;
    if (recv(0, &byte, 1, 0) != 1) throw std::runtime_error("the controller has gone");
    head += byte;
  }
  std::copy(head.begin(), head.end(), reinterpret_cast<char*>(&length));
  std::string body(static_cast<std::size_t>(length), '\0');
  if (recv(0, body.data(), body.size(), MSG_WAITALL) != length) {
    throw std::runtime_error("the reply was cut");
  }
}

// The master, over its standard input.
void PlayMaster(const Flow& flow, int repeats) {
  Socket controller(dup(0));
  Ask(controller, SetUp());
  for (int i = 0; i < repeats; ++i) {
    for (const Step& step : flow.steps) Ask(controller, step);
  }
}

int Control(const Flow& flow, int repeats, const std::string& log_file) {
  const Descriptor listener = BindFreePort(1);
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) throw std::runtime_error("no socket pair");
  const pid_t simulator = InChild([&] {
    close(ends[0]);
    close(ends[1]);
    Step set_up = SetUp();
    Flow played = flow;
    Serve(listener.get(), set_up, played);
  });
  const pid_t master = InChild([&] {
    dup2(ends[1], 0);
    close(ends[0]);
    close(ends[1]);
    PlayMaster(flow, repeats);
  });
  close(ends[1]);
  {
    Socket link(ends[0]);
    flog log(log_file, true);
    ConnectorSocketWrapper controller(20172, "127.0.0.1", &link, PortOf(listener.get()), 10, log);
    std::string error;
    // It ends when the master leaves.
    controller.ProcessRequests(error);
    fmt::print(stderr, "allocations: {}\n", Allocations());
  }
  int status = 0;
  waitpid(master, &status, 0);
  // The controller keeps its connection until the process ends.
  kill(simulator, SIGKILL);
  waitpid(simulator, nullptr, 0);
  return status;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  try {
    const std::string name = argv[1];
    const bench::Flow flow = bench::kFlows.at(name)(std::stoi(argv[2]));
    const TemporaryDirectory directory;
    const std::string log_file = name == "logged" ? directory.File("log") : "";
    return bench::Control(flow, std::stoi(argv[3]), log_file) == 0 ? 0 : 1;
  } catch (const std::exception& error) {
    fmt::print(stderr, "bench_scenario: {}\n", error.what());
    return 1;
  }
}
