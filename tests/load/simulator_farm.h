#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "simulator/controller_link.h"
#include "simulator/deck.h"
#include "simulator/stop_signal.h"
#include "tests/support/socket_pair.h"

namespace load {

/// Simulators of all kinds, for any number of runs at once. What a simulator does is chosen by the
/// address of the loopback network at which the controller looks for it, 127.0.0.N; each kind is
/// there on both comms ports of a daemon with "-o base_port() -n 2". A thread serves each run.
class SimulatorFarm {
 public:
  // The last numbers of the addresses.
  static constexpr int kGood = 10;
  static constexpr int kRefusesSetUp = 11;
  static constexpr int kHangsUp = 12;
  static constexpr int kVolume = 13;
  static constexpr int kAbsent = 14;       ///< nobody listens there
  static constexpr int kCutsMessage = 20;  ///< + n: cuts the connection in its n-th message, 1 to 8
  static constexpr int kWrongHeader = 40;  ///< + n: spoils its n-th message, 1 to 8
  static constexpr int kFaults = 8;

  /// Serves a run at kVolume: gets the connection, returns when the controller has left.
  using Server = std::function<void(int descriptor)>;

  /// All runs are of the model of `deck`. Throws std::runtime_error when no ports are to be had.
  explicit SimulatorFarm(simulator::Deck deck, Server volume = {});
  ~SimulatorFarm();
  SimulatorFarm(const SimulatorFarm&) = delete;
  SimulatorFarm& operator=(const SimulatorFarm&) = delete;

  int base_port() const { return base_port_; }
  const simulator::Deck& deck() const { return deck_; }

  /// Runs that are being served.
  int Open() const { return open_; }

 private:
  struct Listener {
    Descriptor socket;
    int kind;
  };
  struct Session {
    simulator::StopSignal stop;
    std::atomic<bool> ended = false;
    std::thread thread;
  };

  bool ListenFrom(int port);
  void AcceptAll();
  void Begin(int descriptor, int kind);
  void Serve(int descriptor, int kind, simulator::StopSignal& stop);
  void DropEnded();

  simulator::Deck deck_;
  Server volume_;
  int base_port_ = 0;
  std::vector<Listener> listeners_;
  simulator::StopSignal stop_;
  std::atomic<int> open_ = 0;
  std::list<Session> sessions_;  // of the accepting thread, and of the destructor after it
  std::thread thread_;
};

}  // namespace load
