// What is said of runs where something is missing: a right, the daemon, a log, the simulator.

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "inspect/process.h"
#include "inspect/runs.h"
#include "inspect/sockets.h"
#include "tests/inspect/own_view.h"
#include "tests/jobmillctl/runs_site.h"
#include "tests/support/bytes.h"
#include "tests/support/full_listener.h"
#include "tests/support/ports.h"
#include "tests/support/private_network.h"

namespace {

using testing::Contains;
using testing::Not;

constexpr const char* kFirstStep = "07 00 00 00";
constexpr const char* kWells = "06 00 00 00";

// Longer than a tick of the kernel's clock: within one it does not tell what came last on a link.
void PassATick() {
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

// "STATE: what it waits for", or why that is not known.
std::string StateOf(pid_t id) {
  for (const inspect::Run& run : inspect::FindRuns().runs) {
    if (run.id.pid != id) continue;
    const auto unknown = run.unknown.find("state");
    return std::string(Name(run.state)) + ": " +
           (unknown == run.unknown.end() ? run.waits_for : unknown->second);
  }
  return "no run";
}

std::string StateForNobody(pid_t id) {
  return AsNobody([id] { return StateOf(id); });
}

// To who may see what the process has open and not in which call it waits, as with a kernel that
// restricts the tracing of processes to their parents.
std::string StateWithoutCall(pid_t id) {
  return WithMounts({{"/dev/null", "/proc/" + std::to_string(id) + "/syscall"}},
                    [id] { return StateOf(id); });
}

// A controller that computes just when it is looked at is in no state that can be told: look again.
void ExpectWithoutCall(pid_t id, const std::string& state) {
  std::string seen;
  Eventually([&] { return (seen = StateWithoutCall(id)) == state; });
  EXPECT_EQ(seen, state);
}

pid_t NumberOf(const RunsSite& site, const std::string& root) {
  return site.Run(root).at("id").get<pid_t>();
}

// The number of the newest connection child, of which the model need not be known.
pid_t NewestOf(RunsSite& site) {
  return ChildrenOf(site.daemon().pid()).back();
}

// The answer to a request comes a tick after it.
void AskSlowly(const RunsSite& site, const std::string& root, TestMaster& master) {
  const auto simulator = site.Run(root).at("simulator").get<pid_t>();
  kill(simulator, SIGSTOP);
  master.Send(Bytes(kWells));
  PassATick();
  kill(simulator, SIGCONT);
  master.Receive();
}

void LeaveOutCommsLogs(RunningDaemon::Options& options) {
  std::erase(options.arguments, "-l");
}

// Sends the beginning of a request and nothing any more.
void StopWithinARequest(const TestMaster& master) {
  ASSERT_EQ(write(master.descriptor(), "\x04", 1), 1);
  ASSERT_EQ(shutdown(master.descriptor(), SHUT_WR), 0);
}

sockaddr_in At(const char* address, int port) {
  sockaddr_in at{};
  at.sin_family = AF_INET;
  at.sin_port = htons(static_cast<std::uint16_t>(port));
  inet_pton(AF_INET, address, &at.sin_addr);
  return at;
}

Descriptor ListenAt(const char* address, int port) {
  Descriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in at = At(address, port);
  const int on = 1;  // an earlier run's connections may hold the port
  setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  EXPECT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&at), sizeof(at)), 0);
  EXPECT_EQ(listen(listener.get(), 1), 0);
  return listener;
}

