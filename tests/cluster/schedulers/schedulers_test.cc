// The schedulers that the cluster scripts are tried on: each helper's scheduler really runs, queues
// and cancels jobs, and goes without a trace.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

struct Outcome {
  int status;  // -1: did not end in time
  std::string output;
};

// A scheduler's commands, as shell text with the variables SLOTS, OUT, ARGS (after the script) and
// ID.
struct Kind {
  std::string name;
  std::string helper;
  std::string options;  // of "up"
  std::string package;  // of "available"
  std::string submit;   // prints nothing but the job's id
  std::string state;    // prints "queued", "running", or anything else for a job that has ended
  std::string cancel;
  seconds back{5};  // how long after a restart the controller may take to start jobs
};

void PrintTo(const Kind& kind, std::ostream* out) {
  *out << kind.name;
}

const Kind& Slurm() {
  static const Kind kind{
      "Slurm",
      "slurm",
      "",
      "",
      "sbatch --parsable --ntasks=$SLOTS --output=\"$OUT\" $ARGS",
      "case $(squeue --noheader --jobs=$ID --format=%T) in PENDING) echo queued ;;"
      " RUNNING) echo running ;; *) echo ended ;; esac",
      "scancel $ID"};
  return kind;
}

const Kind& Torque() {
  static const Kind kind{"Torque",
                         "slurm",
                         "--torque",
                         "--torque",
                         "qsub -l nodes=1:ppn=$SLOTS -j oe -o \"$OUT\" $ARGS",
                         "case $(qstat $ID | awk -v id=$ID '$1 == id { print $5 }') in Q) echo "
                         "queued ;; R) echo running ;; *) echo ended ;; esac",
                         "qdel $ID"};
  return kind;
}

const Kind& GridEngine() {
  static const Kind kind{"GridEngine",
                         "gridengine",
                         "",
                         "",
                         "qsub -terse -pe smp $SLOTS -cwd -j y -o \"$OUT\" $ARGS",
                         "case $(qstat -u '*' | awk -v id=$ID '$1 == id { print $5 }') in qw) echo "
                         "queued ;; r|t) echo running ;; *) echo ended ;; esac",
                         "qdel $ID",
                         seconds(40)};
  return kind;
}

// The addresses, as /proc/net/tcp has them, on which the process listens.
std::vector<std::string> ListensOn(pid_t pid) {
  std::set<std::string> sockets;
  for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    std::error_code gone;
    const std::string target = fs::read_symlink(entry.path(), gone);
    if (target.starts_with("socket:[")) sockets.insert(target.substr(8, target.size() - 9));
  }
  std::vector<std::string> addresses;
  std::ifstream table("/proc/net/tcp");
  for (std::string line; std::getline(table, line);) {
    std::istringstream words(line);
    const std::vector<std::string> word{std::istream_iterator<std::string>(words), {}};
    if (word.size() > 9 && word[3] == "0A" && sockets.contains(word[9])) {
      addresses.push_back(word[1].substr(0, 8));
    }
  }
  return addresses;
}

struct Process {
  pid_t pid;
  std::string command;
};

void PrintTo(const Process& process, std::ostream* out) {
  *out << process.command;
}

// Every process that still runs and has `text` in its command line or its environment.
std::vector<Process> ProcessesWith(const std::string& text) {
  const auto read = [](const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    return std::string{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  };
  std::vector<Process> processes;
  for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
    const std::string pid = entry.path().filename();
    if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
    std::string command = read(entry.path() / "cmdline");
    if ((command + read(entry.path() / "environ")).find(text) == std::string::npos) continue;
    if (!IsRunning(std::stoi(pid))) continue;
    std::ranges::replace(command, '\0', ' ');
    processes.push_back({std::stoi(pid), command});
  }
  return processes;
}

Outcome Shell(const std::string& command) {
  const TemporaryDirectory output;
  ChildProcess::Options options;
  options.output_file = output.File("text");
  ChildProcess shell({"/bin/bash", "-c", command}, options);
  const int status = shell.Wait(seconds(150)).value_or(-1);
  return {status, output.Read("text")};
}

std::string HelperOf(const Kind& kind) {
  return std::string(SCHEDULERS_DIR) + "/" + kind.helper;
}

// One instance of a scheduler. Goes down with the object.
class Instance {
 public:
  Instance(Kind kind, std::string options) : kind_(std::move(kind)), options_(std::move(options)) {
    // Jobs of other accounts read their scripts and write their output here.
    fs::permissions(files_.path(), fs::perms(0777));
  }
  Instance(const Instance&) = delete;
  Instance& operator=(const Instance&) = delete;
  ~Instance() {
    try {
      Helper("down");
    } catch (...) {
      // The next look for processes finds what is left.
    }
  }

