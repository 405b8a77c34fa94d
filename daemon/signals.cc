#include "daemon/signals.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "daemon/globals.h"
#include "net/socket_server.h"

namespace {

// A socket that got one of these numbers would receive what is printed, and the script would take
// it for its standard output.
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

void handle_sigchld(int) {
  const int saved = errno;
  while (waitpid(-1, nullptr, WNOHANG) > 0) {
  }
  errno = saved;
}

void handle_term(int) {
  if (Gps != nullptr) Gps->Close();
}

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
