#include "tests/support/traced_process.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>

#if defined(__x86_64__)

struct StoppedProcess::Registers : user_regs_struct {};

namespace {

bool WaitForStop(pid_t pid) {
  int status = 0;
  return waitpid(pid, &status, __WALL) == pid && WIFSTOPPED(status);
}

}  // namespace

StoppedProcess::StoppedProcess(pid_t pid) : pid_(pid) {
  if (ptrace(PTRACE_SEIZE, pid, nullptr, nullptr) != 0) return;
  auto registers = std::make_unique<Registers>();
  if (ptrace(PTRACE_INTERRUPT, pid, nullptr, nullptr) == 0 && WaitForStop(pid) &&
      ptrace(PTRACE_GETREGS, pid, nullptr, registers.get()) == 0 &&
      static_cast<long>(registers->orig_rax) >= 0) {
    registers_ = std::move(registers);
  } else {
    ptrace(PTRACE_DETACH, pid, nullptr, nullptr);
  }
}

StoppedProcess::~StoppedProcess() {
  if (!registers_) return;
  ptrace(PTRACE_SETREGS, pid_, nullptr, registers_.get());
  ptrace(PTRACE_DETACH, pid_, nullptr, nullptr);
}

long StoppedProcess::Call(long number, const std::array<long, 3>& arguments) {
  constexpr int kSyscallInstruction = 2;  // bytes
  Registers now = *registers_;
  now.rip -= kSyscallInstruction;
  now.rax = static_cast<std::uint64_t>(number);
  now.orig_rax = ~std::uint64_t{0};  // no call to be restarted
  now.rdi = static_cast<std::uint64_t>(arguments[0]);
  now.rsi = static_cast<std::uint64_t>(arguments[1]);
  now.rdx = static_cast<std::uint64_t>(arguments[2]);
  if (ptrace(PTRACE_SETREGS, pid_, nullptr, &now) != 0) return -ESRCH;
  const auto before = now.rip;
  // A signal, of a script that ends just then, stops the process before its step.
  do {
    if (ptrace(PTRACE_SINGLESTEP, pid_, nullptr, nullptr) != 0 || !WaitForStop(pid_) ||
        ptrace(PTRACE_GETREGS, pid_, nullptr, &now) != 0) {
      return -ESRCH;
    }
  } while (now.rip == before);
  return static_cast<long>(now.rax);
}

#else

struct StoppedProcess::Registers {};
StoppedProcess::StoppedProcess(pid_t pid) : pid_(pid) {}
StoppedProcess::~StoppedProcess() = default;
long StoppedProcess::Call(long, const std::array<long, 3>&) {
  return -ENOSYS;
}

#endif

namespace {

void Note(int file, const std::string& text) {
  if (write(file, text.data(), text.size()) < 0) _exit(1);
}

// The tracer, for as long as there is anybody to trace.
int Watch(pid_t ancestor, const std::string& notes) {
  const int file = open(notes.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  constexpr long kOptions = PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACEEXIT;
  if (ptrace(PTRACE_SEIZE, ancestor, nullptr, kOptions) != 0) return 1;
  Note(file, "|");
  int status = 0;
  pid_t pid = 0;
  while ((pid = waitpid(-1, &status, __WALL)) > 0) {
    if (!WIFSTOPPED(status)) continue;
    const int event = status >> 16;
    unsigned long ended = 0;
    if (event == PTRACE_EVENT_EXIT && ptrace(PTRACE_GETEVENTMSG, pid, nullptr, &ended) == 0) {
      const int how = static_cast<int>(ended);
      Note(file, std::to_string(WIFSIGNALED(how) ? 128 + WTERMSIG(how) : WEXITSTATUS(how)) + " ");
    }
    const long signal = event == 0 ? WSTOPSIG(status) : 0;
    ptrace(PTRACE_CONT, pid, nullptr, signal);
  }
  return 0;
}

}  // namespace

ExitStatuses::ExitStatuses(pid_t ancestor) {
  ChildProcess::Options options;
  const std::string notes = directory_.File("notes");
  options.in_child = [ancestor, notes] { return Watch(ancestor, notes); };
  watcher_ = std::make_unique<ChildProcess>(std::vector<std::string>(), options);
  Eventually([&] { return watching() || !IsRunning(watcher_->pid()); });
}

bool ExitStatuses::watching() const {
  return directory_.Read("notes").starts_with("|");
}

std::string ExitStatuses::First(std::size_t count) const {
  std::string notes;
  Eventually([&] {
    notes = directory_.Read("notes");
    return static_cast<std::size_t>(std::count(notes.begin(), notes.end(), ' ')) >= count;
  });
  return notes.empty() ? notes : notes.substr(1);
}
