#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <future>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/child_process.h"
#include "tests/support/socket_pair.h"
#include "tests/support/temporary_directory.h"
#include "tests/tools/fake_daemon.h"
#include "tests/tools/program.h"

namespace {

using testing::HasSubstr;
using testing::Not;

/// The program with a terminal, somebody typing at it.
// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): only the framework destroys it
class TerminalTest : public testing::Test {
 protected:
  void Start(const std::vector<std::string>& options) {
    std::vector<std::string> arguments = LaunchArguments(daemon_.port(), options);
    arguments.insert(arguments.begin(), VkmasterExecutable());
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    int terminal = -1;
    pid_ = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (pid_ == 0) {
      if (chdir(home_.path().c_str()) != 0) _exit(126);
      unsetenv("HOME");
      if (home_variable_) setenv("HOME", home_variable_->c_str(), 1);
      setenv("TERM", "xterm", 1);
      execv(argv[0], argv.data());
      _exit(126);
    }
    terminal_ = Descriptor(terminal);
  }

  ~TerminalTest() override {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  void Type(const std::string& text) { WriteAll(terminal_.get(), text); }

  // The line editor shows the prompt before it takes the terminal over and waits for a key.
  void AwaitEditor() const {
    EXPECT_TRUE(Eventually([this] {
      termios mode{};
      return tcgetattr(terminal_.get(), &mode) == 0 && (mode.c_lflag & ICANON) == 0;
    }));
  }

  // Ends the input at the prompt. Before the editor has the terminal the system takes this key for
  // itself.
  void TypeEnd() {
    AwaitEditor();
    Type("\x04");
  }

  // Reads until `text` has been shown; all that was shown since the last call. Half a minute.
  std::string Until(const std::string& text) {
    std::string shown;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (text.empty() || shown.find(text) == std::string::npos) {
      pollfd wait{terminal_.get(), POLLIN, 0};
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      if (left.count() <= 0 || poll(&wait, 1, static_cast<int>(left.count())) <= 0) {
        ADD_FAILURE() << "'" << text << "' did not come, but: " << shown;
        break;
      }
      std::array<char, 4096> part{};
      const ssize_t got = read(terminal_.get(), part.data(), part.size());
      if (got <= 0) break;  // the program has ended
      shown.append(part.data(), static_cast<std::size_t>(got));
    }
    return shown;
  }

  // Keeps the answer to the `nth` request of this code back until LetGo().
  void Hold(std::uint32_t code, int nth = 1) {
    run_.before = [this, code, nth](std::uint32_t asked) mutable {
      if (asked != code || --nth != 0) return;
      held_.set_value();
      let_go_.get_future().wait_for(std::chrono::seconds(30));
    };
  }
  void AwaitHeld() { held_.get_future().wait_for(std::chrono::seconds(30)); }
  void LetGo() { let_go_.set_value(); }

  int Status() {
    last_ = Until("");
    return ExitStatus();
  }

  // While the answer to the request `code` is due that typing `text` brings about.
  void ExpectCtrlCTwiceEndsTheRun(const std::string& text, std::uint32_t code) {
    Hold(code);
    Start({});
    Until("CASE day 0> ");
    Type(text);
    AwaitHeld();
    Type("\x03");
    Until("Ctrl-C again ends the run");
    Type("\x03");
    Until("Interrupted: shutting the run down");
    LetGo();
    EXPECT_EQ(Status(), 130);
    EXPECT_EQ(daemon_.Requests().back(), "f0 ff 00 00");
  }

  int ExitStatus() {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  TemporaryDirectory home_;
  std::optional<std::string> home_variable_ = home_.path().string();
  std::promise<void> held_;
  std::promise<void> let_go_;
  FakeRun run_;
  FakeDaemon daemon_{FakeDaemon::Launching(run_)};
  pid_t pid_ = -1;
  Descriptor terminal_;
  std::string last_;
};

TEST_F(TerminalTest, PromptShowsModelAndDayAndTakesCommands) {
  Start({});
  EXPECT_THAT(Until("CASE day 0> "), HasSubstr("CASE runs on node17. help lists the commands"));
  Type("until 30\n");
  EXPECT_THAT(Until("CASE day 30> "), HasSubstr("2020-01-31"));
  Type("quit\n");
  EXPECT_EQ(Status(), 0);
  EXPECT_EQ(daemon_.Requests().back(), "f0 ff 00 00");
}

TEST_F(TerminalTest, SlipIsAnsweredAndThePromptComesAgain) {
  Start({});
  Until("CASE day 0> ");
  Type("tiem\n");
  EXPECT_THAT(Until("CASE day 0> "), HasSubstr("No such command: tiem"));
  Type("time\n");
  EXPECT_THAT(Until("CASE day 0> "), HasSubstr("time  0 days"));
  Type("shut P1 then shut P9 then shut P2 then time\n");
  EXPECT_THAT(Until("CASE day 0> "), HasSubstr("note: Not carried out: shut P2; time"));
  TypeEnd();
  EXPECT_EQ(Status(), 0);
}

TEST_F(TerminalTest, TabCompletesCommandsWellsAndComponents) {
  Start({});
  Until("CASE day 0> ");
  Type("well\tI\t\n");
  EXPECT_THAT(Until("CASE day 0> "), HasSubstr("WATER_INJECTOR"));
  Type("composition S1 CO\t");
  Until("2=");
  Type("\x03");
  Until("CASE day 0> ");
  Type("quit\n");
  EXPECT_EQ(Status(), 0);
}

TEST_F(TerminalTest, CtrlCAtThePromptDropsTheLineAndKeepsTheRun) {
  Start({});
  Until("CASE day 0> ");
  Type("until 5000");
  Until("5000");
  Type("\x03");
  Until("CASE day 0> ");
  Type("time\n");
  EXPECT_THAT(Until("CASE day 0> "), HasSubstr("time  0 days"));
  Type("quit\n");
  EXPECT_EQ(Status(), 0);
}

TEST_F(TerminalTest, CtrlCDuringAnAdvanceStopsAfterTheStepAndGivesThePromptBack) {
  Hold(8, 2);
  Start({});
  EXPECT_THAT(Until("CASE day 0> "), HasSubstr("Ctrl-C stops an advance after its step"));
  Type("until 3650 step 30; time\n");
  AwaitHeld();
  Type("\x03");
  EXPECT_THAT(Until("Ctrl-C again ends the run"), HasSubstr("finished its step"));
  LetGo();
  const std::string shown = Until("CASE day 60> ");
  EXPECT_THAT(shown, HasSubstr("note: Stopped at day 60, before day 3650"));
  EXPECT_THAT(shown, Not(HasSubstr("60 days"))) << "the next command of the line";
  Type("until 90\n");
  Until("CASE day 90> ");
  TypeEnd();
  EXPECT_EQ(Status(), 0);
}

// It has come where it was to go, or the simulation has ended: nothing was left to be stopped.
TEST_F(TerminalTest, CtrlCDuringTheLastStepOfAnAdvanceIsNoEarlyStop) {
  std::promise<void> stepping;
  std::promise<void> pressed;
  run_.end = 50;
  run_.before = [&, steps = 0](std::uint32_t code) mutable {
    if (code != 8) return;
    ++steps;
    if (steps == 1) stepping.set_value();
    if (steps == 1) pressed.get_future().wait();
    if (steps == 2) kill(pid_, SIGINT);
  };
  Start({});
  Until("CASE day 0> ");
  Type("until 30\n");
  stepping.get_future().wait();
  Type("\x03");
  Until("Ctrl-C again ends the run");
  pressed.set_value();
  EXPECT_THAT(Until("CASE day 30> "), Not(HasSubstr("Stopped")));
  Type("until 90\n");
  const std::string shown = Until("CASE day 50> ");
  EXPECT_THAT(shown, HasSubstr("note: The simulation ended at day 50, before day 90"));
  EXPECT_THAT(shown, Not(HasSubstr("Stopped")));
  TypeEnd();
  EXPECT_EQ(Status(), 0);
}

// Ctrl-C alone is taken for a slip of the person at the prompt.
TEST_F(TerminalTest, TerminationDuringATypedAdvanceEndsTheRunAtOnce) {
  Hold(8);
  Start({});
  Until("CASE day 0> ");
  Type("until 3650 step 30\n");
  AwaitHeld();
  kill(pid_, SIGTERM);
  Until("Interrupted: shutting the run down");
  LetGo();
  EXPECT_EQ(Status(), 143);
  EXPECT_EQ(daemon_.Requests().back(), "f0 ff 00 00");
}

TEST_F(TerminalTest, CtrlCTwiceDuringAnAdvanceEndsTheRun) {
  ExpectCtrlCTwiceEndsTheRun("until 3650 step 30\n", 8);
}

// What completes a word asks the simulator for the wells.
TEST_F(TerminalTest, CtrlCDuringACompletionGivesThePromptBack) {
  Hold(6);
  Start({});
  Until("CASE day 0> ");
  Type("shut \t");
  AwaitHeld();
  Type("\x03");
  Until("Ctrl-C again ends the run");
  LetGo();
  Until("CASE day 0> ");
  Type("time\n");
  EXPECT_THAT(Until("CASE day 0> "), HasSubstr("time  0 days"));
  TypeEnd();
  EXPECT_EQ(Status(), 0);
}

TEST_F(TerminalTest, CtrlCTwiceDuringACompletionEndsTheRun) {
  ExpectCtrlCTwiceEndsTheRun("shut \t", 6);
}

TEST_F(TerminalTest, TerminationAtThePromptShutsTheRunDown) {
  Start({});
  Until("CASE day 0> ");
  kill(pid_, SIGTERM);
  EXPECT_EQ(Status(), 143);
  EXPECT_EQ(daemon_.Requests().back(), "f0 ff 00 00");
}

TEST_F(TerminalTest, HistoryIsKeptForTheNextTime) {
  Start({});
  Until("CASE day 0> ");
  Type("time\n");
  Until("CASE day 0> ");
  Type("quit\n");
  EXPECT_EQ(Status(), 0);
  EXPECT_THAT(home_.Read(".vkmaster_history"), HasSubstr("time"));
}

TEST_F(TerminalTest, HistoryOfTheLastTimeIsAtTheUpArrow) {
  home_.Write(".vkmaster_history", "_HiStOrY_V2_\nversion\n");  // as the editor writes it
  Start({});
  Until("CASE day 0> ");
  Type("\n");
  Until("CASE day 0> ");
  Type("\033[A\n");
  EXPECT_THAT(Until("CASE day 0> "), HasSubstr("simulator version  2017.2"));
  Type("quit\n");
  EXPECT_EQ(Status(), 0);
  EXPECT_THAT(home_.Read(".vkmaster_history"), testing::EndsWith("version\nversion\nquit\n"))
      << "the empty line is not kept";
}

TEST_F(TerminalTest, WithoutAHomeThereIsNoHistoryFile) {
  home_variable_.reset();
  Start({});
  Until("CASE day 0> ");
  Type("time\n");
  EXPECT_THAT(Until("CASE day 0> "), HasSubstr("time  0 days"));
  Type("quit\n");
  EXPECT_EQ(Status(), 0);
  EXPECT_FALSE(std::filesystem::exists(home_.File(".vkmaster_history")));
}

TEST_F(TerminalTest, EmptyHomeLeavesNoHistoryInTheWorkingDirectory) {
  home_variable_ = "";
  Start({});
  Until("CASE day 0> ");
  Type("quit\n");
  EXPECT_EQ(Status(), 0);
  EXPECT_FALSE(std::filesystem::exists(home_.File(".vkmaster_history")));
}

TEST_F(TerminalTest, TabAfterWhatNothingBeginsWithAddsNothing) {
  home_.Write("zz-a-file", "");
  Start({});
  Until("CASE day 0> ");
  Type("zz\t\n");
  EXPECT_THAT(Until("CASE day 0> "),
              HasSubstr("No such command: zz (the command help lists them)"));
  Type("quit\n");
  EXPECT_EQ(Status(), 0);
}

TEST_F(TerminalTest, TabOverALostLinkLeavesTheWordToTheCommand) {
  run_.fails = {6};
  Start({});
  Until("CASE day 0> ");
  Type("data \tP1\n");
  EXPECT_THAT(Status(), testing::AnyOf(4, 5));
  EXPECT_THAT(last_, HasSubstr("vkmaster: The "));
  EXPECT_THAT(last_, HasSubstr("hint: "));
}

// A terminal that is not the one of the program's session ends like a file, without a signal.
TEST_F(TerminalTest, EndOfAnotherSessionsTerminalShutsTheRunDown) {
  std::vector<std::string> arguments = LaunchArguments(daemon_.port(), {});
  arguments.insert(arguments.begin(), VkmasterExecutable());
  int master = -1;
  int slave = -1;
  ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
  terminal_ = Descriptor(master);
  fcntl(master, F_SETFD, FD_CLOEXEC);
  ChildProcess::Options options;
  options.in_child = [slave] {
    for (const int stream : {0, 1, 2}) dup2(slave, stream);
    setsid();
    close(slave);
    return 0;
  };
  ChildProcess child(arguments, options);
  close(slave);
  Until("CASE day 0> ");
  AwaitEditor();
  terminal_.Reset();
  EXPECT_THAT(daemon_.Requests(), testing::ElementsAre("01 00 00 00", "f0 ff 00 00"));
  EXPECT_EQ(child.Wait(std::chrono::seconds(30)), 0);
}

TEST_F(TerminalTest, LongAdvanceShowsItsProgressInDays) {
  Start({"until", "60", "step", "30"});
  EXPECT_EQ(Status(), 0);
  EXPECT_THAT(last_, HasSubstr("[###############...............] day 30 of 60 ("));
  EXPECT_THAT(last_, HasSubstr("          60    2020-03-01            no"));
}

TEST_F(TerminalTest, NoProgressKeepsTheTerminalPlain) {
  Start({"--no-progress", "until", "60", "step", "30"});
  EXPECT_EQ(Status(), 0);
  EXPECT_THAT(last_, Not(HasSubstr("\033")));
  EXPECT_THAT(last_, Not(HasSubstr("of 60")));
}

TEST_F(TerminalTest, TerminalThatGoesAtThePromptShutsTheRunDown) {
  Start({});
  Until("CASE day 0> ");
  terminal_.Reset();
  EXPECT_THAT(daemon_.Requests(), testing::ElementsAre("01 00 00 00", "f0 ff 00 00"));
  EXPECT_EQ(ExitStatus(), 128 + SIGHUP);
}

TEST_F(TerminalTest, TerminalThatGoesDuringAStepShutsTheRunDown) {
  std::promise<void> gone;
  run_.before = [&](std::uint32_t code) {
    if (code == 8) gone.get_future().wait();
  };
  Start({"until", "60"});
  Until("day 0 of 60");
  terminal_.Reset();
  gone.set_value();
  EXPECT_EQ(daemon_.Requests().back(), "f0 ff 00 00");
  EXPECT_EQ(ExitStatus(), 128 + SIGHUP);
}

}  // namespace
