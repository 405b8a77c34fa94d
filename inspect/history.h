#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "inspect/ending.h"
#include "inspect/runs.h"

namespace inspect {

/// A line of a log.
struct LogPlace {
  std::string file;
  std::int64_t line = 0;  ///< from 1; of a compressed log in what it holds. 0: the whole file
};

/// A connection of a master that has ended, as the logs tell it. Texts are what masters, scripts
/// and simulators said: they may hold anything.
struct EndedRun {
  /// "5000-20261122-141305": the port, and when the master connected; followed by "-2", "-3"
  /// where several did in that second. Stays the same as long as a log tells of the connection.
  std::string id;
  int listen_port = 0;
  double began = 0;                  ///< when the master connected, in seconds since 1970
  std::optional<double> host_named;  ///< when the script had named the host; until then it queued
  std::optional<double> ended;       ///< none: not known. Of what never started: `began`
  End end;

  std::optional<std::string> windows_user;
  std::optional<std::string> account;  ///< the Linux account, where it came so far
  std::optional<std::string> path;
  std::optional<std::string> root;  ///< as the script got it
  std::optional<int> processes;
  std::optional<std::string> version;
  std::optional<int> comms_port;
  std::optional<std::string> host;
  std::optional<std::string> scheduler;
  std::optional<std::string> job;

  // From the comms log.
  std::optional<unsigned> last_request;  ///< its code
  std::optional<std::int64_t> requests;
  std::optional<double> day;
  std::optional<std::string> date;
  std::optional<double> until;

  /// Whether `end`, `ended`, `host_named` and what is from the comms log are the word of the run's
  /// account, which can write anything into its comms log.
  bool told_by_account = false;

  uid_t owner = 0;  ///< the account under which it ran, and to which its files have to belong

  // Only from ReadHistoryWithLines().
  bool goes_on = false;            ///< it has not ended
  std::vector<std::string> lines;  ///< those of the daemon's log that are this run's own
  /// The values that the environment file gave it, which are left out of `lines`, as is the list of
  /// users.
  std::vector<std::string> environment;

  /// Where to look, the most telling first.
  std::vector<LogPlace> places;

  /// Sentences without their full stops. Not empty: what is said of this run may be wrong, since
  /// lines of several connections are mixed, or because of texts that look like lines of the log.
  std::vector<std::string> doubts;
};

struct History {
  std::vector<EndedRun> runs;        ///< by when they began
  std::vector<std::string> missing;  ///< which logs could not be read, and why
};

/// Where logs of daemons are looked for.
struct LogDirectories {
  std::vector<std::string> all = {"/var/log/jobmill", "/var/log", "/tmp"};
};

/// Reads the logs of all daemons of this machine, those of earlier starts, rotated and compressed
/// ones included, and the comms logs of what they tell of. What `now` says to be running is left
/// out, as is what began later and has no end in the logs, and what began before `since`, in
/// seconds since 1970. Takes as long as reading the logs does, and two seconds more when a file
/// system does not answer.
History ReadHistory(const Runs& now, double since = 0, const LogDirectories& directories = {});

/// The same with the lines of each in the daemon's log, and with what goes on.
History ReadHistoryWithLines(const Runs& now, double since = 0,
                             const LogDirectories& directories = {});

/// What the history tells of `run`, which was seen while it was there. None where it tells nothing
/// of it, or where several of those that have ended may be meant.
std::optional<EndedRun> FindEnd(const History& history, const Run& run);

/// Reads the history for how the runs ended that are in the state kEnded, and adds it as their
/// cause.
void AddCauses(Runs& found);

}  // namespace inspect
