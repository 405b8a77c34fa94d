#pragma once

#include <sys/types.h>
#include <sys/user.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/faults/point.h"

/// How far a process has come with its work, whatever system calls that took.
enum class Stage {
  kLoading,    ///< the daemon, before its main function
  kStarting,   ///< the daemon, up to its first fork
  kServing,    ///< the daemon, from there on
  kHandshake,  ///< connection child (and script and copy process), from the start
  kLaunch,     ///< from the log line of the last line of the run request
  kControl,    ///< from the log line of the set-up of the run
  kAnswered,   ///< from the sending of the answer to that
  kStep,       ///< from the log line of the first step
  kNever,
};

/// One system call as it was met.
struct Met {
  Role role;
  long call;
  unsigned long size;  ///< bytes to transfer; 0 for calls that transfer none
  bool output;         ///< looks at standard output, opens it anew, waits for it or writes to it
  Stage stage;
};

/// Runs the daemon and every process that comes of it under ptrace, tells the processes apart, and
/// lets one system call go wrong.
///
/// Start() and Run() belong to the main thread, whose children the processes are; the rest may be
/// called from a second thread meanwhile.
class Tracer {
 public:
  struct End {
    pid_t pid;
    Role role;
    bool later;  ///< of a run after the first
    int status;  ///< as waitpid() reports it
  };

  explicit Tracer(const Point& point) : point_(point) {}

  /// Forks the daemon; `exec` runs in the new process and ends in its exec. All that is orphaned
  /// below comes to this process. Throws std::runtime_error.
  void Start(const std::function<void()>& exec);

  /// Follows the processes until none is left, programs that they have become included.
  void Run();

  pid_t daemon() const { return daemon_; }

  /// Waits until `condition` holds, which is looked at under the lock after every event; false when
  /// it does not within `limit`.
  bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit);

  /// The daemon waits for a master, and has accepted so many.
  bool has_accepted(int masters) const { return accepting_ && accepted_ == masters; }
  /// The point was reached.
  bool fired() const { return fired_; }
  /// So many processes of our code are alive besides the daemon.
  int others() const;
  bool daemon_ended() const;
  bool all_ended() const { return all_ended_; }

  /// An error that lasts is over.
  void Lift();

  /// After Run(): every process of ours that has ended, and every file that one has created.
  const std::vector<End>& ends() const { return ends_; }
  const std::set<std::string>& created() const { return created_; }
  const std::vector<Met>& met() const { return met_; }
  /// The daemon has come to its first fork.
  bool forked() const { return seen_.contains(Role::kChild); }
  /// The daemon has come to its main function.
  bool started() const { return stage_ != Stage::kLoading; }
  /// How far the process had come that the point was reached in.
  Stage fired_at() const { return fired_at_; }
  /// The first argument of the call that it was, if any.
  unsigned long fired_on() const { return fired_on_; }
  /// That was the connection with the first master.
  bool fired_on_master() const { return fired_ && fired_on_ == master_; }
  /// The first master's connection child has come to fork a process for its script.
  bool forked_script() const { return seen_.contains(Role::kScript); }
  bool fired_while_loading() const { return fired_ && fired_at_ == Stage::kLoading; }

  /// Where each living process stands, for a report of a hang.
  std::string Standing() const;

  /// Kills every process that is left. For the end of a trial that has failed.
  void KillAll();

 private:
  struct Process {
    Role role = Role::kNone;
    bool later = false;
    Stage stage = Stage::kHandshake;
    bool in_call = false;
    long call = -1;
    long restarted = -1;   // a call that a signal handler has interrupted, to be made once more
    bool spoiled = false;  // the call under way gets `result` and its registers back
    bool set_result = false;
    long result = 0;
    user_regs_struct saved{};
    std::vector<std::pair<unsigned long long, unsigned long long>> overwritten;  // where, by what
    std::pair<std::string, std::string> renamed;
  };

  void Handle(pid_t pid, int status);
  void HandleStop(pid_t pid, int signal, int event);
  void HandleFork(pid_t pid, bool shares_memory);
  void HandleExec(pid_t pid);
  void EnterCall(pid_t pid, Process& process, unsigned long first);
  void LeaveCall(pid_t pid, Process& process, long result);
  void Note(pid_t pid, Process& process, const unsigned long long* arguments);
  void NoteStage(pid_t pid, Process& process, const unsigned long long* arguments);
  bool IsDue(const Process& process);
  void Spoil(pid_t pid, Process& process);
  void Shorten(pid_t pid, Process& process, user_regs_struct& registers);
  void Overwrite(pid_t pid, Process& process, unsigned long long address, unsigned long long word);
  void Resume(pid_t pid, int signal = 0);
  bool FollowsCalls(const Process& process) const;
  void Ended(pid_t pid, int status);

  static constexpr unsigned long kNoDescriptor = ~0UL;

  const Point point_;
  pid_t daemon_ = -1;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::map<pid_t, Process> processes_;
  std::set<pid_t> early_;  // stopped, and their parents have not told of them yet
  std::map<std::pair<Role, long>, int> counts_;
  std::set<Role> seen_;
  std::vector<End> ends_;
  std::set<std::string> created_;
  std::vector<Met> met_;
  int accepted_ = 0;
  bool accepting_ = false;
  Stage stage_ = Stage::kLoading;  // of the daemon
  std::atomic<bool> fired_ = false;
  std::atomic<Stage> fired_at_ = Stage::kNever;
  std::atomic<unsigned long> fired_on_ = kNoDescriptor;
  std::atomic<unsigned long> master_ = kNoDescriptor - 1;
  bool lifted_ = false;
  bool all_ended_ = false;
};
