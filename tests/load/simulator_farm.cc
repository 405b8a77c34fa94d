#include "tests/load/simulator_farm.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

#include "base/descriptor.h"
#include "simulator/reservoir.h"
#include "tests/support/ports.h"

namespace load {
namespace {

constexpr int kPorts = 2;  // the fewest that a daemon takes
constexpr int kBacklog = 512;

// A listening socket at 127.0.0.`last`:`port`; none when the port is taken.
Descriptor Listen(int last, int port) {
  Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  // Connections of an earlier daemon may still be on their way out.
  const int on = 1;
  setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr =
      htonl(INADDR_LOOPBACK - 1 + static_cast<std::uint32_t>(last));  // 127.0.0.0 + last
  if (bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(socket.get(), kBacklog) != 0) {
    return {};
  }
  return socket;
}

std::vector<int> Kinds() {
  std::vector<int> kinds = {SimulatorFarm::kGood, SimulatorFarm::kRefusesSetUp,
                            SimulatorFarm::kHangsUp, SimulatorFarm::kVolume};
  for (int n = 1; n <= SimulatorFarm::kFaults; ++n) {
    kinds.push_back(SimulatorFarm::kCutsMessage + n);
    kinds.push_back(SimulatorFarm::kWrongHeader + n);
  }
  return kinds;
}

simulator::Faults FaultsOf(int kind) {
  simulator::Faults faults;
  if (kind == SimulatorFarm::kRefusesSetUp) faults.refuse_setup = "No licence";
  if (kind > SimulatorFarm::kCutsMessage && kind <= SimulatorFarm::kCutsMessage + 8) {
    faults.cut_after = static_cast<std::uint64_t>(kind - SimulatorFarm::kCutsMessage);
  }
  if (kind > SimulatorFarm::kWrongHeader) {
    faults.wrong_header = static_cast<std::uint64_t>(kind - SimulatorFarm::kWrongHeader);
  }
  return faults;
}

}  // namespace

SimulatorFarm::SimulatorFarm(simulator::Deck deck, Server volume)
    : deck_(std::move(deck)), volume_(std::move(volume)) {
  for (int attempt = 0; attempt < 50 && listeners_.empty(); ++attempt) ListenFrom(FreePort());
  if (listeners_.empty()) throw std::runtime_error("no free ports for the simulators");
  thread_ = std::thread([this] { AcceptAll(); });
}

SimulatorFarm::~SimulatorFarm() {
  stop_.raise();
  thread_.join();
  for (Session& session : sessions_) session.stop.raise();
  for (Session& session : sessions_) session.thread.join();
}

bool SimulatorFarm::ListenFrom(int port) {
  std::vector<Listener> listeners;
  for (const int kind : Kinds()) {
    for (int offset = 0; offset < kPorts; ++offset) {
      Descriptor socket = Listen(kind, port + offset);
      if (socket.get() < 0) return false;
      listeners.push_back({std::move(socket), kind});
    }
  }
  listeners_ = std::move(listeners);
  base_port_ = port;
  return true;
}

void SimulatorFarm::AcceptAll() {
  std::vector<pollfd> waiting;
  waiting.reserve(listeners_.size());
  for (const Listener& listener : listeners_) waiting.push_back({listener.socket.get(), POLLIN, 0});
  constexpr int kLookUp = 50;  // milliseconds until the stop signal is looked at again
  while (!stop_.raised()) {
    poll(waiting.data(), waiting.size(), kLookUp);
    for (std::size_t i = 0; i < waiting.size(); ++i) {
      if ((waiting[i].revents & POLLIN) == 0) continue;
      const int accepted = accept4(waiting[i].fd, nullptr, nullptr, SOCK_CLOEXEC);
      if (accepted >= 0) Begin(accepted, listeners_[i].kind);
    }
    DropEnded();
  }
}

void SimulatorFarm::Begin(int descriptor, int kind) {
  ++open_;
  Session& session = sessions_.emplace_back();
  session.thread = std::thread([this, descriptor, kind, &session] {
    Serve(descriptor, kind, session.stop);
    --open_;
    session.ended = true;
  });
}

void SimulatorFarm::Serve(int descriptor, int kind, simulator::StopSignal& stop) {
  if (kind == kHangsUp) {
    close(descriptor);
  } else if (kind == kVolume) {
    stop.watch(descriptor);
    if (volume_) volume_(descriptor);
    stop.watch(-1);
    close(descriptor);
  } else {
    simulator::Reservoir reservoir(deck_);
    simulator::ControllerLink link(reservoir, simulator::ControllerLink::Version::k2017_2,
                                   FaultsOf(kind), stop, {});
    link.serve(Descriptor(descriptor));
  }
}

void SimulatorFarm::DropEnded() {
  for (auto session = sessions_.begin(); session != sessions_.end();) {
    if (!session->ended) {
      ++session;
      continue;
    }
    session->thread.join();
    session = sessions_.erase(session);
  }
}

}  // namespace load
