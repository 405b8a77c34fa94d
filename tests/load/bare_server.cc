#include "tests/load/bare_server.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "tests/support/ports.h"

namespace load {
namespace {

[[noreturn]] void Serve(int listener) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  signal(SIGCHLD, SIG_IGN);  // children are reaped by the system
  signal(SIGPIPE, SIG_IGN);
  while (true) {
    const int connection = accept(listener, nullptr, nullptr);
    if (connection < 0) _exit(1);
    if (fork() == 0) {
      char byte = 'x';
      if (send(connection, &byte, 1, 0) == 1) {
        [[maybe_unused]] const ssize_t end = recv(connection, &byte, 1, 0);
      }
      _exit(0);
    }
    close(connection);
  }
}

}  // namespace

BareServer::BareServer() {
  const Descriptor listener = BindFreePort(512);
  port_ = PortOf(listener.get());
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) Serve(listener.get());
}

BareServer::~BareServer() {
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

}  // namespace load
