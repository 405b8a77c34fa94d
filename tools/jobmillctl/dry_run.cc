#include "tools/jobmillctl/dry_run.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "base/descriptor.h"
#include "base/number.h"
#include "config/user_collection.h"
#include "inspect/account.h"
#include "inspect/file.h"
#include "inspect/probe.h"
#include "inspect/script.h"
#include "tools/jobmillctl/command.h"

namespace jobmillctl {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr const char* kRoot = "DRYRUN";
constexpr const char* kDeck = R"([run]
units = "METRIC"
fluid = "BLACK_OIL"
start = 2020-01-01
end_time = 1
[reservoir]
pressure = 300
temperature = 95
length = 2000
width = 1500
thickness = 15
porosity = 0.2
water_saturation = 0.2
[black_oil]
api = 35
gas_gravity = 0.75
bubble_point = 180
[flow]
oil_viscosity = 0.8
water_viscosity = 0.4
[[well]]
name = "P1"
type = "PRODUCER"
productivity_index = 5
depth = 1300
tubing_diameter = 88.9
[well.constraints]
OIL_PRODUCTION_RATE = 100
)";
constexpr std::size_t kLongestPiece = 1023;  // what the daemon reads at once

volatile sig_atomic_t g_interrupted = 0;
constexpr std::array kInterrupting = {SIGINT, SIGTERM, SIGHUP};

// A directory with a deck, the account's own and closed to others. It is made and removed by the
// account: what the script leaves in it must not lead root anywhere.
class Data {
 public:
  Data(const std::string& beside, const inspect::Account& account) : account_(account) {
    const auto made = inspect::Ask([&] {
      inspect::Become(account);
      std::string directory = beside + "/jobmill-dry-run-XXXXXX";
      if (mkdtemp(directory.data()) == nullptr) throw std::runtime_error("mkdtemp");
      std::ofstream(directory + "/" + kRoot + ".afi") << kDeck;
      return directory;
    });
    if (!made) throw Failed("the account cannot make a directory in " + beside);
    directory_ = *made;
  }
  Data(const Data&) = delete;
  Data& operator=(const Data&) = delete;
  ~Data() {
    inspect::Ask([this] {
      inspect::Become(account_);
      fs::remove_all(directory_);
      return std::string();
    });
  }

  std::string path() const { return directory_ + "/"; }

 private:
  inspect::Account account_;
  std::string directory_;
};

std::string Simulator() {
  const fs::path self = inspect::RealName("/proc/self/exe");
  std::string simulator = self.parent_path() / "vksim";
  if (access(simulator.c_str(), X_OK) == 0) return simulator;
  throw Failed("the stand-in simulator is missing, " + simulator + ": install jobmill-simulator");
}

