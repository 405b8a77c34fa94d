#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "simulator/stop_signal.h"

namespace simulator {

/// Waits for the one controller of a run on an IPv4 port.
class Listener {
 public:
  /// Listens at once. `address` is an IPv4 address in dots ("0.0.0.0" for all of them); port 0
  /// takes a free one. Throws std::system_error "cannot listen on <address>:<port>: ...", or
  /// std::invalid_argument for an address of another form.
  Listener(const std::string& address, std::uint16_t port);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  std::uint16_t port() const;

  /// The connection of the first controller that comes within `limit`, as a descriptor that the
  /// caller owns; nothing if none came or `stop` was raised. Afterwards nobody else is let in.
  std::optional<int> accept(std::chrono::milliseconds limit, const StopSignal& stop);

 private:
  int descriptor_;
};

}  // namespace simulator
