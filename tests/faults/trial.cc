#include "tests/faults/trial.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <optional>
#include <thread>

#include "tests/faults/peers.h"
#include "tests/faults/scenario.h"
#include "tests/faults/system_calls.h"
#include "tests/support/child_process.h"
#include "tests/support/ports.h"
#include "tests/support/socket_pair.h"
#include "tests/support/temporary_directory.h"

namespace fs = std::filesystem;

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Result = Session::Result;

// Longer than the longest demanded wait, six seconds for a simulator that cannot be reached.
constexpr seconds kHang{12};
// Where waiting is what is demanded, this much of it is enough.
constexpr milliseconds kLeftWaiting{300};
// Few, so that a loop over all descriptors stays short.
constexpr rlim_t kDescriptors = 256;

constexpr int kNotExecuted = 126;

// The root name tells the script what to do. What it should not have inherited it puts down in a
// file; its shell has the script open beside the three standard descriptors, and the directory
// while it lists it.
constexpr const char* kScript =
    "#!/bin/sh\n"
    "[ -p /dev/stdout ] || echo 'has no pipe' >>wrong\n"
    "set -- \"$3\" /proc/$$/fd/*\n"
    "[ $# -le 6 ] || echo \"has descriptors $*\" >>wrong\n";
// Leaves with one write, so that the connection child reads as often every time.
constexpr const char* kPrint =
    "host=HOST=127.0.0.1\n"
    "[ \"$1\" != NOHOST ] || host='no host'\n"
    "printf 'run %s\\n%s\\n' \"$1\" \"$host\"\n";
constexpr const char* kAccountCheck = "[ ! -O \"$0\" ] || echo 'has the account of root' >>wrong\n";

bool IsSend(long call) {
  return call == SYS_sendto || call == SYS_sendmsg;
}

bool IsOneOf(long call, std::initializer_list<long> calls) {
  return std::find(calls.begin(), calls.end(), call) != calls.end();
}

// Nobody has sent these but the fault.
bool IsCrash(int status) {
  return WIFSIGNALED(status) && WTERMSIG(status) != SIGKILL && WTERMSIG(status) != SIGTERM;
}

std::string EndText(int status) {
  if (WIFSIGNALED(status)) return std::string("died of signal ") + strsignal(WTERMSIG(status));
  return "ended with status " + std::to_string(WEXITSTATUS(status));
}

std::string SessionText(const Session& session) {
  constexpr std::array<const char*, 5> names = {"served", "refused", "closed", "left waiting",
                                                "answered wrongly"};
  return std::string(names[static_cast<std::size_t>(session.result)]) + " at '" + session.text +
         "'";
}

// The letter of /proc/PID/stat; '?' when there is no such process.
char StateOf(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  std::getline(file, text);
  const std::size_t name = text.rfind(") ");
  return name == std::string::npos ? '?' : text[name + 2];
}

// 0 for a process that has just ended.
std::size_t DescriptorsOf(pid_t pid) {
  try {
    return OpenDescriptors(pid);
  } catch (const fs::filesystem_error&) {
    return 0;
  }
}

class Trial {
 public:
  Trial(const Point& point, const std::string& executable);

  Verdict Run();

 private:
  void Prepare(const std::string& executable);
  void WriteScript() const;
  void OpenPipe();
  void DrainPipe() const;
  [[noreturn]] void ExecDaemon() const;
  void Conduct();
  void ConductSecond(std::size_t descriptors);
  Master::Plan FirstPlan() const;
  Master::Plan WholeRun() const;
  bool IsSentLater() const;
  bool MayLeaveWaiting() const;
  bool MustBeServed() const;
  bool IsDemandedRefusal(const std::string& text) const;
  bool ForkFailed() const;
  void ExpectDescriptors(std::size_t expected);
  void AwaitOthers(int masters);
  void AwaitAccepting();
  void JudgeSession();
  void JudgeDemanded();
  void JudgeAdmission();
  void JudgeRefusal();
  void JudgeEnds();
  void JudgeDaemonFault();
  void JudgeLogs();
  void JudgeChildLog(int status);
  void JudgeCommsLog();
  void JudgeDirectory();
  bool IsError() const;
  bool MayUserBeUnknown() const;
  bool IsLogged(const std::string& text) const;
  bool LacksLog() const;
  void ReadLogs();
  void JudgeDaemonEnd(int status);
  bool IsFailedLoad(const Tracer::End& end) const;
  void JudgeFiles();
  bool IsExpectedFile(const fs::path& file) const;
  void Fail(const std::string& text);
  std::string LogFile() const;
  bool Kills(Role role) const {
    return point_.kind == Point::Kind::kKill && point_.role == role && tracer_.fired();
  }

