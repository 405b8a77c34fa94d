#pragma once

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "base/descriptor.h"

/// The network between two gates: passes the bytes of all connections on, and breaks them when it
/// is told.
class BreakingRelay {
 public:
  /// To whoever listens on `port` of this machine.
  explicit BreakingRelay(int port);
  BreakingRelay(const BreakingRelay&) = delete;
  BreakingRelay& operator=(const BreakingRelay&) = delete;
  ~BreakingRelay();

  int port() const { return port_; }
  int target() const { return target_; }

  /// Cuts all connections with a reset.
  void Cut();

  /// From now on no byte passes, and nobody is told. New connections are taken and pass nothing
  /// either.
  void FallSilent();

  /// From now on connections are refused; those that there are go on.
  void RefuseNew() { refuses_ = true; }

  /// Undoes both of these.
  void Recover();

  /// How many connections there have been.
  int count() const { return count_; }

 private:
  struct Pair {
    Descriptor here;
    Descriptor there;
    bool here_ended = false;
    bool there_ended = false;
  };

  void Run();
  void Add();
  static bool Pass(const Descriptor& from, const Descriptor& to, bool& ended);
  void Wake() const;

  int target_;
  Descriptor listener_;
  int port_;
  Descriptor wake_read_;
  Descriptor wake_write_;
  std::mutex mutex_;
  std::vector<Pair> pairs_;
  std::atomic<bool> silent_ = false;
  std::atomic<bool> refuses_ = false;
  std::atomic<bool> stop_ = false;
  std::atomic<int> count_ = 0;
  std::thread thread_;
};
