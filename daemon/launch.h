#pragma once

#include <string>
#include <utility>

class CManagerInformation;
class flog;
struct RunRequest;

/// Whether the master asked for one run of a cluster study.
bool IsClusterRun(const RunRequest& run);

/// The shell command that copies `source` to `target`: "cp SOURCE TARGET", with those names quoted
/// that a shell would take apart.
std::string CopyCommand(const std::string& source, const std::string& target);

/// Gives a cluster run its own copy of the input file and extends the run's root name by the
/// cluster number. Does nothing for other runs. Goes on when the copy fails.
void PrepareClusterRun(RunRequest& run, flog& log);

/// Starts the distribution script in a process of its own, with its standard output on a pipe that
/// becomes this process's standard input. Returns true in the connection child. Returns false in
/// the script process when the script could not be executed; that process then has nothing left to
/// do but to end. Throws Refusal when there is no process to be had.
bool StartScript(const CManagerInformation& info, const RunRequest& run);

/// Copies the script's output to the log up to the host line and returns the host's name. The name
/// keeps a zero byte in the place of its newline: the master expects it. Blocks as long as the
/// script neither prints a host nor closes its output. Throws Refusal when it ends without one.
std::string AwaitHost(flog& log);