  const Point point_;
  const Scenario& scenario_;
  TemporaryDirectory directory_;
  Simulators simulators_;
  SocketPair terminal_;     // nobody types at it
  Descriptor pipe_reader_;  // of standard output, in the scenario that has one
  Descriptor pipe_writer_;
  Tracer tracer_;
  int port_ = 0;
  bool terminated_ = false;
  std::optional<Session> first_;
  std::size_t ended_ = 0;  // processes that ended in the first session
  std::string log_;        // as the first session has left it
  std::string output_;     // likewise
  std::string comms_;      // likewise
  Verdict verdict_;
  std::vector<std::string> failures_;
};

Trial::Trial(const Point& point, const std::string& executable)
    : point_(point), scenario_(ScenarioNamed(point.scenario)), tracer_(point) {
  Prepare(executable);
}

void Trial::Prepare(const std::string& executable) {
  fs::permissions(directory_.path(), fs::perms(0777));
  // The daemon looks for its files beside the executable.
  std::error_code error;
  fs::create_hard_link(executable, directory_.File("vkjobmill.exe"), error);
  if (error) fs::copy_file(executable, directory_.File("vkjobmill.exe"));
  directory_.Write(".vk_corvane_users", "alice nobody 1\nbob nobody 0\n");
  directory_.Write(".vk_corvane_env", "JOBMILL_SWEPT yes\n");
  fs::create_directory(directory_.path() / "data");
  fs::permissions(directory_.path() / "data", fs::perms(0777));
  // A link to a file that nobody may write to: the longest way that the copy of it can take.
  chmod(directory_.Write("data/model", "a model\n").c_str(), 0444);
  fs::create_symlink("model", directory_.File("data/CASE.afi"));
  if (scenario_.executable) WriteScript();
  simulators_.LeaveOnStep(scenario_.simulator_leaves);
  if (scenario_.into_a_pipe) OpenPipe();
  do port_ = FreePort();
  while (port_ == simulators_.port() + 1);
}

// As a service manager's: what comes goes to the file that the output is judged by.
void Trial::OpenPipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  pipe_reader_ = Descriptor(ends[0]);
  pipe_writer_ = Descriptor(ends[1]);
}

void Trial::DrainPipe() const {
  std::ofstream output(directory_.File("output"), std::ios::binary);
  output << std::unitbuf;
  std::array<char, 4096> part{};
  ssize_t got = 0;
  while ((got = read(pipe_reader_.get(), part.data(), part.size())) > 0)
    output.write(part.data(), got);
}

void Trial::WriteScript() const {
  const std::string text = kScript + std::string(scenario_.as_root ? kAccountCheck : "") + kPrint;
  chmod(directory_.Write("script", text).c_str(), 0755);
}

