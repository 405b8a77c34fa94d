#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/simulator/decks.h"
#include "tests/support/child_process.h"
#include "tests/support/wire_bytes.h"

extern char** environ;  // NOLINT(readability-redundant-declaration): not in every unistd.h

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

/// A process whose standard output and error are read here.
class Program {
 public:
  explicit Program(std::vector<std::string> arguments) {
    std::array<int, 2> out{};
    if (pipe2(out.data(), O_CLOEXEC) != 0) std::abort();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, out[1], 2);
    arguments.insert(arguments.begin(), ProgramDirectory() + "/vksim");
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& each : arguments) argv.push_back(each.data());
    argv.push_back(nullptr);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) std::abort();
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    output_ = out[0];
  }

  ~Program() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    close(output_);
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  void Signal(int signal) const { kill(pid_, signal); }

  /// Reads until `text` has come, or the output has ended, or nothing came for ten seconds.
  bool Until(const std::string& text) {
    while (seen_.find(text) == std::string::npos) {
      if (!More()) return false;
    }
    return true;
  }

  /// The port that it says it listens on; 0 if it says none.
  std::uint16_t Port() {
    const std::string words = "Listening on port ";
    if (!Until(words)) return 0;
    while (seen_.find('\n', seen_.find(words)) == std::string::npos && More()) continue;
    return static_cast<std::uint16_t>(std::stoul(seen_.substr(seen_.find(words) + words.size())));
  }

  /// The exit status, once the output has ended; -1 if it does not end by itself.
  int Finish() {
    while (More()) continue;
    int status = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (waitpid(pid_, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > end) return -1;
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  [[nodiscard]] const std::string& seen() const { return seen_; }

 private:
  bool More() {
    pollfd readable{output_, POLLIN, 0};
    if (poll(&readable, 1, 10'000) != 1) return false;
    std::array<char, 4096> bytes{};
    const ssize_t n = read(output_, bytes.data(), bytes.size());
    if (n > 0) seen_.append(bytes.data(), static_cast<std::size_t>(n));
    return n > 0;
  }

  pid_t pid_ = -1;
  int output_ = -1;
  std::string seen_;
};

int Connect(std::uint16_t port) {
  const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_port = htons(port);
  name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(descriptor, std::bit_cast<sockaddr*>(&name), sizeof name) == 0) return descriptor;
  close(descriptor);
  return -1;
}

const std::string kStarted =
    wire::Framed(wire::Mess("STARTED") + wire::Cstr("ERRORS", {}) + wire::Mess("END"));

std::string Step(const std::string& position, double time, const std::vector<int>& date) {
  return wire::Framed(wire::Mess("STEP") + wire::Cstr("POSITION", {position}) +
                      wire::Doub("TIME", {time}) + wire::Inte("DATE", date) + wire::Mess("END"));
}

class VksimTest : public testing::Test {
 public:
  VksimTest() {
    std::string name = (std::filesystem::temp_directory_path() / "vksim_test.XXXXXX").string();
    directory_ = mkdtemp(name.data());
    Write(decks::kBlackOil);
  }
  ~VksimTest() override {
    if (connection_ >= 0) close(connection_);
    std::filesystem::remove_all(directory_);
  }

 protected:
  void Write(const std::string& deck) const { std::ofstream(directory_ + "/CASE.afi") << deck; }

  [[nodiscard]] std::vector<std::string> Arguments(std::vector<std::string> more = {}) const {
    std::vector<std::string> all{directory_, "CASE", "--port", "0", "--wait-seconds", "20"};
    all.insert(all.end(), more.begin(), more.end());
    return all;
  }

  void Send(const std::string& message) const { WriteAll(connection_, wire::Framed(message)); }
  void Expect(const std::string& bytes) const {
    EXPECT_EQ(ReadExactly(connection_, bytes.size()), bytes);
  }
  void SetUpRun(Program& program) {
    const std::uint16_t port = program.Port();
    ASSERT_NE(port, 0) << program.seen();
    connection_ = Connect(port);
    ASSERT_GE(connection_, 0);
    Send(wire::Mess("SETUP") + wire::Cstr("VERSION", {"V2"}) + wire::Mess("END"));
    Expect(kStarted);
    Expect(Step("MODEL_DEFINITION", 0, {2020, 2, 27, 0, 0, 0}));
  }

  std::string directory_;
  int connection_ = -1;
};

TEST_F(VksimTest, RunsADeckFromSetupToShutdown) {
  Program program(Arguments({"--processes", "8", "--debug"}));
  SetUpRun(program);
  Send(wire::Mess("CONTINUE") + wire::Mess("END"));
  Expect(Step("BEGIN_NEWTON", 0, {2020, 2, 27, 0, 0, 0}));
  Send(wire::Mess("CONTINUE_UNTIL") + wire::Doub("TIME", {31.015625}) + wire::Mess("END"));
  Expect(Step("BEGIN_NEWTON", 31.015625, {2020, 3, 29, 0, 22, 30}));
  Send(wire::Mess("SHUTDOWN") + wire::Mess("END"));
  Expect(wire::Framed(wire::Mess("FINISHED") + wire::Mess("END")));
  EXPECT_EQ(program.Finish(), 0);
  EXPECT_THAT(program.seen(), HasSubstr("1 producers, 1 water injectors, 1 gas injectors"));
  EXPECT_THAT(program.seen(), HasSubstr("processes asked for: 8"));
  EXPECT_THAT(program.seen(), HasSubstr("2020-03-29 00:22:30      31.02"));
  EXPECT_THAT(program.seen(), HasSubstr("limited by BOTTOM_HOLE_PRESSURE"));
  EXPECT_THAT(program.seen(), HasSubstr("Shut down by the controller"));
}

TEST_F(VksimTest, TitleAndFluidsOfTheDeckAreShown) {
  Program program({EXAMPLES_DIR, "COMP", "--port", "0", "--wait-seconds", "0"});
  EXPECT_EQ(program.Finish(), 1);
  EXPECT_THAT(program.seen(), HasSubstr(std::string("Deck ") + EXAMPLES_DIR + "/COMP.afi: "));
  EXPECT_THAT(program.seen(), Not(HasSubstr("(untitled)")));
  EXPECT_THAT(program.seen(), HasSubstr("\n  compositional, "));
}

TEST_F(VksimTest, WellsOfTheDeckAreCountedByTheirTypes) {
  Program program({EXAMPLES_DIR, "TENWELLS", "--port", "0", "--wait-seconds", "0"});
  EXPECT_EQ(program.Finish(), 1);
  EXPECT_THAT(program.seen(), HasSubstr("6 producers, 3 water injectors, 1 gas injectors"));
}

TEST_F(VksimTest, EndsWithStatusZeroWhenTheControllerLeaves) {
  Program program(Arguments());
  SetUpRun(program);
  close(connection_);
  connection_ = -1;
  EXPECT_EQ(program.Finish(), 0);
  EXPECT_THAT(program.seen(), HasSubstr("The controller left"));
}

TEST_F(VksimTest, EndsEarlyWhereItIsTold) {
  Program program(Arguments({"--early-end", "2"}));
  SetUpRun(program);
  Send(wire::Mess("CONTINUE_UNTIL") + wire::Doub("TIME", {31}) + wire::Mess("END"));
  Expect(Step("END_SIMULATE", 2, {2020, 2, 29, 0, 0, 0}));
}

TEST_F(VksimTest, BadDeckIsReportedWithItsLine) {
  Write(decks::Replaced(decks::kBlackOil, "porosity = 0.2", "porosity = -1"));
  Program program(Arguments());
  EXPECT_EQ(program.Finish(), 1);
  EXPECT_EQ(program.seen(), "vksim: " + directory_ +
                                "/CASE.afi:14: \"porosity\" must lie between 0 and 1, not -1\n");
}

TEST_F(VksimTest, TakenPortIsReported) {
  Program first(Arguments());
  const std::string port = std::to_string(first.Port());
  Program second({directory_, "CASE", "--port", port});
  EXPECT_EQ(second.Finish(), 1);
  EXPECT_THAT(second.seen(), HasSubstr("vksim: cannot listen on 127.0.0.1:" + port +
                                       ": Address already in use\n"));
}

TEST_F(VksimTest, SecondControllerIsNotLetIn) {
  Program program(Arguments());
  SetUpRun(program);
  EXPECT_EQ(Connect(program.Port()), -1);
}

TEST_F(VksimTest, GivesUpWhenNoControllerComes) {
  Program program({directory_, "CASE", "--port", "0", "--wait-seconds", "0.2"});
  EXPECT_EQ(program.Finish(), 1);
  EXPECT_THAT(program.seen(), HasSubstr("vksim: no controller came within 0.2 s"));
}

TEST_F(VksimTest, SigtermEndsItWhileItWaitsForAController) {
  Program program(Arguments());
  ASSERT_NE(program.Port(), 0);
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Finish(), 0);
  EXPECT_THAT(program.seen(), HasSubstr("Stopped by a signal"));
}

TEST_F(VksimTest, SigtermEndsItDuringARunAndDuringADelay) {
  Program program(Arguments({"--step-delay", "60000"}));
  SetUpRun(program);
  Send(wire::Mess("CONTINUE") + wire::Mess("END"));
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Finish(), 0);
  EXPECT_THAT(program.seen(), HasSubstr("Stopped by a signal"));
}

