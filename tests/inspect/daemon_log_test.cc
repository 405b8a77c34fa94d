#include "inspect/daemon_log.h"

#include <gtest/gtest.h>

#include "log/timestamp.h"

namespace inspect {
namespace {

constexpr std::time_t kStart = 1795171994;

// What the log says of a launch, in the pieces that other launches may come between.
struct LaunchLines {
  std::string path = "/data/";
  std::string root = "CASE";
  std::string user = "alice";
  std::string port = "9001";
  std::string cluster = "0";
  std::string script_root = root;

  std::string Begin(std::time_t start = kStart) const {
    return "Accepted incoming connection: " + timestamp(start) +
           "Answering call in child process: " + timestamp(start) +
           "Sending back version number: 3\n";
  }
  std::string Request() const {
    return "Clust: " + cluster + "\nPath: " + path + "\nRoot: " + root + "\nProc: 4\nVer: 20172\n";
  }
  std::string User() const {
    return "Windows user received: " + user + "\nDebug flag received: 0\n";
  }
  std::string Script() const {
    return "Argument list\nArg 1: /s\nArg 2: 4\nArg 3: " + path + "\nArg 4: " + script_root +
           "\nArg 5: " + port + "\nArg 6: 0\n";
  }
  std::string Whole(std::time_t start = kStart) const {
    return Begin(start) + Request() + User() + Script();
  }
  LaunchKey Key(std::time_t start = kStart) const {
    return {start, path, script_root, std::stoi(port), {}};
  }
};

const LaunchLines kOurs;
const LaunchLines kOther = {.path = "/other/", .root = "MODEL", .user = "bob", .port = "9002"};

std::optional<Launch> Find(const std::string& text, const LaunchKey& key) {
  return DaemonLog(text).Find(key);
}

TEST(DaemonLogTest, LaunchIsFoundAmongOthers) {
  const auto launch = Find(kOther.Whole() + kOurs.Whole() + kOther.Whole(), kOurs.Key());
  ASSERT_TRUE(launch);
  EXPECT_EQ(launch->path, "/data/");
  EXPECT_EQ(launch->root, "CASE");
  EXPECT_EQ(launch->processes, 4);
  EXPECT_EQ(launch->port, 9001);
  EXPECT_EQ(launch->windows_user, "alice");
  EXPECT_EQ(launch->version, "20172");
}

TEST(DaemonLogTest, BusyChildMayLogItsBeginningLate) {
  EXPECT_TRUE(Find(kOurs.Whole(kStart + 20), kOurs.Key()));
}

TEST(DaemonLogTest, EarlierLaunchOfTheSameModelOnTheSamePortIsNotMeant) {
  LaunchLines earlier = kOurs;
  earlier.user = "mallory";
  const std::string text = earlier.Whole(kStart - 100) + kOurs.Whole();
  EXPECT_EQ(Find(text, kOurs.Key())->windows_user, "alice");
}

TEST(DaemonLogTest, PortOrModelIsEnough) {
  const std::string text = kOther.Whole() + kOurs.Whole();
  EXPECT_EQ(Find(text, {kStart, {}, {}, 9001, {}})->windows_user, "alice");
  EXPECT_EQ(Find(text, {kStart, {}, {}, {}, "/data/CASE"})->windows_user, "alice");
  EXPECT_FALSE(Find(text, {kStart, {}, {}, {}, {}}));
  EXPECT_FALSE(Find(text, {kStart, {}, {}, 9003, {}}));
  EXPECT_FALSE(Find(text + kOurs.Whole(), {kStart, {}, {}, {}, "/data/CASE"}));
}

TEST(DaemonLogTest, ExtendedRootOfAClusterRunIsTheScripts) {
  LaunchLines lines = kOurs;
  lines.cluster = "3";
  lines.script_root = "CASE_3";
  EXPECT_EQ(Find(lines.Whole(), lines.Key())->windows_user, "alice");
}

TEST(DaemonLogTest, UserOfMixedLinesIsNotGuessed) {
  const std::string text = kOurs.Begin() + kOther.Begin() + kOurs.Request() + kOther.Request() +
                           kOther.User() + kOurs.User() + kOurs.Script() + kOther.Script();
  const auto launch = Find(text, kOurs.Key());
  ASSERT_TRUE(launch);
  EXPECT_FALSE(launch->windows_user);
  EXPECT_EQ(launch->version, "20172");
}

// A master may put line ends into its path, and lines after them.
TEST(DaemonLogTest, LinesWithinAFieldAreTakenForNobodys) {
  LaunchLines liar = kOther;
  liar.path = "/other/\n" + kOurs.Request() + "Windows user received: mallory\n" + kOurs.Script();
  const auto launch = Find(liar.Whole() + kOurs.Whole(), kOurs.Key());
  EXPECT_FALSE(launch);
  liar.path = "/other/\nWindows user received: mallory";
  const auto mixed = Find(kOurs.Begin() + kOurs.Request() + liar.Begin() + liar.Request() +
                              kOurs.User() + kOurs.Script(),
                          kOurs.Key());
  ASSERT_TRUE(mixed);
  EXPECT_FALSE(mixed->windows_user);
}

TEST(DaemonLogTest, JobIsFoundByItsName) {
  const std::string text =
      "Arg 7: slurm: job 12 (vk_CASE_abcde) is submitted\nlsf: job 7 (vk_MODEL_fghij) is "
      "submitted\nAnswering call in child process: pbs: job 4 (vk_OTHER_klmno) is submitted\n";
  const DaemonLog log(text);
  EXPECT_EQ(log.FindJob("vk_CASE_abcde")->scheduler, "slurm");
  EXPECT_EQ(log.FindJob("vk_CASE_abcde")->number, "12");
  EXPECT_EQ(log.FindJob("vk_MODEL_fghij")->number, "7");
  EXPECT_EQ(log.FindJob("vk_OTHER_klmno")->scheduler, "pbs");
  EXPECT_FALSE(log.FindJob("vk_CASE_abcd"));
}

TEST(DaemonLogTest, JobThatIsToldTwiceIsNobodys) {
  const std::string text =
      "liar: job 66 (vk_CASE_abcde) is submitted\nslurm: job 12 (vk_CASE_abcde) is submitted\n";
  EXPECT_FALSE(DaemonLog(text).FindJob("vk_CASE_abcde"));
}

TEST(DaemonLogTest, LinesThatAreCutOffTellNothing) {
  const std::string whole = kOurs.Whole();
  for (std::size_t end = whole.find("Clust: "); end < whole.size();
       end = whole.find('\n', end) + 1) {
    EXPECT_FALSE(Find(whole.substr(0, end), kOurs.Key())) << whole.substr(0, end);
  }
  // Other lines in their places.
  for (const char* label : {"Path: ", "Ver: ", "Arg 3: ", "Arg 6: "}) {
    std::string text = whole;
    text.replace(text.find(label), 3, "xxx");
    const auto launch = Find(text, kOurs.Key());
    EXPECT_FALSE(launch && launch->windows_user) << label;
  }
}

TEST(DaemonLogTest, TimesThatAreNoneAreEarlierThanAll) {
  EXPECT_FALSE(Find(
      "Answering call in child process: soon\n" + kOurs.Request() + kOurs.User() + kOurs.Script(),
      kOurs.Key()));
  EXPECT_FALSE(Find("", kOurs.Key()));
}

TEST(DaemonLogTest, LineWithoutAJobIsNone) {
  EXPECT_FALSE(DaemonLog("something (vk_CASE_abcde) is submitted\n").FindJob("vk_CASE_abcde"));
}

}  // namespace
}  // namespace inspect
