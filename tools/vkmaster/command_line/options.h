// Everything between vkmaster and the shell or the terminal that started it: options, lines of
// commands from a pipe or the prompt, signals, and the exit status and hint for each way to fail.
#pragma once

#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "master/records.h"
#include "tools/vkmaster/output/output.h"
#include "tools/vkmaster/plans/plan.h"
#include "tools/vkmaster/text/calendar.h"
#include "tools/vkmaster/text/words.h"

namespace vkmaster {

/// What the program ends with. After a signal it is 128 and the signal's number.
enum ExitStatus {
  kOk = 0,
  kInternal = 1,       ///< something that nobody foresaw
  kUsage = 2,          ///< a mistake in options, a command, a plan or a file of commands
  kNotLaunched = 3,    ///< daemon not reached, or it refused the run
  kRequestFailed = 4,  ///< the daemon ended the connection on a request
  kLinkLost = 5,       ///< the connection broke
  kBadAnswer = 6,      ///< the daemon's answer does not follow the protocol
  kSignal = 128,
};

/// A serving gate in front of the daemon, and what proves to it who this is.
struct Gate {
  std::string address;  ///< HOST:PORT; empty: the daemon's own port is connected to
  std::string name;     ///< in its certificate, when that is not HOST
  std::string certificate;
  std::string key;
  std::vector<std::string> authorities;
  std::vector<std::string> revocations;
};

struct Options {
  std::string host = "localhost";
  Gate gate;
  int port = 0;
  master::RunRequest run;
  bool connect = true;
  Form form = Form::kText;
  std::string file;  ///< of commands; empty for none, "-" for standard input
  std::optional<Step> step;
  bool progress = true;
  bool leave = false;
  bool keep_going = false;
  bool one_by_one = false;
  std::chrono::seconds connect_wait{10};
  std::chrono::seconds launch_wait{0};  ///< 0 waits for ever
  std::chrono::seconds shutdown_wait{30};
  Words words;             ///< the commands
  std::string plan;        ///< the file of "run PLAN"; empty for none
  bool overwrite = false;  ///< a plan's results replace those of an earlier run
  std::string results;     ///< the directory of "report DIRECTORY"; empty for none
  std::string report;      ///< the file of the report; empty for none
  bool check = false;      ///< "run --check PLAN": say what the plan does, without a daemon

  /// The options that the command line, the environment or the --config file sets, as "--host".
  std::set<std::string> given;
};

/// Fills `options` from the command line, the environment and the --config file, and for "run PLAN"
/// from the plan where these say nothing. Returns the status to end with when there is nothing
/// further to do: the help, the version or an error has been printed.
std::optional<int> ParseOptions(int argc, const char* const* argv, Options& options);

/// Takes what the plan says about the launch, except for the options that were given.
void ApplyLaunch(const Plan& plan, Options& options);

/// Puts the options that were given in place of what the plan says, and returns a sentence on what
/// they have replaced; empty for nothing.
std::string TakeOptions(const Options& options, Plan& plan);

}  // namespace vkmaster
