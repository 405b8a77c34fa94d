// The distribution script for a single machine.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/ports.h"
#include "tests/system/site.h"

namespace {

using testing::HasSubstr;
using testing::Not;

std::string ExampleDeck() {
  std::ifstream file(EXAMPLES_DIR "/TENWELLS.afi");
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// A program of these lines of bash.
std::string Program(const TemporaryDirectory& directory, const std::string& name,
                    const std::string& lines) {
  std::string file = directory.Write(name, "#!/bin/bash\n" + lines + "\n");
  chmod(file.c_str(), 0755);
  return file;
}

TEST(LocalScriptTest, SimulatorWritesBesideTheDataAndEndsWithItsRun) {
  Site site;
  const auto run = site.Start("CASE", ExampleDeck());
  run->Newton();
  run->Shutdown();
  EXPECT_TRUE(site.IsQuiet("CASE"));
  EXPECT_THAT(site.data().Read("CASE.out"), HasSubstr("Listening on port"));
}

TEST(LocalScriptTest, BadDeckIsExplainedInTheDaemonsLog) {
  Site site;
  site.data().Write("BAD.afi", "[run]\nunits = \"FURLONGS\"\n");
  EXPECT_EQ(site.RefusalOf("BAD"), "No host detected");
  EXPECT_THAT(site.daemon().Logged(), HasSubstr("BAD.afi:2: "));
  EXPECT_THAT(site.daemon().Logged(),
              HasSubstr("local: the simulator ended with status 1 before it listened"));
}

TEST(LocalScriptTest, MissingDataDirectoryAndSimulatorAreExplained) {
  Site site({"JOBMILL_SIMULATOR=/no/such/simulator"});
  EXPECT_EQ(site.RefusalOf("CASE"), "No host detected");
  EXPECT_THAT(site.daemon().Logged(),
              HasSubstr("local: the simulator '/no/such/simulator' cannot be executed\n"));
  std::filesystem::remove_all(site.data().path());
  EXPECT_EQ(site.RefusalOf("CASE"), "No host detected");
  EXPECT_THAT(site.daemon().Logged(), HasSubstr("local: there is no data directory '"));
}

TEST(LocalScriptTest, SimulatorIsNotLookedForInTheDataDirectory) {
  Site site({"JOBMILL_SIMULATOR=./vksim"});
  Program(site.data(), "vksim", "touch \"$1/executed\"");
  EXPECT_EQ(site.RefusalOf("CASE"), "No host detected");
  EXPECT_THAT(site.daemon().Logged(), HasSubstr("local: JOBMILL_SIMULATOR is './vksim', but has to "
                                                "be an absolute path or a name in PATH\n"));
  EXPECT_FALSE(std::filesystem::exists(site.data().File("executed")));
}

// A colon too many, as an empty variable in a profile leaves it, stands for the working directory.
TEST(LocalScriptTest, ProgramsAndLibrariesAreNotLookedForInTheDataDirectory) {
  Site site({"PATH=.:" + std::string(getenv("PATH")) + ":", "LD_LIBRARY_PATH=/none:.;"});
  for (const char* name : {"ls", "mktemp", "sed", "vksim"}) {
    Program(site.data(), name, "touch '" + site.data().File("executed") + "'");
  }
  site.data().Write("libc.so.6", "no library");
  site.Start("CASE", ExampleDeck())->Shutdown();
  EXPECT_TRUE(site.IsQuiet("CASE"));
  EXPECT_FALSE(std::filesystem::exists(site.data().File("executed")));
}

TEST(LocalScriptTest, SimulatorMayBeANameInThePath) {
  const TemporaryDirectory programs;
  std::filesystem::create_symlink(ProgramDirectory() + "/vksim", programs.File("somesim"));
  Site site(
      {"JOBMILL_SIMULATOR=somesim", "PATH=" + programs.path().string() + ":" + getenv("PATH")});
  site.Start("CASE", ExampleDeck())->Shutdown();
  EXPECT_TRUE(site.IsQuiet("CASE"));
}

TEST(LocalScriptTest, OutputOfAFailedSimulatorIsNoHostLine) {
  Site site;
  const std::string liar = site.data().Write("liar", "#!/bin/bash\necho HOST=elsewhere\nexit 3\n");
  chmod(liar.c_str(), 0755);
  Site deceived({"JOBMILL_SIMULATOR=" + liar});
  EXPECT_EQ(deceived.RefusalOf("CASE"), "No host detected");
  EXPECT_THAT(deceived.daemon().Logged(), HasSubstr("  HOST=elsewhere\n"));
  EXPECT_THAT(deceived.daemon().Logged(), HasSubstr("local: the simulator ended with status 3"));
}

// What somebody else could put where the output goes; nothing of it is followed or waited for.
TEST(LocalScriptTest, OutputTakesThePlaceOfWhatWasPlantedThere) {
  namespace fs = std::filesystem;
  const TemporaryDirectory files;
  const std::string treasure = files.Write("treasure", "gold");
  const std::string nothing = files.File("nothing");
  const std::vector<std::function<void(const std::string&)>> plants = {
      [&](const std::string& output) { fs::create_symlink(treasure, output); },
      [&](const std::string& output) { fs::create_symlink(nothing, output); },
      [&](const std::string& output) { fs::create_hard_link(treasure, output); },
      [&](const std::string& output) { ASSERT_EQ(mkfifo(output.c_str(), 0666), 0); }};
  for (const auto& plant : plants) {
    Site site;
    plant(site.data().File("CASE.out"));
    site.Start("CASE", ExampleDeck())->Shutdown();
    EXPECT_TRUE(site.IsQuiet("CASE"));
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(site.data().File("CASE.out"))));
    EXPECT_THAT(site.data().Read("CASE.out"), HasSubstr("Listening on port"));
    EXPECT_EQ(files.Read("treasure"), "gold");
    EXPECT_FALSE(fs::exists(nothing));
    for (const auto& entry : fs::directory_iterator(site.data().path())) {
      EXPECT_FALSE(entry.path().filename().string().starts_with("vk_")) << entry;
    }
  }
}

