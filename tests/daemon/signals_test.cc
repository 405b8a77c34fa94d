#include "daemon/signals.h"

#include <errno.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include <gtest/gtest.h>

#include "daemon/globals.h"
#include "net/socket_server.h"
#include "tests/support/child_process.h"
#include "tests/support/ports.h"

namespace {

TEST(SignalsTest, FinishedChildrenAreReapedAndErrnoKept) {
  ChildProcess::Options options;
  options.in_child = [] {
    for (int i = 0; i < 3; ++i) {
      if (fork() == 0) _exit(1);
    }
    siginfo_t info{};
    while (ChildrenOf(getpid()).size() < 3) usleep(1000);
    for (const pid_t child : ChildrenOf(getpid())) {
      waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT);
    }
    errno = EDOM;
    handle_sigchld(SIGCHLD);
    return errno == EDOM && ChildrenOf(getpid()).empty() ? 0 : 1;
  };
  EXPECT_EQ(ChildProcess({}, options).Wait(std::chrono::seconds(10)), 0);
}

TEST(SignalsTest, TermHandlerClosesTheListeningSocketIfThereIsOne) {
  handle_term(SIGTERM);
  int port = 0;
  for (int attempt = 0; Gps == nullptr && attempt < 20; ++attempt) {
    port = FreePort();
    try {
      Gps = new SocketServer(port, 5);
    } catch (const char*) {
    }
  }
  ASSERT_NE(Gps, nullptr);
  EXPECT_EQ(SocketServer::IsAvailablePort(port), -2);
  handle_term(SIGTERM);
  EXPECT_EQ(SocketServer::IsAvailablePort(port), 0);
  delete Gps;
  Gps = nullptr;
}

}  // namespace
