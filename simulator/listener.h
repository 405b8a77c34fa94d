#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "base/descriptor.h"
#include "simulator/stop_signal.h"

namespace simulator {

/// Waits for the one controller of a run on an IPv4 port.
class Listener {
 public:
  /// Listens at once. `address` is an IPv4 address in dots ("0.0.0.0" for all of them); port 0
  /// takes a free one. Throws std::system_error "cannot listen on <address>:<port>: ...", or
  /// std::invalid_argument for an address of another form.
  Listener(const std::string& address, std::uint16_t port);

  std::uint16_t port() const;

  /// The connection of the first controller that comes within `limit`; none if nobody came or
  /// `stop` was raised. Afterwards nobody else is let in.
  Descriptor accept(std::chrono::milliseconds limit, const StopSignal& stop);

 private:
  Descriptor descriptor_;
};

}  // namespace simulator
