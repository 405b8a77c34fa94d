#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <thread>

#include "tests/support/socket_pair.h"

/// The simulators of two runs in a row: each listens on a port of its own from the start, answers
/// what the scenario asks for, and takes a new client when one has left.
class Simulators {
 public:
  Simulators();
  ~Simulators();
  Simulators(const Simulators&) = delete;
  Simulators& operator=(const Simulators&) = delete;

  /// The first run's port; the second run's is one above.
  int port() const { return port_; }

  /// From now on (or no longer) a simulator leaves when it is asked to step.
  void LeaveOnStep(bool leave) { leave_on_step_ = leave; }

 private:
  void Run();
  bool Serve(int client, std::string& pending);

  int port_ = 0;
  Descriptor listeners_[2];
  Descriptor wake_reader_;
  Descriptor wake_writer_;
  std::atomic<bool> leave_on_step_ = false;
  std::map<int, std::string> clients_;
  std::thread thread_;
};

/// What became of a session, as the master saw it.
struct Session {
  enum class Result {
    kServed,   ///< to its end, every answer as it ought to be
    kRefused,  ///< with a text that says why
    kClosed,   ///< the connection ended, without a word, or could not be made
    kWaiting,  ///< neither answer nor end
    kWrong,    ///< an answer that is not the demanded one
  };
  Result result = Result::kServed;
  std::string text;       ///< where it ended, and with what
  bool admitted = false;  ///< the master was told a host
};

/// A master of one session. It waits for each answer until `is_enough`, which is asked again and
/// again with the time waited, says that there is nothing more to wait for.
class Master {
 public:
  using Clock = std::chrono::steady_clock;
  using IsEnough = std::function<bool(Clock::duration waited)>;

  /// What a session consists of.
  struct Plan {
    std::string version = "3";
    std::string cluster = "0";
    std::string path{};
    std::string root = "CASE";
    std::string user = "alice";
    bool leave_after_connecting = false;  ///< cut the connection once the run is under control
  };

  explicit Master(IsEnough is_enough) : is_enough_(std::move(is_enough)) {}

  /// Holds one session with the daemon at `port`, and closes the connection. One that has waited
  /// for nothing cuts it off: after a mere close() in what the child takes for the middle of a
  /// frame it would wait, as it has to, until the connection has gone, which takes a minute.
  Session Hold(int port, const Plan& plan);

 private:
  void Connect(int port);
  void Send(const std::string& body) const;
  std::string Receive(const char* what);
  std::string ReceiveBytes(std::size_t size, const char* what);
  void Ask(unsigned code, const std::string& reply, const char* what);
  void Converse(int port, const Plan& plan);
  void ExpectEnd();

  IsEnough is_enough_;
  bool admitted_ = false;
  Descriptor link_;
};