void Trial::ExecDaemon() const {
  const rlimit descriptors{kDescriptors, kDescriptors};
  const rlimit core{0, 0};
  setrlimit(RLIMIT_NOFILE, &descriptors);
  setrlimit(RLIMIT_CORE, &core);
  const int output = scenario_.into_a_pipe ? pipe_writer_.get()
                                           : open(directory_.File("output").c_str(),
                                                  O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (output < 0 || chdir(directory_.path().c_str()) != 0) _exit(kNotExecuted);
  dup2(terminal_.ours.get(), STDIN_FILENO);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, 0);
  // Which allocations there are depends on the environment, which the connection child copies.
  clearenv();
  setenv("PATH", "/usr/bin:/bin", 1);
  setenv("LC_ALL", "C", 1);
  if (scenario_.every_allocation) {
    // Nothing is taken from memory that is there already.
    setenv("MALLOC_MMAP_THRESHOLD_", "1", 1);
    setenv("MALLOC_MMAP_MAX_", "1000000", 1);
    setenv("MALLOC_TOP_PAD_", "0", 1);
  }
  const std::string executable = directory_.File("vkjobmill.exe");
  const std::string port = std::to_string(port_);
  const std::string comms = std::to_string(simulators_.port());
  const std::string script = directory_.File("script");
  std::vector<const char*> arguments = {
      executable.c_str(), "-p", port.c_str(), "-o", comms.c_str(), "-n", "2", "-t", "5", "-l", "-s",
      script.c_str()};
  if (!scenario_.as_root) arguments.push_back("-u");
  arguments.push_back(nullptr);
  execv(executable.c_str(), const_cast<char* const*>(arguments.data()));
  _exit(kNotExecuted);
}

Verdict Trial::Run() {
  tracer_.Start([this] { ExecDaemon(); });
  pipe_writer_.Reset();
  std::thread reader([this] {
    if (scenario_.into_a_pipe) DrainPipe();
  });
  std::thread peers([this] { Conduct(); });
  tracer_.Run();
  peers.join();
  reader.join();
  if (tracer_.fired() || point_.kind == Point::Kind::kUndisturbed) {
    JudgeSession();
  } else {
    verdict_.kind = Verdict::Kind::kNotReached;
  }
  JudgeEnds();
  JudgeDaemonFault();
  JudgeLogs();
  JudgeFiles();
  std::error_code ignored;
  fs::remove(LogFile(), ignored);
  if (!failures_.empty()) {
    verdict_.kind = Verdict::Kind::kFailed;
    for (const std::string& failure : failures_) {
      verdict_.text += (verdict_.text.empty() ? "" : "; ") + failure;
    }
  }
  if (point_.kind == Point::Kind::kUndisturbed) verdict_.met = tracer_.met();
  return verdict_;
}

void Trial::Fail(const std::string& text) {
  failures_.push_back(text);
}

std::string Trial::LogFile() const {
  const std::string name = "/VKJobmill_" + std::to_string(port_) + ".log";
  return (fs::exists("/var/log" + name) ? "/var/log" : "/tmp") + name;
}

Master::Plan Trial::WholeRun() const {
  Master::Plan plan;
  plan.path = directory_.File("data") + "/";
  plan.cluster = scenario_.plan.cluster;
  return plan;
}

Master::Plan Trial::FirstPlan() const {
  Master::Plan plan = scenario_.plan;
  plan.path = WholeRun().path;
  return plan;
}

// Both sides of the conversation with the daemon, from its start to its end.
void Trial::Conduct() {
  const auto ready = [this] { return tracer_.has_accepted(0) || tracer_.daemon_ended(); };
  if (!tracer_.WaitFor(ready, kHang)) {
    Fail("the daemon neither listens nor ends:" + tracer_.Standing());
  } else if (!tracer_.WaitFor([this] { return tracer_.daemon_ended(); }, milliseconds(0))) {
    const std::size_t descriptors = DescriptorsOf(tracer_.daemon());
    Master master([this](auto waited) {
      return waited > kHang || (waited > kLeftWaiting && MayLeaveWaiting());
    });
    first_ = master.Hold(port_, FirstPlan());
    AwaitOthers(1);
    AwaitAccepting();
    ReadLogs();
    tracer_.Lift();
    if (!tracer_.WaitFor([this] { return tracer_.daemon_ended(); }, milliseconds(0))) {
      ConductSecond(descriptors + (ForkFailed() ? 1 : 0));
    }
  }
  if (!tracer_.WaitFor([this] { return tracer_.all_ended(); }, kHang)) {
    Fail("left behind:" + tracer_.Standing());
  }
  while (!tracer_.WaitFor([this] { return tracer_.all_ended(); }, milliseconds(20))) {
    tracer_.KillAll();
  }
}

