#include "daemon/process.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <functional>

#include <gtest/gtest.h>

#include "daemon/signals.h"
#include "tests/support/answered_call.h"
#include "tests/support/child_process.h"

namespace {

// The exit status of a child that runs `body`.
int InChild(const std::function<int()>& body) {
  ChildProcess::Options options;
  options.in_child = body;
  ChildProcess child({}, options);
  return child.Wait(std::chrono::seconds(10)).value_or(-1);
}

TEST(ProcessTest, PreparedProcessReapsByItselfWhateverItInherited) {
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

TEST(ProcessTest, MissingStandardDescriptorsAreFilled) {
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

TEST(ProcessTest, NullDeviceThatCannotBeOpenedIsDoneWithout) {
  const int status = InChild([] {
    if (!AnswerCall(SYS_openat, [] { return static_cast<long>(-ENFILE); })) return 77;
    return PrepareProcess() ? 0 : 1;
  });
  if (status == 77) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(status, 0);
}

TEST(ProcessTest, ProcessThatCannotReapItsChildrenIsNotPrepared) {
  const int status = InChild([] {
    if (!AnswerCall(
            SYS_rt_sigaction, [] { return static_cast<long>(-EINVAL); }, SIGCHLD))
      return 77;
    return PrepareProcess() ? 0 : 1;
  });
  if (status == 77) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(status, 1);
}

}  // namespace
