#include "inspect/run_state.h"

#include <netinet/tcp.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

namespace inspect {
namespace {

// Whether the script was started: the connection child's standard input, which it has from the
// daemon, becomes the script's pipe then. None when the pipe could be either.
std::optional<bool> HasScript(const Machine& machine, const Jobmill& jobmill, const Run& run) {
  const std::string input = jobmill.Target(STDIN_FILENO);
  if (run.script) return true;
  if (!InodeIn(input, "pipe")) return false;
  const std::map<pid_t, Jobmill>& jobmills = machine.jobmills();
  if (const auto daemon = jobmills.find(run.daemon);
      daemon != jobmills.end() && daemon->second.files) {
    return daemon->second.Target(STDIN_FILENO) != input;
  }
  // The daemon has gone. If its standard input was a pipe, all its children have that one.
  for (const auto& [pid, other] : jobmills) {
    if (pid != run.id.pid && other.Target(STDIN_FILENO) == input) return false;
  }
  return std::nullopt;
}

// Whether what came last on the master's link is a request, so that it is the jobmill's turn.
std::optional<bool> IsOurTurn(const std::optional<Link>& master) {
  if (!master || !master->socket.since_received || !master->socket.since_sent ||
      *master->socket.since_received == *master->socket.since_sent) {
    return std::nullopt;
  }
  return *master->socket.since_received < *master->socket.since_sent;
}

}  // namespace

std::optional<Link> MasterOf(const Machine& machine, const Jobmill& jobmill, const Run& run) {
  const int port = jobmill.options.listen_port;
  for (const Link& link : machine.LinksOf(jobmill)) {
    if (link.socket.local.port == port && link.socket.state != TCP_LISTEN) return link;
  }
  if (jobmill.files) return std::nullopt;
  // Without the right to look at the process: the only connection of a daemon with an only child.
  std::vector<Link> possible;
  for (const TcpSocket& socket : machine.sockets()) {
    if (socket.local.port == port && socket.inode != 0 && socket.state != TCP_LISTEN) {
      possible.push_back({-1, socket});
    }
  }
  const bool only =
      possible.size() == 1 && run.daemon != 0 && machine.ChildrenOf(run.daemon).size() == 1;
  return only ? std::optional(possible.front()) : std::nullopt;
}

std::optional<Link> SimulatorLinkOf(const Machine& machine, const Jobmill& jobmill,
                                    const Run& run) {
  const Options& options = jobmill.options;
  const auto fits = [&](const TcpSocket& socket) {
    if (socket.local.port == options.listen_port) return false;
    const int port = socket.remote.port;
    if (run.comms_port) return port == *run.comms_port;
    return port >= options.comms_base_port && port < options.comms_base_port + options.comms_ports;
  };
  for (const Link& link : machine.LinksOf(jobmill)) {
    if (fits(link.socket)) return link;
  }
  if (jobmill.files || !run.comms_port || !run.user) return std::nullopt;
  std::optional<Link> found;
  for (const TcpSocket& socket : machine.sockets()) {
    if (!fits(socket) || socket.user != *run.user || socket.inode == 0) continue;
    if (found) return std::nullopt;
    found = Link{-1, socket};
  }
  return found;
}

void SetState(const Machine& machine, const Jobmill& jobmill, const std::optional<Link>& master,
              const std::optional<Link>& simulator, Run& run) {
  const auto process = Process::Open(run.id);
  const Process::Call call =
      process ? process->WaitsIn().value_or(Process::Call()) : Process::Call();
  const bool waits = call.number >= 0;
  // The right to know in which call it waits is narrower than the one to see what it has open.
  const bool hidden = !waits && process && process->stat().state != 'R';
  const bool connected = simulator && simulator->socket.state != TCP_SYN_SENT;
  const std::optional<bool> our_turn = IsOurTurn(master);
  const bool polls = call.number == SYS_poll || call.number == SYS_ppoll;
  const bool master_left = !master || master->socket.state == TCP_CLOSE_WAIT;
  const auto in = [&](RunState state, const std::string& waits_for) {
    run.state = state;
    run.waits_for = waits_for;
    run.unknown.erase("state");
  };
  const auto awaits = [&](int descriptor) { return waits && call.descriptor == descriptor; };
  const auto after_sent = [](const std::optional<Link>& link) -> std::optional<double> {
    if (!link || !link->socket.since_sent) return std::nullopt;
    return Now() - *link->socket.since_sent;
  };
  if (!jobmill.files) {
    const bool before_account = jobmill.options.run_as_root && run.user == 0U && !run.script;
    if (before_account) {
      in(RunState::kHandshake, "");
    } else if (connected && our_turn) {
      *our_turn ? in(RunState::kSimulator, "an answer") : in(RunState::kMaster, "the next request");
    }
  } else if (call.number == SYS_read && call.descriptor == STDIN_FILENO) {
    in(RunState::kScript, "the script's line that names the host");
  } else if (const auto script = HasScript(machine, jobmill, run); script == false) {
    in(RunState::kHandshake, hidden ? ""
                             : master && awaits(master->descriptor)
                                 ? "the master's request"
                                 : "the check and the preparation of the request");
  } else if (master && awaits(master->descriptor)) {
    if (script || connected || !run.comms_log.empty()) {
      const bool sends = call.number != SYS_recvfrom;
      in(RunState::kMaster, sends ? "the master to take an answer" : "the next request");
    } else {
      run.unknown["state"] = "the daemon has gone: handshake and wait for a request look the same";
    }
  } else if (simulator && awaits(simulator->descriptor)) {
    in(RunState::kSimulator, "an answer");
  } else if (connected && polls) {
    in(RunState::kMaster,
       "the end of the link of a master that has left in the middle of a request");
  } else if (polls && master_left) {
    run.unknown["state"] =
        "its master has left: the wait for the end of the link and that for a name service look "
        "the same";
  } else if (waits && !connected && our_turn != false) {
    // It waits neither for the script nor for the master: for a name, a connection or the next try.
    in(RunState::kSimulatorListens, "a simulator that accepts the connection");
  } else if (hidden && our_turn) {
    if (!*our_turn) {
      in(RunState::kMaster, "the next request");
    } else if (connected) {
      in(RunState::kSimulator, "an answer");
    } else if (jobmill.options.comms_log) {
      run.comms_log.empty()
          ? in(RunState::kScript, "the script's line that names the host")
          : in(RunState::kSimulatorListens, "a simulator that accepts the connection");
    } else {
      run.unknown["state"] =
          "without -l the wait for the script and that for a listening simulator "
          "look the same to others than root";
    }
  } else {
    run.unknown["state"] = "it changed while it was looked at";
  }
  switch (run.state) {
    case RunState::kHandshake:
      run.since = run.began;
      break;
    case RunState::kScript:
    case RunState::kSimulatorListens:
      run.since = run.last_heard;
      break;
    case RunState::kMaster:
      run.since = after_sent(master);
      break;
    case RunState::kSimulator:
      run.since = after_sent(simulator);
      if (master_left) run.waits_for += "; the master has left";
      break;
    default:
      break;
  }
  if (process && process->stat().state == 'T') run.waits_for = "a signal: it is stopped";
}

}  // namespace inspect
