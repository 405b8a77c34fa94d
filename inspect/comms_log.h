#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace inspect {

/// The end of the name of a comms log, after the run's path and root name.
inline constexpr std::string_view kCommsLogEnd = ".crvnlog";

/// What the comms log of a run tells. The run's own account writes it, with texts of its simulator
/// in it: it is that account's word.
struct CommsLog {
  std::optional<std::string> host;       ///< to which the controller has connected, or tries to
  std::optional<int> port;               ///< the comms port that it connects to
  std::optional<unsigned> last_request;  ///< its code
  std::int64_t requests = 0;
  std::optional<double> day;         ///< the last simulated time that the master was told
  std::optional<std::string> date;   ///< the last such date, "2020-02-27"
  std::optional<double> until;       ///< to which day the last request to run went
  std::optional<std::string> cause;  ///< how the run ended; none while it goes on
  bool shut_down = false;            ///< by the master
  std::int64_t lines = 0;            ///< that were read
  std::int64_t cause_line = 0;       ///< the one that tells `cause`, from 1
};

/// Adds what the lines of `text` tell to `log`. What follows the last line end is left out: it is
/// still being written.
void AddLines(std::string_view text, CommsLog& log);

/// A request in an engineer's words, such as "run until".
std::string RequestName(unsigned code);

}  // namespace inspect
