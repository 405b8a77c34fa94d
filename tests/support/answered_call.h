#pragma once

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <array>
#include <bit>

/// Answers a system call in the kernel's place: for failures that nothing else brings about, and
/// for those that happen at the first call only. Lasts until the process ends, so call it in a
/// child of the test. x86-64 only.
///
/// `answer` runs in a signal handler and gives the call's result, a negative error number when it
/// shall fail. It cannot make the same call itself.
using CallAnswer = long (*)();

namespace answered_call_detail {

inline CallAnswer answer = nullptr;
inline void* buffer = nullptr;

inline void OnCall(int /*signal*/, siginfo_t* /*info*/, void* context) {
  auto& registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
  buffer = std::bit_cast<void*>(registers[REG_RSI]);
  registers[REG_RAX] = answer();
}

}  // namespace answered_call_detail

/// The second argument of the call that is being answered: the buffer of a read or write.
inline void* AnsweredBuffer() {
  return answered_call_detail::buffer;
}

/// False when the system does not permit it. `first_argument` restricts it to calls with that
/// argument, a descriptor for example; -1 stands for all.
inline bool AnswerCall(int number, CallAnswer answer, int first_argument = -1) {
  answered_call_detail::answer = answer;
  struct sigaction action {};
  action.sa_sigaction = answered_call_detail::OnCall;
  action.sa_flags = SA_SIGINFO | SA_NODEFER;
  if (sigaction(SIGSYS, &action, nullptr) != 0) return false;
  constexpr auto kLoad = static_cast<unsigned short>(BPF_LD | BPF_W | BPF_ABS);
  constexpr auto kEqual = static_cast<unsigned short>(BPF_JMP | BPF_JEQ | BPF_K);
  constexpr auto kReturn = static_cast<unsigned short>(BPF_RET | BPF_K);
  const bool any = first_argument < 0;
  constexpr auto kNumber = static_cast<unsigned>(offsetof(seccomp_data, nr));
  constexpr auto kArgument = static_cast<unsigned>(offsetof(seccomp_data, args));
  std::array<sock_filter, 6> filter{{
      {kLoad, 0, 0, kNumber},
      {kEqual, 0, 3, static_cast<unsigned>(number)},
      {kLoad, 0, 0, any ? kNumber : kArgument},
      {kEqual, 0, 1, static_cast<unsigned>(any ? number : first_argument)},
      {kReturn, 0, 0, SECCOMP_RET_TRAP},
      {kReturn, 0, 0, SECCOMP_RET_ALLOW},
  }};
  const sock_fprog program{filter.size(), filter.data()};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}
