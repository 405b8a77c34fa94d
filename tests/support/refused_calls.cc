#include "tests/support/refused_calls.h"

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <cstddef>

namespace {

#if defined(__x86_64__)
constexpr std::uint32_t kArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr std::uint32_t kArchitecture = AUDIT_ARCH_AARCH64;
#else
constexpr std::uint32_t kArchitecture = 0;  // of no machine: nothing is refused there
#endif

sock_filter Load(std::size_t offset) {
  return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset));
}

sock_filter Return(std::uint32_t action) {
  return BPF_STMT(BPF_RET | BPF_K, action);
}

// Goes on after the next `skipped` instructions unless the loaded number is `value`.
sock_filter UnlessSkip(std::uint32_t value, std::uint8_t skipped) {
  return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, skipped);
}

void Append(std::vector<sock_filter>& program, const RefusedCall& call) {
  const std::uint8_t rest = call.first ? 3 : 1;
  program.push_back(Load(offsetof(seccomp_data, nr)));
  program.push_back(UnlessSkip(static_cast<std::uint32_t>(call.number), rest));
  if (call.first) {
    program.push_back(Load(offsetof(seccomp_data, args)));  // its low half comes first
    program.push_back(UnlessSkip(*call.first, 1));
  }
  program.push_back(Return(SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(call.error)));
}

bool Install(std::vector<sock_filter>& program) {
  const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
  return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

}  // namespace

bool RefuseCalls(const std::vector<RefusedCall>& calls) {
  std::vector<sock_filter> program = {Load(offsetof(seccomp_data, arch)),
                                      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArchitecture, 1, 0),
                                      Return(SECCOMP_RET_ALLOW)};
  for (const RefusedCall& call : calls) Append(program, call);
  program.push_back(Return(SECCOMP_RET_ALLOW));
  return kArchitecture != 0 &&
         (Install(program) || (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && Install(program)));
}

std::vector<RefusedCall> NoChildren(int error) {
  std::vector<RefusedCall> calls = {{SYS_clone, error}, {SYS_clone3, error}};
#if defined(SYS_fork)
  calls.push_back({SYS_fork, error});
  calls.push_back({SYS_vfork, error});
#endif
  return calls;
}
