#include "inspect/accepted.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/inspect/findings.h"
#include "tests/support/temporary_directory.h"

namespace inspect {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class AcceptedTest : public testing::Test {
 protected:
  AcceptedTest() {
    for (const char* file : {"/a", "/b"}) {
      findings_.push_back({"users.star", Severity::kWarning, file, 3, "", "", ""});
    }
    findings_.push_back({"host.open", Severity::kWarning, "", 0, "", "", ""});
  }

  // What is left of the findings.
  std::vector<std::string> Left(const std::string& text) {
    directory_.Write("check.accepted", text);
    Accepted accepted(directory_.path());
    Findings left = findings_;
    taken_ = accepted.Take(left);
    wrong_ = Ids(accepted.Wrong({"users", "host"}));
    return Ids(left);
  }

  TemporaryDirectory directory_;
  Findings findings_;
  std::vector<AcceptedFinding> taken_;
  std::vector<std::string> wrong_;
};

TEST_F(AcceptedTest, WithoutAFileNothingIsAccepted) {
  Accepted accepted(directory_.path());
  EXPECT_THAT(accepted.Take(findings_), IsEmpty());
  EXPECT_EQ(findings_.size(), 3U);
  EXPECT_THAT(accepted.Wrong({"users"}), IsEmpty());
}

TEST_F(AcceptedTest, IdAloneIsForAllPlaces) {
  EXPECT_THAT(Left("users.star because\n"), ElementsAre("warning host.open"));
  EXPECT_EQ(taken_.size(), 2U);
  EXPECT_THAT(wrong_, IsEmpty());
}

TEST_F(AcceptedTest, PlaceIsAFileOrALineOfIt) {
  EXPECT_THAT(Left("users.star:/a  because of this\n"),
              ElementsAre("warning users.star:3", "warning host.open"));
  ASSERT_EQ(taken_.size(), 1U);
  EXPECT_EQ(taken_[0].finding.file, "/a");
  EXPECT_EQ(taken_[0].reason, "because of this");
  EXPECT_THAT(Left("users.star:/b:3 because\n"),
              ElementsAre("warning users.star:3", "warning host.open"));
  EXPECT_THAT(Left("users.star:/b:4 because\n").size(), 3U);
  EXPECT_THAT(wrong_, ElementsAre("warning accepted.unused:1"));
}

TEST_F(AcceptedTest, EntriesWithoutMeaningAreFound) {
  EXPECT_EQ(
      Left("# all\n\nusers.stars because\nusers.star\nhost.open:\t\naccepted.unused x\n").size(),
      3U);
  EXPECT_THAT(wrong_, ElementsAre("warning accepted.unknown:3", "warning accepted.no-reason:4",
                                  "warning accepted.no-reason:5", "warning accepted.unknown:6"));
}

TEST_F(AcceptedTest, UnusedEntriesOfWhatWasNotJudgedAreNotTold) {
  EXPECT_EQ(Left("port.taken because\nusers.root because\n").size(), 3U);
  EXPECT_THAT(wrong_, ElementsAre("warning accepted.unused:2"));
}

TEST_F(AcceptedTest, FileThatOthersCanChangeAcceptsNothing) {
  chmod(directory_.Write("check.accepted", "").c_str(), 0666);
  EXPECT_EQ(Left("host.open because\n").size(), 3U);
  EXPECT_THAT(wrong_, ElementsAre("warning accepted.writable"));
  std::filesystem::remove(directory_.File("check.accepted"));
  std::filesystem::create_directory(directory_.File("check.accepted"));
  Accepted accepted(directory_.path());
  EXPECT_THAT(Ids(accepted.Wrong({})), ElementsAre("warning accepted.unreadable"));
}

TEST_F(AcceptedTest, DirectoryThatIsNoneHasNoFile) {
  const Accepted accepted(directory_.Write("file", ""));
  EXPECT_THAT(accepted.Wrong({"users"}), IsEmpty());
}

TEST_F(AcceptedTest, FirstEntryForAFindingIsItsReason) {
  EXPECT_THAT(Left("host.open one\nhost.open two\n"), testing::SizeIs(2));
  ASSERT_EQ(taken_.size(), 1U);
  EXPECT_EQ(taken_[0].reason, "one");
}

}  // namespace
}  // namespace inspect