// A port that the system would give to a connection.
int FreePort() {
  const Descriptor bound(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  socklen_t size = sizeof(address);
  auto* any = reinterpret_cast<sockaddr*>(&address);
  if (bind(bound.get(), any, size) != 0 || getsockname(bound.get(), any, &size) != 0) {
    throw Failed("there is no free port");
  }
  return ntohs(address.sin_port);
}

// Forks. The child has the signals at their defaults before the first of them can come: the signal
// that ends the script may be sent before the child has become the script.
pid_t Fork() {
  sigset_t interrupting;
  sigset_t before;
  sigemptyset(&interrupting);
  for (const int number : kInterrupting) sigaddset(&interrupting, number);
  sigprocmask(SIG_BLOCK, &interrupting, &before);
  const pid_t child = fork();
  if (child == 0) {
    for (const int number : kInterrupting) signal(number, SIG_DFL);
    signal(SIGPIPE, SIG_DFL);
  }
  sigprocmask(SIG_SETMASK, &before, nullptr);
  return child;
}

// Turns this process into the script, which keeps its standard error, as under a daemon.
[[noreturn]] void ExecuteScript(const inspect::Site& site, const inspect::Account& account,
                                const std::string& simulator, std::vector<std::string> arguments,
                                int output) {
  try {
    inspect::TakeEnvironment(site);
    setenv("JOBMILL_SIMULATOR", simulator.c_str(), 1);
    const Descriptor input(open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (chdir(site.directory.c_str()) != 0 || dup2(input.get(), STDIN_FILENO) < 0 ||
        dup2(output, STDOUT_FILENO) < 0) {
      throw std::runtime_error("cannot set up its descriptors");
    }
    inspect::Become(account);
    setsid();
    std::vector<char*> vector;
    vector.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) vector.push_back(argument.data());
    vector.push_back(nullptr);
    execv(vector[0], vector.data());
    throw std::runtime_error(strerror(errno));
  } catch (const std::exception& error) {
    fmt::print(stderr, "jobmillctl: the script cannot be executed: {}\n", error.what());
    fflush(stderr);
    _exit(0);
  }
}

// What a script prints, in the pieces in which the daemon reads it: lines, with their ends, and
// parts of lines that are too long.
class Output {
 public:
  Output(int input, Clock::time_point end) : input_(input), end_(end) {}

  /// Nothing at the end of the output, when the time is over, when a signal has come, or when
  /// nobody reads what this program prints any more.
  std::optional<std::string> Next() {
    while (true) {
      const std::size_t newline = text_.find('\n');
      const std::size_t size =
          std::min(newline == std::string::npos ? newline : newline + 1,
                   text_.size() > kLongestPiece ? kLongestPiece : std::string::npos);
      if (size != std::string::npos) return Take(size);
      if (!Read()) break;
    }
    // Half a line counts only at the end of the output: before it a daemon waits for the rest.
    return ended_ && !text_.empty() ? Take(text_.size()) : std::nullopt;
  }

  /// Whether the script has closed its output.
  bool ended() const { return ended_; }

 private:
  std::optional<std::string> Take(std::size_t size) {
    std::string piece = text_.substr(0, size);
    text_.erase(0, size);
    return piece;
  }

  bool Read() {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - Clock::now());
    std::array<pollfd, 2> wait{
        {{.fd = input_, .events = POLLIN, .revents = 0},
         {.fd = STDOUT_FILENO, .events = 0, .revents = 0}}};  // its end is told all the same
    if (ended_ || g_interrupted != 0 || left.count() <= 0 ||
        poll(wait.data(), wait.size(), static_cast<int>(left.count())) <= 0 ||
        wait[1].revents != 0) {
      return false;
    }
    std::array<char, 4096> part{};
    const ssize_t size = read(input_, part.data(), part.size());
    ended_ = size <= 0;
    if (!ended_) text_.append(part.data(), static_cast<std::size_t>(size));
    return !ended_;
  }

  int input_;
  Clock::time_point end_;
  std::string text_;
  bool ended_ = false;
};

std::set<pid_t> Descendants() {
  std::multimap<pid_t, pid_t> children;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator("/proc", ignored)) {
    const auto pid = static_cast<pid_t>(NumberIn(entry.path().filename().c_str()));
    std::ifstream file(entry.path() / "stat");
    std::string text;
    if (pid <= 0 || !std::getline(file, text)) continue;
    // After the name, which may hold anything: state, parent.
    children.emplace(static_cast<pid_t>(NumberIn(text.c_str() + text.rfind(')') + 4)), pid);
  }
  std::set<pid_t> found;
  std::vector<pid_t> parents{getpid()};
  while (!parents.empty()) {
    const auto [begin, end] = children.equal_range(parents.back());
    parents.pop_back();
    for (auto child = begin; child != end; ++child) {
      if (found.insert(child->second).second) parents.push_back(child->second);
    }
  }
  return found;
}

// Whether all children of this process have ended, those that others have left to it included.
bool AllHaveEnded(bool& script_ended, pid_t script) {
  pid_t ended = 0;
  while ((ended = waitpid(-1, nullptr, WNOHANG)) > 0) script_ended |= ended == script;
  return ended < 0;
}

