#include "inspect/runs.h"

#include <netinet/tcp.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <set>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>

#include "base/number.h"
#include "inspect/comms_log.h"
#include "inspect/daemon_log.h"
#include "inspect/run_file.h"

namespace inspect {
namespace {

constexpr std::string_view kProgram = "vkjobmill.exe";
constexpr std::string_view kDeleted = " (deleted)";
constexpr const char* kMark = "JOBMILL_RUN";

// A run that changes while it is looked at is looked at again this often.
constexpr int kAttempts = 4;

// Logs beyond these sizes are read from their ends only. A site with fifty runs would otherwise
// wait for gigabytes.
constexpr std::size_t kMostOfDaemonLog = 64 << 20;
constexpr std::size_t kMostOfCommsLog = 2 << 20;
constexpr std::size_t kEndOfCommsLog = 64 << 10;

constexpr std::chrono::seconds kPatience{2};

std::string WithoutDeleted(std::string path) {
  if (path.ends_with(kDeleted)) path.resize(path.size() - kDeleted.size());
  return path;
}

std::string_view BaseName(std::string_view path) {
  return path.substr(path.rfind('/') + 1);
}

// A process of the jobmill's program, in which no other program has been started since.
struct Jobmill {
  ProcessStat stat;
  std::optional<uid_t> user;
  std::optional<std::string> program;  // none: may not be known
  Options options;
  std::optional<std::vector<Process::OpenFile>> files;  // none: may not be known

  std::string FileWith(std::string_view beginning, std::string_view end) const {
    for (const Process::OpenFile& file : files.value_or(std::vector<Process::OpenFile>())) {
      if (BaseName(file.target).starts_with(beginning) &&
          WithoutDeleted(file.target).ends_with(end)) {
        return file.target;
      }
    }
    return {};
  }
  std::string Target(int descriptor) const {
    for (const Process::OpenFile& file : files.value_or(std::vector<Process::OpenFile>())) {
      if (file.number == descriptor) return file.target;
    }
    return {};
  }
};

// A link of a connection child.
struct Link {
  int descriptor = -1;
  TcpSocket socket;
};

// What the script process was given, from its command line.
struct ScriptArguments {
  int processes = 0;
  std::string path;
  std::string root;
  int port = 0;
};

std::optional<ScriptArguments> ReadScript(const std::vector<std::string>& arguments,
                                          const std::string& script) {
  const std::size_t size = arguments.size();
  // In front of the script there may be the interpreter and its options.
  if (size < 6 || arguments[size - 6] != script) return std::nullopt;
  return ScriptArguments{static_cast<int>(NumberIn(arguments[size - 5].c_str())),
                         arguments[size - 4], arguments[size - 3],
                         static_cast<int>(NumberIn(arguments[size - 2].c_str()))};
}

void Take(const ScriptArguments& arguments, Run& run) {
  run.path = arguments.path;
  run.root = arguments.root;
  run.processes = arguments.processes;
  run.comms_port = arguments.port;
}

std::string ScriptOf(const Options& options) {
  return options.script.empty() ? "./vkmpi_dir.sh" : options.script;
}

// All that is read of the machine, and how it belongs together.
class Survey {
 public:
  Runs Find();

 private:
  struct Mark {
    ProcessStat stat;
    uid_t user = 0;
    std::string text;
  };

  void ReadProcesses();
  void ReadSocketsAgain();
  void ReadMarks();
  std::optional<Jobmill> ReadJobmill(const ProcessStat& stat) const;
  bool IsOurs(pid_t pid) const { return ours_.contains(pid); }
  bool IsDaemon(const Jobmill& jobmill) const;
  bool IsListenerOf(const Jobmill& jobmill, int port) const;
  void AddDaemon(const Jobmill& jobmill);
  void AddRun(const Jobmill& first);
  void Describe(Jobmill& jobmill, Run& run);
  void SetState(const Jobmill& jobmill, const std::optional<Link>& master,
                const std::optional<Link>& simulator, Run& run) const;
  void SetStateWithoutRights(const Jobmill& jobmill, Run& run) const;
  std::optional<bool> HasScript(const Jobmill& jobmill, const Run& run) const;
  std::vector<Link> LinksOf(const Jobmill& jobmill) const;
  std::optional<Link> MasterOf(const Jobmill& jobmill, const std::vector<Link>& links,
                               const Run& run) const;
  std::optional<Link> SimulatorLinkOf(const Jobmill& jobmill, const std::vector<Link>& links,
                                      const Run& run) const;
  std::string LogOf(const Jobmill& jobmill, Run& run) const;
  void AddScript(const Jobmill& jobmill, Run& run) const;
  void AddLaunch(const Jobmill& jobmill, Run& run);
  void AddSimulators();
  void AddMembers();
  void AddLost();
  void AddCommsLogs();
  std::vector<ProcessStat> Descendants(pid_t ancestor) const;
  std::optional<pid_t> OwnerOf(std::uint64_t inode);
  const DaemonLog* Log(const std::string& file);

