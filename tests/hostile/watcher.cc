#include "tests/hostile/watcher.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <stdexcept>
#include <string>

#include "tests/support/child_process.h"

namespace {

constexpr auto kOptions = PTRACE_O_TRACEFORK | PTRACE_O_TRACEEXIT | PTRACE_O_TRACEEXEC;

void Report(int reports, pid_t pid) {
  unsigned long status = 0;
  ptrace(PTRACE_GETEVENTMSG, pid, nullptr, &status);
  const int ending = static_cast<int>(status);
  Ended ended;
  ended.pid = pid;
  ended.parent = static_cast<pid_t>(StatusValue(pid, "PPid"));
  ended.status = WIFSIGNALED(ending) ? 128 + WTERMSIG(ending) : WEXITSTATUS(ending);
  ended.user = static_cast<uid_t>(StatusValue(pid, "Uid"));
  ended.memory = StatusValue(pid, "VmHWM");
  std::int64_t nanoseconds = 0;
  std::ifstream("/proc/" + std::to_string(pid) + "/schedstat") >> nanoseconds;
  ended.processor = nanoseconds / 1000;
  if (write(reports, &ended, sizeof(ended)) != sizeof(ended)) _exit(1);
}

// A stopped tracee goes on as it would have without us.
void GoOn(int reports, pid_t pid, int status) {
  const int signal = WSTOPSIG(status);
  switch (status >> 16) {
    case PTRACE_EVENT_EXIT:
      Report(reports, pid);
      break;
    case PTRACE_EVENT_EXEC:
      ptrace(PTRACE_DETACH, pid, nullptr, nullptr);
      return;
    case 0:
      ptrace(PTRACE_CONT, pid, nullptr, static_cast<long>(signal));
      return;
    default:
      break;
  }
  ptrace(PTRACE_CONT, pid, nullptr, nullptr);
}

[[noreturn]] void Watch(pid_t daemon, int reports) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const char seized = ptrace(PTRACE_SEIZE, daemon, nullptr, kOptions) == 0 ? 'y' : 'n';
  if (write(reports, &seized, 1) != 1 || seized == 'n') _exit(1);
  int status = 0;
  pid_t pid = 0;
  while ((pid = waitpid(-1, &status, __WALL)) > 0) {
    if (WIFSTOPPED(status)) GoOn(reports, pid, status);
  }
  _exit(0);
}

}  // namespace

Watcher::Watcher(pid_t daemon) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  process_ = fork();
  if (process_ == 0) Watch(daemon, ends[1]);
  close(ends[1]);
  reports_ = ends[0];
  char seized = 'n';
  if (process_ < 0 || read(reports_, &seized, 1) != 1 || seized != 'y') {
    throw std::runtime_error("the daemon may not be traced");
  }
}

Watcher::~Watcher() {
  if (process_ > 0) {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }
  close(reports_);
}

std::optional<Ended> Watcher::Next(std::chrono::steady_clock::time_point limit) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      limit - std::chrono::steady_clock::now());
  pollfd report{reports_, POLLIN, 0};
  if (poll(&report, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0))) != 1) {
    return std::nullopt;
  }
  Ended ended;
  if (read(reports_, &ended, sizeof(ended)) != sizeof(ended)) return std::nullopt;
  return ended;
}
