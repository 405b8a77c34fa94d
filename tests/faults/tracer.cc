#include "tests/faults/tracer.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string_view>

#include "tests/faults/system_calls.h"
#include "tests/support/child_process.h"
#include "tests/support/socket_pair.h"

namespace {

constexpr long kOptions = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK |
                          PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;
// What a call reports, to the tracer alone, when it will be made again after the signal handler.
constexpr long kRestart = -512;
constexpr long kRestartAlways = -513;
constexpr int kSystemCallStop = SIGTRAP | 0x80;

// Every request may meet a process that was killed a moment ago; waitpid() tells of it then.
template <class Address, class Data>
long Ptrace(__ptrace_request request, pid_t pid, Address address, Data data) {
  return ptrace(request, pid, address, data);
}

std::string TextAt(pid_t pid, unsigned long long address) {
  std::array<char, 512> text{};
  const Descriptor memory(
      open(("/proc/" + std::to_string(pid) + "/mem").c_str(), O_RDONLY | O_CLOEXEC));
  // Less when the text lies at the end of its page, and nothing follows.
  if (pread(memory.get(), text.data(), text.size() - 1, static_cast<off_t>(address)) < 0) return {};
  return text.data();
}

// The name of a file that a call is given together with a directory's descriptor.
std::string FileAt(pid_t pid, unsigned long long directory, unsigned long long address) {
  std::string name = TextAt(pid, address);
  if (name.starts_with('/') || static_cast<int>(directory) == AT_FDCWD) return name;
  std::error_code gone;
  return std::filesystem::read_symlink(
             "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(directory), gone) /
         name;
}

unsigned long long WordAt(pid_t pid, unsigned long long address) {
  errno = 0;
  return static_cast<unsigned long long>(Ptrace(PTRACE_PEEKDATA, pid, address, 0));
}

// Where the pieces of a scattered transfer are described.
struct Pieces {
  unsigned long long address;  // of the first iovec
  unsigned long long count;
};

Pieces PiecesOf(pid_t pid, const SystemCall& call, unsigned long long pointer,
                unsigned long long count) {
  if (call.pieces == SystemCall::Pieces::kVector) return {pointer, count};
  return {WordAt(pid, pointer + offsetof(msghdr, msg_iov)),
          WordAt(pid, pointer + offsetof(msghdr, msg_iovlen))};
}

unsigned long long LengthOf(pid_t pid, const Pieces& pieces, unsigned long long index) {
  return WordAt(pid, pieces.address + index * sizeof(iovec) + offsetof(iovec, iov_len));
}

unsigned long SizeOf(pid_t pid, const SystemCall& call, const unsigned long long* arguments) {
  if (call.size_argument >= 0) return arguments[call.size_argument];
  if (call.pieces == SystemCall::Pieces::kNone) return 0;
  const Pieces pieces = PiecesOf(pid, call, arguments[1], arguments[2]);
  unsigned long size = 0;
  for (unsigned long long i = 0; i < pieces.count; ++i) size += LengthOf(pid, pieces, i);
  return size;
}

// Whether a descriptor of the process, whatever its number, is its standard output.
bool IsOutput(pid_t pid, unsigned long long descriptor) {
  const std::string directory = "/proc/" + std::to_string(pid) + "/fd/";
  struct stat one {};
  struct stat output {};
  return stat((directory + std::to_string(descriptor)).c_str(), &one) == 0 &&
         stat((directory + "1").c_str(), &output) == 0 && one.st_dev == output.st_dev &&
         one.st_ino == output.st_ino;
}

bool IsOfOutput(pid_t pid, long call, const unsigned long long* arguments) {
  switch (call) {
    case SYS_poll:
      return true;
    case SYS_openat:
      return TextAt(pid, arguments[1]) == "/proc/self/fd/1";
    case SYS_write:
    case SYS_newfstatat:
      return IsOutput(pid, arguments[0]);
    default:
      return false;
  }
}

unsigned long long& Argument(user_regs_struct& registers, int index) {
  switch (index) {
    case 0:
      return registers.rdi;
    case 1:
      return registers.rsi;
    default:
      return registers.rdx;
  }
}

// What a connection child writes to its logs when it has come to the next stage. Its texts are
// demanded; which system calls lie between them depends on who comes first.
struct Mark {
  std::string_view text;
  Stage stage;
};
constexpr std::array<Mark, 3> kMarks = {{{"Debug flag received: ", Stage::kLaunch},
                                         {"Connect on host: ", Stage::kControl},
                                         {"Newton\n", Stage::kStep}}};

bool TakesMemory(long call) {
  return call == SYS_brk || call == SYS_mmap || call == SYS_mremap;
}

}  // namespace

void Tracer::Start(const std::function<void()>& exec) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  std::array<int, 2> gate{};
  if (pipe2(gate.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  daemon_ = fork();
  if (daemon_ < 0) throw std::runtime_error("fork failed");
  if (daemon_ == 0) {
    char byte = 0;
    close(gate[1]);
    if (read(gate[0], &byte, 1) == 0) exec();
    _exit(126);
  }
  if (Ptrace(PTRACE_SEIZE, daemon_, 0, kOptions) != 0) {
    kill(daemon_, SIGKILL);
    throw std::runtime_error("this system does not allow ptrace");
  }
  processes_[daemon_] = Process{};  // gets its role with its program
  close(gate[0]);
  close(gate[1]);
}

void Tracer::Run() {
  while (true) {
    int status = 0;
    const pid_t pid = waitpid(-1, &status, __WALL);
    if (pid < 0 && errno == EINTR) continue;
    const std::scoped_lock lock(mutex_);
    if (pid < 0) break;
    Handle(pid, status);
    changed_.notify_all();
  }
  const std::scoped_lock lock(mutex_);
  all_ended_ = true;
  changed_.notify_all();
}

bool Tracer::WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, limit, condition);
}

