#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <vector>

#include "tests/load/load_site.h"
#include "tests/load/observation.h"
#include "tests/load/plan.h"

namespace load {

/// Carries out actions at a site and checks what the daemon answers. For use by several threads.
class Actor {
 public:
  /// Waits for the daemon end, as failures, when `alarm` becomes readable.
  Actor(LoadSite& site, int alarm) : site_(site), alarm_(alarm) {}

  /// Throws std::exception when something else comes than what has to come. `id` tells the actions
  /// of a daemon's life apart.
  void Perform(const Action& action, const std::string& id);

  std::size_t requests() const { return requests_; }

 private:
  void LeaveInHandshake(std::uint32_t parameter, bool reset);
  void RefuseVersion(std::uint32_t parameter);
  void SendStrangersBytes(std::uint32_t parameter);
  void ExpectRefusal(const master::RunRequest& request, const std::string& text);
  void ExpectNoHost(const std::string& root);
  void LeaveInLaunch(const std::string& id);
  void ExpectEndOfConnect(int simulator, const std::string& id);
  void ExpectFault(int simulator, const std::string& id);
  void RunWhole(master::RunRequest request, std::uint32_t parameter);
  void LeaveRun(const std::string& id, std::uint32_t parameter);
  void ResetRun(const std::string& id, std::uint32_t parameter);
  void LeaveRequest(const std::string& id, std::uint32_t parameter, bool reset);
  void LeaveRecords(const std::string& id, std::uint32_t parameter);
  void SendHostileRequest(const std::string& id, std::uint32_t parameter);
  void SendUnknownRequest(const std::string& id, std::uint32_t parameter);
  Descriptor Connected(const std::string& id);

  LoadSite& site_;
  int alarm_;
  std::atomic<std::size_t> requests_ = 0;
};

/// Carries out `plan` with `workers` at once, each taking the next action. Notes what fails,
/// with the action's number, and an overrun of `limit`. `life` distinguishes the plans of one
/// daemon.
void CarryOut(LoadSite& site, const std::vector<Action>& plan, unsigned workers,
              std::chrono::seconds limit, const std::string& life, Report& report);

}  // namespace load
