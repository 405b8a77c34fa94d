#include "log/timestamp.h"

#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <limits>
#include <optional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

namespace {

// The variable TZ of this process; null: none.
class Zone {
 public:
  Zone() {
    if (const char* zone = getenv("TZ")) before_ = zone;
  }
  Zone(const Zone&) = delete;
  Zone& operator=(const Zone&) = delete;
  ~Zone() { Set(before_ ? before_->c_str() : nullptr); }

  void Set(const char* zone) { zone != nullptr ? setenv("TZ", zone, 1) : unsetenv("TZ"); }

 private:
  std::optional<std::string> before_;
};

// A file of the kind of /etc/localtime, for a zone so many hours to the east all the year.
std::string ZoneFile(int hours) {
  const int seconds = hours * 3600;
  std::string file = "TZif" + std::string(16, '\0');
  for (const char count : {'\0', '\0', '\0', '\0', '\1', '\4'}) {
    file += std::string(3, '\0') + count;
  }
  for (const int shift : {24, 16, 8, 0}) file += static_cast<char>(seconds >> shift);
  return file + std::string(2, '\0') + "ZON" + std::string(1, '\0');
}

TEST(TimestampTest, IsTheAsctimeFormWithOneNewlineAtTheEnd) {
  EXPECT_THAT(timestamp(),
              testing::MatchesRegex(
                  "[A-Z][a-z][a-z] [A-Z][a-z][a-z] [ 0-9][0-9] ..:..:.. [0-9][0-9][0-9][0-9]\n"));
}

TEST(TimestampTest, IsThePresentLocalTime) {
  const time_t before = time(nullptr);
  tm parsed{};
  ASSERT_NE(strptime(timestamp().c_str(), "%a %b %d %H:%M:%S %Y", &parsed), nullptr);
  parsed.tm_isdst = -1;
  const time_t stamped = mktime(&parsed);
  EXPECT_GE(stamped, before);
  EXPECT_LE(stamped, time(nullptr));
}

TEST(TimestampTest, DayIsPaddedToTwoPlacesWithABlank) {
  Zone zone;
  zone.Set("UTC");
  EXPECT_EQ(timestamp(0), "Thu Jan  1 00:00:00 1970\n");
  EXPECT_EQ(timestamp(1794801251), "Mon Nov 16 03:54:11 2026\n");
}

TEST(TimestampTest, ZoneIsThatOfEachCall) {
  Zone zone;
  zone.Set("UTC");
  EXPECT_EQ(timestamp(0), "Thu Jan  1 00:00:00 1970\n");
  zone.Set("EAST-1");
  EXPECT_EQ(timestamp(0), "Thu Jan  1 01:00:00 1970\n");
  zone.Set("WEST+5");
  EXPECT_EQ(timestamp(0), "Wed Dec 31 19:00:00 1969\n");
}

// As when an administrator gives the machine another zone under a daemon that runs.
TEST(TimestampTest, ZoneOfTheMachineIsThatOfEachCall) {
  if (getuid() != 0 || access("/etc/localtime", F_OK) != 0) {
    GTEST_SKIP() << "mounting needs root, and a zone to be mounted over";
  }
  const TemporaryDirectory directory;
  ChildProcess::Options options;
  options.in_child = [&directory] {
    unsetenv("TZ");
    if (unshare(CLONE_NEWNS) != 0 ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      return 77;
    }
    std::string stamps;
    for (const int hours : {3, 7}) {
      const std::string file = directory.Write(std::to_string(hours), ZoneFile(hours));
      if (mount(file.c_str(), "/etc/localtime", nullptr, MS_BIND, nullptr) != 0) return 77;
      stamps += timestamp(0);
    }
    directory.Write("stamps", stamps);
    return 0;
  };
  const int status = ChildProcess({}, options).Wait(std::chrono::seconds(10)).value_or(-1);
  if (status == 77) GTEST_SKIP() << "no private mounts on this machine";
  EXPECT_EQ(directory.Read("stamps"), "Thu Jan  1 03:00:00 1970\nThu Jan  1 07:00:00 1970\n");
}

TEST(TimestampTest, TimeWithoutAnAsctimeFormIsTheNewlineAlone) {
  constexpr time_t kYear12000 = 316'523'548'800;
  EXPECT_EQ(timestamp(kYear12000), "\n");
  EXPECT_EQ(timestamp(std::numeric_limits<time_t>::max()), "\n");  // no calendar reaches there
}

}  // namespace
