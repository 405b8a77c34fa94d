#include "daemon/launch.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

#include "base/descriptor.h"
#include "base/number.h"
#include "daemon/handshake.h"
#include "daemon/input_copy.h"
#include "daemon/manager_information.h"
#include "daemon/process.h"
#include "daemon/refusal.h"
#include "log/flog.h"

namespace {

constexpr int kLineSize = 1024;
constexpr std::string_view kHostPrefix = "HOST=";

// The arguments as execv() takes them: pointers to the texts in `arguments`, and null at the end.
std::vector<char*> VectorOf(const std::vector<std::string>& arguments) {
  std::vector<char*> vector;
  vector.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) {
    vector.push_back(const_cast<char*>(argument.c_str()));
  }
  vector.push_back(nullptr);
  return vector;
}

// What the script process does before it becomes the script. Returns when the script could not be
// executed. Does not depend on memory and throws nothing: the handlers of exceptions would take
// this process for the connection child.
void ExecuteScript(const std::vector<char*>& vector, int output, flog& log) {
  log << "Argument list\n";
  // The null at the end is logged, too. It silences this process's log: from here on standard
  // output is the script's.
  for (std::size_t k = 0; k < vector.size(); ++k) {
    log << "Arg " << static_cast<int>(k + 1) << ": " << vector[k] << "\n";
  }
  // Without the pipe nobody would read the script's host line.
  if (dup2(output, STDOUT_FILENO) < 0) return;
  ResetSignals();
  CloseOthersOnExec();
  // In a session of its own the script does not have the daemon's terminal, where it could type
  // commands in root's name.
  setsid();
  execv(vector[0], vector.data());
  log << "Error from execv: " << errno << "\n";
}

bool IsMissing(std::string_view host) {
  const std::size_t first = host.find_first_not_of(' ');
  return first == std::string_view::npos || host[first] == '\n';
}

}  // namespace

std::string PrepareClusterRun(const RunRequest& run, flog& log) {
  if (NumberIn(run.cluster.c_str()) <= 0) return run.root;
  log << "Dealing with cluster run now ...\n";
  std::string extended = run.root + "_" + run.cluster;
  const std::string source = run.path + "/" + run.root + ".afi";
  const std::string target = run.path + "/" + extended + ".afi";
  log << "Copying " << source << " to " << target << "\n";
  CloseOthersOnExec();
  // cp's exit status is not judged: a model may have no input file to copy, and the simulator says
  // so better than cp does.
  log << (CopyInput(source, target) ? "Copy succeeded\n"
                                    : "Copy failed - run will probably fail\n");
  return extended;
}

bool StartScript(const CManagerInformation& info, const RunRequest& run, const std::string& root) {
  flog& log = *info.log;
  const auto processes = static_cast<int>(NumberIn(run.processes.c_str()));
  const std::vector<std::string> arguments = {
      info.script, std::to_string(processes),       run.path,
      root,        std::to_string(info.comms_port), run.debug_flag};
  const std::vector<char*> vector = VectorOf(arguments);
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    log << "Error: pipe failed\n";
    throw Refusal{};
  }
  const Descriptor read_end(ends[0]);
  const Descriptor write_end(ends[1]);
  const pid_t script = fork();
  if (script < 0) {
    log << "Error: fork failed\n";
    throw Refusal{};
  }
  if (script == 0) {
    ExecuteScript(vector, write_end.get(), log);
    return false;
  }
  // Where the pipe cannot become standard input, nothing stays there: the lines of a terminal would
  // be taken for the script's.
  if (dup2(read_end.get(), STDIN_FILENO) < 0) close(STDIN_FILENO);
  return true;
}

std::string AwaitHost(flog& log) {
  std::array<char, kLineSize> line{};
  std::string host;
  while (fgets(line.data(), line.size(), stdin) != nullptr) {
    log << static_cast<const char*>(line.data());
    if (std::string_view(line.data()).starts_with(kHostPrefix)) {
      host = line.data() + kHostPrefix.size();
      break;
    }
  }
  if (IsMissing(host)) {
    log << "No host detected, exiting.\n";
    throw Refusal{"No host detected"};
  }
  std::replace(host.begin(), host.end(), '\n', '\0');
  log << "Host detected: " << host << "\n";
  return host;
}
