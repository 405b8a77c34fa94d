#include "daemon/daemon.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "config/options.h"
#include "daemon/answer.h"
#include "daemon/globals.h"
#include "daemon/manager_information.h"
#include "daemon/process.h"
#include "daemon/texts.h"
#include "log/flog.h"
#include "log/timestamp.h"
#include "net/socket.h"
#include "net/socket_server.h"

namespace {

constexpr const char* kDefaultScript = "./vkmpi_dir.sh";
constexpr int kBacklog = 500;

// Returns the exit status of a daemon that has served nobody, for a reason or on request.
int PrintAndEnd(const std::string& text) {
  fputs(text.c_str(), stdout);
  fflush(stdout);
  return 1;
}

// Every start that fails says why and ends with status 1. An exception cannot bring that about when
// there is no memory: there is none for the exception either, and the process would end by a
// signal.
[[noreturn]] void EndWithoutMemory() {
  fputs("The jobmill has no memory to start with\n", stdout);
  fflush(stdout);
  _exit(1);
}

bool Listen(int port) {
  try {
    Gps = new SocketServer(port, kBacklog);
    return true;
  } catch (const char*) {
    return false;
  }
}

// Sets GszExePath to the directory of the executable, or to "." when it cannot be found.
bool FindExecutableDirectory() {
  const std::string link = "/proc/" + std::to_string(getpid()) + "/exe";
  const ssize_t size = readlink(link.c_str(), GszExePath, sizeof(GszExePath));
  if (size < 0 || size >= static_cast<ssize_t>(sizeof(GszExePath))) {
    strcpy(GszExePath, ".");  // NOLINT(clang-analyzer-security.insecureAPI.strcpy): there is room
    return false;
  }
  GszExePath[size] = '\0';
  char* slash = strrchr(GszExePath, '/');
  if (slash != nullptr) *slash = '\0';
  return true;
}

std::string LogName(int port) {
  return GsLogFileDir + "/VKJobmill_" + std::to_string(port) + ".log";
}

std::unique_ptr<flog> OpenLog(int port) {
  auto log = std::make_unique<flog>(LogName(port), true);
  if (log->status() != 0) {
    GsLogFileDir = "/tmp";
    log->SetFile(LogName(port), true);
  }
  return log;
}

void LogStart(flog& log, int argc, char** argv, bool path_found) {
  log << "\n";
  log << "Daemon started: " << timestamp();
  log << "Version information: " << kProtocolMajor << " (" << GsZRMVersion << ")\n";
  log << "Arguments: ";
  for (int i = 1; i < argc; ++i) log << argv[i] << " ";
  log << "\n";
  if (path_found) {
    log << "Executable path = " << static_cast<const char*>(GszExePath) << "\n";
  } else {
    log << "Could not get Exe path - defaulting to '.'\n";
  }
}

// Accepts the next connection; what its child needs to know. Null when there was no memory for
// that: then this one connection ends, and the daemon accepts the next. Without a usable listening
// socket the daemon ends.
std::unique_ptr<CManagerInformation> AcceptOrExit(const Options& options, std::int32_t port,
                                                  flog& log) {
  try {
    std::unique_ptr<Socket> master(Gps->Accept());
    auto info = std::make_unique<CManagerInformation>(options.script, options.run_as_root,
                                                      options.start_timeout, port,
                                                      options.comms_log, &log, master.get());
    static_cast<void>(master.release());
    return info;
  } catch (const std::bad_alloc&) {
    log << "Error occurred accepting connection: " << timestamp();
    return nullptr;
  } catch (const char*) {
    log << "Socket failure in accept call - exiting ... \n";
    delete Gps;
    exit(1);
  }
}

// The connection child. It closes the listening socket before all else: while it had that open, the
// masters that come after the daemon's death would wait in a queue that nobody serves.
int AnswerInChild(std::unique_ptr<CManagerInformation> info, flog& log) {
  Gps->Close();
  log << "Answering call in child process: " << timestamp();
  return Answer(info.release());
}

std::int32_t CommsPort(const Options& options, std::uint64_t counter) {
  // The sum is made in 64 bits: with the largest base port it does not fit into 32.
  return static_cast<std::int32_t>(
      options.comms_base_port +
      static_cast<std::int64_t>(counter % static_cast<std::uint64_t>(options.comms_ports)));
}

// Serves connections for ever in the daemon; returns in each connection child.
int AcceptLoop(const Options& options, flog& log) {
  for (std::uint64_t counter = 0;;) {
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): kept after a failed fork, see below
    auto info = AcceptOrExit(options, CommsPort(options, counter), log);
    if (!info) continue;
    log << "Accepted incoming connection: " << timestamp();
    const pid_t child = fork();
    if (child == 0) return AnswerInChild(std::move(info), log);
    ++counter;
    if (child < 0) {
      log << "Error occurred forking controlling thread: " << timestamp();
      // The master is left waiting rather than cut off: the record is kept for good, and with it
      // the open socket.
      static_cast<void>(info.release());
    }
    // Here the record ends, and with it the daemon's copy of the socket.
  }
}

}  // namespace

int RunDaemon(int argc, char** argv) {
  std::set_new_handler(EndWithoutMemory);
  if (argc <= 1) return PrintAndEnd(UsageText());
  Options options = ParseOptions(argc, argv);
  if (options.version) return PrintAndEnd(VersionText());
  if (options.listen_port == 0) {
    return PrintAndEnd(
        "Jobmill needs to be supplied with a port on which to listen for Corvane requests\n");
  }
  if (options.script.empty()) options.script = kDefaultScript;
  if (!PrepareProcess()) {
    perror(nullptr);
    exit(1);
  }
  if (options.run_as_root && getuid() != 0) {
    return PrintAndEnd("The jobmill must be run as root !\n");
  }
  if (!Listen(options.listen_port)) {
    return PrintAndEnd("Error in creating socket to listen on port " +
                       std::to_string(options.listen_port) +
                       ": check netstat to see if the port is already in use\n");
  }
  const bool path_found = FindExecutableDirectory();
  const std::unique_ptr<flog> log = OpenLog(options.listen_port);
  LogStart(*log, argc, argv, path_found);
  std::set_new_handler(nullptr);
  return AcceptLoop(options, *log);
}