// Before the next session adds to them, or replaces the one of the run.
void Trial::ReadLogs() {
  tracer_.WaitFor(
      [this] {
        ended_ = tracer_.ends().size();
        return true;
      },
      milliseconds(0));
  std::ifstream file(LogFile(), std::ios::binary);
  log_.assign(std::istreambuf_iterator<char>(file), {});
  output_ = directory_.Read("output");
  comms_ =
      directory_.Read(scenario_.plan.cluster == "0" ? "data/CASE.crvnlog" : "data/CASE_1.crvnlog");
}

// The next master finds the fault gone and has to be served as if nothing had been.
void Trial::ConductSecond(std::size_t descriptors) {
  ExpectDescriptors(descriptors);
  if (!scenario_.executable) WriteScript();
  simulators_.LeaveOnStep(false);
  Master next([](auto waited) { return waited > kHang; });
  const Session second = next.Hold(port_, WholeRun());
  if (second.result != Result::kServed) Fail("the next master was " + SessionText(second));
  AwaitOthers(2);
  ExpectDescriptors(descriptors);
  if (!Eventually([this] { return ChildrenOf(tracer_.daemon()).empty(); }, kHang)) {
    Fail("children of the daemon are not reaped");
  }
  terminated_ = true;
  kill(tracer_.daemon(), SIGTERM);
}

// Until the daemon accepts again, or has ended, and no other process of ours is left.
void Trial::AwaitOthers(int masters) {
  const auto quiet = [this, masters] {
    return (tracer_.has_accepted(masters) || tracer_.daemon_ended()) && tracer_.others() == 0;
  };
  if (!tracer_.WaitFor(quiet, kHang)) {
    Fail("not at rest after the master has left:" + tracer_.Standing());
    tracer_.KillAll();
  }
}

// It has come to accept(); whether it stays there shows when it sleeps, or has ended instead. As
// long as the point has not been reached, the finished child has to be reaped as well: the system
// tells the daemon of its end a moment later than the tracer.
void Trial::AwaitAccepting() {
  const auto fired = [this] { return tracer_.fired(); };
  Eventually(
      [&] {
        if (!IsRunning(tracer_.daemon())) return true;
        const bool reaped = ChildrenOf(tracer_.daemon()).empty();
        return StateOf(tracer_.daemon()) == 'S' &&
               (reaped || tracer_.WaitFor(fired, milliseconds(0)));
      },
      kHang);
}

void Trial::ExpectDescriptors(std::size_t expected) {
  const std::size_t open = DescriptorsOf(tracer_.daemon());
  if (open != expected) {
    Fail("the daemon has " + std::to_string(open) + " descriptors, not " +
         std::to_string(expected));
  }
}

bool Trial::ForkFailed() const {
  return tracer_.fired() && point_.role == Role::kDaemon &&
         (point_.call == SYS_clone || point_.call == SYS_clone3) &&
         point_.kind != Point::Kind::kKill;
}

// An answer that the connection does not take at once is sent when it does.
bool Trial::IsSentLater() const {
  return point_.call == SYS_sendto && point_.error == EAGAIN && tracer_.fired_on_master();
}

// A master whose connection could not get a process is left waiting. So is one whose answer could
// not be sent: that is not noticed before the next receive. And a line that could not be received
// counts as empty, after which its bytes are taken for the lengths of lines that never come.
bool Trial::MayLeaveWaiting() const {
  if (ForkFailed()) return true;
  if (!tracer_.fired() || point_.role != Role::kChild || point_.kind == Point::Kind::kKill) {
    return false;
  }
  if (point_.call == SYS_recvfrom && point_.kind == Point::Kind::kError) {
    return tracer_.fired_at() < Stage::kControl;
  }
  return IsSend(point_.call) && IsError() && tracer_.fired_on_master() && !IsSentLater();
}

// The call failed, once or from there on.
bool Trial::IsError() const {
  return point_.kind == Point::Kind::kError || point_.kind == Point::Kind::kLasting;
}

