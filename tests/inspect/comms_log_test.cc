#include "inspect/comms_log.h"

#include <gtest/gtest.h>

namespace inspect {
namespace {

CommsLog Read(const std::string& text) {
  CommsLog log;
  AddLines(text, log);
  return log;
}

TEST(CommsLogTest, LastLinesCount) {
  using namespace std::string_literals;
  const CommsLog log = Read(
      "Received header: 1\nConnect on host: node7\0, port: 9001, timeout: 60\n"
      "Received header: 4\nGetTimeDays: 0\nReceived header: 8\nRunning until 365.25\n"
      "Received header: 4\nGetTimeDays: 365.25\nReceived header: 2\nGetting date: 1, 2, 2021\n"
      "Received header: 8\nRunning until 400\n"s);
  EXPECT_EQ(log.host, "node7");
  EXPECT_EQ(log.requests, 6);
  EXPECT_EQ(log.last_request, 8U);
  EXPECT_EQ(log.day, 365.25);
  EXPECT_EQ(log.date, "2021-02-01");
  EXPECT_EQ(log.until, 400);
  EXPECT_FALSE(log.cause);
}

TEST(CommsLogTest, LineWithoutItsEndDoesNotCountYet) {
  const CommsLog log = Read("Received header: 1\nReceived header: 2");
  EXPECT_EQ(log.requests, 1);
  EXPECT_EQ(log.last_request, 1U);
}

TEST(CommsLogTest, EndTellsItsCause) {
  EXPECT_EQ(Read("Process loop has exited naturally, going to sleep again ... \n").cause,
            "the master shut it down");
  EXPECT_EQ(
      Read("Request process loop failed: No or unexpected data received from Corvane\n").cause,
      "No or unexpected data received from Corvane");
}

TEST(CommsLogTest, OddDateIsLeftOut) {
  EXPECT_FALSE(Read("Getting date: soon\n").date);
}

TEST(CommsLogTest, RequestsHaveNames) {
  EXPECT_EQ(RequestName(1), "connect");
  EXPECT_EQ(RequestName(8), "run until");
  EXPECT_EQ(RequestName(20), "start date");
  EXPECT_EQ(RequestName(65520), "shut down");
  EXPECT_EQ(RequestName(0), "unknown (0)");
  EXPECT_EQ(RequestName(21), "unknown (21)");
}

TEST(CommsLogTest, HostWithoutAPortIsOne) {
  const CommsLog log = Read("Connect on host: node7\n");
  EXPECT_EQ(log.host, "node7");
  EXPECT_FALSE(log.port);
}

}  // namespace
}  // namespace inspect