TEST(LocalScriptTest, OutputThatCannotBeReplacedIsExplained) {
  Site site;
  std::filesystem::create_directory(site.data().File("CASE.out"));
  EXPECT_EQ(site.RefusalOf("CASE"), "No host detected");
  EXPECT_THAT(site.daemon().Logged(), HasSubstr("local: cannot write '"));
  EXPECT_THAT(site.daemon().Logged(), HasSubstr("CASE.out'\n"));
}

TEST(LocalScriptTest, EndOfTheOutputIsNotReadThroughALink) {
  const TemporaryDirectory files;
  const std::string treasure = files.Write("treasure", "gold\n");
  const std::string thief = files.Write(
      "thief", "#!/bin/bash\nln -sf \"" + treasure + "\" CASE.out\necho last words\nexit 4\n");
  chmod(thief.c_str(), 0755);
  Site site({"JOBMILL_SIMULATOR=" + thief});
  EXPECT_EQ(site.RefusalOf("CASE"), "No host detected");
  EXPECT_THAT(site.daemon().Logged(), HasSubstr("  last words\n"));
  EXPECT_THAT(site.daemon().Logged(), Not(HasSubstr("gold")));
}

TEST(LocalScriptTest, RootNameThatTheSimulatorWouldTakeForAnOptionIsRefused) {
  Site site;
  EXPECT_EQ(site.RefusalOf("--help"), "No host detected");
  EXPECT_THAT(site.daemon().Logged(),
              HasSubstr("local: the root name '--help' begins with a hyphen\n"));
}

TEST(LocalScriptTest, SettingWithoutSenseIsExplained) {
  Site site({"JOBMILL_GRACE_SECONDS=soon"});
  EXPECT_EQ(site.RefusalOf("CASE"), "No host detected");
  EXPECT_THAT(site.daemon().Logged(), HasSubstr("local: JOBMILL_GRACE_SECONDS is 'soon', but has "
                                                "to be a whole number from 0 to 99999999\n"));
}

TEST(LocalScriptTest, TakenCommsPortIsExplained) {
  const Descriptor taken = BindFreePort(1);
  const std::string port = std::to_string(PortOf(taken.get()));
  Site site({}, {"-o", port, "-n", "2"});
  site.data().Write("CASE.afi", ExampleDeck());
  EXPECT_EQ(site.RefusalOf("CASE"), "No host detected");
  EXPECT_THAT(site.daemon().Logged(), HasSubstr("local: port " + port + " is taken"));
}