int Tracer::others() const {
  int count = 0;
  for (const auto& [pid, process] : processes_) count += pid != daemon_ ? 1 : 0;
  return count;
}

bool Tracer::daemon_ended() const {
  return !processes_.contains(daemon_);
}

void Tracer::Lift() {
  const std::scoped_lock lock(mutex_);
  lifted_ = true;
}

void Tracer::Handle(pid_t pid, int status) {
  if (WIFEXITED(status) || WIFSIGNALED(status)) {
    Ended(pid, status);
  } else if (!processes_.contains(pid)) {
    early_.insert(pid);
  } else {
    HandleStop(pid, WSTOPSIG(status), status >> 16);
  }
}

void Tracer::Ended(pid_t pid, int status) {
  early_.erase(pid);
  const auto found = processes_.find(pid);
  if (found == processes_.end()) return;
  ends_.push_back({pid, found->second.role, found->second.later, status});
  processes_.erase(found);
}

void Tracer::HandleStop(pid_t pid, int signal, int event) {
  Process& process = processes_[pid];
  switch (event) {
    case PTRACE_EVENT_FORK:
    case PTRACE_EVENT_CLONE:
      return HandleFork(pid, false);
    case PTRACE_EVENT_VFORK:
      return HandleFork(pid, true);
    case PTRACE_EVENT_EXEC:
      return HandleExec(pid);
    case PTRACE_EVENT_STOP:
      return Resume(pid);
    default:
      break;
  }
  if (signal != kSystemCallStop) return Resume(pid, signal);
  __ptrace_syscall_info info{};
  if (Ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof(info), &info) <= 0) return;
  if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
    process.call = static_cast<long>(info.entry.nr);
    if (process.call == SYS_accept4 && pid == daemon_) accepting_ = true;
    if (process.call == process.restarted) {
      process.restarted = -1;
      return Resume(pid);
    }
    const auto* arguments = reinterpret_cast<const unsigned long long*>(info.entry.args);
    Note(pid, process, arguments);
    EnterCall(pid, process, arguments[0]);
  } else {
    LeaveCall(pid, process, static_cast<long>(info.exit.rval));
  }
}

