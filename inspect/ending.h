#pragma once

#include <string>

namespace inspect {

/// How a connection of a master ended.
enum class Ending {
  kShutDown,        ///< the master shut the run down
  kMasterLeft,      ///< the master left without that, or its link broke
  kSimulatorEnded,  ///< the simulator ended, or its machine went away
  kNoSimulator,     ///< there was a host, and no simulator to be reached there
  kRequestFailed,   ///< a request failed for another reason
  kNoHost,          ///< the distribution script named no host
  kRefused,         ///< the user may not run, or could not be given the account
  kNotStarted,      ///< something else went wrong before the script was started
  kNoRequest,       ///< whoever connected did not ask for a run: a probe of the port, for example
  kSilent,          ///< it ended without a word, as a process does that is killed
  kUnknown,         ///< no log tells it
};

inline constexpr Ending kEndings[] = {
    Ending::kShutDown,      Ending::kMasterLeft, Ending::kSimulatorEnded, Ending::kNoSimulator,
    Ending::kRequestFailed, Ending::kNoHost,     Ending::kRefused,        Ending::kNotStarted,
    Ending::kNoRequest,     Ending::kSilent,     Ending::kUnknown};

/// "shut down", "master left", ... These words are for programs, too: they stay.
const char* Name(Ending ending);

/// Whether a run that was asked for went wrong.
bool IsFailure(Ending ending);

/// An ending with what is to be said of it.
struct End {
  Ending ending = Ending::kUnknown;
  /// One of few short words with hyphens, such as "user-unknown", which stay; empty where the
  /// ending says all.
  std::string reason;
  /// A sentence for an engineer, without its full stop. It may quote what masters, scripts and
  /// simulators have said, so it may hold anything.
  std::string sentence;
};

}  // namespace inspect
