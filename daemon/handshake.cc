#include "daemon/handshake.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/keyctl.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <new>

#include "config/env_collection.h"
#include "config/user_collection.h"
#include "daemon/globals.h"
#include "daemon/manager_information.h"
#include "log/flog.h"
#include "net/socket.h"

namespace {

[[noreturn]] void Refuse(flog& log, const std::string& text) {
  log << text << "\n";
  throw Refusal{text};
}

// The next line. One that a broken link has lost counts as empty. One that there was no memory for
// does not: without that field it would be another request, of another user maybe.
std::string Receive(Socket& master, int& length) {
  errno = 0;
  std::string line = master.ReceiveLine(length);
  if (line.empty() && errno == ENOMEM) throw std::bad_alloc();
  return line;
}

std::string Receive(Socket& master) {
  int length = 0;
  return Receive(master, length);
}

void ExchangeVersions(Socket& master, flog& log) {
  log << "Sending back version number: " << kProtocolMajor << "\n";
  SendLine(master, std::to_string(kProtocolMajor));
  int length = 0;
  const std::string answer = Receive(master, length);
  if (answer.empty() || length == 0 || strtol(answer.c_str(), nullptr, 10) == 0) {
    log << "Incorrect response from Corvane - no controller will be launched\n";
    throw Refusal{};
  }
}

RunRequest ReceiveRun(Socket& master, flog& log) {
  RunRequest run;
  run.cluster = Receive(master);
  run.path = Receive(master);
  run.root = Receive(master);
  run.processes = Receive(master);
  run.version = Receive(master);
  log << "Clust: " << run.cluster << "\n";
  log << "Path: " << run.path << "\n";
  log << "Root: " << run.root << "\n";
  log << "Proc: " << run.processes << "\n";
  log << "Ver: " << run.version << "\n";
  return run;
}

std::unique_ptr<CEnvCollection> ApplyEnvironment(flog& log) {
  const std::string file = std::string(GszExePath) + "/.vk_corvane_env";
  auto environment = std::make_unique<CEnvCollection>(file.c_str());
  if (environment->status() != 0) {
    log << "Failed to read " << file << ": " << environment->error() << "\n";
    throw Refusal{"Failed to read main environment file"};
  }
  std::array<char, CEnvCollection::kErrorSize> error{};
  if (environment->Apply(error.data(), &log) > 0) throw Refusal{error.data()};
  return environment;
}

// `text` and the name in quotes, to its first zero byte: as it is looked up.
std::string Quoted(const char* text, const std::string& name) {
  return std::string(text) + " '" + name.substr(0, name.find('\0')) + "'";
}

// The Linux account of a Windows user who may start runs.
std::string LinuxAccount(const std::string& windowsUser, flog& log) {
  CVKUserCollection users;
  std::array<char, CVKUserCollection::kErrorSize> error{};
  if (users.ReadUserFile(GszExePath, &log, error.data()) != 0) {
    log << "Failed to read users administration file - " << error.data() << "\n";
    throw Refusal{error.data()};
  }
  users.LogOut(&log);
  const CVKUser* user = users.GetUser(windowsUser.c_str());
  if (user == nullptr) {
    Refuse(log, Quoted("Windows user", windowsUser) + " not found in administration file");
  }
  if (user->allow == 0) {
    Refuse(log, Quoted("Windows user", windowsUser) + " does not have permissions to run Varnok");
  }
  std::string account =
      strcmp(user->linuxName, "*") == 0 ? windowsUser : std::string(user->linuxName);
  log << "Linux user required: " << account << "\n";
  return account;
}

// Whether this process, now that of `user`, could still become root: after a start with other ids
// than those of root, or with capabilities that outlive the switch, one of them stays behind.
bool CanGoBack(uid_t user) {
  const bool back = user != 0 && setuid(0) == 0;
  errno = EPERM;
  return back;
}

// Leaves the session keyring of whoever started the daemon: its keys would be the run's to use. A
// kernel without keyrings has no keys.
void JoinOwnKeyring() {
  syscall(SYS_keyctl, KEYCTL_JOIN_SESSION_KEYRING, nullptr);
}

// Leaves the terminal from which the daemon was started: what the account executes could type at it
// in root's name, and any process of the account can make cp do so. The session stays, so that
// Ctrl-C there still ends this process.
void LeaveTerminal() {
  const int terminal = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (terminal < 0) return;
  ioctl(terminal, TIOCNOTTY);
  close(terminal);
}

// Group before user: once the user id has changed, the group id no longer can. The supplementary
// groups stay those of the daemon, which sites rely on.
void SwitchAccount(const std::string& account, flog& log) {
  const passwd* entry = getpwnam(account.c_str());
  if (entry == nullptr) Refuse(log, Quoted("Failed to get password entry for", account));
  JoinOwnKeyring();
  LeaveTerminal();
  if (setgid(entry->pw_gid) != 0) {
    log << (errno == EPERM ? "Failed to set the group ID - 1\n"
                           : "Failed to set the group ID - 2\n");
  }
  if (setuid(entry->pw_uid) != 0 || CanGoBack(entry->pw_uid)) {
    Refuse(log, "Failed to set user ID for Tolmen job - error = " + std::to_string(errno));
  }
}

}  // namespace

void SendLine(Socket& master, const std::string& line) {
  if (master.SendLine(line) < 0 && errno == ENOMEM) throw std::bad_alloc();
}

RunRequest ShakeHands(const CManagerInformation& info,
                      std::unique_ptr<CEnvCollection>& environment) {
  Socket& master = *info.master;
  flog& log = *info.log;
  ExchangeVersions(master, log);
  RunRequest run = ReceiveRun(master, log);
  environment = ApplyEnvironment(log);
  run.windowsUser = Receive(master);
  log << "Windows user received: " << run.windowsUser << "\n";
  run.debugFlag = Receive(master);
  log << "Debug flag received: " << run.debugFlag << "\n";
  if (info.runAsRoot) SwitchAccount(LinuxAccount(run.windowsUser, log), log);
  return run;
}
