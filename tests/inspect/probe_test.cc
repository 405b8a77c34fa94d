#include "inspect/probe.h"

#include <signal.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "tests/inspect/own_view.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

namespace inspect {
namespace {

using std::chrono::milliseconds;

TEST(ProbeTest, AnswerIsHandedOverWhole) {
  std::string answer(300'000, 'x');
  EXPECT_EQ(Ask([&] { return answer; }), answer);
  EXPECT_EQ(Ask([] { return std::string(); }), "");
}

TEST(ProbeTest, QuestionThatTakesTooLongHasNoAnswer) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Ask([] { return std::to_string(pause()); }, milliseconds(50)), std::nullopt);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

TEST(ProbeTest, QuestionThatFailsHasNoAnswer) {
  EXPECT_EQ(Ask([]() -> std::string { throw std::runtime_error("x"); }), std::nullopt);
  EXPECT_EQ(Ask([] { return std::to_string(raise(SIGKILL)); }), std::nullopt);
}

TEST(ProbeTest, WhatItChangesStaysInItsProcess) {
  int value = 1;
  EXPECT_EQ(Ask([&] { return std::to_string(++value); }), "2");
  EXPECT_EQ(value, 1);
}

TEST(RunCommandTest, OutputAndStatusAreTheAnswer) {
  const auto answer = RunCommand({"sh", "-c", "pwd; cat; echo complaint >&2; exit 3"});
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->status, 3);
  EXPECT_EQ(answer->output, "/\n");
  EXPECT_EQ(RunCommand({"sh", "-c", "echo complaint >&2"}, Complaints::kIncluded)->output,
            "complaint\n");
  EXPECT_EQ(RunCommand({"/no/such/program"})->status, 127);
  EXPECT_EQ(RunCommand({"sh", "-c", "kill -KILL $$"})->status, -1);
}

TEST(RunCommandTest, WhatTakesTooLongIsEndedWithAllThatItHasStarted) {
  const TemporaryDirectory directory;
  const std::string file = directory.File("pid");
  EXPECT_FALSE(RunCommand({"sh", "-c", "sleep 100 & echo $! >" + file + "; wait"},
                          Complaints::kLeftOut, std::chrono::seconds(2)));
  const pid_t started = std::stoi(directory.Read("pid"));
  EXPECT_TRUE(Eventually([&] { return !IsRunning(started); }));
}

TEST(ProbeTest, InquiryLetsItsOwnerDoOtherThings) {
  Inquiry silent([] { return std::to_string(pause()); }, std::chrono::seconds(30));
  EXPECT_FALSE(silent.IsDone(milliseconds(0)));
  Inquiry quick([] { return std::string("answer"); }, std::chrono::seconds(30));
  EXPECT_TRUE(quick.IsDone(std::chrono::seconds(30)));
  EXPECT_EQ(quick.TakeAnswer(), "answer");
  EXPECT_TRUE(quick.HasEnded());
  EXPECT_FALSE(silent.IsDone(milliseconds(0)));
  EXPECT_FALSE(silent.HasEnded());
}

TEST(RunCommandTest, WhatNeverStopsAnsweringIsEnded) {
  const auto start = std::chrono::steady_clock::now();
  const auto answer = RunCommand({"yes"}, Complaints::kLeftOut, milliseconds(50));
  EXPECT_FALSE(answer);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

TEST(ProbeTest, InquiryThatTakesTooLongIsEnded) {
  Inquiry silent([] { return std::to_string(pause()); }, milliseconds(10));
  EXPECT_TRUE(silent.IsDone(std::chrono::seconds(30)));
  EXPECT_EQ(silent.TakeAnswer(), std::nullopt);
  while (!silent.HasEnded()) usleep(1000);
}

// What a question in a process has answered in which a system call fails.
std::string AnswerWithout(int number, CallAnswer answer) {
  return WithAnsweredCall(number, answer, [] {
    return "answer: " + Ask([] { return std::string("x"); }).value_or("none");
  });
}

TEST(ProbeTest, QuestionThatCannotBeAskedHasNoAnswer) {
  EXPECT_EQ(AnswerWithout(SYS_pipe2, []() -> long { return -EMFILE; }), "answer: none");
  EXPECT_EQ(AnswerWithout(SYS_clone, []() -> long { return -EAGAIN; }), "answer: none");
  EXPECT_EQ(AnswerWithout(SYS_poll, []() -> long { return -ENOMEM; }), "answer: none");
}

TEST(ProbeTest, AnswerOfAProcessWhoseEndIsNotKnownIsNone) {
  EXPECT_EQ(AnswerWithout(SYS_wait4, []() -> long { return -EINTR; }), "answer: none");
}

TEST(ProbeTest, AnswerThatCannotBeWrittenIsNone) {
  const auto answer = Ask([] {
    AnswerCall(SYS_write, []() -> long { return -EIO; });
    return std::string("x");
  });
  EXPECT_EQ(answer, std::nullopt);
}

TEST(ProbeTest, SignalsDoNotEndTheWait) {
  const std::string answer = InProcess([] {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    const itimerval timer{.it_interval = {0, 10'000}, .it_value = {0, 10'000}};
    setitimer(ITIMER_REAL, &timer, nullptr);
    return RunCommand({"sh", "-c", "sleep 0.3; echo done"})->output;
  });
  EXPECT_EQ(answer, "done\n");
}

TEST(RunCommandTest, CommandThatCannotBeStartedHasNoAnswer) {
  const auto run = [](int number, CallAnswer answer) {
    return WithAnsweredCall(number, answer, [] {
      const auto ran = RunCommand({"true"});
      return ran ? std::to_string(ran->status) : "no process";
    });
  };
  EXPECT_EQ(run(SYS_pipe2, []() -> long { return -EMFILE; }), "no process");
  EXPECT_EQ(run(SYS_clone, []() -> long { return -EAGAIN; }), "no process");
  EXPECT_EQ(run(SYS_chdir, []() -> long { return -EACCES; }), "127");
  EXPECT_EQ(run(SYS_dup2, []() -> long { return -EINTR; }), "127");
}

TEST(RunCommandTest, CommandThatClosesItsOutputIsWaitedForAsLong) {
  EXPECT_FALSE(
      RunCommand({"sh", "-c", "exec >&-; exec sleep 60"}, Complaints::kLeftOut, milliseconds(300)));
}

}  // namespace
}  // namespace inspect