// What a program is expected to live with: the rest of a transfer follows; a log that cannot be
// written does not stop a run, nor does a copy that cannot be made; a connection child does not
// need its daemon, and the daemon itself needs little to start one.
bool Trial::MustBeServed() const {
  if (point_.kind == Point::Kind::kUndisturbed) return true;
  if (tracer_.fired_while_loading()) return false;
  if (point_.role == Role::kCopy) return true;
  if (point_.kind == Point::Kind::kKill) return point_.role == Role::kDaemon && tracer_.forked();
  if (point_.kind == Point::Kind::kShort) return true;
  if (IsSentLater()) return true;
  if (point_.role == Role::kDaemon) {
    return !IsOneOf(point_.call, {SYS_accept4, SYS_clone, SYS_clone3, SYS_socket, SYS_bind,
                                  SYS_listen, SYS_rt_sigaction, SYS_brk, SYS_mmap, SYS_mremap});
  }
  return IsOneOf(point_.call,
                 {SYS_write, SYS_close, SYS_fchmod, SYS_setgid, SYS_renameat, SYS_getrandom,
                  SYS_close_range, SYS_keyctl, SYS_readlinkat, SYS_fcntl});
}

// A file that cannot be read ends before its first record. What was received of a name may be a
// line of the request before it, when an interrupted one was taken for empty.
bool Trial::MayUserBeUnknown() const {
  return tracer_.fired() && point_.role == Role::kChild && IsError() &&
         (IsOneOf(point_.call, {SYS_read, SYS_newfstatat, SYS_recvfrom}) || IsMemory(point_.call));
}

bool Trial::IsDemandedRefusal(const std::string& text) const {
  if (text == "No host detected") return scenario_.let_in;
  if (!scenario_.as_root) return false;
  const std::string users = directory_.path().string() + "/./.vk_corvane_users";
  if (text == "Could not open the user administration file: " + users) return IsError();
  const bool shifted = point_.call == SYS_recvfrom && IsError();
  const std::string who = "Windows user '" + scenario_.plan.user;
  if (!scenario_.refusal.empty() && text == who + scenario_.refusal) return true;
  if (text.starts_with(who + "'") || (shifted && text.starts_with("Windows user '"))) {
    return text.ends_with("' not found in administration file") && MayUserBeUnknown();
  }
  if (!scenario_.let_in || !IsError()) return false;
  return text == "Failed to get password entry for 'nobody'" ||
         text == "Failed to set user ID for Tolmen job - error = " + std::to_string(point_.error);
}

// No failure lets anybody in, nor makes a run of what is none.
void Trial::JudgeAdmission() {
  if (!scenario_.let_in && first_->admitted) Fail("the master was let in");
  if (!scenario_.let_in && tracer_.forked_script())
    Fail("a script was started for a master to be refused");
  if (first_->result == Result::kServed && scenario_.result != Result::kServed) {
    Fail("the master was served although it had to be " +
         std::string(scenario_.result == Result::kRefused ? "refused" : "cut off"));
  }
}

// The master is told a demanded text, and the log has it too.
void Trial::JudgeRefusal() {
  const std::string& text = first_->text;
  if (!IsDemandedRefusal(text)) Fail("the master was " + SessionText(*first_));
  std::string logged = text + "\n";
  if (text.starts_with("Could not open the user administration file")) {
    logged = "Failed to read users administration file - " + logged;
  } else if (text == "No host detected") {
    logged = "No host detected, exiting.\n";
  }
  if (!IsLogged(logged)) Fail("the refusal '" + text + "' was not logged");
}

void Trial::JudgeSession() {
  if (!first_) return;  // the daemon's own end tells
  JudgeAdmission();
  switch (first_->result) {
    case Result::kServed:
      verdict_.kind = Verdict::Kind::kServed;
      break;
    case Result::kRefused:
      verdict_.kind = Verdict::Kind::kRefused;
      JudgeRefusal();
      break;
    case Result::kClosed:
      verdict_.kind = Verdict::Kind::kClosed;
      break;
    case Result::kWaiting:
      verdict_.kind = Verdict::Kind::kWaiting;
      if (!MayLeaveWaiting()) Fail("the master was " + SessionText(*first_));
      break;
    case Result::kWrong:
      Fail("the master was " + SessionText(*first_));
      break;
  }
  // A script that cannot be started leaves its run without a host, and nothing else.
  if (point_.role == Role::kScript && first_->result != scenario_.result &&
      first_->text != "No host detected") {
    Fail("the master was " + SessionText(*first_) + " for a script that did not start");
  }
  JudgeDemanded();
  if (MustBeServed() && first_->result != scenario_.result) {
    Fail("the master was " + SessionText(*first_) + " although it could have been served");
  }
}

