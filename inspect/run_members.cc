#include "inspect/run_members.h"

#include <netinet/tcp.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <tuple>
#include <utility>

#include "base/number.h"
#include "inspect/file.h"
#include "inspect/script.h"
#include "inspect/script_arguments.h"

namespace inspect {
namespace {

constexpr const char* kMark = "JOBMILL_RUN";

// Whether the script of a run is a shipped one, and at work. Such a script notices that its
// controller has gone, gives the simulator the grace time and ends it: nobody else has to.
bool EndsWhatIsLeft(const Run& run, const std::set<std::string>& scripts) {
  const auto process = run.script ? Process::Open(*run.script) : std::nullopt;
  if (!process || !process->IsAlive() || process->stat().state == 'T') return false;
  const std::vector<std::string> words = process->Arguments();
  // Only what a daemon was given is read: the rest of the command line is the account's own word.
  return words.size() >= 6 && scripts.contains(words[words.size() - 6]) &&
         words[words.size() - 6].starts_with('/') &&
         IsPackagedScript(ReadFile(words[words.size() - 6]).value_or(""));
}

// Whether a simulator that no controller is connected to may be the one that `run` is about to
// connect to. The script, whose arguments name the comms port, may have ended; the log may not
// tell.
bool MayConnectTo(const Run& run, const Options& options, const Run& simulator) {
  if (run.comms_port || run.state == RunState::kHandshake || !HasController(run)) return false;
  if (run.user != simulator.user || !simulator.comms_port) return false;
  const std::int64_t place = std::int64_t{*simulator.comms_port} - options.comms_base_port;
  return place >= 0 && place < options.comms_ports;
}

}  // namespace

RunMembers::RunMembers(Machine& machine) : machine_(machine) {
  for (const auto& [pid, stat] : machine_.processes()) {
    if (machine_.IsJobmill(pid)) continue;
    const auto process = Process::Open(stat.id);
    const auto mark = process ? process->Variable(kMark) : std::nullopt;
    if (mark) marks_.push_back({stat, process->User().value_or(0), *mark});
  }
}

void RunMembers::AddSimulators(std::vector<Run>& runs) {
  std::set<uid_t> users;
  for (const Run& run : runs) users.insert(run.user.value_or(0));
  std::map<int, TcpSocket> listening;
  std::map<std::pair<std::string, std::string>, std::uint64_t> ends;
  for (const TcpSocket& socket : machine_.sockets()) {
    if (socket.state == TCP_LISTEN) listening.emplace(socket.local.port, socket);
    ends.emplace(std::pair(Text(socket.local), Text(socket.remote)), socket.inode);
  }
  for (Run& run : runs) {
    if (!run.comms_port || run.state == RunState::kHandshake) continue;
    std::optional<std::uint64_t> inode;
    for (const Link& link : machine_.LinksOf(machine_.jobmills().at(run.id.pid))) {
      if (link.socket.remote.port != *run.comms_port) continue;
      const auto end = ends.find({Text(link.socket.remote), Text(link.socket.local)});
      if (end != ends.end()) inode = end->second;
    }
    const auto listener = listening.find(*run.comms_port);
    if (!inode && listener != listening.end() && listener->second.user == run.user) {
      inode = listener->second.inode;
    }
    if (inode && *inode != 0) run.simulator = machine_.OwnerOf(*inode, users);
    if (!run.simulator) continue;
    const auto process = Process::Open(*run.simulator);
    if (process) run.simulator_seconds = Seconds(process->stat().ticks);
  }
}

void RunMembers::AddMembers(std::vector<Run>& runs) const {
  for (Run& run : runs) {
    std::set<pid_t> members;
    for (const ProcessStat& stat : machine_.Descendants(run.id.pid)) members.insert(stat.id.pid);
    if (run.simulator) members.insert(*run.simulator);
    std::set<std::string> texts;
    for (const Mark& mark : marks_) {
      // A simulator that a scheduler has started is known by its arguments before it listens.
      const auto process =
          run.comms_port && mark.user == run.user ? Process::Open(mark.stat.id) : std::nullopt;
      const std::vector<std::string> arguments =
          process ? process->Arguments() : std::vector<std::string>();
      const auto has = [&](const std::string& text) {
        return std::find(arguments.begin(), arguments.end(), text) != arguments.end();
      };
      const bool named =
          process && run.root && has(*run.root) && has(std::to_string(*run.comms_port));
      if (named || members.contains(mark.stat.id.pid)) texts.insert(mark.text);
    }
    for (const Mark& mark : marks_) {
      if (texts.contains(mark.text) && mark.user == run.user) members.insert(mark.stat.id.pid);
    }
    for (const pid_t pid : members) run.members.push_back(machine_.processes().at(pid).id);
  }
}

void RunMembers::AddLost(std::vector<Run>& runs) const {
  std::set<pid_t> taken;
  for (const Run& run : runs) {
    for (const ProcessId& id : run.members) taken.insert(id.pid);
  }
  std::set<std::string> scripts;
  for (const auto& [pid, jobmill] : machine_.jobmills()) scripts.insert(ScriptOf(jobmill.options));
  std::vector<Run> lost;
  for (const auto& [pid, stat] : machine_.processes()) {
    // The script leads a session of its own.
    if (stat.session != pid || taken.contains(pid) || machine_.IsJobmill(pid)) continue;
    const auto process = Process::Open(stat.id);
    const std::vector<std::string> words =
        process ? process->Arguments() : std::vector<std::string>();
    if (words.size() < 6 || !scripts.contains(words[words.size() - 6])) continue;
    Run run;
    run.script = pid;
    run.user = process->User();
    Take(*ReadScript(words, words[words.size() - 6]), run);
    run.members.push_back(stat.id);
    for (const ProcessStat& member : machine_.Descendants(pid)) run.members.push_back(member.id);
    lost.push_back(std::move(run));
  }
  std::map<std::string, Run> marked;
  for (const Mark& mark : marks_) {
    if (taken.contains(mark.stat.id.pid)) continue;
    const auto owner = std::find_if(lost.begin(), lost.end(), [&](const Run& run) {
      return std::find(run.members.begin(), run.members.end(), mark.stat.id) != run.members.end();
    });
    Run& run = owner != lost.end() ? *owner : marked[mark.text];
    if (owner == lost.end()) run.members.push_back(mark.stat.id);
    if (run.simulator) continue;
    run.simulator = mark.stat.id.pid;
    run.simulator_seconds = Seconds(mark.stat.ticks);
    if (owner != lost.end()) continue;
    run.user = mark.user;
    // The shipped scripts start a simulator as PROGRAM PATH ROOT --port N --processes N.
    const auto process = Process::Open(mark.stat.id);
    const std::vector<std::string> words =
        process ? process->Arguments() : std::vector<std::string>();
    const auto option = std::find(words.begin(), words.end(), "--port");
    if (option - words.begin() < 2 || words.end() - option < 4) continue;
    run.path = *(option - 2);
    run.root = *(option - 1);
    run.comms_port = static_cast<int>(NumberIn((option + 1)->c_str()));
    run.processes = static_cast<int>(NumberIn((option + 3)->c_str()));
  }
  for (auto& [mark, left] : marked) {
    const bool has_controller = std::ranges::any_of(runs, [&, &left = left](const Run& run) {
      return machine_.IsJobmill(run.id.pid) &&
             MayConnectTo(run, machine_.jobmills().at(run.id.pid).options, left);
    });
    if (!has_controller) lost.push_back(std::move(left));
  }
  for (Run& run : lost) {
    std::erase_if(run.members, [](const ProcessId& id) {
      const auto process = Process::Open(id);
      return !process || !process->IsAlive();
    });
    if (run.members.empty()) continue;
    run.state = EndsWhatIsLeft(run, scripts) ? RunState::kEnding : RunState::kLost;
    if (run.state == RunState::kEnding) {
      run.waits_for = "its end by the script, within the grace time";
    }
    run.id = *std::min_element(run.members.begin(), run.members.end(),
                               [](const ProcessId& a, const ProcessId& b) {
                                 return std::tuple(a.start, a.pid) < std::tuple(b.start, b.pid);
                               });
    runs.push_back(std::move(run));
  }
}

}  // namespace inspect
