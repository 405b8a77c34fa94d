#include "daemon/handshake.h"

#include <errno.h>

#include <array>
#include <new>

#include "base/number.h"
#include "config/env_collection.h"
#include "daemon/account.h"
#include "daemon/globals.h"
#include "daemon/manager_information.h"
#include "daemon/refusal.h"
#include "log/flog.h"
#include "net/socket.h"

namespace {

// The next line. A line that a broken link has lost counts as empty. A line that there was no
// memory for must not: the request without that field would be another one, of another user maybe.
std::string Receive(Socket& master) {
  errno = 0;
  int length = 0;
  std::string line = master.ReceiveLine(length);
  if (line.empty() && errno == ENOMEM) throw std::bad_alloc();
  return line;
}

void ExchangeVersions(Socket& master, flog& log) {
  log << "Sending back version number: " << kProtocolMajor << "\n";
  SendLine(master, std::to_string(kProtocolMajor));
  if (NumberIn(Receive(master).c_str()) == 0) {
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

// The variables stay set in this process, and the script inherits them.
void ApplyEnvironment(flog& log) {
  const std::string file = std::string(GszExePath) + "/.vk_corvane_env";
  const CEnvCollection environment(file.c_str());
  if (environment.status() != 0) {
    log << "Failed to read " << file << ": " << environment.error() << "\n";
    throw Refusal{"Failed to read main environment file"};
  }
  std::array<char, CEnvCollection::kErrorSize> error{};
  if (environment.Apply(error.data(), &log) > 0) throw Refusal{error.data()};
}

}  // namespace

void SendLine(Socket& master, const std::string& line) {
  if (master.SendLine(line) < 0 && errno == ENOMEM) throw std::bad_alloc();
}

RunRequest ShakeHands(const CManagerInformation& info) {
  Socket& master = *info.master;
  flog& log = *info.log;
  ExchangeVersions(master, log);
  RunRequest run = ReceiveRun(master, log);
  ApplyEnvironment(log);
  run.windows_user = Receive(master);
  log << "Windows user received: " << run.windows_user << "\n";
  run.debug_flag = Receive(master);
  log << "Debug flag received: " << run.debug_flag << "\n";
  if (info.run_as_root) ChangeToAccountOf(run.windows_user, log);
  return run;
}
