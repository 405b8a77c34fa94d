#include "daemon/signals.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "daemon/globals.h"
#include "net/socket_server.h"
#include "tests/support/answered_call.h"
#include "tests/support/child_process.h"
#include "tests/support/ports.h"

namespace {

// The exit status of a child that runs `body`.
int InChild(const std::function<int()>& body) {
  ChildProcess::Options options;
  options.inChild = body;
  ChildProcess child({}, options);
  return child.Wait(std::chrono::seconds(10)).value_or(-1);
}

TEST(SignalsTest, FinishedChildrenAreReapedAndErrnoKept) {
  EXPECT_EQ(InChild([] {
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
            }),
            0);
}

TEST(SignalsTest, PreparedProcessReapsByItselfWhateverItInherited) {
  EXPECT_EQ(InChild([] {
              sigset_t child;
              sigemptyset(&child);
              sigaddset(&child, SIGCHLD);
              sigprocmask(SIG_BLOCK, &child, nullptr);
              signal(SIGCHLD, SIG_IGN);
              signal(SIGPIPE, SIG_DFL);
              if (!PrepareProcess()) return 1;
              if (fork() == 0) _exit(0);
              const bool reaped = Eventually([] { return ChildrenOf(getpid()).empty(); });
              struct sigaction pipe {};
              sigaction(SIGPIPE, nullptr, &pipe);
              struct sigaction handler {};
              sigaction(SIGCHLD, nullptr, &handler);
              const int flags = SA_RESTART | SA_NOCLDSTOP;
              return reaped && pipe.sa_handler == SIG_IGN && (handler.sa_flags & flags) == flags &&
                             handler.sa_handler == handle_sigchld
                         ? 0
                         : 2;
            }),
            0);
}

TEST(SignalsTest, MissingStandardDescriptorsAreFilled) {
  EXPECT_EQ(InChild([] {
              const int free = dup(0);
              close(free);
              for (int descriptor = 0; descriptor <= 2; ++descriptor) close(descriptor);
              if (!PrepareProcess()) return 1;
              for (int descriptor = 0; descriptor <= 2; ++descriptor) {
                if (fcntl(descriptor, F_GETFD) == -1) return 2;
              }
              return dup(0) == free ? 0 : 3;  // and no other was left open
            }),
            0);
}

TEST(SignalsTest, NullDeviceThatCannotBeOpenedIsDoneWithout) {
  const int status = InChild([] {
    if (!AnswerCall(SYS_openat, [] { return static_cast<long>(-ENFILE); })) return 77;
    return PrepareProcess() ? 0 : 1;
  });
  if (status == 77) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(status, 0);
}

TEST(SignalsTest, ProcessThatCannotReapItsChildrenIsNotPrepared) {
  const int status = InChild([] {
    if (!AnswerCall(
            SYS_rt_sigaction, [] { return static_cast<long>(-EINVAL); }, SIGCHLD))
      return 77;
    return PrepareProcess() ? 0 : 1;
  });
  if (status == 77) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(status, 1);
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
