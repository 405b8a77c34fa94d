#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include "tools/vkmaster/system/system.h"

namespace vkmaster {

std::filesystem::path PathOf(const std::string& name) {
  return name;
}

std::FILE* OpenToWrite(const std::string& path) {
  return std::fopen(path.c_str(), "we");
}

DirectoryLock::DirectoryLock(const std::string& directory)
    : handle_(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  held_ = flock(static_cast<int>(handle_), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

DirectoryLock::~DirectoryLock() {
  close(static_cast<int>(handle_));
}

std::string AccountName() {
  const passwd* account = getpwuid(getuid());
  return account == nullptr ? "" : account->pw_name;
}

bool IsTerminal(std::FILE* stream) {
  return isatty(fileno(stream)) != 0;
}

void OnInterrupt(void (*handler)(int signal)) {
  struct sigaction action {};
  action.sa_handler = handler;
  // Without SA_RESTART: a read at the prompt has to return.
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
}

struct Terminal::Modes {};

Terminal::Terminal() : can_redraw_(IsTerminal(stdout) && IsTerminal(stderr)) {}

Terminal::~Terminal() = default;

}  // namespace vkmaster