TEST(LocalScriptTest, ListenerOfAnotherAccountIsNotTheSimulator) {
  if (geteuid() != 0) GTEST_SKIP() << "root alone can be another account";
  const TemporaryDirectory files;
  std::filesystem::permissions(files.path(), std::filesystem::perms(0755));
  std::filesystem::copy_file(ProgramDirectory() + "/vksim", files.File("vksim"));
  const std::string impostor =
      Program(files, "impostor",
              "exec setpriv --reuid 61234 --clear-groups " + files.File("vksim") + " \"$@\"");
  Site site({"JOBMILL_SIMULATOR=" + impostor});
  site.data().Write("CASE.afi", ExampleDeck());
  EXPECT_EQ(site.RefusalOf("CASE"), "No host detected");
  EXPECT_THAT(site.daemon().Logged(),
              HasSubstr(" was taken on this machine by a process of account 61234 that is none of "
                        "the run's\n"));
  EXPECT_TRUE(Eventually([&] { return ProcessesWith(impostor).empty(); }));
}

TEST(LocalScriptTest, ListenerIsTheSimulatorsWhenItHasTheMarkOfTheRun) {
  const TemporaryDirectory files;
  // Neither is a descendant of the simulator's first process.
  const std::string simulator = "setsid " + ProgramDirectory() + "/vksim \"$@\" &); exec sleep 60";
  Site other({"JOBMILL_SIMULATOR=" + Program(files, "other", "(env -i " + simulator)});
  other.data().Write("CASE.afi", ExampleDeck());
  EXPECT_EQ(other.RefusalOf("CASE"), "No host detected");
  EXPECT_THAT(other.daemon().Logged(), HasSubstr(" that is none of the run's\n"));
  for (const pid_t pid : ProcessesWith(other.data().path().string())) kill(pid, SIGKILL);

  Site own(
      {"JOBMILL_SIMULATOR=" + Program(files, "own", "(" + simulator), "JOBMILL_GRACE_SECONDS=0"});
  own.Start("CASE", ExampleDeck())->Shutdown();
  EXPECT_TRUE(own.IsQuiet("CASE"));
}

TEST(LocalScriptTest, SimulatorThatNeverListensIsGivenUp) {
  const TemporaryDirectory files;
  const std::string mute = Program(files, "mute", "sleep 60; :");
  Site site({"JOBMILL_SIMULATOR=" + mute, "JOBMILL_LISTEN_SECONDS=1"});
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(site.RefusalOf("CASE"), "No host detected");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  EXPECT_THAT(site.daemon().Logged(), HasSubstr("local: the simulator did not listen on port "));
  EXPECT_THAT(site.daemon().Logged(), HasSubstr(" within 1 s; see '"));
  EXPECT_TRUE(Eventually([&] { return ProcessesWith(mute).empty(); }));
}

TEST(LocalScriptTest, SimulatorThatDoesNotListenYetEndsWithItsController) {
  const TemporaryDirectory files;
  const std::string mute = Program(files, "mute", "sleep 60; :");
  Site site({"JOBMILL_SIMULATOR=" + mute});
  std::thread master([&] { EXPECT_NE(site.RefusalOf("CASE"), "launched"); });
  EXPECT_TRUE(Eventually([&] { return !ProcessesWith(mute).empty(); }));
  for (const pid_t child : ChildrenOf(site.daemon().pid())) kill(child, SIGKILL);
  master.join();
  EXPECT_TRUE(Eventually([&] { return ProcessesWith(mute).empty(); }));
}

TEST(LocalScriptTest, SimulatorOfADeadControllerIsEnded) {
  Site site({"JOBMILL_GRACE_SECONDS=0"});
  const auto run = site.Start("CASE", ExampleDeck());
  const std::vector<pid_t> children = ChildrenOf(site.daemon().pid());
  ASSERT_EQ(children.size(), 1U);
  kill(children[0], SIGKILL);
  EXPECT_THROW(run->GetTimeDays(), std::exception);
  EXPECT_TRUE(site.IsQuiet("CASE"));
}

