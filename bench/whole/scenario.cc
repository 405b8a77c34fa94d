// A fixed run inside one process, for counting its instructions: the controller serves a master and
// drives a simulator that are played by children.
//
//   valgrind --tool=callgrind bench_scenario FLOW WELLS REPEATS
//
// FLOW is "days", "version", "status", "data" or "tables".

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <stdexcept>
#include <string>

#include <fmt/format.h>

#include "bench/whole/flows.h"
#include "bench/whole/peer.h"
#include "log/flog.h"
#include "net/socket.h"
#include "relay/connector_socket_wrapper.h"
#include "tests/support/ports.h"

namespace bench {
namespace {

Flow FlowNamed(const std::string& name, int wells) {
  if (name == "days") return TimeDays();
  if (name == "version") return Version();
  if (name == "status") return WellStatus(wells);
  if (name == "data") return WellData(wells);
  if (name == "tables") return InflowTables(wells);
  throw std::runtime_error("no such flow: " + name);
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

int Control(const Flow& flow, int repeats) {
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
    flog log("", true);
    ConnectorSocketWrapper controller(20172, "127.0.0.1", &link, PortOf(listener.get()), 10, log);
    std::string error;
    // It ends when the master leaves.
    controller.ProcessRequests(error);
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
    const bench::Flow flow = bench::FlowNamed(argv[1], std::stoi(argv[2]));
    return bench::Control(flow, std::stoi(argv[3])) == 0 ? 0 : 1;
  } catch (const std::exception& error) {
    fmt::print(stderr, "bench_scenario: {}\n", error.what());
    return 1;
  }
}
