#pragma once

#include <sys/types.h>

#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "inspect/history.h"

namespace inspect {

/// A file with a part of a daemon's log: the log that is being written, that of the start before
/// it, or a rotated one, which may be compressed.
struct LogPart {
  std::string file;
  int port = 0;
  uid_t owner = 0;
  std::time_t changed = 0;
  long age = 0;                      ///< 0: not rotated; more: rotated earlier
  bool previous = false;             ///< of the start before the one whose log is being written
  bool starts = false;               ///< begins with the start of a daemon
  std::optional<std::time_t> first;  ///< the first time that it tells
};

/// The parts of the log of each daemon, in the order in which they were written. Left out are files
/// that were last written before `since`; and, where everybody may put files, those that belong
/// neither to root nor to this process's account nor to that of the daemon that runs on their port.
/// `missing` is told of these, and of what cannot be read.
std::vector<std::vector<LogPart>> FindLogs(const Runs& now, double since,
                                           const LogDirectories& directories,
                                           std::vector<std::string>& missing);

/// Reads a part line by line, without the ends of lines. `rest` takes over what follows the last
/// line end, and gives it to the next part. Returns why that failed; empty when it did not.
std::string ReadLines(const LogPart& part, std::string& rest,
                      const std::function<void(std::string_view)>& take);

}  // namespace inspect
