#include "tools/vkmaster/command_line/prompt.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/answered_call.h"
#include "tests/support/bytes.h"
#include "tests/support/socket_pair.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/text_of_child.h"
#include "tools/vkmaster/command_line/interrupt.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using vkmaster::Completions;

std::vector<std::string> NoWells() {
  ADD_FAILURE() << "wells were asked for";
  return {};
}

TEST(Completions, CommandsComeAtTheBeginningOfACommand) {
  EXPECT_THAT(Completions("", "sta", {NoWells}), ElementsAre("status", "start-date"));
  EXPECT_THAT(Completions("time then ", "un", {NoWells}),
              ElementsAre("units", "until", "unconstrain"));
  EXPECT_THAT(Completions("time; ", "un", {NoWells}), ElementsAre("units", "until", "unconstrain"));
}

TEST(Completions, HelpIsFollowedByCommands) {
  EXPECT_THAT(Completions("help ", "shut", {NoWells}), Contains("shutdown"));
}

TEST(Completions, UntilIsFollowedByItsWords) {
  EXPECT_THAT(Completions("until 30 ", "st", {NoWells}), ElementsAre("step"));
}

std::vector<std::string> Wells() {
  return {"P1", "P2", "I1"};
}

TEST(Completions, CommandsOnWellsAreFollowedByWells) {
  for (const char* command :
       {"wells ", "data ", "open P1 ", "shut ", "uptime ", "ipr ", "source "}) {
    EXPECT_THAT(Completions(command, "P", {Wells}), ElementsAre("P1", "P2")) << command;
  }
}

TEST(Completions, ConstraintNamesComeWithTheirEqualsSign) {
  EXPECT_THAT(Completions("constrain P1 ", "b", {Wells}), ElementsAre("bhp="));
  EXPECT_THAT(Completions("vars P1 ", "b", {Wells}), ElementsAre("bhp"));
  EXPECT_THAT(Completions("unconstrain P1 ", "b", {Wells}), ElementsAre("bhp"));
  EXPECT_THAT(Completions("ipr P1 ", "sk", {Wells}), ElementsAre("skewness"));
}

TEST(Completions, WhatTheSimulatorCallsItIsCompletedToo) {
  EXPECT_THAT(
      Completions("vars P1 ", "WATER_", {Wells}),
      ElementsAre("WATER_PRODUCTION_RATE", "WATER_INJECTION_RATE", "WATER_DENSITY", "WATER_CUT"));
  EXPECT_THAT(Completions("constrain P1 ", "up", {Wells}), IsEmpty()) << "nothing limits uptime";
}

TEST(Completions, StatusesComponentsAndSourcesAreCompleted) {
  EXPECT_THAT(Completions("set-status ", "O", {Wells}), ElementsAre("OPEN"));
  const vkmaster::RunNames names{NoWells,
                                 [] {
                                   return std::vector<std::string>{"C1", "CO2"};
                                 },
                                 [] { return std::vector<std::string>{"CAP"}; }};
  EXPECT_THAT(Completions("composition ", "C", names), ElementsAre("CAP", "C1=", "CO2="));
}

TEST(Completions, EveryIsFollowedByStepsAndTheWordsOfUntil) {
  EXPECT_THAT(Completions("every ", "m", {NoWells}), ElementsAre("monthly"));
  EXPECT_THAT(Completions("every monthly ", "u", {NoWells}), ElementsAre("until"));
}

TEST(Completions, CommaEndsACommandOnlyWhereItStandsAlone) {
  EXPECT_THAT(Completions("time , ", "un", {NoWells}),
              ElementsAre("units", "until", "unconstrain"));
  EXPECT_THAT(Completions("data P1,P2 ", "P", {Wells}), ElementsAre("P1", "P2"));
}

TEST(Completions, UnknownCommandIsFollowedByNothing) {
  EXPECT_THAT(Completions("tiem ", "", {NoWells}), IsEmpty());
}

TEST(Completions, OpenQuoteCompletesNothingWrong) {
  EXPECT_THAT(Completions("help 'x", "zzz", {NoWells}), IsEmpty());
}

// What the prompt gives for an input of one line when its waits are answered.
std::optional<std::string> LineWhen(CallAnswer answer) {
  return TextOfChild([answer]() -> std::optional<std::string> {
    const TemporaryDirectory directory;
    setenv("HOME", directory.path().c_str(), 1);
    SocketPair typed;
    WriteAll(typed.peer.get(), "time\n");
    dup2(typed.ours.get(), STDIN_FILENO);
    vkmaster::Interrupt interrupt;
    vkmaster::Prompt prompt([] { return "> "; }, {NoWells}, interrupt);
    if (!AnswerCall(SYS_poll, answer)) return std::nullopt;
    return "'" + prompt.Next().value_or("the end") + "'";
  });
}

TEST(PromptTest, InterruptedWaitGoesOn) {
  static int calls = 0;
  const auto text = LineWhen([] { return ++calls % 2 == 1 ? static_cast<long>(-EINTR) : 1L; });
  if (!text) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_THAT(*text, HasSubstr("'time'"));
}

// No call of the waiting thread is interrupted then.
TEST(PromptTest, SignalThatAnotherThreadTakesEndsTheWait) {
  const auto text = TextOfChild([]() -> std::optional<std::string> {
    const TemporaryDirectory directory;
    setenv("HOME", directory.path().c_str(), 1);
    SocketPair typed;
    dup2(typed.ours.get(), STDIN_FILENO);
    vkmaster::Interrupt interrupt;
    vkmaster::Prompt prompt([] { return "> "; }, {NoWells}, interrupt);
    std::promise<void> ended;
    bool late = false;
    std::thread other([&typed, &late, end = ended.get_future()] {
      end.wait_for(std::chrono::milliseconds(100));  // nothing tells that the wait has begun
      raise(SIGTERM);
      late = end.wait_for(std::chrono::seconds(5)) != std::future_status::ready;
      WriteAll(typed.peer.get(), "line\n");
    });
    const std::string line = prompt.Next().value_or("the end");
    ended.set_value();
    other.join();
    return "'" + line + (late ? "' with the next key" : "' at once");
  });
  EXPECT_THAT(text.value_or(""), HasSubstr("'the end' at once"));
}

TEST(PromptTest, WaitThatFailsEndsTheInput) {
  const auto text = LineWhen([] { return static_cast<long>(-ENOMEM); });
  if (!text) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_THAT(*text, HasSubstr("'the end'"));
}

}  // namespace
