// A distribution script that tries to get root's rights back, and a key of root's session. Prints
// what became of each attempt, then a host.

#include <fcntl.h>
#include <grp.h>
#include <linux/keyctl.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

void Report(const char* attempt, long result) {
  printf("%s: %s\n", attempt, result < 0 ? "refused" : "DONE");
}

}  // namespace

int main() {
  Report("key",
         syscall(SYS_keyctl, KEYCTL_SEARCH, KEY_SPEC_SESSION_KEYRING, "user", "jobmill-test", 0));
  // A session keyring that can be used is there all the same.
  Report("own key",
         syscall(SYS_add_key, "user", "jobmill-own", "x", 1UL, KEY_SPEC_SESSION_KEYRING));
  Report("setuid", setuid(0));
  Report("seteuid", seteuid(0));
  Report("setreuid", setreuid(0, 0));
  Report("setresuid", setresuid(0, 0, 0));
  Report("setgid", setgid(0));
  Report("setegid", setegid(0));
  Report("setregid", setregid(0, 0));
  Report("setresgid", setresgid(0, 0, 0));
  const gid_t root = 0;
  Report("setgroups", setgroups(1, &root));
  Report("shadow", open("/etc/shadow", O_RDONLY | O_CLOEXEC));
  printf("ids: %u %u %u %u\n", getuid(), geteuid(), getgid(), getegid());
  printf("HOST=node17\n");
  return 0;
}