// Ends the script, which ends its simulator or job if it is one of the shipped ones; then whatever
// is left of it; and at last kills.
void EndAll(pid_t script) {
  using std::chrono::seconds;
  const auto start = Clock::now();
  std::optional<Clock::time_point> told_all;
  bool script_ended = false;
  kill(script, SIGTERM);
  while (!AllHaveEnded(script_ended, script)) {
    const auto now = Clock::now();
    if (now - start > seconds(40)) throw Failed("processes of the dry run cannot be ended");
    if (now - start > seconds(30) || (told_all && now - *told_all > seconds(5))) {
      for (const pid_t pid : Descendants()) kill(pid, SIGKILL);
    } else if (script_ended && !told_all) {
      for (const pid_t pid : Descendants()) kill(pid, SIGTERM);
      told_all = now;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

// The IPv4 address of a host, as the controller looks for it; the reason in `error` when there is
// none.
std::optional<std::string> Resolve(const std::string& host, std::string& error) {
  error = "the name services do not answer";
  auto answer = inspect::Ask([&host] {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int status = getaddrinfo(host.c_str(), nullptr, &hints, &found);
    if (status != 0) return std::string("!") + gai_strerror(status);
    std::array<char, INET_ADDRSTRLEN> text{};
    const auto* address = reinterpret_cast<const sockaddr_in*>(found->ai_addr);
    return std::string(inet_ntop(AF_INET, &address->sin_addr, text.data(), text.size()));
  });
  if (!answer) return std::nullopt;
  if (answer->starts_with('!')) {
    error = answer->substr(1);
    return std::nullopt;
  }
  return answer;
}

// Says what a daemon would make of the lines. Returns the exit status.
int Judge(const std::optional<std::string>& host, const Output& output, int seconds) {
  if (!host && !output.ended()) {
    Print(g_interrupted != 0
              ? "interrupted"
              : fmt::format("no host line within {} s; a daemon would wait on", seconds));
    return kNotGood;
  }
  if (!host || host->find_first_not_of(' ') == std::string::npos) {
    Print("no host: masters are told \"No host detected\"");
    return kNotGood;
  }
  std::string error;
  const auto address = Resolve(*host, error);
  Print(address
            ? fmt::format("the host is '{}', {}", *host, *address)
            : fmt::format("the host is '{}', which has no IPv4 address here: {}", *host, error));
  return address ? kOk : kNotGood;
}

inspect::Account Find(const std::string& name) {
  const auto accounts = inspect::FindAccounts({name});
  if (!accounts) throw Failed("the name services do not answer about the account " + name);
  const inspect::Account account = accounts->at(name);
  if (!account.exists) throw Failed(NoAccountText(name));
  if (account.user == 0) throw Failed("nothing is started as root");
  if (geteuid() != 0 && geteuid() != account.user) {
    throw Failed("only root can start it as " + name);
  }
  return account;
}

// Prints the lines up to the one that names the host. Returns the name; nothing without that line.
// Throws std::system_error when nobody reads them.
std::optional<std::string> ShowUpToHost(Output& output) {
  while (const auto piece = output.Next()) {
    const std::string line = piece->ends_with('\n') ? piece->substr(0, piece->size() - 1) : *piece;
    Print("| " + line);
    if (line.starts_with("HOST=")) return line.substr(strlen("HOST="));
  }
  return std::nullopt;
}

}  // namespace

int RunDry(const inspect::Site& site, const DryRun& given) {
  if (site.error != 0) throw Failed("cannot read " + site.configuration);
  const inspect::Account account = Find(given.account);
  const std::string simulator = Simulator();
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  struct sigaction action {};
  action.sa_handler = [](int) { g_interrupted = 1; };
  for (const int number : kInterrupting) sigaction(number, &action, nullptr);
  // Who reads the first lines alone, as head does, must not keep this from clearing up.
  signal(SIGPIPE, SIG_IGN);

  const Data data(given.beside, account);
  const std::vector<std::string> arguments = {
      site.script, "1", data.path(), kRoot, std::to_string(FreePort()), "0"};
  Print(fmt::format("as {} ({}:{}): {}", given.account, account.user, account.group,
                    fmt::join(arguments, " ")));
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) throw Failed("there is no pipe");
  const Descriptor input(ends[0]);
  Descriptor write_end(ends[1]);
  const pid_t script = Fork();
  if (script < 0) throw Failed("there is no process for the script");
  if (script == 0) ExecuteScript(site, account, simulator, arguments, write_end.get());
  write_end.Reset();

  Output output(input.get(), Clock::now() + std::chrono::seconds(given.seconds));
  std::optional<std::string> host;
  try {
    host = ShowUpToHost(output);
  } catch (const std::system_error&) {
    // Nobody reads any more what this program prints.
    EndAll(script);
    return kNotGood;
  }
  EndAll(script);
  return Judge(host, output, given.seconds);
}

}  // namespace jobmillctl
