#include "inspect/ending.h"

#include <errno.h>
#include <string.h>

#include <optional>
#include <string_view>

#include "base/number.h"
#include "inspect/comms_log.h"
#include "inspect/connection_log.h"

namespace inspect {
namespace {

constexpr std::string_view kMasterGone = "No or unexpected data received from Corvane";
constexpr std::string_view kInRequest = "Failed to handle data packet received from master: ";
constexpr std::string_view kFromMaster = "Exception returned from Corvane comms: ";
constexpr std::string_view kFromSimulator = "Exception returned from VK controller: ";

// Masters can send 64 KiB.
constexpr std::size_t kMostQuoted = 100;

std::string Quoted(const std::optional<std::string>& text) {
  const std::string whole = text.value_or("");
  return "'" + whole.substr(0, kMostQuoted) + (whole.size() > kMostQuoted ? "..." : "") + "'";
}

struct Sentence {
  const char* reason;
  Ending ending;
  const char* text;
};

// What is to be said of ends before the script, where the reason says all.
constexpr Sentence kBeforeScript[] = {
    {"no-answer", Ending::kNoRequest,
     "Whoever connected asked for no run: a probe of the port, or a master that gave up at once"},
    {"no-process", Ending::kNotStarted, "The machine had no process left to start it with"},
    {"no-descriptor", Ending::kNotStarted, "The jobmill could not open a pipe to its script"},
    {"environment-file", Ending::kNotStarted, "The jobmill could not read its environment file"},
    {"user-file", Ending::kRefused,
     "Nobody could be let in: the jobmill could not read the list of those who may run"},
};

// How the text begins with which a connector, the client of the simulator or the system explains a
// failed request. The last row fits every text.
constexpr Sentence kFailures[] = {
    {"timed-out", Ending::kNoSimulator, "Connection timed out."},
    {"host-unknown", Ending::kNoSimulator, "resolve: "},
    {"machine-gone", Ending::kSimulatorEnded, "read: Connection timed out"},
    {"machine-gone", Ending::kSimulatorEnded, "read: No route to host"},
    {"", Ending::kSimulatorEnded, "read: "},
    {"", Ending::kSimulatorEnded, "write: "},
    {"not-connected", Ending::kRequestFailed, "Not connected to the simulator"},
    {"position", Ending::kRequestFailed, "Incorrect algorithmic position"},
    {"answer", Ending::kRequestFailed, "Unexpected answer when querying"},
    {"data", Ending::kRequestFailed, "Inconsistent data sent"},
    {"data", Ending::kRequestFailed, "Incorrect argument dimensions"},
    {"other", Ending::kRequestFailed, ""},
};

std::string RequestIn(const CommsLog& log) {
  return log.last_request ? "the request '" + RequestName(*log.last_request) + "'" : "a request";
}

End FailureOf(std::string_view text, const CommsLog& log, const Connection& connection) {
  const Sentence* failure = kFailures;
  while (!text.starts_with(failure->text)) ++failure;
  const std::string_view reason = failure->reason;
  const std::string request = RequestIn(log);
  const auto host = log.host ? log.host : connection.host;
  End end{failure->ending, std::string(reason), ""};
  if (reason == "timed-out") {
    end.sentence = "No simulator accepted the connection on host " + Quoted(host) + ", port " +
                   connection.port.value_or("?") + ", in time";
  } else if (reason == "host-unknown") {
    end.sentence =
        "The script named the host " + Quoted(host) + ", which the jobmill's machine does not know";
  } else if (reason == "machine-gone") {
    end.sentence = "The simulator's machine, " + Quoted(host) + ", went away during " + request;
  } else if (failure->ending == Ending::kSimulatorEnded) {
    end.sentence = "The simulator ended, or was ended, during " + request;
  } else if (reason == "not-connected") {
    end.sentence = "The master sent " + request + " before it had the simulator connected";
  } else if (reason == "position") {
    end.sentence =
        "The simulator was not where " + request + " needs it, but at its end for example";
  } else if (reason == "answer") {
    end.sentence = "The simulator answered " + request +
                   " in another shape than expected; it may speak another version than " +
                   Quoted(connection.version) + ", which the master named";
  } else if (reason == "data") {
    end.sentence = "What the master sent with " + request + " contradicts itself";
  } else {
    end.sentence = "It failed at " + request + ": " + std::string(text);
  }
  return end;
}

End AccountChange(const Connection& connection) {
  const int error = static_cast<int>(NumberIn(connection.text.c_str()));
  std::string why = strerror(error);
  if (error == EAGAIN) why = "it has as many processes as it may have";
  if (error == EPERM) why = "the daemon may not become another account for good";
  return {Ending::kRefused, connection.reason,
          "The run could not be given the account " + Quoted(connection.account) + ": " + why};
}

End NoHost(const Connection& connection) {
  End end{Ending::kNoHost, "", "The script ended without naming a host"};
  if (connection.last_said) {
    end.sentence += "; the last that it said: " + *connection.last_said;
  } else if (connection.unheard) {
    end.sentence += "; what it said cannot be told from what others said at that time";
  } else {
    end.sentence += " and without a word; it may be missing, or not be executable";
  }
  return end;
}

}  // namespace

const char* Name(Ending ending) {
  switch (ending) {
    case Ending::kShutDown:
      return "shut down";
    case Ending::kMasterLeft:
      return "master left";
    case Ending::kSimulatorEnded:
      return "simulator ended";
    case Ending::kNoSimulator:
      return "no simulator";
    case Ending::kRequestFailed:
      return "request failed";
    case Ending::kNoHost:
      return "no host";
    case Ending::kRefused:
      return "refused";
    case Ending::kNotStarted:
      return "not started";
    case Ending::kNoRequest:
      return "no request";
    case Ending::kSilent:
      return "without a word";
    case Ending::kUnknown:
      break;
  }
  return "unknown";
}

bool IsFailure(Ending ending) {
  return ending != Ending::kShutDown && ending != Ending::kNoRequest && ending != Ending::kUnknown;
}

End EndOfStart(const Connection& connection) {
  const std::string& reason = connection.reason;
  for (const Sentence& sentence : kBeforeScript) {
    if (reason == sentence.reason) return {sentence.ending, reason, sentence.text};
  }
  const std::string user = "Windows user " + Quoted(connection.windows_user);
  if (reason == "user-unknown") {
    return {Ending::kRefused, reason, user + " is not in the list of those who may run here"};
  }
  if (reason == "user-denied") {
    return {Ending::kRefused, reason,
            user + " is in the list of users as one who may not run here"};
  }
  if (reason == "account-unknown") {
    return {Ending::kRefused, reason,
            user + " is to run as account " + Quoted(connection.account) +
                ", which this machine does not know"};
  }
  if (reason == "account-change") return AccountChange(connection);
  if (reason == "link") {
    return {Ending::kNotStarted, reason,
            "It failed during its start, for want of memory or by its connection" +
                (connection.text.empty() ? "" : ": " + connection.text)};
  }
  if (reason == "no-host") return NoHost(connection);
  if (connection.undecided || connection.step == Step::kMixed) {
    return {
        Ending::kUnknown, "mixed",
        "How it ended is not known: several runs waited for their scripts, and the log does not "
        "tell whose answers came"};
  }
  if (connection.step == Step::kScript) {
    return {
        Ending::kSilent, "waiting",
        "It ended without a word while its script had not named a host: its process was killed, "
        "the machine went down, or the log was taken away"};
  }
  if (connection.step <= Step::kGreeted) {
    return {Ending::kNoRequest, "", "It ended before it had asked for anything"};
  }
  return {
      Ending::kSilent, "starting",
      "It ended without a word during its start: its process was killed, the machine went down, "
      "or the log was taken away"};
}

End EndOfRun(const CommsLog& log, const Connection& connection) {
  if (!log.cause) {
    return {Ending::kSilent, "controlling",
            "It ended without a word" +
                (log.last_request ? " after " + RequestIn(log) : std::string()) +
                ": its controller was killed, by jobmillctl end for example or for want of memory, "
                "or the machine went down"};
  }
  if (log.shut_down) return {Ending::kShutDown, "", "The master shut it down"};
  std::string_view cause = *log.cause;
  if (cause == kMasterGone) {
    return {Ending::kMasterLeft, "",
            "The master left without shutting it down, or the connection to the master broke"};
  }
  if (cause.starts_with(kInRequest)) cause.remove_prefix(kInRequest.size());
  if (cause.starts_with(kFromMaster)) {
    if (cause.substr(kFromMaster.size()).starts_with("Unexpected data")) {
      return {Ending::kMasterLeft, "in-request",
              "The master left, or sent something else, in the middle of " + RequestIn(log)};
    }
    return {Ending::kRequestFailed, "answer",
            "The simulator told of another number of wells than " + RequestIn(log) + " was about"};
  }
  if (cause.starts_with(kFromSimulator)) {
    return FailureOf(cause.substr(kFromSimulator.size()), log, connection);
  }
  if (cause == "Unknown exception") {
    return {Ending::kRequestFailed, "protocol",
            "The simulator refused " + RequestIn(log) +
                ", or answered what the protocol does not have"};
  }
  return {Ending::kRequestFailed, "other", "It failed: " + std::string(cause)};
}

}  // namespace inspect
