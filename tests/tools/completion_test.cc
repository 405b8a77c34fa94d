#include "tools/completion/completion.h"

#include <array>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tools/program.h"

namespace {

using completion::Answer;
using completion::Words;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class CompletionTest : public testing::Test {
 protected:
  CompletionTest() {
    app_.add_option("--color", color_, "which")->type_name("{red,green}");
    app_.add_option("--input", text_)->type_name("FILE");
    app_.add_option("-d", text_, "where")->check(CLI::ExistingDirectory);
    app_.add_flag("-q,--quiet", flag_);
    app_.add_flag("--secret", flag_)->group("");
    app_.add_option_group("More")->add_flag("--more", flag_);
    CLI::App* copy = app_.add_subcommand("copy", "makes another");
    copy->add_option("--mode", text_)->check(CLI::IsMember({"fast", "safe"}));
    copy->add_option("FROM", text_)->type_name("FILE");
    copy->add_option("TO", text_)->type_name("DIR");
    app_.add_subcommand("compare")->add_subcommand("deeply");
  }

  Answer Complete(const Words& words) const { return completion::Complete(app_, words); }
  std::vector<std::string> WordsFor(const Words& words) const {
    std::vector<std::string> found;
    for (const auto& candidate : Complete(words).candidates) found.push_back(candidate.word);
    return found;
  }

  CLI::App app_;
  std::string color_;
  std::string text_;
  bool flag_ = false;
};

TEST_F(CompletionTest, SubcommandsComeWithTheirDescriptions) {
  EXPECT_THAT(WordsFor({"co"}), ElementsAre("copy", "compare"));
  EXPECT_THAT(WordsFor({"cop"}), ElementsAre("copy"));
  EXPECT_EQ(Complete({"cop"}).candidates[0].help, "makes another");
  EXPECT_THAT(WordsFor({"compare", ""}), ElementsAre("deeply"));
  EXPECT_THAT(WordsFor({"x"}), IsEmpty());
}

TEST_F(CompletionTest, OptionsAreThoseOfTheHelpForThisSubcommand) {
  EXPECT_THAT(WordsFor({"-"}),
              ElementsAre("--help", "--color", "--input", "-d", "--quiet", "--more"));
  EXPECT_THAT(WordsFor({"--q"}), ElementsAre("--quiet"));
  EXPECT_THAT(WordsFor({"--quiet", "copy", "--"}), ElementsAre("--help", "--mode"));
}

TEST_F(CompletionTest, ValuesAreThoseOfTheType) {
  EXPECT_THAT(WordsFor({"--color", ""}), ElementsAre("red", "green"));
  EXPECT_THAT(WordsFor({"--color", "g"}), ElementsAre("green"));
  EXPECT_THAT(WordsFor({"copy", "--mode", ""}), ElementsAre("fast", "safe"));
  EXPECT_EQ(Complete({"--input", ""}).names, "files");
  EXPECT_EQ(Complete({"-d", ""}).names, "directories");
  EXPECT_THAT(WordsFor({"--color", "red", "cop"}), ElementsAre("copy"));
  EXPECT_THAT(WordsFor({"-q", "cop"}), ElementsAre("copy"));
}

TEST_F(CompletionTest, ValuesMayFollowAnEqualsSign) {
  EXPECT_THAT(WordsFor({"--color=g"}), ElementsAre("--color=green"));
  EXPECT_THAT(WordsFor({"--colour=g"}), IsEmpty());
  EXPECT_THAT(WordsFor({"--color=red", "cop"}), ElementsAre("copy"));
  // As bash cuts it.
  EXPECT_THAT(WordsFor({"--color", "="}), ElementsAre("red", "green"));
  EXPECT_THAT(WordsFor({"--color", "=", "g"}), ElementsAre("green"));
  EXPECT_THAT(WordsFor({"--color", "=", "red", "cop"}), ElementsAre("copy"));
}

TEST_F(CompletionTest, PositionalsAreCounted) {
  EXPECT_EQ(Complete({"copy", ""}).names, "files");
  EXPECT_EQ(Complete({"copy", "a", "--mode", "fast", ""}).names, "directories");
  EXPECT_EQ(Complete({"copy", "a", "b", ""}).names, "");
  EXPECT_THAT(WordsFor({"copy", "--", ""}), IsEmpty());
}

TEST_F(CompletionTest, CommandsAfterTheOptionsAreLeftToWhoKnowsThem) {
  app_.prefix_command();
  Words seen;
  const auto commands = [&seen](const Words& words) {
    seen = words;
    return Answer{{{"known", ""}}, ""};
  };
  EXPECT_EQ(
      completion::Complete(app_, {"--color", "red", "a", "--b", "c"}, commands).candidates[0].word,
      "known");
  EXPECT_THAT(seen, ElementsAre("a", "--b", "c"));
  completion::Complete(app_, {"--quiet", ""}, commands);
  EXPECT_THAT(seen, ElementsAre(""));
}

TEST(Asked, IsForTheFirstArgumentAlone) {
  EXPECT_FALSE(completion::Asked(1, std::array<const char*, 1>{"p"}.data()));
  EXPECT_FALSE(completion::Asked(3, std::array<const char*, 3>{"p", "x", "--complete"}.data()));
  EXPECT_THAT(*completion::Asked(2, std::array<const char*, 2>{"p", "--complete"}.data()),
              ElementsAre(""));
  EXPECT_THAT(*completion::Asked(4, std::array<const char*, 4>{"p", "--complete", "a", ""}.data()),
              ElementsAre("a", ""));
}

std::string VkmasterFor(Words words) {
  words.insert(words.begin(), "--complete");
  const Outcome outcome = RunVkmaster(words);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");
  return outcome.out;
}

TEST(VkmasterCompletion, OptionsAndTheirValuesAreKnown) {
  EXPECT_EQ(
      VkmasterFor({"--kee"}),
      "--keep-going\tpass over commands that cannot be carried out, such as those for a well that "
      "the model lacks, and go on\n");
  EXPECT_EQ(VkmasterFor({"--api", ""}), "2016.2\t\n2017.2\t\n");
  EXPECT_EQ(VkmasterFor({"--step", "m"}), "monthly\t\n");
  EXPECT_EQ(VkmasterFor({"--file", ""}), ":files\n");
  EXPECT_EQ(VkmasterFor({"--config", ""}), ":files\n");
  EXPECT_EQ(VkmasterFor({"--path", ""}), ":directories\n");
}

TEST(VkmasterCompletion, CommandsAreThoseOfThePrompt) {
  EXPECT_EQ(VkmasterFor({"--port", "5000", "unt"}).substr(0, 6), "until\t");
  EXPECT_EQ(VkmasterFor({"until", "+30", "st"}), "step\t\n");
  EXPECT_EQ(VkmasterFor({"time", "then", "tim"}), "time\tsimulated time in days since the start\n");
  EXPECT_EQ(VkmasterFor({"constrain", "P1", "bh"}), "bhp=\t\n");
  EXPECT_THAT(VkmasterFor({""}), HasSubstr("\nrun\tcarry out a plan\n"));
  EXPECT_EQ(VkmasterFor({"run", ""}), ":files\n");
  EXPECT_EQ(VkmasterFor({"run", "--che"}), "--check\tsay what the plan does, without a daemon\n");
  EXPECT_THAT(VkmasterFor({"run", "plan.toml", "--over"}), HasSubstr("--overwrite\t"));
  EXPECT_EQ(VkmasterFor({"run", "--api", ""}), "2016.2\t\n2017.2\t\n");
  EXPECT_THAT(VkmasterFor({"time", "then", "r"}), Not(HasSubstr("run")));
  EXPECT_EQ(VkmasterFor({"report", ""}), ":directories\n");
  EXPECT_EQ(VkmasterFor({"report", "results", ""}), ":files\n");
  EXPECT_EQ(VkmasterFor({"composition", ""}), "") << "there is no run yet to ask for its names";
}

}  // namespace