TEST(LocalScriptTest, SimulatorThatIgnoresTheEndIsKilledWithItsChildren) {
  Site site({"JOBMILL_GRACE_SECONDS=0"});
  // Listens through the stand-in, and will not go.
  const std::string stubborn =
      site.data().Write("stubborn", "#!/bin/bash\ntrap '' TERM\n\"" + ProgramDirectory() +
                                        "/vksim\" \"$@\" &\nwhile true; do sleep 0.2; done\n");
  chmod(stubborn.c_str(), 0755);
  Site obstinate({"JOBMILL_SIMULATOR=" + stubborn, "JOBMILL_GRACE_SECONDS=0"});
  const auto run = obstinate.Start("CASE", ExampleDeck());
  run->Shutdown();
  EXPECT_TRUE(obstinate.IsQuiet("CASE"));
  EXPECT_TRUE(Eventually([&] { return ProcessesWith(stubborn).empty(); }));
}

// One in the simulator's group and one that has left it, both deaf to SIGTERM.
std::string SimulatorWithDeafChildren(const TemporaryDirectory& directory) {
  return Program(directory, "parent",
                 "deaf() { trap '' TERM; for i in {1..300}; do sleep 0.2; done; }\n"
                 "export -f deaf\n"
                 "bash -c deaf \"$0\" &\nsetsid bash -c deaf \"$0\" &\n\"" +
                     ProgramDirectory() + "/vksim\" \"$@\"");
}

TEST(LocalScriptTest, ChildrenThatOutliveTheSimulatorAreKilledAfterTheGraceTime) {
  const TemporaryDirectory files;
  const std::string simulator = SimulatorWithDeafChildren(files);
  Site site({"JOBMILL_SIMULATOR=" + simulator, "JOBMILL_GRACE_SECONDS=2"});
  site.Start("CASE", ExampleDeck())->Shutdown();
  EXPECT_FALSE(Eventually([&] { return ProcessesWith(simulator).size() < 2; },
                          std::chrono::milliseconds(1500)));
  EXPECT_TRUE(site.IsQuiet("CASE"));
  EXPECT_TRUE(Eventually([&] { return ProcessesWith(simulator).empty(); }));
}

TEST(LocalScriptTest, ChildrenThatOutliveTheSimulatorAreKilledWithItsController) {
  const TemporaryDirectory files;
  const std::string simulator = SimulatorWithDeafChildren(files);
  Site site({"JOBMILL_SIMULATOR=" + simulator, "JOBMILL_GRACE_SECONDS=0"});
  const auto run = site.Start("CASE", ExampleDeck());
  const std::vector<pid_t> children = ChildrenOf(site.daemon().pid());
  ASSERT_EQ(children.size(), 1U);
  kill(children[0], SIGKILL);
  EXPECT_TRUE(Eventually([&] { return ProcessesWith(simulator).empty(); }));
}

TEST(LocalScriptTest, ChildrenOfASimulatorThatEndsBeforeItListensAreKilled) {
  const TemporaryDirectory files;
  const std::string simulator = SimulatorWithDeafChildren(files);
  Site site({"JOBMILL_SIMULATOR=" + simulator});
  site.data().Write("CASE.afi", "[run]\nunits = \"FURLONGS\"\n");
  EXPECT_EQ(site.RefusalOf("CASE"), "No host detected");
  EXPECT_TRUE(Eventually([&] { return ProcessesWith(simulator).empty(); }));
}

TEST(LocalScriptTest, ModelsOfClusterRunsAreTheirCopies) {
  Site site;
  site.data().Write("CASE.afi", ExampleDeck());
  master::Launch launch(
      master::FrameChannel::ConnectTo("127.0.0.1", site.daemon().port(), std::chrono::seconds(5)));
  launch.ExchangeVersions();
  master::RunRequest request;
  request.cluster = "3";
  request.path = site.data().path().string() + "/";
  request.root = "CASE";
  launch.Request(request);
  EXPECT_EQ(launch.AwaitHost(), "localhost");
  master::Run run(launch.Release());
  run.Connect();
  run.Shutdown();
  EXPECT_TRUE(site.IsQuiet("CASE_3"));
  EXPECT_THAT(site.data().Read("CASE_3.out"), HasSubstr("Listening on port"));
  EXPECT_EQ(site.data().Read("CASE_3.afi"), ExampleDeck());
}

}  // namespace
