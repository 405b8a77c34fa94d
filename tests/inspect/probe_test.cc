#include "inspect/probe.h"

#include <signal.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace inspect