// Where a failure has a text and an outcome of its own.
void Trial::JudgeDemanded() {
  if (!tracer_.fired() || !IsError()) return;
  const auto log = [this](const std::string& text) {
    if (!IsLogged(text)) Fail("'" + text + "' was not logged");
  };
  const auto demand = [this, log](long call, const std::string& text, Result result) {
    if (point_.call != call) return;
    log(text + "\n");
    if (first_->result != result) Fail("the master was " + SessionText(*first_));
    if (result == Result::kRefused && first_->text != text) {
      Fail("the master was told '" + first_->text + "'");
    }
  };
  if (point_.role == Role::kDaemon) {
    if (ForkFailed()) log("Error occurred forking controlling thread: ");
  } else if (point_.role == Role::kChild) {
    demand(SYS_clone, "Error: fork failed", Result::kClosed);
    demand(SYS_pipe2, "Error: pipe failed", Result::kClosed);
    demand(SYS_setgid,
           std::string("Failed to set the group ID - ") + (point_.error == EPERM ? "1" : "2"),
           scenario_.result);
    // The first one is the switch. There may be more, to see that it cannot be undone.
    if (point_.occurrence == 1) {
      demand(SYS_setuid,
             "Failed to set user ID for Tolmen job - error = " + std::to_string(point_.error),
             Result::kRefused);
    }
  }
  if (scenario_.plan.cluster == "1" && point_.role == Role::kChild && point_.call == SYS_clone3) {
    // Not every C library has system() report that it found no process.
    if (!IsLogged("Copy failed - run will probably fail\n")) log("Copy succeeded\n");
  }
}

// These end the daemon, whatever the reason, and after the first master too.
void Trial::JudgeDaemonFault() {
  if (point_.role != Role::kDaemon || !tracer_.fired() || !IsError()) return;
  if (tracer_.fired_at() == Stage::kLoading) return;
  const bool handler = point_.call == SYS_rt_sigaction && tracer_.fired_on() == SIGCHLD;
  if (!handler && !IsOneOf(point_.call, {SYS_accept4, SYS_socket, SYS_bind})) return;
  if (verdict_.kind != Verdict::Kind::kDaemonEnded) Fail("the daemon went on");
}

// Every item goes to a file and to standard output, so that one failed write leaves it in one.
bool Trial::IsLogged(const std::string& text) const {
  return LacksLog() || log_.find(text) != std::string::npos ||
         output_.find(text) != std::string::npos;
}

// Nothing can be written any more, or no log could be made.
bool Trial::LacksLog() const {
  if (point_.kind != Point::Kind::kLasting || !tracer_.fired()) return false;
  return point_.call == SYS_write ||
         (point_.role == Role::kDaemon && tracer_.fired_at() == Stage::kStarting);
}

// What the first connection child has written about its end.
void Trial::JudgeLogs() {
  if (!first_ || LacksLog()) return;
  for (std::size_t i = 0; i < ended_; ++i) {
    const Tracer::End& end = tracer_.ends()[i];
    if (end.role == Role::kChild && WIFEXITED(end.status)) JudgeChildLog(WEXITSTATUS(end.status));
  }
}

void Trial::JudgeChildLog(int status) {
  if (status == 0) return JudgeCommsLog();
  constexpr std::array<const char*, 11> reasons = {
      "Incorrect response from Corvane - no controller will be launched\n",
      "Failed to read users administration file - ",
      "' not found in administration file\n",
      "' does not have permissions to run Varnok\n",
      "Failed to get password entry for '",
      "Failed to set user ID for Tolmen job - error = ",
      "Error: pipe failed\n",
      "Error: fork failed\n",
      "No host detected, exiting.\n",
      "Socket connection failed: ",
      "Socket connection failed\n"};
  if (std::none_of(reasons.begin(), reasons.end(),
                   [this](const char* reason) { return IsLogged(reason); })) {
    Fail("the connection child gave up and did not log why");
  }
}

