#pragma once

#include <string>

class CManagerInformation;
class flog;
struct RunRequest;

/// Gives a cluster run its own copy of the input file. Returns the root name that the run goes on
/// with: for a cluster run the received one, extended by the cluster number; for other runs, which
/// this does nothing to, the received one. Goes on when the copy fails. From here on what this
/// process executes gets none of its descriptors but the standard ones.
std::string PrepareClusterRun(const RunRequest& run, flog& log);

/// Starts the distribution script for the run's files named `root`, in a process of its own, with
/// its standard output on a pipe that becomes this process's standard input. Returns true in the
/// connection child. Returns false in the script process when the script could not be executed;
/// that process then has nothing left to do but to end. Throws Refusal when there is no process to
/// be had.
[[nodiscard]] bool StartScript(const CManagerInformation& info, const RunRequest& run,
                               const std::string& root);

/// Copies the script's output to the log up to the host line and returns the host's name. The name
/// keeps a zero byte in the place of its newline: the master expects it. Blocks as long as the
/// script neither prints a host nor closes its output. Throws Refusal when it ends without one.
std::string AwaitHost(flog& log);
