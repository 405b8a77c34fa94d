#pragma once

#include <map>
#include <memory>
#include <string>

#include "inspect/daemon_log.h"
#include "inspect/machine.h"
#include "inspect/runs.h"

namespace inspect {

/// Reads the logs of daemons, each once, for what they tell of the launches of runs.
class LaunchReader {
 public:
  /// Where this process can read the log of a daemon or a connection child; empty when it cannot,
  /// and then `run` is told why.
  std::string LogOf(const Jobmill& jobmill, Run& run) const;

  /// Adds what the log tells of the launch of `run`, whose start and state are known.
  void Add(const Jobmill& jobmill, Run& run);

 private:
  struct LogText {
    std::string text;
    std::unique_ptr<DaemonLog> log;
  };
  const DaemonLog* Log(const std::string& file);

  std::map<std::string, LogText> logs_;
};

}  // namespace inspect