  const TemporaryDirectory& files() const { return files_; }
  std::string directory() const { return files_.File("site"); }

  // From now on, for this instance alone, the host bears `name`, and /etc/hosts has `hosts` only.
  // False when this machine does not let it.
  bool NameHost(const std::string& name, const std::string& hosts) {
    const std::string wrapper = files_.Write(
        "renamed", "mount --bind " + files_.Write("hosts", "127.0.0.1 localhost\n" + hosts) +
                       " /etc/hosts && hostname " + name + " && exec \"$@\"\n");
    around_ = "unshare --uts --mount bash " + wrapper + " ";
    return Shell(around_ + "true").status == 0;
  }

  Outcome Up() { return Helper("up", kind_.options + " " + options_); }

  Outcome Helper(const std::string& command, const std::string& options = "") {
    return Shell(around_ + HelperOf(kind_) + " " + command + " " + directory() + " " + options);
  }

  // Runs scheduler commands as `account`, or as this process's.
  Outcome Command(const std::string& command, const std::string& account = "") {
    // Slurm gives jobs the environment of the command that submits them. With the mark of a child
    // of this test in it, a job that starts at once would be ended together with that command.
    const std::string file = files_.Write(
        "command", std::string("unset ") + kChildMark + "\n. " + directory() + "/env\n" + command);
    return Shell("cd " + files_.path().string() + " && " + around_ +
                 (account.empty() ? "" : "runuser -u " + account + " -- ") + "bash " + file);
  }

  // Submits a job that writes its account, working directory and process id to `report` and then
  // waits to be ended; the job's id.
  std::string Submit(const std::string& report, int slots = 1, const std::string& account = "") {
    const std::string script =
        files_.Write("job", "#!/bin/bash\necho \"$(id -un) $PWD $$\" >\"$1\"\nexec sleep 600\n");
    return SubmitScript(script, report, slots, account);
  }

  std::string SubmitScript(const std::string& script, const std::string& report, int slots = 1,
                           const std::string& account = "") {
    const Outcome outcome =
        Command("SLOTS=" + std::to_string(slots) + "\nOUT=" + files_.File(report + ".out") +
                    "\nARGS='" + script + " " + files_.File(report) + "'\n" + kind_.submit,
                account);
    EXPECT_EQ(outcome.status, 0) << outcome.output;
    return outcome.output.substr(0, outcome.output.find('\n'));
  }

  std::string State(const std::string& id) {
    const std::string text = Command("ID=" + id + "\n" + kind_.state).output;
    return text.substr(0, text.find('\n'));
  }

  bool Becomes(const std::string& id, const std::string& state, seconds limit = seconds(40)) {
    if (Eventually([&] { return State(id) == state; }, limit + kind_.back)) return true;
    std::cout << "The job is " << State(id) << ".\n"
              << Shell("tail -n 40 " + directory() + "/log/* 2>&1").output;
    return false;
  }

  void Cancel(const std::string& id) {
    const Outcome outcome = Command("ID=" + id + "\n" + kind_.cancel);
    EXPECT_EQ(outcome.status, 0) << outcome.output;
  }

  // What the job wrote to `report`, once it has.
  std::string Report(const std::string& report) {
    Eventually([&] { return files_.Read(report).ends_with('\n'); }, seconds(20) + kind_.back);
    return files_.Read(report);
  }

 private:
  Kind kind_;
  std::string options_;
  std::string around_;  // what runs the instance's commands, with a blank after it
  TemporaryDirectory files_;
};

// Why `kind` cannot be tried here; empty when it can.
std::string Missing(const Kind& kind) {
  const Outcome outcome = Shell(HelperOf(kind) + " available " + kind.package);
  EXPECT_TRUE(outcome.status == 0 || outcome.status == 77) << outcome.output;
  return outcome.status == 77 ? outcome.output : "";
}

class SchedulerTest : public testing::TestWithParam<Kind> {
 protected:
  void SetUp() override {
    if (const std::string missing = Missing(GetParam()); !missing.empty()) GTEST_SKIP() << missing;
  }

  std::unique_ptr<Instance> Start(const std::string& options = "") {
    auto instance = std::make_unique<Instance>(GetParam(), options);
    const Outcome up = instance->Up();
    EXPECT_EQ(up.status, 0) << up.output;
    EXPECT_EQ(up.output, "");
    return instance;
  }
};