void Tracer::HandleFork(pid_t pid, bool shares_memory) {
  unsigned long message = 0;
  Ptrace(PTRACE_GETEVENTMSG, pid, 0, &message);
  const auto child = static_cast<pid_t>(message);
  const Process& parent = processes_[pid];
  Process process;
  if (parent.role == Role::kDaemon) {
    stage_ = Stage::kServing;
    process.role = Role::kChild;
    process.later = !seen_.insert(Role::kChild).second;
  } else {
    process.role = shares_memory ? Role::kCopy : Role::kScript;
    process.later = parent.later;
    if (!process.later) seen_.insert(process.role);
  }
  processes_[child] = process;
  if (early_.erase(child) > 0) Resume(child);
  Resume(pid);
}

void Tracer::HandleExec(pid_t pid) {
  Process& process = processes_[pid];
  if (pid == daemon_) {
    process.role = Role::kDaemon;
    return Resume(pid);
  }
  processes_.erase(pid);
  Ptrace(PTRACE_DETACH, pid, 0, 0);
}

bool Tracer::FollowsCalls(const Process& process) const {
  if (process.role == Role::kNone) return false;
  if (process.role == Role::kDaemon) return true;
  return !process.later &&
         (point_.kind == Point::Kind::kUndisturbed || point_.role == process.role);
}

void Tracer::Resume(pid_t pid, int signal) {
  const Process& process = processes_[pid];
  Ptrace(FollowsCalls(process) || process.spoiled ? PTRACE_SYSCALL : PTRACE_CONT, pid, 0,
         static_cast<long>(signal));
}

// What the verdicts need to know of a call.
void Tracer::Note(pid_t pid, Process& process, const unsigned long long* arguments) {
  if (process.call == SYS_openat && (arguments[2] & O_CREAT) != 0) {
    created_.insert(FileAt(pid, arguments[0], arguments[1]));
  }
  if (process.call == SYS_renameat) {
    process.renamed = {FileAt(pid, arguments[0], arguments[1]),
                       FileAt(pid, arguments[2], arguments[3])};
  }
  NoteStage(pid, process, arguments);
  if (process.later || (pid == daemon_ && lifted_)) return;
  const SystemCall* call = FindCall(process.call);
  met_.push_back({process.role, process.call, call != nullptr ? SizeOf(pid, *call, arguments) : 0,
                  IsOfOutput(pid, process.call, arguments),
                  pid == daemon_ ? stage_ : process.stage});
}

void Tracer::NoteStage(pid_t pid, Process& process, const unsigned long long* arguments) {
  // The first thing that the daemon does in its main function, and nothing else does.
  if (stage_ == Stage::kLoading && process.call == SYS_openat &&
      TextAt(pid, arguments[1]) == "/dev/null") {
    stage_ = Stage::kStarting;
  }
  if (process.role != Role::kChild) return;
  if (process.call == SYS_sendto && process.stage == Stage::kControl && arguments[0] == master_) {
    process.stage = Stage::kAnswered;
  }
  if (process.call != SYS_write) return;
  const std::string text = TextAt(pid, arguments[1]).substr(0, arguments[2]);
  for (const Mark& mark : kMarks) {
    if (text == mark.text) process.stage = std::max(process.stage, mark.stage);
  }
}

bool Tracer::IsDue(const Process& process) {
  if (process.later || process.role != point_.role) return false;
  if (fired_) {
    return point_.kind == Point::Kind::kLasting && !lifted_ &&
           (process.call == point_.call || (TakesMemory(process.call) && TakesMemory(point_.call)));
  }
  return process.call == point_.call &&
         ++counts_[{process.role, process.call}] == point_.occurrence;
}

void Tracer::EnterCall(pid_t pid, Process& process, unsigned long first) {
  if (point_.kind != Point::Kind::kUndisturbed && IsDue(process)) {
    if (!fired_) {
      fired_at_ = pid == daemon_ ? stage_ : process.stage;
      fired_on_ = first;
    }
    fired_ = true;
    if (point_.kind == Point::Kind::kKill) {
      kill(pid, SIGKILL);
      return;
    }
    Spoil(pid, process);
  }
  Resume(pid);
}

