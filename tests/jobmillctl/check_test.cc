#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/jobmillctl/jobmillctl.h"
#include "tests/support/temporary_directory.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

class CheckTest : public testing::Test {
 protected:
  CheckTest() {
    directory_.Write("vkjobmill.exe", "");
    directory_.Write(".vk_corvane_users", "alice daemon 1\n");
  }

  Outcome Check(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {"check", "--configuration", directory_.path().string(),
                                         "--program", directory_.File("vkjobmill.exe")});
    return Jobmillctl(arguments);
  }

  TemporaryDirectory directory_;
};

TEST_F(CheckTest, ErrorIsOneLineAndGivesOne) {
  const Outcome outcome = Check({"nix"});
  const std::string file = directory_.File("nix.conf");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.out, StartsWith("error: " + file + ": cannot be read: "));
  EXPECT_THAT(outcome.out, HasSubstr(" [options.unreadable]\n"));
  EXPECT_EQ(outcome.err, "");
}

TEST_F(CheckTest, JsonIsOneDocument) {
  const Outcome outcome = Check({"--json", "nix"});
  EXPECT_EQ(outcome.status, 1);
  const json document = json::parse(outcome.out);
  EXPECT_EQ(document.at("schema"), 1);
  EXPECT_EQ(document.at("sites").at(0).at("name"), "nix");
  EXPECT_EQ(document.at("findings").at(0).at("id"), "options.unreadable");
  EXPECT_EQ(document.at("findings").at(0).at("severity"), "error");
  EXPECT_GE(document.at("counts").at("error"), 1);
}

TEST_F(CheckTest, CommandLineWithoutMeaningGivesTwo) {
  EXPECT_EQ(Check({"a/b"}).status, 2);
  EXPECT_EQ(Check({""}).status, 2);
  EXPECT_EQ(Check({"a", "--", "-p", "5000"}).status, 2);
  EXPECT_EQ(Check({"--nonsense"}).status, 2);
  EXPECT_EQ(Jobmillctl({}).status, 2);
}

}  // namespace
