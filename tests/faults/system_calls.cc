#include "tests/faults/system_calls.h"

#include <errno.h>
#include <string.h>
#include <sys/syscall.h>

#include <algorithm>
#include <stdexcept>

namespace {

// A call without errors can only be killed at: it cannot fail (getpid), or it ends the process or
// a signal handler, and there is no code of ours that could see a result.
const std::vector<SystemCall>& Calls() {
  static const std::vector<SystemCall> calls = {
      {SYS_accept4,
       "accept4",
       {EINTR, ECONNABORTED, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM, EPROTO}},
      {SYS_access, "access", {ENOENT, EACCES}},
      {SYS_arch_prctl, "arch_prctl", {EINVAL}},
      {SYS_bind, "bind", {EADDRINUSE, EACCES, ENOMEM}},
      {SYS_brk, "brk", {ENOMEM}},
      {SYS_clock_nanosleep, "clock_nanosleep", {EINTR}},
      {SYS_clone, "clone", {EAGAIN, ENOMEM}},
      {SYS_clone3, "clone3", {EAGAIN, ENOMEM, ENOSYS}},
      {SYS_close, "close", {EINTR, EIO}, -1, true},
      {SYS_close_range, "close_range", {EINVAL, ENOSYS}},
      {SYS_connect,
       "connect",
       {ECONNREFUSED, ETIMEDOUT, EHOSTUNREACH, ENETUNREACH, EADDRNOTAVAIL, EINTR, ENOMEM}},
      {SYS_dup, "dup", {EMFILE}},
      {SYS_dup2, "dup2", {EMFILE, EBUSY, EINTR}},
      {SYS_epoll_create1, "epoll_create1", {EMFILE, ENFILE, ENOMEM}},
      {SYS_epoll_ctl, "epoll_ctl", {ENOMEM, ENOSPC}},
      {SYS_epoll_wait, "epoll_wait", {EINTR}},
      {SYS_eventfd2, "eventfd2", {EMFILE, ENFILE, ENOMEM}},
      {SYS_execve, "execve", {EACCES, ENOENT, ENOEXEC, ENOMEM, E2BIG, ETXTBSY, EMFILE, EIO, ELOOP}},
      {SYS_exit, "exit", {}},
      {SYS_exit_group, "exit_group", {}},
      {SYS_fchmod, "fchmod", {EPERM, EROFS, EIO}},
      {SYS_fcntl, "fcntl", {EINVAL, EMFILE}},
      {SYS_futex, "futex", {}},
      {SYS_getegid, "getegid", {}},
      {SYS_geteuid, "geteuid", {}},
      {SYS_getgid, "getgid", {}},
      {SYS_getpeername, "getpeername", {ENOTCONN, ENOBUFS}},
      {SYS_getpid, "getpid", {}},
      {SYS_getrandom, "getrandom", {EINTR, EAGAIN, ENOSYS}},
      {SYS_getsockname, "getsockname", {ENOBUFS}},
      {SYS_getsockopt, "getsockopt", {ENOBUFS, ENOMEM}},
      {SYS_gettid, "gettid", {}},
      {SYS_getuid, "getuid", {}},
      {SYS_ioctl, "ioctl", {EINVAL, ENOTTY}},
      {SYS_keyctl, "keyctl", {ENOSYS, EPERM, EDQUOT, ENOMEM}},
      {SYS_listen, "listen", {EADDRINUSE, EOPNOTSUPP}},
      {SYS_lseek, "lseek", {ESPIPE}},
      {SYS_mmap, "mmap", {ENOMEM, EAGAIN}},
      {SYS_mprotect, "mprotect", {ENOMEM, EACCES}},
      {SYS_mremap, "mremap", {ENOMEM}},
      {SYS_munmap, "munmap", {ENOMEM}},
      {SYS_newfstatat, "newfstatat", {ENOENT, EACCES, ENOMEM, EIO}},
      {SYS_openat,
       "openat",
       {ENOENT, EACCES, EMFILE, ENFILE, ENOMEM, ENOSPC, EROFS, ELOOP, EINTR, EIO}},
      {SYS_pipe2, "pipe2", {EMFILE, ENFILE}},
      {SYS_poll, "poll", {EINTR, ENOMEM}},
      {SYS_pread64, "pread64", {EIO, EINTR}, 2},
      {SYS_prlimit64, "prlimit64", {EPERM}},
      {SYS_read, "read", {EINTR, EIO}, 2},
      {SYS_readlink, "readlink", {ENOENT, EACCES, EIO, ENOMEM, ENAMETOOLONG}},
      {SYS_readlinkat, "readlinkat", {ENOENT, EACCES, EIO, ENOMEM, EINVAL}},
      {SYS_recvfrom, "recvfrom", {EINTR, ECONNRESET, ETIMEDOUT, ENOMEM}, 2},
      {SYS_recvmsg,
       "recvmsg",
       {EINTR, ECONNRESET, ETIMEDOUT, ENOMEM},
       -1,
       false,
       SystemCall::Pieces::kMessage},
      {SYS_renameat, "renameat", {EACCES, ENOSPC, EROFS, EISDIR, EIO, EXDEV, ENOENT, EPERM}},
      {SYS_rseq, "rseq", {EINVAL, ENOSYS}},
      {SYS_rt_sigaction, "rt_sigaction", {EINVAL}},
      {SYS_rt_sigprocmask, "rt_sigprocmask", {EINVAL}},
      {SYS_rt_sigreturn, "rt_sigreturn", {}},
      {SYS_sendmsg,
       "sendmsg",
       {EINTR, ECONNRESET, EPIPE, ENOBUFS, ENOMEM},
       -1,
       false,
       SystemCall::Pieces::kMessage},
      {SYS_sendto, "sendto", {EAGAIN, EINTR, ECONNRESET, EPIPE, ENOBUFS, ENOMEM}, 2},
      {SYS_set_robust_list, "set_robust_list", {EINVAL}},
      {SYS_set_tid_address, "set_tid_address", {}},
      {SYS_setgid, "setgid", {EPERM, EINVAL}},
      {SYS_setsid, "setsid", {EPERM}},
      {SYS_setsockopt, "setsockopt", {EINVAL, ENOBUFS, ENOMEM}},
      {SYS_setuid, "setuid", {EPERM, EAGAIN, EINVAL}},
      {SYS_socket, "socket", {EMFILE, ENFILE, ENOBUFS, ENOMEM, EACCES, EAFNOSUPPORT}},
      {SYS_timerfd_create, "timerfd_create", {EMFILE, ENFILE, ENOMEM}},
      {SYS_timerfd_settime, "timerfd_settime", {ECANCELED}},
      {SYS_uname, "uname", {}},
      {SYS_unlinkat, "unlinkat", {EACCES, EROFS, EIO, ENOTEMPTY}},
      {SYS_vfork, "vfork", {EAGAIN, ENOMEM}},
      {SYS_wait4, "wait4", {ECHILD, EINTR}},
      {SYS_write, "write", {EINTR, EIO, ENOSPC, EPIPE, EAGAIN}, 2},
      {SYS_writev, "writev", {EINTR, EIO, ENOSPC}, -1, false, SystemCall::Pieces::kVector},
  };
  return calls;
}

template <class Condition>
const SystemCall* FindIf(Condition condition) {
  const auto found = std::find_if(Calls().begin(), Calls().end(), condition);
  return found == Calls().end() ? nullptr : &*found;
}

}  // namespace

const SystemCall* FindCall(long number) {
  return FindIf([number](const SystemCall& call) { return call.number == number; });
}

const SystemCall* FindCall(std::string_view name) {
  return FindIf([name](const SystemCall& call) { return call.name == name; });
}

std::string ErrorName(int error) {
  const char* name = strerrorname_np(error);
  return name != nullptr ? name : std::to_string(error);
}

int ErrorNumber(std::string_view name) {
  for (int error = 1; error < 200; ++error) {
    const char* known = strerrorname_np(error);
    if (known != nullptr && name == known) return error;
  }
  throw std::invalid_argument("no error has the name " + std::string(name));
}

bool CanLast(long number, int error) {
  return error != EINTR && !(number == SYS_sendto && error == EAGAIN);
}
