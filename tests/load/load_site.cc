#include "tests/load/load_site.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "master/launch.h"
#include "simulator/deck.h"
#include "tests/support/bytes.h"

namespace load {
namespace {

// What it does is in the name of the run. Nothing of it outlives the run for more than a moment.
constexpr const char* kScript = R"(#!/bin/sh
case $3 in
  sim-*) rest=${3#sim-}; echo "HOST=127.0.0.${rest%%-*}" ;;
  stays-*) echo HOST=127.0.0.10; exec sleep 0.5 >/dev/null ;;
  chatty-*) i=0; while [ $i -lt 300 ]; do i=$((i+1)); echo "step $i of the start"; done
    echo HOST=127.0.0.10; echo after the host ;;
  slow-*) sleep 0.2; echo HOST=127.0.0.10 ;;
  blank-*) echo 'HOST=   ' ;;
  killed-*) kill -9 $$ ;;
  *) echo 'no licence left'; exit 3 ;;
esac
)";

constexpr const char* kUsers = "alice nobody 1\nmallory nobody 0\nghost no-such-account 1\n";

}  // namespace

void Check(bool holds, const std::string& complaint) {
  if (!holds) throw std::runtime_error(complaint);
}

bool LoadSite::MapsUsers() {
  return getuid() == 0;
}

LoadSite::LoadSite(bool comms_log, SimulatorFarm::Server volume) {
  std::filesystem::permissions(data_.path(), std::filesystem::perms(0777));
  simulators_ = std::make_unique<SimulatorFarm>(
      simulator::read_deck(std::string(EXAMPLES_DIR) + "/TENWELLS.afi"), std::move(volume));
  RunningDaemon::Options options;
  // Two ports for all runs: it is the addresses that tell the simulators apart.
  options.arguments = {"-t", "5", "-n", "2", "-o", std::to_string(simulators_->base_port())};
  if (comms_log) options.arguments.emplace_back("-l");
  if (!MapsUsers()) options.arguments.emplace_back("-u");
  options.users = kUsers;
  options.script = kScript;
  daemon_ = std::make_unique<RunningDaemon>(options);
}

std::string LoadSite::Root(int simulator, const std::string& id) {
  return "sim-" + std::to_string(simulator) + "-" + id;
}

master::RunRequest LoadSite::Request(const std::string& root) const {
  master::RunRequest request;
  request.path = data_.path().string() + "/";
  request.root = root;
  request.user = "alice";
  return request;
}

Descriptor LoadSite::ConnectTo(int port) {
  Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const timeval limit{kPatience.count(), 0};
  setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    throw std::runtime_error(std::string("cannot connect: ") + strerror(errno));
  }
  return socket;
}

std::unique_ptr<master::Run> LoadSite::Launch(const master::RunRequest& request, int wake) const {
  master::FrameChannel channel =
      master::FrameChannel::ConnectTo("127.0.0.1", daemon_->port(), kPatience);
  channel.WakeOn(wake);
  master::Launch launch(std::move(channel));
  const auto deadline = master::Clock::now() + kPatience;
  launch.ExchangeVersions(deadline);
  launch.Request(request);
  launch.AwaitHost(deadline);
  return std::make_unique<master::Run>(launch.Release());
}

std::string HandshakeOf(const master::RunRequest& request) {
  std::string bytes = Frame("3");
  for (const std::string& line : {request.cluster, request.path, request.root, request.processes,
                                  request.version, request.user, request.debug}) {
    bytes += Frame(line);
  }
  return bytes;
}

namespace {

// Fills `bytes`; false at the end of the connection.
bool Read(int descriptor, std::string& bytes) {
  std::size_t had = 0;
  while (had < bytes.size()) {
    const ssize_t got = recv(descriptor, bytes.data() + had, bytes.size() - had, 0);
    if (got < 0 && errno == EINTR) continue;
    Check(got >= 0, errno == EAGAIN ? std::string("nothing comes from the daemon")
                                    : std::string("the connection broke: ") + strerror(errno));
    if (got == 0) return false;
    had += static_cast<std::size_t>(got);
  }
  return true;
}

}  // namespace

std::string ReadFrame(int descriptor) {
  std::string field(4, '\0');
  if (!Read(descriptor, field)) return {};
  const auto length = NumberAt<std::uint32_t>(field);
  Check(length < (1U << 30), "the daemon announced a frame of " + std::to_string(length));
  std::string body(length, '\0');
  Check(Read(descriptor, body), "the daemon closed the connection in the middle of a frame");
  return body;
}

}  // namespace load
