#include "tools/vkmaster/command_line/input.h"

#include <errno.h>
#include <sys/syscall.h>

#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/answered_call.h"
#include "tests/support/bytes.h"
#include "tests/support/socket_pair.h"
#include "tests/support/text_of_child.h"

namespace {

using vkmaster::DescriptorLines;

// All lines that are read, "|" after each, of an input of two when the waits for it are answered.
std::optional<std::string> LinesWhen(CallAnswer answer) {
  return TextOfChild([answer]() -> std::optional<std::string> {
    SocketPair pair;
    WriteAll(pair.peer.get(), "one\ntwo");
    pair.peer.Reset();
    if (!AnswerCall(SYS_poll, answer)) return std::nullopt;
    DescriptorLines lines(pair.ours.get(), -1);
    std::string text;
    while (const auto line = lines.Next()) text += *line + "|";
    return text;
  });
}

TEST(DescriptorLines, InterruptedWaitGoesOn) {
  static int calls = 0;
  const auto lines = LinesWhen([] { return ++calls % 2 == 1 ? static_cast<long>(-EINTR) : 1L; });
  if (!lines) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*lines, "one|two|");
}

TEST(DescriptorLines, InputIsReadWhereItCannotBeWaitedFor) {
  const auto lines = LinesWhen([] { return static_cast<long>(-ENOMEM); });
  if (!lines) GTEST_SKIP() << "system calls cannot be answered here";
  EXPECT_EQ(*lines, "one|two|");
}

TEST(DescriptorLines, WakingDropsHalfALine) {
  SocketPair input;
  SocketPair wake;
  DescriptorLines lines(input.ours.get(), wake.ours.get());
  WriteAll(input.peer.get(), "one\nopen P");
  EXPECT_EQ(lines.Next(), "one");
  WriteAll(wake.peer.get(), "!");
  EXPECT_EQ(lines.Next(), std::nullopt);
}

}  // namespace