TEST_F(VksimTest, SigtermEndsItWhileItComputes) {
  Write(decks::Replaced(decks::kBlackOil, "max_step = 10", "max_step = 1e-7"));
  Program program(Arguments());
  SetUpRun(program);
  Send(wire::Mess("CONTINUE_UNTIL") + wire::Doub("TIME", {3650}) + wire::Mess("END"));
  pollfd answer{connection_, POLLIN, 0};
  ASSERT_EQ(poll(&answer, 1, 500), 0);  // it computes
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Finish(), 0);
  EXPECT_THAT(program.seen(), EndsWith("Stopped by a signal\n"));
}

TEST_F(VksimTest, SlowStartDelaysTheListening) {
  const auto before = std::chrono::steady_clock::now();
  Program program(Arguments({"--slow-start", "0.3"}));
  ASSERT_NE(program.Port(), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(300));
}

TEST_F(VksimTest, SigtermEndsItBeforeItListens) {
  Program program(Arguments({"--slow-start", "600"}));
  ASSERT_TRUE(program.Until("processes asked for"));
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Finish(), 0);
  EXPECT_THAT(program.seen(), HasSubstr("Stopped by a signal\n"));
  EXPECT_THAT(program.seen(), Not(HasSubstr("Listening on port")));
}

class VksimVersionTest : public VksimTest, public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(WithAndWithoutDot, VksimVersionTest, testing::Values("2016.2", "20162"),
                         [](const auto& each) { return std::to_string(each.index); });