// Its last line says how the run ended, and the one before it why when it failed.
void Trial::JudgeCommsLog() {
  constexpr const char* naturally =
      "Process loop has exited naturally, going to sleep again ... \n";
  constexpr const char* failed = "Request process loop failed: ";
  constexpr const char* lost = "No or unexpected data received from Corvane\n";
  constexpr const char* packet = "Failed to handle data packet received from master: ";
  const bool of_child = tracer_.fired() && point_.role == Role::kChild;
  // One that could not be made is written nowhere.
  if (comms_.empty() && of_child && IsError()) return;
  const auto has = [this](const std::string& text) {
    return comms_.find(text) != std::string::npos || output_.find(text) != std::string::npos;
  };
  if (first_->result == Result::kServed && !scenario_.plan.leave_after_connecting) {
    if (!comms_.ends_with(naturally) && !(point_.call == SYS_write && has(naturally))) {
      Fail("the comms log does not say that the run is over");
    }
    return;
  }
  // The answer to the request that ends the run may have been the one that was lost.
  if (has("Shutting down\n") && has(naturally)) return;
  if (!has(failed)) return Fail("the comms log does not say that the run has failed");
  if (of_child && IsMemory(point_.call)) return;  // there may be none for the reason
  const bool link = IsOneOf(point_.call, {SYS_recvfrom, SYS_sendto}) && tracer_.fired_on_master();
  const bool by_master = (of_child && IsError() && link) || first_->result == Result::kServed;
  const std::string controller = "Exception returned from VK controller: ";
  const bool says_lost = has(lost) && has(failed + std::string(lost));
  const bool says_packet =
      has(controller) && has(packet + controller) && has(failed + std::string(packet) + controller);
  if (by_master ? !says_lost : !says_packet) {
    Fail(std::string("the comms log does not say that the ") +
         (by_master ? "master was lost" : "controller failed"));
  }
}

