#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "base/descriptor.h"
#include "base/number.h"
#include "inspect/runs.h"
#include "inspect/sockets.h"
#include "tools/jobmillctl/command.h"
#include "tools/jobmillctl/run_view.h"

namespace jobmillctl {
namespace {

using inspect::Run;
using inspect::Runs;
using inspect::TcpSocket;

struct Given {
  std::string name;
  bool when_idle = false;
  bool now = false;
  double timeout = 0;
};

constexpr int kPauseMilliseconds = 1000;

// What systemctl prints for these arguments. Throws Failed when it fails.
std::string Systemctl(const std::vector<std::string>& arguments) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw Failed(std::strerror(errno));
  const Descriptor out(ends[0]);
  Descriptor in(ends[1]);
  posix_spawn_file_actions_t actions{};
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in.get(), STDOUT_FILENO);
  std::vector<std::string> words = {"systemctl"};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> vector;
  vector.reserve(words.size() + 1);
  for (std::string& word : words) vector.push_back(word.data());
  vector.push_back(nullptr);
  pid_t pid = 0;
  const int error = posix_spawnp(&pid, "systemctl", &actions, nullptr, vector.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw Failed(fmt::format("systemctl: {}", std::strerror(error)));
  in.Reset();
  std::string text;
  char block[4096];
  for (ssize_t size = 0; (size = read(out.get(), block, sizeof(block))) > 0;) {
    text.append(block, static_cast<std::size_t>(size));
  }
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw Failed(fmt::format("systemctl {} failed", fmt::join(arguments, " ")));
  }
  while (text.ends_with('\n')) text.pop_back();
  return text;
}

// What keeps the port of a daemon from being bound again.
std::vector<std::string> HoldersOf(int port) {
  const Runs found = inspect::FindRuns();
  std::map<std::string, const Run*> runs;
  for (const Run& run : found.runs) {
    if (run.master) runs.emplace(Text(*run.master), &run);
  }
  std::vector<std::string> held;
  for (const TcpSocket& socket : inspect::ReadSockets().all) {
    if (socket.local.port != port || socket.state == TCP_LISTEN) continue;
    std::string text = fmt::format("a connection from {}", Text(socket.remote));
    const auto run = runs.find(Text(socket.remote));
    if (run != runs.end()) {
      text += fmt::format(", {}, {}", Described(*run->second), Name(run->second->state));
    } else if (socket.state == TCP_TIME_WAIT) {
      text += fmt::format(" that has ended, for another {:.0f} s", socket.seconds_left);
    }
    held.push_back(std::move(text));
  }
  return held;
}

int PortOf(pid_t pid, const std::string& unit) {
  for (const inspect::Daemon& daemon : inspect::FindRuns().daemons) {
    if (daemon.id.pid == pid) return daemon.options.listen_port;
  }
  throw Failed(fmt::format("process {} of {} does not listen for masters", pid, unit));
}

void Print(const std::vector<std::string>& held, int port) {
  constexpr std::size_t kMost = 10;
  for (std::size_t i = 0; i < held.size() && i < kMost; ++i) {
    fmt::print("Port {} is held by {}\n", port, held[i]);
  }
  if (held.size() > kMost) {
    fmt::print("Port {} is held by {} connections more\n", port, held.size() - kMost);
  }
  std::fflush(stdout);
}

int Restart(const Given& given) {
  const std::string unit =
      given.name.empty() ? "jobmill.service" : "jobmill@" + given.name + ".service";
  const std::string main = Systemctl({"show", "--property", "MainPID", "--value", unit});
  const auto pid = static_cast<pid_t>(NumberIn(main.c_str()));
  if (pid > 0) {
    const int port = PortOf(pid, unit);
    std::vector<std::string> held = HoldersOf(port);
    if (!held.empty() && !given.now) {
      Print(held, port);
      if (!given.when_idle) {
        throw Failed(
            fmt::format("a restart would end no run, but {} would refuse masters until the last of "
                        "these {} has ended; --when-idle waits for that moment, --now restarts "
                        "all the same",
                        unit, held.size() == 1 ? "connection" : "connections"));
      }
    }
    // Not the time of day: somebody may set that while this waits.
    const auto begun = std::chrono::steady_clock::now();
    const std::chrono::duration<double> most(given.timeout);
    while (!held.empty() && !given.now) {
      if (given.timeout > 0 && std::chrono::steady_clock::now() - begun >= most) {
        throw Failed(
            fmt::format("port {} was held all the time; {} was not restarted", port, unit));
      }
      poll(nullptr, 0, kPauseMilliseconds);
      held = HoldersOf(port);
    }
  }
  Systemctl({"restart", unit});
  fmt::print("{} is restarted\n", unit);
  return kOk;
}

}  // namespace

void DeclareRestart(CLI::App& app, Action& chosen) {
  const auto given = std::make_shared<Given>();
  CLI::App* command = app.add_subcommand(
      "restart", "Restart the service, so that the program that is installed serves");
  command->add_option("NAME", given->name, "That of jobmill@NAME.service")
      ->check([](const std::string& name) {
        return name.empty() || name.starts_with('-') || name.find('/') != std::string::npos
                   ? "a name is what stands before .conf"
                   : "";
      });
  auto* idle =
      command->add_flag("--when-idle", given->when_idle, "Wait until no connection holds the port");
  command->add_flag("--now", given->now, "Restart although masters will be refused")
      ->excludes(idle);
  command->add_option("--timeout", given->timeout, "Seconds to wait at most (default: no limit)")
      ->check(CLI::NonNegativeNumber)
      ->needs(idle);
  command->callback([given, &chosen] { chosen = [given] { return Restart(*given); }; });
}

}  // namespace jobmillctl