TEST_P(VksimVersionTest, OlderVersionCallsItselfByItsName) {
  Program program(Arguments({"--api", GetParam()}));
  SetUpRun(program);
  Send(wire::Mess("QUERY") + wire::Mess("QRESVR_STR") + wire::Cstr("QITEMS", {"VK_VERSION"}) +
       wire::Mess("END"));
  Expect(wire::Framed(wire::Mess("REPLY") + wire::Cstr("QITEM", {"VK_VERSION"}) +
                      wire::Cstr("VALUES", {"2016.2"}) + wire::Mess("END")));
  EXPECT_THAT(program.seen(), HasSubstr("External controller 2016.2"));
}

TEST_F(VksimTest, ControllerThatIsCutInAMessageBrokeTheConnection) {
  Program program(Arguments());
  SetUpRun(program);
  const std::string message = wire::Framed(wire::Mess("CONTINUE") + wire::Mess("END"));
  WriteAll(connection_, message.substr(0, message.size() - 1));
  close(connection_);
  connection_ = -1;
  EXPECT_EQ(program.Finish(), 3);
  EXPECT_THAT(program.seen(), EndsWith("The connection broke\n"));
}

TEST_F(VksimTest, ConnectionThatItWasToldToCutEndsWithStatusThree) {
  Program program(Arguments({"--cut-after", "3"}));
  SetUpRun(program);
  Send(wire::Mess("CONTINUE") + wire::Mess("END"));
  const std::string due = Step("BEGIN_NEWTON", 0, {2020, 2, 27, 0, 0, 0});
  EXPECT_LT(ReadExactly(connection_, due.size()).size(), due.size());
  EXPECT_EQ(program.Finish(), 3);
  EXPECT_THAT(program.seen(), EndsWith("The connection broke\n"));
}

TEST_F(VksimTest, AddressThatIsNoneIsReported) {
  Program program(Arguments({"--address", "localhost"}));
  EXPECT_EQ(program.Finish(), 1);
  EXPECT_THAT(program.seen(), EndsWith("vksim: not an IPv4 address: localhost\n"));
}

TEST_F(VksimTest, WrongOptionIsAUsageError) {
  Program program(Arguments({"--api", "2018.1"}));
  EXPECT_EQ(program.Finish(), 2);
  EXPECT_THAT(program.seen(), HasSubstr("--api"));
}

// Without a deck the status tells whether the options were taken.
TEST_F(VksimTest, NumbersOfOptionsAreTakenUpToTheirLimits) {
  const auto status = [this](const std::string& option, const std::string& number) {
    return Program({directory_, "NONE", option, number}).Finish();
  };
  for (const auto& [option, least, most] :
       std::vector<std::array<std::string, 3>>{{"--port", "0", "65535"},
                                               {"--wait-seconds", "0", "1e6"},
                                               {"--slow-start", "0", "1e6"},
                                               {"--early-end", "0", "1e300"},
                                               {"--step-delay", "0", "3600000"}}) {
    EXPECT_EQ(status(option, least), 1) << option;
    EXPECT_EQ(status(option, most), 1) << option;
    EXPECT_EQ(status(option, "-1"), 2) << option;
  }
  EXPECT_EQ(status("--port", "65536"), 2);
  EXPECT_EQ(status("--wait-seconds", "1000001"), 2);
  EXPECT_EQ(status("--step-delay", "3600001"), 2);
}

TEST_F(VksimTest, VersionIsThatOfTheProject) {
  Program program({"--version"});
  EXPECT_EQ(program.Finish(), 0);
  EXPECT_EQ(program.seen(), "vksim " JOBMILL_VERSION "\n");
}

TEST_F(VksimTest, HelpIsNotAnErrorAndHasTheDefaults) {
  Program program({"--help"});
  EXPECT_EQ(program.Finish(), 0);
  EXPECT_THAT(program.seen(), HasSubstr("--wrong-header"));
  EXPECT_THAT(program.seen(), HasSubstr("--port UINT=9001 "));
  EXPECT_THAT(program.seen(), HasSubstr("--address TEXT=127.0.0.1 "));
  EXPECT_THAT(program.seen(), HasSubstr("--api TEXT:{2016.2,2017.2}=2017.2\n"));
  EXPECT_THAT(program.seen(), HasSubstr("--processes INT=1 "));
  EXPECT_THAT(program.seen(), HasSubstr("--wait-seconds FLOAT:FLOAT in [0 - 1e+06]=300\n"));
}

}  // namespace