Descriptor ConnectTo(const char* address, int port) {
  Descriptor link(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in at = At(address, port);
  EXPECT_EQ(connect(link.get(), reinterpret_cast<const sockaddr*>(&at), sizeof(at)), 0);
  return link;
}

class RunStateTest : public testing::Test {
 protected:
  void SetUp() override {
    if (getuid() != 0) GTEST_SKIP() << "needs root";
  }
};

TEST_F(RunStateTest, WhoCannotSeeTheCallKnowsTheStateByTheLinks) {
  RunsSite site;
  site.Greet();
  const pid_t greeted = NewestOf(site);
  TestMaster& queued = site.Request("QUEUED1");
  TestMaster& absent = site.Connect("ABSENT1");
  AskSlowly(site, "CASE", site.Connect("CASE"));
  TestMaster& step = site.Connect("STEP1");
  PassATick();
  // Requests that these masters send too early, after the last thing that they have received.
  queued.Send(Bytes(kWells));
  absent.Send(Bytes(kWells));
  step.Send(Bytes(kFirstStep));
  ExpectWithoutCall(greeted, "handshake: ");
  ExpectWithoutCall(NumberOf(site, "QUEUED1"), "waiting for the script: job 471 of somescheduler");
  ExpectWithoutCall(NumberOf(site, "ABSENT1"),
                    "waiting for the simulator to listen: a simulator that accepts the connection");
  ExpectWithoutCall(NumberOf(site, "CASE"), "waiting for the master: the next request");
  ExpectWithoutCall(NumberOf(site, "STEP1"),
                    "waiting for the simulator: an answer to \"first step\"");
}

TEST_F(RunStateTest, WithoutCommsLogsWhoCannotSeeTheCallIsNotToldAGuess) {
  RunsSite site(LeaveOutCommsLogs);
  TestMaster& queued = site.Request("QUEUED1");
  TestMaster& absent = site.Connect("ABSENT1");
  PassATick();
  queued.Send(Bytes(kWells));
  absent.Send(Bytes(kWells));
  for (const char* root : {"QUEUED1", "ABSENT1"}) {
    ExpectWithoutCall(
        NumberOf(site, root),
        "unknown: without -l the wait for the script and that for a listening simulator look "
        "the same to others than root");
  }
}

// Before its script a run has the daemon's standard input, and that of the script after it. Where
// both are pipes and the daemon has gone, other runs that have the same one tell which it is.
TEST_F(RunStateTest, HandshakeIsKnownByTheDaemonsInput) {
  RunsSite site([](RunningDaemon::Options& options) {
    LeaveOutCommsLogs(options);
    options.in_child = [] {
      int ends[2];
      return pipe(ends) == 0 && dup2(ends[0], STDIN_FILENO) == 0 ? 0 : 1;
    };
  });
  site.Request("GONE1").Receive();
  const pid_t answered = NewestOf(site);
  site.Connect("GONE2");
  const pid_t connected = NewestOf(site);
  site.Connect("CASE");
  const pid_t with_script = NewestOf(site);
  TestMaster& first = site.Greet();
  const pid_t first_id = NewestOf(site);
  site.Greet();
  const pid_t second_id = NewestOf(site);
  ASSERT_NE(first_id, second_id);
  const std::string handshake = "handshake: the master's request";
  const std::string request = "waiting for the master: the next request";
  EXPECT_TRUE(Eventually([&] { return StateOf(first_id) == handshake; }));
  EXPECT_EQ(StateOf(second_id), handshake);
  for (const pid_t id : {answered, connected, with_script}) EXPECT_EQ(StateOf(id), request);

  site.daemon().process().Signal(SIGKILL);
  site.daemon().process().Wait(std::chrono::seconds(10));
  EXPECT_EQ(StateOf(first_id), handshake);
  EXPECT_EQ(StateOf(second_id), handshake);
  EXPECT_EQ(StateOf(connected), request);
  EXPECT_EQ(StateOf(with_script), request);
  const std::string unknown =
      "unknown: the daemon has gone: handshake and wait for a request look the same";
  EXPECT_EQ(StateOf(answered), unknown);
  first.Leave();
  ASSERT_TRUE(Eventually([&] { return !IsRunning(first_id); }));
  EXPECT_EQ(StateOf(second_id), unknown);
}

TEST_F(RunStateTest, CommsLogTellsThatTheScriptHasAnswered) {
  RunsSite site;
  site.Request("GONE1").Receive();
  const pid_t id = NewestOf(site);
  const std::string request = "waiting for the master: the next request";
  EXPECT_TRUE(Eventually([&] { return StateOf(id) == request; }));
  site.daemon().process().Signal(SIGKILL);
  site.daemon().process().Wait(std::chrono::seconds(10));
  EXPECT_EQ(StateOf(id), request);
}

TEST_F(RunStateTest, MasterThatLeavesWithinARequestIsSaidTo) {
  RunsSite site;
  StopWithinARequest(site.Connect("CASE"));
  EXPECT_TRUE(Eventually([&] {
    return StateOf(NumberOf(site, "CASE")) ==
           "waiting for the master: the end of the link of a master that has left in the middle of "
           "a request";
  }));
  // Without a simulator's link a name service may be what it waits for.
  TestMaster& master = site.Request("GONE1");
  master.Receive();
  const pid_t id = NewestOf(site);
  StopWithinARequest(master);
  EXPECT_TRUE(Eventually([&] {
    return StateOf(id) ==
           "unknown: its master has left: the wait for the end of the link and that for a name "
           "service look the same";
  }));
}

TEST_F(RunStateTest, ConnectionThatNobodyAnswersIsNoSimulatorYet) {
  RunsSite site;
  TestMaster& master = site.Request("ABSENT1");
  master.Receive();
  const auto port = site.Run("ABSENT1").at("comms_port").get<int>();
  const FullListener listener(ListenAt("127.0.0.1", port));
  master.Send(Bytes("01 00 00 00"));
  const pid_t id = NumberOf(site, "ABSENT1");
  EXPECT_TRUE(Eventually([&] {
    return StateOf(id) ==
           "waiting for the simulator to listen: a simulator that accepts the connection";
  }));
  EXPECT_TRUE(std::ranges::any_of(inspect::ReadSockets().all, [&](const auto& socket) {
    return socket.remote.port == port && socket.state == TCP_SYN_SENT && socket.inode != 0;
  }));
  EXPECT_EQ(StateOf(id),
            "waiting for the simulator to listen: a simulator that accepts the connection");
}

TEST_F(RunStateTest, MasterThatDoesNotReadIsWaitedForToTakeAnAnswer) {
  const auto state = InPrivateNetwork([] {
    // There the system keeps little of what a master does not read.
    std::ofstream("/proc/sys/net/ipv4/tcp_wmem") << "4096 4096 4096\n";
    RunsSite site;
    TestMaster& master = site.Connect("CASE");
    const int large = 1 << 20;  // for the requests
    setsockopt(master.descriptor(), SOL_SOCKET, SO_SNDBUF, &large, sizeof(large));
    const pid_t id = NumberOf(site, "CASE");
    std::string seen;
    Eventually(
        [&] {
          for (int i = 0; i < 50; ++i) master.Send(Bytes(kWells));
          seen = StateOf(id);
          return seen == "waiting for the master: the master to take an answer";
        },
        std::chrono::seconds(30));
    return seen;
  });
  if (!state) GTEST_SKIP() << "no network of its own here";
  EXPECT_EQ(*state, "waiting for the master: the master to take an answer");
}

// Such as somebody had when he started the daemon.
TEST_F(RunStateTest, SocketsThatTheDaemonWasStartedWithAreNoSimulatorsAndNoDaemons) {
  const Descriptor one = BindFreePort(1);
  const Descriptor other = BindFreePort(1);
  const int low = std::min(PortOf(one.get()), PortOf(other.get()));
  const int high = std::max(PortOf(one.get()), PortOf(other.get()));
  RunningDaemon::Options options;
  options.arguments = {"-u", "-o", std::to_string(low + 1), "-n", std::to_string(high - low - 1)};
  options.in_child = [low, high] {
    return fcntl(ConnectToLoopback(low).Release(), F_SETFD, 0) +
           fcntl(ConnectToLoopback(high).Release(), F_SETFD, 0) +
           fcntl(BindFreePort(1).Release(), F_SETFD, 0);
  };
  RunningDaemon daemon(options);
  TestMaster master(daemon.port());
  master.Receive();
  int seen = 0;
  for (const inspect::Run& run : inspect::FindRuns().runs) {
    if (run.listen_port != daemon.port()) continue;
    ++seen;
    EXPECT_FALSE(run.comms_port);
    EXPECT_FALSE(run.host);
  }
  EXPECT_EQ(seen, 1);
  daemon.process().Signal(SIGKILL);
  daemon.process().Wait(std::chrono::seconds(10));
  const inspect::Runs found = inspect::FindRuns();
  EXPECT_TRUE(std::ranges::none_of(found.daemons, [&](const inspect::Daemon& seen_daemon) {
    return seen_daemon.options.listen_port == daemon.port();
  }));
  EXPECT_TRUE(std::ranges::any_of(
      found.runs, [&](const inspect::Run& run) { return run.listen_port == daemon.port(); }));
}

// Who may not look at the process takes a connection for the run's only where there is no other.
TEST_F(RunStateTest, ConnectionOfTheOnlyRunIsNotGuessedAmongSeveral) {
  RunsSite site;
  // A connection that has ended on this side holds the port for a minute, and is nobody's.
  TestMaster refused(site.daemon().port());
  refused.RequestRun({"0", "/no/such/directory/"});
  EXPECT_EQ(refused.Receive(), "No host detected");
  EXPECT_TRUE(refused.SeesEndWithin(10));
  refused.Leave();
  AskSlowly(site, "CASE", site.Connect("CASE"));
  const pid_t id = NumberOf(site, "CASE");
  const auto port = site.Run("CASE").at("comms_port").get<int>();
  const std::string request = "waiting for the master: the next request";
  const std::string unknown = "unknown: only root may look at what the process has open";
  EXPECT_TRUE(Eventually([&] { return StateForNobody(id) == request; }));

  // Connections to the port of that number at another address, of another account and of the run's.
  const Descriptor elsewhere = ListenAt("127.0.0.2", port);
  ASSERT_EQ(seteuid(1), 0);
  const Descriptor of_another = ConnectTo("127.0.0.2", port);
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_EQ(StateForNobody(id), request);
  Descriptor of_its_own = ConnectTo("127.0.0.2", port);
  EXPECT_EQ(StateForNobody(id), unknown);
  of_its_own.Reset();
  EXPECT_TRUE(Eventually([&] { return StateForNobody(id) == request; }));

  site.daemon().process().Signal(SIGKILL);
  site.daemon().process().Wait(std::chrono::seconds(10));
  EXPECT_EQ(StateForNobody(id), unknown);
}

// Until it has its account a run is root's; with one that is root's it stays so.
TEST_F(RunStateTest, RunOfRootsAccountIsNoHandshake) {
  RunsSite site([](RunningDaemon::Options& options) {
    std::erase(options.arguments, "-u");
    options.users = "alice root 1\nbob daemon 1\n";
  });
  for (const auto& [root, user] : {std::pair("QUEUED1", "alice"), {"QUEUED2", "bob"}}) {
    site.Request(root, user);
    ASSERT_TRUE(site.WaitForState(root, "waiting for the script"));
    EXPECT_EQ(StateForNobody(NumberOf(site, root)),
              "unknown: only root may look at what the process has open");
  }
}

// The child has ended and nobody has waited for it.
TEST_F(RunStateTest, RunThatTheDaemonHasNotTakenNoteOfHasEnded) {
  RunsSite site;
  TestMaster& master = site.Connect("CASE");
  site.daemon().process().Signal(SIGSTOP);
  master.Ask("f0 ff 00 00");
  EXPECT_TRUE(Eventually([&] {
    const auto runs = site.Runs();
    return runs.size() == 1 && runs[0].at("state") == "ended";
  }));
  EXPECT_EQ(site.Runs().at(0).at("cause"), "The master shut it down");
  site.daemon().process().Signal(SIGCONT);
  EXPECT_TRUE(Eventually([&] { return site.Runs().empty(); }));
}

TEST_F(RunStateTest, LongCommsLogIsReadFromItsEnd) {
  RunsSite site;
  site.Connect("CASE");
  EXPECT_EQ(site.Run("CASE").at("requests"), 1);
  std::ofstream log(site.data().File("CASE.crvnlog"), std::ios::app);
  for (int i = 0; i < 200'000; ++i) log << "GetTimeDays: 0\n";
  log << "Received header: 2\n";
  log.close();
  const auto run = site.Run("CASE");
  EXPECT_EQ(run.at("last_request"), "date");
  EXPECT_TRUE(run.at("requests").is_null());
  EXPECT_EQ(run.at("unknown").at("requests"), "the comms log is too long to be counted");
}

TEST_F(RunStateTest, EmptiedCommsLogTellsNothing) {
  RunsSite site;
  site.Connect("STEP").Send(Bytes(kFirstStep));
  ASSERT_TRUE(Eventually(
      [&] { return site.Run("STEP").at("waits_for") == "an answer to \"first step\""; }));
  std::filesystem::resize_file(site.data().File("STEP.crvnlog"), 0);
  const auto run = site.Run("STEP");
  EXPECT_EQ(run.at("waits_for"), "an answer");
  EXPECT_TRUE(run.at("last_request").is_null());
}

// Another's file may stand under the name that the log would have.
TEST_F(RunStateTest, CommsLogIsNotGuessedWhereThereIsNone) {
  const auto comms_log_for_nobody = [](const std::string& directory, pid_t id) {
    return AsNobody([&] {
      if (chdir(directory.c_str()) != 0) return std::string("no directory");
      for (const inspect::Run& run : inspect::FindRuns().runs) {
        if (run.id.pid == id) return run.path.value_or("no path") + ": " + run.comms_log;
      }
      return std::string("no run");
    });
  };
  RunsSite site;
  const std::string data = site.data().path().string() + "/";
  site.Request("QUEUED1");
  ASSERT_TRUE(site.WaitForState("QUEUED1", "waiting for the script"));
  EXPECT_EQ(comms_log_for_nobody(data, NumberOf(site, "QUEUED1")),
            data + ": " + data + "QUEUED1.crvnlog");
  TestMaster relative(site.daemon().port());
  relative.RequestRun({"0", "./", "QUEUED2"});
  ASSERT_TRUE(site.WaitForState("QUEUED2", "waiting for the script"));
  EXPECT_EQ(comms_log_for_nobody(data, NumberOf(site, "QUEUED2")), "./: ");

  RunsSite without(LeaveOutCommsLogs);
  const std::string other = without.data().path().string() + "/";
  without.Request("QUEUED1");
  ASSERT_TRUE(without.WaitForState("QUEUED1", "waiting for the script"));
  EXPECT_EQ(comms_log_for_nobody(other, NumberOf(without, "QUEUED1")), other + ": ");
}

// A variable of the environment is the account's own word.
TEST_F(RunStateTest, ProcessOfAnotherAccountIsNoMember) {
  RunsSite site;
  site.Connect("CASE");
  const auto simulator = site.Run("CASE").at("simulator").get<pid_t>();
  ChildProcess::Options options;
  options.environment = {"JOBMILL_RUN=" +
                         inspect::Process::Open(simulator)->Variable("JOBMILL_RUN").value_or("")};
  const ChildProcess own({"/bin/sleep", "60"}, options);
  options.in_child = [] { return setgroups(0, nullptr) + setgid(65534) + setuid(65534); };
  const ChildProcess of_another({"/bin/sleep", "60"}, options);
  for (const pid_t pid : {own.pid(), of_another.pid()}) {
    ASSERT_TRUE(Eventually([&] { return inspect::Process::Open(pid)->stat().name == "sleep"; }));
  }
  const auto members = site.Run("CASE").at("members").get<std::vector<pid_t>>();
  EXPECT_THAT(members, Contains(simulator));
  EXPECT_THAT(members, Contains(own.pid()));
  EXPECT_THAT(members, Not(Contains(of_another.pid())));
}

// What a scheduler has started is known by its arguments before it listens.
TEST_F(RunStateTest, ProcessIsAMemberByTheModelAndTheCommsPortTogether) {
  RunsSite site;
  site.Connect("CASE");
  const std::string port = site.Run("CASE").at("comms_port").dump();
  const auto start = [](const std::string& mark, const std::string& of_port) {
    ChildProcess::Options options;
    options.environment = {"JOBMILL_RUN=" + std::to_string(getpid()) + mark};
    return std::make_unique<ChildProcess>(
        std::vector<std::string>{"/bin/sh", "-c", "sleep 60; :", "simulator", "CASE", of_port},
        options);
  };
  const auto own = start("-own", port);
  const auto of_another_run = start("-other", "1");
  for (const pid_t pid : {own->pid(), of_another_run->pid()}) {
    ASSERT_TRUE(Eventually([&] { return inspect::Process::Open(pid)->stat().name == "sh"; }));
  }
  const auto members = site.Run("CASE").at("members").get<std::vector<pid_t>>();
  EXPECT_THAT(members, Contains(own->pid()));
  EXPECT_THAT(members, Not(Contains(of_another_run->pid())));
}

TEST_F(RunStateTest, CopyOfAClusterRunsInputIsNoScript) {
  const TemporaryDirectory programs;
  std::filesystem::permissions(
      programs.Write("cp", "#!/bin/sh\ntouch " + programs.File("begun") + "\nuntil [ -e " +
                               programs.File("go") +
                               " ]; do sleep 0.1; done\nexec /bin/cp \"$@\"\n"),
      std::filesystem::perms(0755));
  RunsSite site([&](RunningDaemon::Options& options) {
    options.environment = "PATH " + programs.path().string() + "\n";
  });
  site.data().Write("QUEUED1.afi", "");
  TestMaster master(site.daemon().port());
  master.RequestRun({"7", site.data().path().string() + "/", "QUEUED1"});
  ASSERT_TRUE(Eventually([&] { return std::filesystem::exists(programs.File("begun")); }));
  const auto runs = site.Runs();
  ASSERT_EQ(runs.size(), 1U);
  EXPECT_EQ(runs[0].at("state"), "handshake");
  EXPECT_EQ(runs[0].at("waits_for"), "the check and the preparation of the request");
  EXPECT_TRUE(runs[0].at("script").is_null());
  programs.Write("go", "");
  EXPECT_TRUE(site.WaitForState("QUEUED1_7", "waiting for the script"));
  EXPECT_TRUE(site.Run("QUEUED1_7").at("script").is_number());
}

TEST_F(RunStateTest, RunWhoseJobHasStartedDoesNotWaitForIt) {
  RunsSite site;
  site.Connect("JOB1");
  const auto run = site.Run("JOB1");
  EXPECT_EQ(run.at("job"), "471");
  EXPECT_EQ(run.at("state"), "waiting for the master");
  EXPECT_EQ(run.at("waits_for"), "the next request");
}

TEST_F(RunStateTest, RunWithoutScriptAndLogIsKnownByItsLink) {
  RunsSite site;
  site.Connect("GONE1");
  const auto port = site.Run("GONE1").at("comms_port").get<int>();
  std::filesystem::remove(site.daemon().LogFile());
  const auto runs = site.Runs();
  ASSERT_EQ(runs.size(), 1U);
  EXPECT_TRUE(runs[0].at("root").is_null());
  EXPECT_EQ(runs[0].at("state"), "waiting for the master");
  EXPECT_EQ(runs[0].at("comms_port"), port);
  EXPECT_TRUE(runs[0].at("simulator").is_number());
  EXPECT_EQ(runs[0].at("unknown").at("windows_user"),
            "the log that tells it was removed or replaced");
}

TEST_F(RunStateTest, SimulatorThatHasEndedIsNotShown) {
  RunsSite site;
  site.Connect("CASE");
  const auto run = site.Run("CASE");
  kill(run.at("id").get<pid_t>(), SIGSTOP);
  kill(run.at("simulator").get<pid_t>(), SIGKILL);
  EXPECT_TRUE(Eventually([&] { return site.Run("CASE").at("simulator").is_null(); }));
  kill(run.at("id").get<pid_t>(), SIGCONT);
}

}  // namespace