TEST_P(SchedulerTest, JobRunsUnderTheAccountThatSubmittedItUntilItIsCancelled) {
  const auto site = Start();
  const std::string here = site->files().path().string();
  const std::string job = site->Submit("mine");
  EXPECT_THAT(site->Report("mine"), HasSubstr(" " + here + " "));
  EXPECT_EQ(site->State(job), "running");
  if (geteuid() == 0) {
    const std::string other = site->Submit("other", 1, "nobody");
    EXPECT_THAT(site->Report("mine"), StartsWith("root "));
    EXPECT_THAT(site->Report("other"), StartsWith("nobody " + here + " "));
    EXPECT_EQ(site->State(other), "running");
  }
  site->Cancel(job);
  EXPECT_TRUE(site->Becomes(job, "ended"));
}

TEST_P(SchedulerTest, JobThatRunsBeforeItsSubmissionHasEndedRunsOn) {
  Kind kind = GetParam();
  kind.submit += " && until [[ -s ${ARGS##* } ]]; do sleep 0.1; done";
  Instance site(kind, "");
  const Outcome up = site.Up();
  ASSERT_EQ(up.status, 0) << up.output;
  const std::string job = site.Submit("report");
  EXPECT_EQ(site.State(job), "running");
}

TEST_P(SchedulerTest, JobWaitsBehindAFullNodeAndRunsWhenItIsFree) {
  const auto site = Start();
  const std::string first = site->Submit("first", 4);
  ASSERT_TRUE(site->Becomes(first, "running"));
  const std::string second = site->Submit("second", 2);
  const std::string third = site->Submit("third", 4);
  EXPECT_EQ(site->State(second), "queued");
  site->Cancel(third);
  EXPECT_TRUE(site->Becomes(third, "ended"));
  EXPECT_EQ(site->State(first), "running");
  EXPECT_EQ(site->State(second), "queued");
  site->Cancel(first);
  EXPECT_TRUE(site->Becomes(second, "running"));
  EXPECT_FALSE(fs::exists(site->files().File("third")));
}

TEST_P(SchedulerTest, JobsOutliveTheControllerAndAreFoundAgain) {
  const auto site = Start();
  const std::string running = site->Submit("running", 4);
  ASSERT_TRUE(site->Becomes(running, "running"));
  const std::string report = site->Report("running");
  const pid_t process = std::stoi(report.substr(report.rfind(' ')));
  const std::string waiting = site->Submit("waiting", 4);
  EXPECT_EQ(site->Helper("stop-controller").status, 0);
  EXPECT_EQ(site->Helper("stop-controller").status, 0);
  EXPECT_TRUE(IsRunning(process));
  const Outcome again = site->Helper("start-controller");
  EXPECT_EQ(again.status, 0) << again.output;
  EXPECT_EQ(site->State(running), "running");
  EXPECT_EQ(site->State(waiting), "queued");
  site->Cancel(running);
  EXPECT_TRUE(site->Becomes(waiting, "running"));
  EXPECT_FALSE(IsRunning(process));
}

TEST_P(SchedulerTest, GoesWithJobsThatWillNotAndComesAgainAsNew) {
  const auto site = Start();
  // One that ignores the signals, and one that has left the job's session and tree.
  const std::string stubborn = site->files().Write(
      "stubborn",
      "#!/bin/bash\ntrap '' TERM HUP INT\n(setsid sleep 601 &)\necho up >\"$1\"\n"
      "while true; do sleep 1; done\n");
  const std::string first = site->SubmitScript(stubborn, "report");
  ASSERT_EQ(site->Report("report"), "up\n");
  EXPECT_EQ(site->Helper("down").status, 0);
  EXPECT_THAT(ProcessesWith(site->directory()), IsEmpty());
  for (const auto& entry : fs::recursive_directory_iterator(site->directory())) {
    EXPECT_FALSE(entry.is_socket()) << entry.path();
  }
  EXPECT_EQ(site->Helper("down").status, 0);

  const Outcome up = site->Up();
  ASSERT_EQ(up.status, 0) << up.output;
  EXPECT_EQ(site->Submit("again"), first);
  EXPECT_THAT(site->Report("again"), HasSubstr(site->files().path().string()));
}

TEST_P(SchedulerTest, ListensOnOneAddressOfTheMachineOnly) {
  const auto site = Start();
  std::vector<std::string> addresses;
  for (const Process& process : ProcessesWith(site->directory())) {
    std::ranges::copy(ListensOn(process.pid), std::back_inserter(addresses));
  }
  EXPECT_EQ(addresses.size(), 2U);  // the controller and the node
  EXPECT_THAT(addresses, Each(Not("00000000")));
}

