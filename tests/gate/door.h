#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tests/gate/authority.h"
#include "tests/jobmillctl/jobmillctl.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

/// A vkgate that runs, with its log.
class RunningGate {
 public:
  /// Waits until it listens.
  RunningGate(std::vector<std::string> arguments, std::string log,
              std::function<int()> in_child = {});

  /// Ends it, and fails the test when it has crashed or complained. One that the test has killed is
  /// let be.
  ~RunningGate();
  int port() const { return port_; }
  ChildProcess& process() { return *process_; }
  pid_t pid() const { return process_->pid(); }

  /// All that it has logged.
  std::string Logged() const;
  std::vector<nlohmann::json> Lines(const std::string& event) const;

  /// Waits for so many lines of this event, and gives the last of them. Throws when they do not
  /// come.
  nlohmann::json Await(const std::string& event, std::size_t count = 1) const;

 private:
  std::string log_;
  std::unique_ptr<ChildProcess> process_;
  int port_ = 0;
};

/// Runs one of the programs to its end, half a minute at most.
Outcome RunProgram(const std::string& program, std::vector<std::string> arguments);

/// An authority, certificates, and both gates in front of a port.
class Door {
 public:
  using Words = std::vector<std::string>;

  /// `daemon_port`: what the serving gate stands in front of.
  explicit Door(int daemon_port, Words serve = {});

  /// A connecting gate for the owner of `identity`. `port`: of a relay before the serving gate.
  std::unique_ptr<RunningGate> Connect(const Identity& identity, Words more = {}, int port = 0);

  /// Another serving gate in the place of the one that there is.
  void Restart(int daemon_port, Words serve, int port = 0);

  RunningGate& serving() { return *serving_; }
  Authority& authority() { return authority_; }
  const TemporaryDirectory& directory() const { return directory_; }

  /// The certificate of alice, upn:alice@example.com, who may claim to be "alice".
  const Identity& alice() const { return alice_; }
  const Identity& server() const { return server_; }

  /// The serving gate's document of what goes on.
  nlohmann::json Status() const;

 private:
  TemporaryDirectory directory_;
  Authority authority_;
  Identity server_;
  Identity alice_;
  std::unique_ptr<RunningGate> serving_;
  int connecting_ = 0;
};