void Tracer::Spoil(pid_t pid, Process& process) {
  user_regs_struct registers{};
  if (Ptrace(PTRACE_GETREGS, pid, 0, &registers) != 0) return;
  process.saved = registers;
  process.spoiled = true;
  process.set_result = false;
  const SystemCall& call = *FindCall(process.call);
  if (point_.kind == Point::Kind::kShort) {
    Shorten(pid, process, registers);
  } else if (process.call == SYS_brk) {
    // It reports no error: the break is where it was.
    registers.rdi = 0;
  } else {
    process.set_result = true;
    process.result = -point_.error;
    if (!call.performed) registers.orig_rax = static_cast<unsigned long long>(-1);
  }
  Ptrace(PTRACE_SETREGS, pid, 0, &registers);
}

void Tracer::Overwrite(pid_t pid, Process& process, unsigned long long address,
                       unsigned long long word) {
  process.overwritten.emplace_back(address, WordAt(pid, address));
  Ptrace(PTRACE_POKEDATA, pid, address, word);
}

// Half of what is to be sent, or a little of what is to be received: there is room for much more
// than comes, and half of that were no less.
void Tracer::Shorten(pid_t pid, Process& process, user_regs_struct& registers) {
  constexpr unsigned long long little = 3;
  const SystemCall& call = *FindCall(process.call);
  if (call.size_argument >= 0) {
    unsigned long long& size = Argument(registers, call.size_argument);
    if (size > 1) size = call.number == SYS_read ? std::min(little, size - 1) : size / 2;
    return;
  }
  const Pieces pieces = PiecesOf(pid, call, registers.rsi, registers.rdx);
  unsigned long long total = 0;
  for (unsigned long long i = 0; i < pieces.count; ++i) total += LengthOf(pid, pieces, i);
  unsigned long long left = call.number == SYS_recvmsg ? std::min(little, total) : total / 2;
  for (unsigned long long i = 0; i < pieces.count; ++i) {
    const unsigned long long length = LengthOf(pid, pieces, i);
    const unsigned long long kept = std::min(left, length);
    left -= kept;
    if (kept == length) continue;
    Overwrite(pid, process, pieces.address + i * sizeof(iovec) + offsetof(iovec, iov_len), kept);
  }
}

// The kernel leaves the argument registers alone, and compilers rely on that.
void Tracer::LeaveCall(pid_t pid, Process& process, long result) {
  if (process.call == SYS_accept4 && pid == daemon_) {
    accepting_ = false;
    if (result >= 0 && accepted_++ == 0) master_ = static_cast<unsigned long>(result);
  }
  // Whatever has become of the old name, the new one is a file of ours.
  if (process.call == SYS_renameat && result == 0 && created_.contains(process.renamed.first)) {
    created_.insert(process.renamed.second);
  }
  if (result == kRestart || result == kRestartAlways) process.restarted = process.call;
  if (process.spoiled) {
    user_regs_struct registers{};
    Ptrace(PTRACE_GETREGS, pid, 0, &registers);
    registers.rdi = process.saved.rdi;
    registers.rsi = process.saved.rsi;
    registers.rdx = process.saved.rdx;
    if (process.set_result) registers.rax = static_cast<unsigned long long>(process.result);
    Ptrace(PTRACE_SETREGS, pid, 0, &registers);
    for (const auto& [address, word] : process.overwritten) {
      Ptrace(PTRACE_POKEDATA, pid, address, word);
    }
    process.overwritten.clear();
    process.spoiled = false;
  }
  Resume(pid);
}

std::string Tracer::Standing() const {
  const std::scoped_lock lock(mutex_);
  std::string text;
  for (const auto& [pid, process] : processes_) {
    const SystemCall* call = FindCall(process.call);
    std::ifstream file("/proc/" + std::to_string(pid) + "/wchan");
    std::string place;
    file >> place;
    text += " " + std::string(NameOf(process.role)) + (process.later ? " of the next run" : "") +
            " after or in " + (call != nullptr ? std::string(call->name) : "?") + " (" + place +
            ")";
  }
  return text.empty() ? " none of ours" : text;
}

void Tracer::KillAll() {
  const std::scoped_lock lock(mutex_);
  for (const auto& [pid, process] : processes_) kill(pid, SIGKILL);
  for (const pid_t pid : ChildrenOf(getpid())) kill(pid, SIGKILL);
}
