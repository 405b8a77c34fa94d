#include "daemon/account.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/keyctl.h>
#include <pwd.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>

#include "base/descriptor.h"
#include "config/user_collection.h"
#include "daemon/globals.h"
#include "daemon/refusal.h"
#include "log/flog.h"

namespace {

[[noreturn]] void Refuse(flog& log, const std::string& text) {
  log << text << "\n";
  throw Refusal{text};
}

// The Linux account of a Windows user who may start runs.
std::string LinuxAccount(const std::string& windows_user, flog& log) {
  CVKUserCollection users;
  std::array<char, CVKUserCollection::kErrorSize> error{};
  if (users.ReadUserFile(GszExePath, &log, error.data()) != 0) {
    log << "Failed to read users administration file - " << error.data() << "\n";
    throw Refusal{error.data()};
  }
  users.LogOut(&log);
  const CVKUser* user = users.GetUser(windows_user.c_str());
  if (user == nullptr) Refuse(log, NotFoundText(windows_user));
  if (user->allow == 0) Refuse(log, NotAllowedText(windows_user));
  std::string account =
      strcmp(user->linux_name, "*") == 0 ? windows_user : std::string(user->linux_name);
  log << "Linux user required: " << account << "\n";
  return account;
}

// Whether this process, which has just become that of `user`, can still become root. For an account
// that is root itself the answer is no: the administrator has mapped somebody to root, and nothing
// is left to be gained. errno is EPERM afterwards, for the text of the refusal.
bool CanBecomeRoot(uid_t user) {
  const bool possible = user != 0 && setuid(0) == 0;
  errno = EPERM;
  return possible;
}

// Gives up the terminal from which the daemon was started. The session stays the same, so that
// Ctrl-C at the terminal still ends this process.
void LeaveTerminal() {
  const Descriptor terminal(open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (terminal) ioctl(terminal.get(), TIOCNOTTY);
}

// The order of the steps matters:
// 1. The account is looked up while the process is root and nothing has changed.
// 2. The process leaves the session keyring of whoever started the daemon, whose keys would be the
//    run's to use. A kernel without keyrings refuses, which does no harm: it has no keys.
// 3. The process leaves the terminal: what the account executes could type commands there in root's
//    name, and any process of the account can make cp do so.
// 4. The group changes before the user, because only root may change the group. A group that
//    cannot be changed is logged and the run goes on. The supplementary groups stay those of the
//    daemon: sites give the runs access to shared directories that way.
// 5. The user changes; setuid() of root changes the real, the effective and the saved id at once.
// 6. The process tries to become root again. It can when the daemon was started with other ids than
//    root's own or with capabilities that outlive the change. Such a run is refused.
void ChangeAccount(const std::string& account, flog& log) {
  const passwd* entry = getpwnam(account.c_str());
  if (entry == nullptr) Refuse(log, NoAccountText(account));
  syscall(SYS_keyctl, KEYCTL_JOIN_SESSION_KEYRING, nullptr);
  LeaveTerminal();
  if (setgid(entry->pw_gid) != 0) {
    log << (errno == EPERM ? "Failed to set the group ID - 1\n"
                           : "Failed to set the group ID - 2\n");
  }
  if (setuid(entry->pw_uid) != 0 || CanBecomeRoot(entry->pw_uid)) {
    Refuse(log, "Failed to set user ID for Tolmen job - error = " + std::to_string(errno));
  }
}

}  // namespace

void ChangeToAccountOf(const std::string& windows_user, flog& log) {
  ChangeAccount(LinuxAccount(windows_user, log), log);
}