void Trial::JudgeEnds() {
  const std::string output = directory_.Read("output");
  for (const char* report :
       {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error: "}) {
    if (output.find(report) == std::string::npos) continue;
    Fail(std::string("a sanitizer reported ") + report);
    verdict_.crashed = true;
  }
  for (const Tracer::End& end : tracer_.ends()) {
    if (IsCrash(end.status) && !IsFailedLoad(end)) verdict_.crashed = true;
    const bool killed =
        WIFSIGNALED(end.status) && WTERMSIG(end.status) == SIGKILL && !end.later && Kills(end.role);
    if (end.pid == tracer_.daemon()) {
      if (killed) {
        verdict_.kind = Verdict::Kind::kDaemonKilled;
      } else if (!failures_.empty() && WIFSIGNALED(end.status) && WTERMSIG(end.status) == SIGKILL) {
        // Killed with what was left of a failed trial.
      } else if (!terminated_ || !WIFSIGNALED(end.status) || WTERMSIG(end.status) != SIGTERM) {
        JudgeDaemonEnd(end.status);
      }
    } else if (!killed && !failures_.empty() && WIFSIGNALED(end.status)) {
      // Killed with what was left of a failed trial, maybe.
      if (WTERMSIG(end.status) != SIGKILL) {
        Fail(std::string(NameOf(end.role)) + " " + EndText(end.status));
      }
    } else if (!killed && (WIFSIGNALED(end.status) ||
                           (WEXITSTATUS(end.status) > 1 &&
                            !(end.role == Role::kCopy && WEXITSTATUS(end.status) == 127)))) {
      Fail(std::string(NameOf(end.role)) + (end.later ? " of the next run " : " ") +
           EndText(end.status));
    }
  }
}

// Before the main function the program is in the hands of the system's loader, which does not look
// whether it got the first memory that it asks for.
bool Trial::IsFailedLoad(const Tracer::End& end) const {
  return end.pid == tracer_.daemon() && tracer_.fired_while_loading() && !tracer_.started() &&
         IsMemory(point_.call) && WIFSIGNALED(end.status) && WTERMSIG(end.status) == SIGSEGV;
}

void Trial::JudgeDaemonEnd(int status) {
  if (!tracer_.fired() && WIFEXITED(status) && WEXITSTATUS(status) == kNotExecuted) {
    return Fail("the daemon could not be executed");
  }
  const std::string output = directory_.Read("output");
  const std::string taken = "Error in creating socket to listen on port " + std::to_string(port_) +
                            ": check netstat to see if the port is already in use\n";
  if (!tracer_.fired() && output == taken) return;  // by somebody else: try again
  const bool exited = WIFEXITED(status);
  const bool refused = exited && WEXITSTATUS(status) == 127 && !output.empty();
  const bool crashed = IsFailedLoad({tracer_.daemon(), Role::kDaemon, false, status});
  if (tracer_.fired_while_loading() && !tracer_.started() && (refused || crashed)) {
    verdict_.kind = Verdict::Kind::kNotStarted;
    return;
  }
  std::string text = "Socket failure in accept call - exiting ... \n";
  if (point_.call == SYS_socket || point_.call == SYS_bind) {
    text = taken;
  } else if (point_.call == SYS_rt_sigaction) {
    text = std::string(strerror(point_.error)) + "\n";
  } else if (IsMemory(point_.call)) {
    text = "The jobmill has no memory to start with\n";
  }
  if (!exited || WEXITSTATUS(status) != 1 || output.find(text) == std::string::npos) {
    Fail("the daemon " + EndText(status) + " after printing '" +
         output.substr(output.size() - std::min<std::size_t>(output.size(), 120)) + "'");
  } else {
    verdict_.kind = Verdict::Kind::kDaemonEnded;
  }
}

bool Trial::IsExpectedFile(const fs::path& file) const {
  const std::string name = file.filename().string();
  return file == LogFile() || name.ends_with(".crvnlog") || name == "CASE_1.afi";
}

void Trial::JudgeFiles() {
  const std::string wrong = directory_.Read("wrong");
  if (!wrong.empty()) Fail("the script " + wrong);
  for (const std::string& name : tracer_.created()) {
    const fs::path file = name.starts_with('/') ? fs::path(name) : directory_.path() / name;
    if (!fs::exists(file) || IsExpectedFile(file)) continue;
    // Killed between making a file under its first name and giving it its own.
    const bool interrupted = point_.kind == Point::Kind::kKill && tracer_.fired() &&
                             file.filename().string().starts_with(".jobmill-");
    if (!interrupted) Fail("left the file " + name);
    std::error_code ignored;
    fs::remove(file, ignored);
  }
  JudgeDirectory();
}

// Whatever process has made it: besides what was there, the logs, the copy and our own notes.
void Trial::JudgeDirectory() {
  for (const auto& entry : fs::recursive_directory_iterator(directory_.path())) {
    const std::string name = fs::relative(entry.path(), directory_.path()).string();
    constexpr std::array<const char*, 12> known = {"vkjobmill.exe",
                                                   ".vk_corvane_users",
                                                   ".vk_corvane_env",
                                                   "script",
                                                   "output",
                                                   "wrong",
                                                   "data",
                                                   "data/model",
                                                   "data/CASE.afi",
                                                   "data/CASE_1.afi",
                                                   "data/CASE.crvnlog",
                                                   "data/CASE_1.crvnlog"};
    const bool interrupted =
        point_.kind == Point::Kind::kKill && tracer_.fired() && name.starts_with("data/.jobmill-");
    // A request with a line missing has its lines in other places.
    const bool shifted = point_.call == SYS_recvfrom && IsError() && name.ends_with(".crvnlog");
    if (std::find(known.begin(), known.end(), name) == known.end() && !interrupted && !shifted) {
      Fail("left the file " + name);
    }
  }
}

}  // namespace

std::string NameOf(Verdict::Kind kind) {
  constexpr std::array<const char*, 9> names = {"served",        "refused",      "closed",
                                                "waiting",       "daemon ended", "not started",
                                                "daemon killed", "not reached",  "FAILED"};
  return names[static_cast<std::size_t>(kind)];
}

Verdict RunTrial(const Point& point, const std::string& daemon) {
  return Trial(point, daemon).Run();
}
