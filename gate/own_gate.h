#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace gate {

/// A connecting gate within a master's own process, for the one connection that the master makes to
/// port() of the loopback interface. It runs in a thread of its own.
class OwnGate {
 public:
  struct Options {
    std::string to;      ///< "HOST:PORT" of the serving gate; empty: none is wanted
    std::string server;  ///< the name in its certificate, when that is not HOST
    std::string certificate;
    std::string key;
    std::vector<std::string> authorities;
    std::vector<std::string> revocations;
    std::chrono::milliseconds attempt = std::chrono::seconds(10);  ///< to reach the serving gate
  };

  /// Reads the certificates and listens. Throws std::exception with a sentence.
  explicit OwnGate(const Options& options);

  /// Blocks until what the master has sent has arrived, for some seconds at most.
  ~OwnGate();
  OwnGate(const OwnGate&) = delete;
  OwnGate& operator=(const OwnGate&) = delete;

  int port() const;

 private:
  struct Running;
  std::unique_ptr<Running> running_;
};

}  // namespace gate
