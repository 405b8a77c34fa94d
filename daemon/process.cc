#include "daemon/process.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/close_range.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/number.h"
#include "daemon/signals.h"

namespace {

// A socket that got the number of a missing standard descriptor would be used as that: it would
// receive what is printed, or be closed when the script's pipe becomes standard input.
void FillStandardDescriptors() {
  int descriptor = open("/dev/null", O_RDWR);
  while (descriptor >= 0 && descriptor <= STDERR_FILENO) descriptor = dup(descriptor);
  if (descriptor > STDERR_FILENO) close(descriptor);
}

void UnblockSigchld() {
  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  sigprocmask(SIG_UNBLOCK, &child, nullptr);
}

}  // namespace

bool PrepareProcess() {
  FillStandardDescriptors();
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);  // a log that may not grow any more is no reason to end
  struct sigaction action {};
  action.sa_handler = handle_sigchld;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART | SA_NOCLDSTOP;
  if (sigaction(SIGCHLD, &action, nullptr) != 0) return false;
  UnblockSigchld();
  return true;
}

void ResetSignals() {
  signal(SIGPIPE, SIG_DFL);
  signal(SIGXFSZ, SIG_DFL);
  signal(SIGCHLD, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

void CloseOthersOnExec() {
  constexpr int first = STDERR_FILENO + 1;
  if (syscall(SYS_close_range, first, ~0U, CLOSE_RANGE_CLOEXEC) == 0) return;
  // The kernel is older than this call or than the flag.
  DIR* open = opendir("/proc/self/fd");
  if (open == nullptr) return;
  while (const dirent* other = readdir(open)) {
    const long number = NumberIn(other->d_name);
    if (number >= first) fcntl(static_cast<int>(number), F_SETFD, FD_CLOEXEC);
  }
  closedir(open);
}