// Debian's installer gives a host's name the address 127.0.1.1, and a full name to begin with.
TEST_P(SchedulerTest, RunsOnAHostWithAnAddressAndAFullNameOfItsOwn) {
  Instance site(GetParam(), "");
  if (!site.NameHost("somehost", "127.0.1.1 somehost.example.org somehost\n")) {
    GTEST_SKIP() << "the host cannot be renamed for a test";
  }
  const Outcome up = site.Up();
  ASSERT_EQ(up.status, 0) << up.output;
  const std::string job = site.Submit("report");
  EXPECT_TRUE(site.Becomes(job, "running"));
  EXPECT_THAT(site.Report("report"), HasSubstr(site.files().path().string()));
}

INSTANTIATE_TEST_SUITE_P(Of, SchedulerTest, testing::Values(Slurm(), Torque(), GridEngine()),
                         [](const auto& test) { return test.param.name; });

class SlurmTest : public testing::Test {
 protected:
  void SetUp() override {
    if (const std::string missing = Missing(Slurm()); !missing.empty()) GTEST_SKIP() << missing;
  }
};

TEST_F(SlurmTest, NodesOfOneMachineHaveNamesThatDoNotResolve) {
  Instance site(Slurm(), "--nodes 3");
  const Outcome up = site.Up();
  ASSERT_EQ(up.status, 0) << up.output;
  EXPECT_EQ(site.Command("sinfo --noheader --format='%N %D %t'").output, "n[1-3] 3 idle\n");
  EXPECT_NE(site.Command("getent hosts n1").status, 0);
  const std::string job = site.Command("sbatch --parsable --nodes=2 --wrap 'sleep 600'").output;
  ASSERT_TRUE(site.Becomes(job.substr(0, job.find('\n')), "running"));
  EXPECT_EQ(site.Command("squeue --noheader --format='%N %B'").output, "n[1-2] n1\n");
}

TEST_F(SlurmTest, HostsNameNeedNotResolve) {
  Instance site(Slurm(), "");
  if (!site.NameHost("somehost", "")) GTEST_SKIP() << "the host cannot be renamed for a test";
  const Outcome up = site.Up();
  ASSERT_EQ(up.status, 0) << up.output;
  EXPECT_EQ(site.Command("sinfo --noheader --format=%N").output, "somehost\n");
  EXPECT_TRUE(site.Becomes(site.Submit("report"), "running"));
}

TEST_F(SlurmTest, TwoInstancesDoNotMeet) {
  Instance one(Slurm(), "");
  Instance other(Slurm(), "");
  ASSERT_EQ(one.Up().status, 0);
  ASSERT_EQ(other.Up().status, 0);
  const std::string job = one.Submit("one", 4);
  EXPECT_TRUE(one.Becomes(job, "running"));
  EXPECT_EQ(other.Command("squeue --noheader").output, "");
  EXPECT_EQ(other.Helper("down").status, 0);
  EXPECT_EQ(one.State(job), "running");
}

TEST_F(SlurmTest, OrdinaryAccountBringsUpItsOwn) {
  if (geteuid() != 0) GTEST_SKIP() << "root alone can be another account";
  Instance site(Slurm(), "");
  // The repository may be where no other account comes, such as root's home directory.
  const std::string helpers = site.files().File("helpers");
  fs::copy(SCHEDULERS_DIR, helpers);
  const std::string helper = "cd / && runuser -u nobody -- " + helpers + "/slurm ";
  const Outcome up = Shell(helper + "up " + site.directory());
  ASSERT_EQ(up.status, 0) << up.output;
  site.Submit("report", 4, "nobody");
  EXPECT_THAT(site.Report("report"), StartsWith("nobody "));
  EXPECT_EQ(Shell(helper + "down " + site.directory()).status, 0);
  EXPECT_THAT(ProcessesWith(site.directory()), IsEmpty());
}

TEST_F(SlurmTest, FailureShowsTheLogAndLeavesNothing) {
  // More processors than Slurm can count.
  Instance site(Slurm(), "--cpus 70000");
  const Outcome up = site.Up();
  EXPECT_EQ(up.status, 1);
  EXPECT_THAT(up.output, HasSubstr("--- last lines of " + site.directory() + "/log/slurmctld.out"));
  EXPECT_THAT(up.output, HasSubstr("slurm: Slurm did not come up"));
  EXPECT_THAT(ProcessesWith(site.directory()), IsEmpty());
}

TEST_F(SlurmTest, InstanceThatIsUpIsNotStartedTwice) {
  Instance site(Slurm(), "");
  ASSERT_EQ(site.Up().status, 0);
  const Outcome again = site.Up();
  EXPECT_EQ(again.status, 1);
  EXPECT_EQ(again.output, "slurm: is up already: " + site.directory() + "\n");
  EXPECT_EQ(site.Command("sinfo --noheader --format=%t").output, "idle\n");
}

}  // namespace
