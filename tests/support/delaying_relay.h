#pragma once

#include <chrono>
#include <thread>

#include "base/descriptor.h"

/// Distance without a network: passes the bytes of one connection on, each of them `one_way` after
/// it has come. A pause for every piece read would not do: a master that sends ahead would then
/// wait as often as one that does not.
class DelayingRelay {
 public:
  /// To whoever listens on `port` of this machine.
  DelayingRelay(int port, std::chrono::microseconds one_way);
  DelayingRelay(const DelayingRelay&) = delete;
  DelayingRelay& operator=(const DelayingRelay&) = delete;
  /// Cuts the connection if it is still there.
  ~DelayingRelay();

  /// Where a master connects to.
  int port() const { return port_; }

 private:
  void PassOn(int port, std::chrono::microseconds one_way) const;

  Descriptor listener_;
  Descriptor stop_;
  int port_;
  std::thread thread_;
};