  Runs found_;
  std::map<pid_t, ProcessStat> processes_;
  std::multimap<pid_t, pid_t> children_;
  std::map<pid_t, Jobmill> ours_;
  std::set<pid_t> daemons_;
  TcpSockets sockets_;
  std::map<std::uint64_t, TcpSocket> by_inode_;
  std::vector<Mark> marks_;
  std::optional<std::map<std::uint64_t, pid_t>> owners_;
  struct LogText {
    std::string text;
    std::unique_ptr<DaemonLog> log;
  };
  std::map<std::string, LogText> logs_;
};

Runs Survey::Find() {
  ReadProcesses();
  ReadSocketsAgain();
  if (!sockets_.error.empty()) found_.missing.push_back("sockets: " + sockets_.error);
  for (const auto& [pid, jobmill] : ours_) {
    if (!IsOurs(jobmill.stat.parent) && IsDaemon(jobmill)) daemons_.insert(pid);
  }
  for (const auto& [pid, jobmill] : ours_) {
    if (daemons_.contains(pid)) {
      AddDaemon(jobmill);
    } else if (!IsOurs(jobmill.stat.parent) || daemons_.contains(jobmill.stat.parent)) {
      AddRun(jobmill);
    }
    // Otherwise it is a connection child's own child, which is about to become the script.
  }
  ReadMarks();
  AddSimulators();
  AddMembers();
  AddCommsLogs();
  // What has ended meanwhile may have left fields of two moments, and is gone in any case.
  std::erase_if(found_.runs, [](const Run& run) {
    const auto process = Process::Open(run.id);
    return run.state != RunState::kEnded && (!process || !process->IsAlive());
  });
  AddLost();
  std::sort(found_.daemons.begin(), found_.daemons.end(), [](const Daemon& a, const Daemon& b) {
    return std::tuple(a.options.listen_port, a.id.start, a.id.pid) <
           std::tuple(b.options.listen_port, b.id.start, b.id.pid);
  });
  std::sort(found_.runs.begin(), found_.runs.end(), [](const Run& a, const Run& b) {
    const bool lost_a = a.state == RunState::kLost;
    const bool lost_b = b.state == RunState::kLost;
    return std::tuple(lost_a, a.listen_port, a.id.start, a.id.pid) <
           std::tuple(lost_b, b.listen_port, b.id.start, b.id.pid);
  });
  return std::move(found_);
}

void Survey::ReadProcesses() {
  for (ProcessStat& stat : AllProcesses()) {
    children_.emplace(stat.parent, stat.id.pid);
    processes_.emplace(stat.id.pid, std::move(stat));
  }
  if (!processes_.contains(1)) {
    found_.missing.emplace_back("processes of other accounts: they are hidden (hidepid)");
  }
  for (const auto& [pid, stat] : processes_) {
    if (stat.name != kProgram) continue;
    if (auto jobmill = ReadJobmill(stat)) ours_.emplace(pid, std::move(*jobmill));
  }
}

std::optional<Jobmill> Survey::ReadJobmill(const ProcessStat& stat) const {
  const auto process = Process::Open(stat.id);
  if (!process) return std::nullopt;
  Jobmill jobmill;
  jobmill.stat = process->stat();
  jobmill.user = process->User();
  jobmill.program = process->Link("exe");
  if (jobmill.program && BaseName(WithoutDeleted(*jobmill.program)) != kProgram) {
    return std::nullopt;
  }
  jobmill.files = process->Files();
  jobmill.options = ParseOptions(process->Arguments());
  return jobmill;
}

void Survey::ReadSocketsAgain() {
  sockets_ = ReadSockets();
  by_inode_.clear();
  for (const TcpSocket& socket : sockets_.all) {
    if (socket.inode != 0) by_inode_.emplace(socket.inode, socket);
  }
}

bool Survey::IsListenerOf(const Jobmill& jobmill, int port) const {
  if (!jobmill.files) {
    // No connection child leads a session or a group. Other daemons may not do so either: they are
    // known by what they have open only.
    return jobmill.stat.group == jobmill.stat.id.pid || jobmill.stat.session == jobmill.stat.id.pid;
  }
  return std::any_of(
      jobmill.files->begin(), jobmill.files->end(), [&](const Process::OpenFile& file) {
        const auto socket = by_inode_.find(InodeIn(file.target, "socket").value_or(0));
        return socket != by_inode_.end() && socket->second.state == TCP_LISTEN &&
               socket->second.local.port == port;
      });
}

bool Survey::IsDaemon(const Jobmill& jobmill) const {
  return IsListenerOf(jobmill, jobmill.options.listen_port);
}

void Survey::AddDaemon(const Jobmill& jobmill) {
  Daemon daemon;
  daemon.id = jobmill.stat.id;
  daemon.since = StartTime(daemon.id.start);
  daemon.user = jobmill.user;
  daemon.program = jobmill.program.value_or("");
  daemon.older = daemon.program.ends_with(kDeleted);
  daemon.options = jobmill.options;
  Run unused;
  daemon.log = LogOf(jobmill, unused);
  found_.daemons.push_back(std::move(daemon));
}

void Survey::AddRun(const Jobmill& first) {
  Jobmill jobmill = first;
  for (int attempt = 1;; ++attempt) {
    Run run;
    run.id = jobmill.stat.id;
    run.daemon = daemons_.contains(jobmill.stat.parent) ? jobmill.stat.parent : 0;
    run.began = StartTime(run.id.start);
    if (jobmill.stat.state == 'Z') {
      run.state = RunState::kEnded;
      run.cause = "unknown";
      run.waits_for = "the daemon, to take note of the end";
    } else {
      Describe(jobmill, run);
    }
    // A program that has just been started listens nowhere yet and has no connection.
    const bool starts = run.daemon == 0 && jobmill.files && LinksOf(jobmill).empty();
    if (run.state != RunState::kUnknown || !jobmill.files || attempt == kAttempts) {
      if (!starts) found_.runs.push_back(std::move(run));
      return;
    }
    usleep(2000);
    ReadSocketsAgain();
    const auto again = ReadJobmill(jobmill.stat);
    if (!again) return;
    ours_[run.id.pid] = jobmill = *again;
  }
}

void Survey::Describe(Jobmill& jobmill, Run& run) {
  run.listen_port = jobmill.options.listen_port;
  run.user = jobmill.user;
  AddScript(jobmill, run);
  if (!jobmill.files) run.unknown["state"] = "only root may look at what the process has open";
  const std::vector<Link> links = LinksOf(jobmill);
  const std::optional<Link> simulator = SimulatorLinkOf(jobmill, links, run);
  const std::optional<Link> master = MasterOf(jobmill, links, run);
  if (simulator) {
    run.comms_port = simulator->socket.remote.port;
    run.host = simulator->socket.remote.address;
  }
  if (master) {
    run.master = master->socket.remote;
    if (master->socket.since_received) run.last_heard = Now() - *master->socket.since_received;
  }
  const std::string comms_log = jobmill.FileWith("", ".crvnlog");
  if (comms_log.ends_with(kDeleted)) {
    run.unknown["comms_log"] = "it was removed or replaced";
  } else if (!comms_log.empty()) {
    run.comms_log = "/proc/" + std::to_string(run.id.pid) + "/root" + comms_log;
  } else if (!jobmill.options.comms_log) {
    run.unknown["comms_log"] = "the daemon was started without -l";
  }
  SetState(jobmill, master, simulator, run);
  AddLaunch(jobmill, run);
}

std::vector<Link> Survey::LinksOf(const Jobmill& jobmill) const {
  std::vector<Link> links;
  for (const Process::OpenFile& file : jobmill.files.value_or(std::vector<Process::OpenFile>())) {
    const auto socket = by_inode_.find(InodeIn(file.target, "socket").value_or(0));
    if (socket != by_inode_.end()) links.push_back({file.number, socket->second});
  }
  return links;
}

std::optional<Link> Survey::MasterOf(const Jobmill& jobmill, const std::vector<Link>& links,
                                     const Run& run) const {
  const int port = jobmill.options.listen_port;
  for (const Link& link : links) {
    if (link.socket.local.port == port && link.socket.state != TCP_LISTEN) return link;
  }
  if (jobmill.files) return std::nullopt;
  // Without the right to look at the process: the only connection of a daemon with an only child.
  std::vector<Link> possible;
  for (const TcpSocket& socket : sockets_.all) {
    if (socket.local.port == port && socket.inode != 0 && socket.state != TCP_LISTEN) {
      possible.push_back({-1, socket});
    }
  }
  const bool only = possible.size() == 1 && run.daemon != 0 && children_.count(run.daemon) == 1;
  return only ? std::optional(possible.front()) : std::nullopt;
}

std::optional<Link> Survey::SimulatorLinkOf(const Jobmill& jobmill, const std::vector<Link>& links,
                                            const Run& run) const {
  const Options& options = jobmill.options;
  const auto fits = [&](const TcpSocket& socket) {
    if (socket.local.port == options.listen_port) return false;
    const int port = socket.remote.port;
    if (run.comms_port) return port == *run.comms_port;
    return port >= options.comms_base_port && port < options.comms_base_port + options.comms_ports;
  };
  for (const Link& link : links) {
    if (fits(link.socket)) return link;
  }
  if (jobmill.files || !run.comms_port || !run.user) return std::nullopt;
  std::optional<Link> found;
  for (const TcpSocket& socket : sockets_.all) {
    if (!fits(socket) || socket.user != *run.user || socket.inode == 0) continue;
    if (found) return std::nullopt;
    found = Link{-1, socket};
  }
  return found;
}

// Whether the script was started. The daemon's standard input becomes the script's pipe then.
std::optional<bool> Survey::HasScript(const Jobmill& jobmill, const Run& run) const {
  const std::string input = jobmill.Target(STDIN_FILENO);
  if (run.script) return true;
  if (!InodeIn(input, "pipe")) return false;
  if (const auto daemon = ours_.find(run.daemon); daemon != ours_.end() && daemon->second.files) {
    return daemon->second.Target(STDIN_FILENO) != input;
  }
  // The daemon has gone. A pipe that it had is every child's.
  for (const auto& [pid, other] : ours_) {
    if (pid != run.id.pid && other.Target(STDIN_FILENO) == input) return false;
  }
  return std::nullopt;
}

// What comes last on the master's link: a request, so that it is the jobmill's turn, or an answer.
std::optional<bool> IsOurTurn(const std::optional<Link>& master) {
  if (!master || !master->socket.since_received || !master->socket.since_sent ||
      *master->socket.since_received == *master->socket.since_sent) {
    return std::nullopt;
  }
  return *master->socket.since_received < *master->socket.since_sent;
}

void Survey::SetState(const Jobmill& jobmill, const std::optional<Link>& master,
                      const std::optional<Link>& simulator, Run& run) const {
  const auto process = Process::Open(run.id);
  const Process::Call call =
      process ? process->WaitsIn().value_or(Process::Call()) : Process::Call();
  const bool waits = call.number >= 0;
  const bool connected = simulator && simulator->socket.state != TCP_SYN_SENT;
  const std::optional<bool> our_turn = IsOurTurn(master);
  const bool polls = call.number == SYS_poll || call.number == SYS_ppoll;
  const bool master_left = !master || master->socket.state == TCP_CLOSE_WAIT;
  const auto in = [&](RunState state, const std::string& waits_for) {
    run.state = state;
    run.waits_for = waits_for;
    run.unknown.erase("state");
  };
  const auto awaits = [&](int descriptor) { return waits && call.descriptor == descriptor; };
  const auto after_sent = [](const std::optional<Link>& link) -> std::optional<double> {
    if (!link || !link->socket.since_sent) return std::nullopt;
    return Now() - *link->socket.since_sent;
  };
  if (!jobmill.files) {
    const bool before_account = jobmill.options.run_as_root && run.user == 0U && !run.script;
    if (before_account) {
      in(RunState::kHandshake, "");
    } else if (connected && our_turn) {
      *our_turn ? in(RunState::kSimulator, "an answer") : in(RunState::kMaster, "the next request");
    }
  } else if (call.number == SYS_read && call.descriptor == STDIN_FILENO) {
    in(RunState::kScript, "the script's line that names the host");
  } else if (const auto script = HasScript(jobmill, run);
             script == false && !connected && run.comms_log.empty()) {
    in(RunState::kHandshake, master && awaits(master->descriptor)
                                 ? "the master's request"
                                 : "the check and the preparation of the request");
  } else if (master && awaits(master->descriptor)) {
    if (script || connected || !run.comms_log.empty()) {
      const bool sends = call.number != SYS_recvfrom;
      in(RunState::kMaster, sends ? "the master to take an answer" : "the next request");
    } else {
      run.unknown["state"] = "the daemon has gone: handshake and wait for a request look the same";
    }
  } else if (simulator && awaits(simulator->descriptor)) {
    in(RunState::kSimulator, "an answer");
  } else if (connected && polls) {
    in(RunState::kMaster,
       "the end of the link of a master that has left in the middle of a request");
  } else if (waits && !connected && our_turn != false && !(polls && master_left)) {
    // It waits neither for the script nor for the master: for a name, a connection or the next try.
    in(RunState::kSimulatorListens, "a simulator that accepts the connection");
  } else if (!waits && process && process->stat().state != 'R' && our_turn) {
    // The right to know in which call it waits is narrower than the one to see what it has open.
    if (!*our_turn) {
      in(RunState::kMaster, "the next request");
    } else if (connected) {
      in(RunState::kSimulator, "an answer");
    } else if (jobmill.options.comms_log) {
      run.comms_log.empty()
          ? in(RunState::kScript, "the script's line that names the host")
          : in(RunState::kSimulatorListens, "a simulator that accepts the connection");
    } else {
      run.unknown["state"] =
          "without -l the wait for the script and that for a listening simulator "
          "look the same to others than root";
    }
  } else {
    run.unknown["state"] = "it changed while it was looked at";
  }
  switch (run.state) {
    case RunState::kHandshake:
      run.since = run.began;
      break;
    case RunState::kScript:
    case RunState::kSimulatorListens:
      run.since = run.last_heard;
      break;
    case RunState::kMaster:
      run.since = after_sent(master);
      break;
    case RunState::kSimulator:
      run.since = after_sent(simulator);
      if (master_left) run.waits_for += "; the master has left";
      break;
    default:
      break;
  }
  if (process && process->stat().state == 'T') run.waits_for = "a signal: it is stopped";
}

std::string Survey::LogOf(const Jobmill& jobmill, Run& run) const {
  const std::string name = "VKJobmill_" + std::to_string(jobmill.options.listen_port) + ".";
  if (jobmill.files) {
    const std::string target = jobmill.FileWith(name, ".log");
    if (target.empty() || target.ends_with(kDeleted)) {
      run.unknown["windows_user"] = "the log that tells it was removed or replaced";
      return {};
    }
    const pid_t reader = run.daemon != 0 ? run.daemon : jobmill.stat.id.pid;
    return "/proc/" + std::to_string(reader) + "/root" + target;
  }
  for (const char* directory : {"/var/log/jobmill/", "/var/log/", "/tmp/"}) {
    std::string file = directory + name + "log";
    // In /tmp anybody may put a file of the name.
    if (jobmill.user &&
        RunFile(file, jobmill.options.run_as_root ? 0 : *jobmill.user).error().empty()) {
      return file;
    }
  }
  run.unknown["windows_user"] = "the daemon's log may not be read";
  return {};
}

void Survey::AddScript(const Jobmill& jobmill, Run& run) const {
  const auto [begin, end] = children_.equal_range(run.id.pid);
  for (auto child = begin; child != end; ++child) {
    const ProcessStat& stat = processes_.at(child->second);
    // The script begins a session. cp, which copies the input of a cluster run, does not.
    if (stat.session != stat.id.pid) continue;
    run.script = stat.id.pid;
    const auto script = Process::Open(stat.id);
    const auto arguments =
        script ? ReadScript(script->Arguments(), ScriptOf(jobmill.options)) : std::nullopt;
    if (arguments) Take(*arguments, run);
    return;
  }
}

const DaemonLog* Survey::Log(const std::string& file) {
  const auto [entry, fresh] = logs_.try_emplace(file);
  if (fresh) {
    const RunFile log(file);
    if (log.error().empty()) {
      entry->second.text = log.Tail(kMostOfDaemonLog);
      entry->second.log = std::make_unique<DaemonLog>(entry->second.text);
    }
  }
  return entry->second.log.get();
}

void Survey::AddLaunch(const Jobmill& jobmill, Run& run) {
  if (run.state == RunState::kHandshake) {
    run.unknown["windows_user"] =
        "the log does not tell whose line is whose before the script starts";
    return;
  }
  const std::string file = LogOf(jobmill, run);
  const DaemonLog* log = file.empty() ? nullptr : Log(file);
  if (log == nullptr) {
    if (!file.empty()) run.unknown["windows_user"] = "the daemon's log may not be read";
    return;
  }
  LaunchKey key{static_cast<std::time_t>(*run.began), run.path, run.root, run.comms_port, {}};
  // The script has ended; the comms log has the model's name.
  constexpr std::string_view end = ".crvnlog";
  std::string model = WithoutDeleted(jobmill.FileWith("", end));
  if (!run.root && !model.empty()) key.model = model.substr(0, model.size() - end.size());
  if (const auto launch = log->Find(key)) {
    run.path = launch->path;
    run.root = launch->root;
    run.processes = launch->processes;
    run.comms_port = launch->port;
    run.windows_user = launch->windows_user;
    run.version = launch->version;
  }
  if (!run.windows_user) {
    run.unknown["windows_user"] = "the log does not tell it, or its lines are mixed with others";
  }
  const auto script = run.script ? Process::Open(*run.script) : std::nullopt;
  const auto directory = script ? script->Link("cwd") : std::nullopt;
  const std::string name(BaseName(directory.value_or("")));
  if (!name.starts_with("vk_")) return;
  if (const auto job = log->FindJob(name)) {
    run.scheduler = job->scheduler;
    run.job = job->number;
    if (run.state == RunState::kScript) {
      run.waits_for = "job " + job->number + " of " + job->scheduler;
    }
  }
}

void Survey::ReadMarks() {
  for (const auto& [pid, stat] : processes_) {
    if (IsOurs(pid) || stat.parent == 2 || pid == 2) continue;  // 2 starts the kernel's threads
    const auto process = Process::Open(stat.id);
    const auto mark = process ? process->Variable(kMark) : std::nullopt;
    if (mark) marks_.push_back({stat, process->User().value_or(0), *mark});
  }
}

std::optional<pid_t> Survey::OwnerOf(std::uint64_t inode) {
  if (!owners_) {
    owners_.emplace();
    std::set<uid_t> users;
    for (const Run& run : found_.runs) users.insert(run.user.value_or(0));
    for (const auto& [pid, stat] : processes_) {
      if (IsOurs(pid)) continue;
      const auto process = Process::Open(stat.id);
      if (!process || !users.contains(process->User().value_or(0))) continue;
      for (const auto& file : process->Files().value_or(std::vector<Process::OpenFile>())) {
        if (const auto found = InodeIn(file.target, "socket")) owners_->emplace(*found, pid);
      }
    }
  }
  const auto owner = owners_->find(inode);
  return owner == owners_->end() ? std::nullopt : std::optional(owner->second);
}

// Finds the simulators of this machine by their end of the link, or by listening on the comms port.
void Survey::AddSimulators() {
  std::map<int, TcpSocket> listening;
  std::map<std::pair<std::string, std::string>, std::uint64_t> ends;
  for (const TcpSocket& socket : sockets_.all) {
    if (socket.state == TCP_LISTEN) listening.emplace(socket.local.port, socket);
    ends.emplace(std::pair(Text(socket.local), Text(socket.remote)), socket.inode);
  }
  for (Run& run : found_.runs) {
    if (!run.comms_port || run.state == RunState::kHandshake) continue;
    std::optional<std::uint64_t> inode;
    for (const Link& link : LinksOf(ours_.at(run.id.pid))) {
      if (link.socket.remote.port != *run.comms_port) continue;
      const auto end = ends.find({Text(link.socket.remote), Text(link.socket.local)});
      if (end != ends.end()) inode = end->second;
    }
    const auto listener = listening.find(*run.comms_port);
    if (!inode && listener != listening.end() && listener->second.user == run.user) {
      inode = listener->second.inode;
    }
    if (inode && *inode != 0) run.simulator = OwnerOf(*inode);
    if (!run.simulator) continue;
    const auto process = Process::Open(*run.simulator);
    if (process) run.simulator_seconds = Seconds(process->stat().ticks);
  }
}

std::vector<ProcessStat> Survey::Descendants(pid_t ancestor) const {
  std::vector<ProcessStat> all;
  std::vector<pid_t> parents = {ancestor};
  while (!parents.empty()) {
    const auto [begin, end] = children_.equal_range(parents.back());
    parents.pop_back();
    for (auto child = begin; child != end; ++child) {
      all.push_back(processes_.at(child->second));
      parents.push_back(child->second);
    }
  }
  return all;
}

// The processes of each run: what descends from its connection child, and what carries the mark of
// one of those, or of its simulator, which a scheduler may have started.
void Survey::AddMembers() {
  for (Run& run : found_.runs) {
    std::set<pid_t> members;
    for (const ProcessStat& stat : Descendants(run.id.pid)) members.insert(stat.id.pid);
    if (run.simulator) members.insert(*run.simulator);
    std::set<std::string> texts;
    for (const Mark& mark : marks_) {
      // A simulator that a scheduler has started, and that does not listen yet.
      const auto process =
          run.comms_port && mark.user == run.user ? Process::Open(mark.stat.id) : std::nullopt;
      const std::vector<std::string> arguments =
          process ? process->Arguments() : std::vector<std::string>();
      const auto has = [&](const std::string& text) {
        return std::find(arguments.begin(), arguments.end(), text) != arguments.end();
      };
      const bool named =
          process && run.root && has(*run.root) && has(std::to_string(*run.comms_port));
      if (named || members.contains(mark.stat.id.pid)) texts.insert(mark.text);
    }
    for (const Mark& mark : marks_) {
      if (texts.contains(mark.text) && mark.user == run.user) members.insert(mark.stat.id.pid);
    }
    for (const pid_t pid : members) run.members.push_back(processes_.at(pid).id);
  }
}

// The scripts that are left, with what descends from them, and what carries a mark that no run has.
void Survey::AddLost() {
  std::set<pid_t> taken;
  for (const Run& run : found_.runs) {
    for (const ProcessId& id : run.members) taken.insert(id.pid);
  }
  std::set<std::string> scripts;
  for (const auto& [pid, jobmill] : ours_) scripts.insert(ScriptOf(jobmill.options));
  std::vector<Run> lost;
  for (const auto& [pid, stat] : processes_) {
    // The script leads a session of its own.
    if (stat.session != pid || taken.contains(pid) || IsOurs(pid)) continue;
    const auto process = Process::Open(stat.id);
    const std::vector<std::string> words =
        process ? process->Arguments() : std::vector<std::string>();
    if (words.size() < 6 || !scripts.contains(words[words.size() - 6])) continue;
    Run run;
    run.script = pid;
    run.user = process->User();
    Take(*ReadScript(words, words[words.size() - 6]), run);
    run.members.push_back(stat.id);
    for (const ProcessStat& member : Descendants(pid)) run.members.push_back(member.id);
    lost.push_back(std::move(run));
  }
  std::map<std::string, Run> marked;
  for (const Mark& mark : marks_) {
    if (taken.contains(mark.stat.id.pid)) continue;
    const auto owner = std::find_if(lost.begin(), lost.end(), [&](const Run& run) {
      return std::find(run.members.begin(), run.members.end(), mark.stat.id) != run.members.end();
    });
    Run& run = owner != lost.end() ? *owner : marked[mark.text];
    if (owner == lost.end()) run.members.push_back(mark.stat.id);
    if (run.simulator) continue;
    run.simulator = mark.stat.id.pid;
    run.simulator_seconds = Seconds(mark.stat.ticks);
    if (owner != lost.end()) continue;
    run.user = mark.user;
    // The shipped scripts start a simulator as PROGRAM PATH ROOT --port N --processes N.
    const auto process = Process::Open(mark.stat.id);
    const std::vector<std::string> words =
        process ? process->Arguments() : std::vector<std::string>();
    const auto option = std::find(words.begin(), words.end(), "--port");
    if (option - words.begin() < 2 || words.end() - option < 4) continue;
    run.path = *(option - 2);
    run.root = *(option - 1);
    run.comms_port = static_cast<int>(NumberIn((option + 1)->c_str()));
    run.processes = static_cast<int>(NumberIn((option + 3)->c_str()));
  }
  for (auto& [mark, run] : marked) lost.push_back(std::move(run));
  for (Run& run : lost) {
    std::erase_if(run.members, [](const ProcessId& id) {
      const auto process = Process::Open(id);
      return !process || !process->IsAlive();
    });
    if (run.members.empty()) continue;
    run.state = RunState::kLost;
    if (run.script) run.waits_for = "the end by its script, after the grace time";
    run.id = *std::min_element(run.members.begin(), run.members.end(),
                               [](const ProcessId& a, const ProcessId& b) {
                                 return std::tuple(a.start, a.pid) < std::tuple(b.start, b.pid);
                               });
    found_.runs.push_back(std::move(run));
  }
}

// The comms log as a thread reads it that may never come back.
struct ReadLog {
  std::string error;
  bool counted = false;
  CommsLog log;
};

ReadLog ReadCommsLog(const std::string& file, uid_t owner) {
  ReadLog result;
  const RunFile log(file, owner);
  result.error = log.error();
  if (!result.error.empty()) return result;
  result.counted = log.size() <= static_cast<std::int64_t>(kMostOfCommsLog);
  AddLines(log.Tail(result.counted ? kMostOfCommsLog : kEndOfCommsLog), result.log);
  return result;
}

void Survey::AddCommsLogs() {
  std::vector<std::pair<Run*, std::future<ReadLog>>> readers;
  for (Run& run : found_.runs) {
    if (run.comms_log.empty() && !ours_.at(run.id.pid).files && run.path && run.root &&
        ours_.at(run.id.pid).options.comms_log && run.path->starts_with('/')) {
      run.comms_log = *run.path + *run.root + ".crvnlog";
    }
    if (run.comms_log.empty() || !run.user) continue;
    std::packaged_task<ReadLog()> task(
        [file = run.comms_log, owner = *run.user] { return ReadCommsLog(file, owner); });
    readers.emplace_back(&run, task.get_future());
    // Not waited for at the end: it may be held by a file system that does not answer.
    std::thread(std::move(task)).detach();
  }
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  for (auto& [run, reader] : readers) {
    if (reader.wait_until(deadline) != std::future_status::ready) {
      run->unknown["comms_log"] = "its file system does not answer";
      continue;
    }
    const ReadLog read = reader.get();
    if (!read.error.empty()) {
      run->unknown["comms_log"] = read.error;
      continue;
    }
    if (read.log.host) run->host = read.log.host;
    run->last_request = read.log.last_request;
    run->day = read.log.day;
    run->date = read.log.date;
    run->until = read.log.until;
    run->cause = read.log.cause;
    if (read.counted) {
      run->requests = read.log.requests;
    } else {
      run->unknown["requests"] = "the comms log is too long to be counted";
    }
    if (run->state == RunState::kSimulator && run->last_request) {
      const std::string request = " to \"" + RequestName(*run->last_request) + "\"";
      run->waits_for.insert(std::string_view("an answer").size(), request);
    }
  }
}

}  // namespace

const char* Name(RunState state) {
  switch (state) {
    case RunState::kHandshake:
      return "handshake";
    case RunState::kScript:
      return "waiting for the script";
    case RunState::kSimulatorListens:
      return "waiting for the simulator to listen";
    case RunState::kMaster:
      return "waiting for the master";
    case RunState::kSimulator:
      return "waiting for the simulator";
    case RunState::kEnded:
      return "ended";
    case RunState::kLost:
      return "lost";
    case RunState::kUnknown:
      break;
  }
  return "unknown";
}

double Now() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

Runs FindRuns() {
  return Survey().Find();
}

}  // namespace inspect
