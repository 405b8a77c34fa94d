#include "daemon/signals.h"

#include <errno.h>
#include <sys/wait.h>

#include "daemon/globals.h"
#include "net/socket_server.h"

void handle_sigchld(int) {
  const int saved = errno;
  while (waitpid(-1, nullptr, WNOHANG) > 0) {
  }
  errno = saved;
}

void handle_term(int) {
  if (Gps != nullptr) Gps->Close();
}
