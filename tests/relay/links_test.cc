#include <linux/sockios.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "log/flog.h"
#include "net/socket.h"
#include "relay/connector_socket_wrapper.h"
#include "tests/support/bytes.h"
#include "tests/support/private_network.h"
#include "tests/support/scripted_simulator.h"
#include "tests/support/socket_pair.h"
#include "tests/support/wire_bytes.h"

// The two links of a controller, with a real connector between them.

namespace {

const std::string kConnect = Bytes("04 00 00 00 01 00 00 00");
const std::string kNewton = Bytes("04 00 00 00 07 00 00 00");

void AnswerSetUp(ScriptedSimulator& simulator) {
  const std::string end = wire::Mess("END");
  simulator.AnswerNext({wire::Mess("STARTED") + wire::Cstr("ERRORS", {}) + end,
                        wire::Mess("STEP") + wire::Cstr("POSITION", {"MODEL_DEFINITION"}) +
                            wire::Doub("TIME", {0}) + wire::Inte("DATE", {1900, 1, 1, 0, 0, 0}) +
                            end});
}

// The descriptor of this process that is connected to `port`.
int DescriptorConnectedTo(unsigned port) {
  for (int descriptor = 0; descriptor < 1024; ++descriptor) {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&address), &size) == 0 &&
        address.sin_family == AF_INET && ntohs(address.sin_port) == port) {
      return descriptor;
    }
  }
  throw std::runtime_error("nobody is connected to the simulator");
}

bool IsKeptAlive(int descriptor) {
  int on = -1;
  socklen_t size = sizeof(on);
  getsockopt(descriptor, SOL_SOCKET, SO_KEEPALIVE, &on, &size);
  return on == 1;
}

// An engineer's machine may sleep through the night in the middle of a run; a simulator's may not.
TEST(LinksTest, OnlyTheSimulatorsIsKeptAlive) {
  ScriptedSimulator simulator(ScriptedSimulator::Link::kLoopback);
  AnswerSetUp(simulator);
  flog log("", true);
  TcpPair master;
  const int masters = master.ours.get();
  Socket socket(master.ours.Release());
  ConnectorSocketWrapper controller(20172, "127.0.0.1", &socket, static_cast<int>(simulator.Port()),
                                    5, log);
  WriteAll(master.peer.get(), kConnect);
  shutdown(master.peer.get(), SHUT_WR);
  std::string error;
  EXPECT_EQ(controller.ProcessRequests(error), 1);
  EXPECT_TRUE(IsKeptAlive(DescriptorConnectedTo(simulator.Port())));
  EXPECT_FALSE(IsKeptAlive(masters));
  controller.Shutdown();  // only that releases the connection
}

void SetKeepAliveTimes() {
  const std::string directory = "/proc/sys/net/ipv4/tcp_keepalive_";
  std::ofstream(directory + "time") << 1;
  std::ofstream(directory + "intvl") << 1;
  std::ofstream(directory + "probes") << 2;
}

// Nothing comes or goes any more, and nobody is told.
void CutTheNetwork() {
  const Descriptor any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq request{};
  std::strncpy(request.ifr_name, "lo", sizeof(request.ifr_name) - 1);
  if (ioctl(any.get(), SIOCSIFFLAGS, &request) != 0) throw std::runtime_error("lo stays up");
}

// Bytes that are on their way when the network goes would be found lost without being asked for.
void WaitUntilAllIsReceived(int descriptor) {
  for (int waiting = 1; waiting > 0; std::this_thread::yield()) {
    if (ioctl(descriptor, SIOCOUTQ, &waiting) != 0) throw std::runtime_error("SIOCOUTQ");
  }
}

TEST(LinksTest, SimulatorWhoseMachineVanishesInMidStepEndsTheController) {
  const auto outcome = InPrivateNetwork([]() -> std::string {
    SetKeepAliveTimes();
    ScriptedSimulator simulator(ScriptedSimulator::Link::kLoopback);
    AnswerSetUp(simulator);
    simulator.AnswerNext({});  // a step of hours
    flog log("", true);
    SocketPair master;
    Socket socket(master.ours.Release());
    ConnectorSocketWrapper controller(20172, "127.0.0.1", &socket,
                                      static_cast<int>(simulator.Port()), 5, log);
    WriteAll(master.peer.get(), kConnect + kNewton);
    std::thread network([&] {
      while (simulator.Requests().size() < 2) std::this_thread::yield();
      WaitUntilAllIsReceived(DescriptorConnectedTo(simulator.Port()));
      CutTheNetwork();
    });
    alarm(30);  // ends a controller that goes on waiting
    std::string error;
    const int result = controller.ProcessRequests(error);
    network.join();
    return std::to_string(result) + " " + error;
  });
  if (!outcome) GTEST_SKIP() << "a network of its own is not permitted here";
  EXPECT_EQ(*outcome,
            "2 Failed to handle data packet received from master: Exception returned from VK "
            "controller: read: Connection timed out");
}

}  // namespace
