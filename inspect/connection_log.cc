#include "inspect/connection_log.h"

#include <time.h>

#include <algorithm>
#include <cctype>
#include <utility>

#include "base/number.h"

namespace inspect {
namespace {

constexpr std::string_view kDaemonStarted = "Daemon started: ";
constexpr std::string_view kArgumentsOfDaemon = "Arguments: ";
constexpr std::string_view kAccepted = "Accepted incoming connection: ";
constexpr std::string_view kNotAccepted = "Error occurred accepting connection: ";
constexpr std::string_view kAcceptFailed = "Socket failure in accept call - exiting ... ";
constexpr std::string_view kLinkFailed = "Socket connection failed";
constexpr std::string_view kHost = "Host detected: ";
constexpr std::string_view kHostLine = "HOST=";
constexpr std::string_view kNoHost = "No host detected, exiting.";
constexpr std::string_view kLastArgument = "Arg 7: ";
constexpr std::string_view kVariable = "Setting ";
constexpr std::string_view kSubmitted = ") is submitted";

constexpr std::size_t kMostOfLine = 300;

// Characters of the shortest label that is the daemon's for sure: scripts may print "Path: ".
constexpr std::size_t kDistinctive = 11;

// The lines of the daemon's start: a blank one, the time, versions, options, the directory.
constexpr std::size_t kLinesOfStart = 5;
constexpr std::size_t kLineOfOptions = 4;

// Whether a line of another connection at this step stands among a connection's own. While a file
// is copied, which may take long, it does not.
bool StandsAmongOthers(Step step) {
  return step >= Step::kCluster && step <= Step::kArgument6 && step != Step::kCopying;
}

bool IsInStart(Step step) {
  return step >= Step::kCluster && step <= Step::kArgument6;
}

Options OptionsIn(std::string_view line) {
  std::vector<std::string> words = {""};
  line.remove_prefix(kArgumentsOfDaemon.size());
  for (std::size_t end = line.find(' '); end != std::string_view::npos; end = line.find(' ')) {
    words.emplace_back(line.substr(0, end));
    line.remove_prefix(end + 1);
  }
  return ParseOptions(words);
}

// How the name of a job begins that a shipped script submits for a model of this root name.
std::string InJobName(const std::string& root) {
  std::string name;
  for (const char c : root) {
    if (std::isalnum(static_cast<unsigned char>(c)) != 0 && name.size() < 6) name += c;
  }
  return "vk_" + name + "_";
}

}  // namespace

// How a line moves a connection on.
struct ConnectionLog::Rule {
  Step from;
  std::string_view begin;
  Step to;
  std::optional<std::string> Connection::*field = nullptr;  // takes what follows
  const char* reason = "";                                  // of the end
  std::string_view end = {};
  bool whole = false;  // nothing follows

  bool Fits(std::string_view line) const {
    return line.starts_with(begin) && line.ends_with(end) &&
           (!whole || line.size() == begin.size());
  }
};

const std::vector<ConnectionLog::Rule>& ConnectionLog::Rules() {
  static const std::vector<Rule> rules = [] {
    using S = Step;
    using C = Connection;
    constexpr auto none = nullptr;
    std::vector<Rule> all = {
        {S::kAccepted, "Answering call in child process: ", S::kAnswered},
        {S::kAccepted, "Error occurred forking controlling thread: ", S::kEnded, none,
         "no-process"},
        {S::kAnswered, "Sending back version number: ", S::kGreeted},
        {S::kGreeted, "Incorrect response from Corvane - no controller will be launched", S::kEnded,
         none, "no-answer", "", true},
        {S::kGreeted, "Clust: ", S::kCluster, &C::cluster},
        {S::kCluster, "Path: ", S::kPath, &C::path},
        {S::kPath, "Root: ", S::kRoot, &C::root},
        {S::kRoot, "Proc: ", S::kProcesses, &C::processes},
        {S::kProcesses, "Ver: ", S::kVersion, &C::version},
        {S::kVersion, "Setting existing environment variable ", S::kVersion},
        {S::kVersion, "Setting non-existing environment variable ", S::kVersion},
        {S::kVersion, "Failed to read ", S::kEnded, none, "environment-file"},
        {S::kVersion, "Windows user received: ", S::kUser, &C::windows_user},
        {S::kUser, "Debug flag received: ", S::kDebug},
        {S::kDebug, "Failed to read users administration file - ", S::kEnded, none, "user-file"},
        {S::kDebug, "Contents of user administration file:", S::kUsers, none, "", "", true},
        {S::kUsers, "User ", S::kUsers},
        {S::kUsers, "Windows: ", S::kUsers},
        {S::kUsers, "Windows user '", S::kEnded, none, "user-unknown",
         "' not found in administration file"},
        {S::kUsers, "Windows user '", S::kEnded, none, "user-denied",
         "' does not have permissions to run Varnok"},
        {S::kUsers, "Linux user required: ", S::kAccount, &C::account},
        {S::kAccount, "Failed to get password entry for '", S::kEnded, none, "account-unknown"},
        {S::kAccount, "Failed to set the group ID - ", S::kAccount},
        {S::kAccount, "Failed to set user ID for Tolmen job - error = ", S::kEnded, none,
         "account-change"},
        {S::kCopying, "Copying ", S::kCopying},
        {S::kCopying, "Copy succeeded", S::kCopied, none, "", "", true},
        {S::kCopying, "Copy failed - run will probably fail", S::kCopied, none, "", "", true},
        {S::kArguments, "Arg 1: ", S::kArgument1},
        {S::kArgument1, "Arg 2: ", S::kArgument2, &C::script_processes},
        {S::kArgument2, "Arg 3: ", S::kArgument3, &C::script_path},
        {S::kArgument3, "Arg 4: ", S::kArgument4, &C::script_root},
        {S::kArgument4, "Arg 5: ", S::kArgument5, &C::port},
        {S::kArgument5, "Arg 6: ", S::kArgument6},
    };
    for (const Step from : {S::kDebug, S::kAccount}) {
      all.push_back({from, "Dealing with cluster run now ...", S::kCopying, none, "", "", true});
    }
    for (const Step from : {S::kDebug, S::kAccount, S::kCopied}) {
      all.push_back({from, "Argument list", S::kArguments, none, "", "", true});
      all.push_back({from, "Error: fork failed", S::kEnded, none, "no-process", "", true});
      all.push_back({from, "Error: pipe failed", S::kEnded, none, "no-descriptor", "", true});
    }
    return all;
  }();
  return rules;
}

std::optional<std::time_t> TimeIn(std::string_view text) {
  const std::string copy(text);
  tm local{};
  local.tm_isdst = -1;
  const char* end = strptime(copy.c_str(), "%a %b %e %H:%M:%S %Y", &local);
  if (end != copy.c_str() + copy.size()) return std::nullopt;
  return mktime(&local);
}

void ConnectionLog::BeginFile(const std::string& file) {
  here_ = {file, 0};
}

void ConnectionLog::AddLine(std::string_view line) {
  ++here_.line;
  ++lines_;
  if (lines_ == 2) starts_ = line.starts_with(kDaemonStarted);
  if (lines_ <= kLinesOfStart && (starts_ || line.empty())) {
    if (lines_ == kLineOfOptions && line.starts_with(kArgumentsOfDaemon)) {
      options_ = OptionsIn(line);
    }
    return;
  }
  // The label of the last argument has no value and no line end after it. What the script prints,
  // or another process logs, follows in the same line.
  const auto starting = open_.find(Step::kArgument6);
  if (line.starts_with(kLastArgument) && starting != open_.end()) {
    const auto& starters = starting->second;
    const bool speaks = std::find(starters.begin(), starters.end(), speaker_) != starters.end();
    Connection& connection = speaks ? *speaker_ : *starters.front();
    if (starters.size() > 1 && !speaks) MarkOthersInStart(connection);
    connection.last = here_;
    Move(connection, Step::kScript);
    speaker_ = nullptr;
    line.remove_prefix(kLastArgument.size());
    if (line.empty()) return;
  }
  // The last line of a script may have no end.
  const bool scripts = open_.contains(Step::kScript);
  if (scripts && line.ends_with(kNoHost) && line.size() > kNoHost.size()) {
    AddScriptLine(line.substr(0, line.size() - kNoHost.size()));
    line = kNoHost;
  }
  if (const std::size_t host = line.find(kHost);
      scripts && line.starts_with(kHostLine) && host != std::string_view::npos) {
    line.remove_prefix(host);
  }
  if (AddDaemonLine(line) || AddConnectionLine(line)) return;
  if (speaker_ != nullptr && StandsAmongOthers(speaker_->step)) speaker_->mixed = true;
  speaker_ = nullptr;
  if (scripts && line.starts_with(kHost)) {
    line.remove_prefix(kHost.size());
    AddAnswer(std::string(line.substr(0, line.find('\0'))));
  } else if (scripts && line == kNoHost) {
    AddAnswer(std::nullopt);
  } else if (scripts) {
    AddScriptLine(line);
    if (LooksLikeOurs(line)) DoubtAll(line);
  } else {
    DoubtAll(line);
  }
}

bool ConnectionLog::LooksLikeOurs(std::string_view line) {
  for (const std::string_view label : {kDaemonStarted, kAccepted, kHost, kNoHost}) {
    if (line.starts_with(label)) return true;
  }
  return std::ranges::any_of(Rules(), [&](const Rule& rule) {
    return rule.begin.size() >= kDistinctive &&
           rule.reason != std::string_view("environment-file") && rule.Fits(line);
  });
}

bool ConnectionLog::AddDaemonLine(std::string_view line) {
  if (line == kAcceptFailed || line.starts_with(kNotAccepted)) return true;
  if (!line.starts_with(kAccepted)) return false;
  const auto time = TimeIn(line.substr(kAccepted.size()));
  if (!time) return false;
  Connection connection;
  connection.index = connections_.size();
  connection.began = *time;
  connection.first = connection.last = here_;
  connection.unproven = open_.contains(Step::kScript);
  connections_.push_back(std::move(connection));
  open_[Step::kAccepted].push_back(&connections_.back());
  Keep(connections_.back(), line);
  MarkOthersInStart(connections_.back());
  speaker_ = &connections_.back();
  return true;
}

// Marks connections in the middle of their start, and `speaker`, whose line stands among theirs.
void ConnectionLog::MarkOthersInStart(Connection& speaker) {
  bool among = false;
  for (auto& [step, connections] : open_) {
    if (!StandsAmongOthers(step)) continue;
    for (Connection* other : connections) {
      if (other == &speaker) continue;
      other->mixed = true;
      among = true;
    }
  }
  if (among) speaker.mixed = true;
}

bool ConnectionLog::AddConnectionLine(std::string_view line) {
  const Rule* found = nullptr;
  std::vector<Connection*> candidates;
  for (const Rule& rule : Rules()) {
    const auto open = open_.find(rule.from);
    if (open == open_.end() || !rule.Fits(line)) continue;
    found = &rule;
    candidates.insert(candidates.end(), open->second.begin(), open->second.end());
  }
  if (found == nullptr) {
    if (!line.starts_with(kLinkFailed)) return false;
    std::size_t open = 0;
    for (const auto& [step, connections] : open_) open += connections.size();
    // It may be any connection's, even that of a run. So it is taken for one only where no other is
    // open, and for nothing else.
    if (open != 1) return true;
    Connection& connection = *open_.begin()->second.front();
    connection.reason = "link";
    connection.text = line.substr(std::min(line.size(), kLinkFailed.size() + 2));
    connection.last = here_;
    Move(connection, Step::kEnded);
    return true;
  }
  Connection& connection = Choose(*found, candidates);
  // Several rules may fit the line, each for another step. Apply the one for this connection's.
  const auto rule = std::ranges::find_if(Rules(), [&](const Rule& candidate) {
    return candidate.from == connection.step && candidate.Fits(line);
  });
  if (speaker_ != &connection) MarkOthersInStart(connection);
  Apply(*rule, line, connection);
  return true;
}

Connection& ConnectionLog::Choose(const Rule& rule,
                                  const std::vector<Connection*>& candidates) const {
  // A greeted connection may stay idle for ever, and those that ask do so at once: take the latest.
  // Its port will tell, see RightOne().
  const bool asks = rule.from == Step::kGreeted;
  if (asks && candidates.size() > 1) {
    for (Connection* candidate : candidates) candidate->guessed = true;
  }
  if (std::find(candidates.begin(), candidates.end(), speaker_) != candidates.end()) {
    return *speaker_;
  }
  if (asks) return *candidates.back();
  if (candidates.size() > 1 && IsInStart(rule.from)) {
    for (Connection* candidate : candidates) candidate->mixed = true;
  }
  return *candidates.front();
}

void ConnectionLog::Apply(const Rule& rule, std::string_view line, Connection& connection) {
  const std::string value(line.substr(rule.begin.size()));
  if (rule.field != nullptr) connection.*rule.field = value;
  // No honest text has a zero byte, after which another one could begin.
  if (line.find('\0') != std::string_view::npos) connection.doubtful = true;
  connection.reason = rule.reason;
  if (rule.to == Step::kEnded) connection.text = value;
  connection.last = here_;
  Keep(connection, line);
  speaker_ = &connection;
  Move(connection, rule.to);
  if (rule.to == Step::kArgument5) CheckPort(&connection);
}

// Keeps a line without what concerns others: the values of variables, and who else may run.
void ConnectionLog::Keep(Connection& connection, std::string_view line) const {
  if (!keeps_lines_) return;
  if (connection.step == Step::kUsers &&
      (line.starts_with("User ") || line.starts_with("Windows: "))) {
    return;
  }
  if (connection.step != Step::kVersion || !line.starts_with(kVariable)) {
    connection.lines.emplace_back(line);
    return;
  }
  constexpr std::string_view between = " to ";
  const std::size_t end = std::min(line.find(between), line.size());
  connection.lines.push_back(std::string(line.substr(0, end)) + " to (left out)");
  const std::string value(line.substr(std::min(end + between.size(), line.size())));
  connection.environment.push_back(value);
  // The file's value stands in front of the one that was there.
  connection.environment.push_back(value.substr(0, value.find(':')));
}

void ConnectionLog::Move(Connection& connection, Step step) {
  if (const auto from = open_.find(connection.step); from != open_.end()) {
    std::erase(from->second, &connection);
    if (from->second.empty()) open_.erase(from);
  }
  connection.step = step;
  if (step < Step::kMixed) open_[step].push_back(&connection);
}

std::optional<int> ConnectionLog::ExpectedPort(const Connection& connection) const {
  const auto index = static_cast<std::int64_t>(connection.index);
  if (!options_) {
    if (!confirmed_) return std::nullopt;
    return confirmed_port_ + static_cast<int>(index - static_cast<std::int64_t>(*confirmed_));
  }
  const std::int64_t count = options_->comms_ports;
  const std::int64_t base = options_->comms_base_port;
  const std::int64_t known =
      confirmed_ ? confirmed_port_ - base - static_cast<std::int64_t>(*confirmed_) : 0;
  return static_cast<int>(base + ((known + index) % count + count) % count);
}

// Whether the port of a connection is the one that follows from those before it.
void ConnectionLog::CheckPort(Connection* launched) {
  const int port = static_cast<int>(NumberIn(launched->port->c_str()));
  if (launched->guessed) launched = speaker_ = RightOne(launched, port);
  const std::size_t index = launched->index;
  const std::optional<int> expected = ExpectedPort(*launched);
  if (expected == port) {
    launched->guessed = false;
  } else if (expected && (options_ || port > *expected)) {
    Doubt(std::min(confirmed_.value_or(0), index));
  }
  if (!confirmed_ || index > *confirmed_) {
    confirmed_ = index;
    confirmed_port_ = port;
  }
}

// Several connections had asked for nothing when the request of `launched` came. If it came from
// another one, by the port, the two change places, with all that followed.
Connection* ConnectionLog::RightOne(Connection* launched, int port) {
  if (ExpectedPort(*launched) == port) return launched;
  for (const auto& [step, connections] : open_) {
    for (Connection* right : connections) {
      if (!right->guessed || right->port || ExpectedPort(*right) != port) continue;
      Connection*& one = *std::ranges::find(open_.at(right->step), right);
      Connection*& other = *std::ranges::find(open_.at(launched->step), launched);
      std::swap(one, other);
      std::swap(*right, *launched);
      std::swap(right->index, launched->index);
      std::swap(right->began, launched->began);
      std::swap(right->first, launched->first);
      std::swap(right->unproven, launched->unproven);
      // The lines before a request: accepted, answered, greeted.
      if (keeps_lines_) {
        std::swap_ranges(right->lines.begin(), right->lines.begin() + 3, launched->lines.begin());
      }
      return right;
    }
  }
  return launched;
}

// From connection `first` on somebody may have made up what the log tells.
void ConnectionLog::Doubt(std::size_t first) {
  for (std::size_t i = first; i < connections_.size(); ++i) connections_[i].doubtful = true;
  for (auto& [step, connections] : open_) {
    if (!IsInStart(step) && step != Step::kScript) continue;
    for (Connection* connection : connections) connection->doubtful = true;
  }
}

// A line that no connection can have written in this place.
void ConnectionLog::DoubtAll(std::string_view line) {
  // A log that does not begin with a start may go on with lines of connections before it.
  const bool of_others = !starts_ && !LooksLikeOurs(line);
  if (connections_.empty() || of_others) return;
  std::size_t first = confirmed_.value_or(0);
  for (const auto& [step, connections] : open_) {
    if (!IsInStart(step)) continue;
    for (const Connection* connection : connections) first = std::min(first, connection->index);
  }
  Doubt(first);
}

// Whose script has printed the line; null where that may be several.
Connection* ConnectionLog::ScriptOf(std::string_view line) {
  const std::vector<Connection*>& scripts = open_.at(Step::kScript);
  if (scripts.size() == 1) return scripts.front();
  Connection* found = nullptr;
  for (Connection* script : scripts) {
    if (!script->job) continue;
    const std::string begin = *script->scheduler + ": ";
    const std::string number = "job " + *script->job;
    const std::size_t place = line.find(number);
    if (!line.starts_with(begin) || place == std::string_view::npos) continue;
    const std::size_t after = place + number.size();
    const bool longer = after < line.size() && line[after] >= '0' && line[after] <= '9';
    if (longer) continue;
    if (found != nullptr) return nullptr;
    found = script;
  }
  return found;
}

void ConnectionLog::AddScriptLine(std::string_view line) {
  Connection* script = ScriptOf(line);
  // "SCHEDULER: job NUMBER (vk_ROOT_abcde) is submitted"
  const std::size_t name = line.rfind(" (vk_");
  const std::size_t middle = line.find(": job ");
  if (line.ends_with(kSubmitted) && name != std::string_view::npos && middle < name) {
    std::vector<Connection*> fitting;
    for (Connection* candidate : open_.at(Step::kScript)) {
      const bool fits = line.substr(name + 2).starts_with(InJobName(*candidate->script_root));
      if (!candidate->job && fits) fitting.push_back(candidate);
    }
    if (fitting.size() == 1) {
      script = fitting.front();
      script->scheduler = line.substr(0, middle);
      script->job = line.substr(middle + 6, name - middle - 6);
    }
  }
  if (line.starts_with(kHostLine)) return;
  if (script == nullptr) {
    for (Connection* other : open_.at(Step::kScript)) other->unheard = true;
    return;
  }
  script->last = here_;
  Keep(*script, line);
  script->last_said = line.substr(0, kMostOfLine);
  last_script_ = script;
  last_script_line_ = lines_;
}

void ConnectionLog::AddAnswer(const std::optional<std::string>& host) {
  Answer answer{host, here_, open_.at(Step::kScript)};
  // The last line of a script that names no host and this one are written one after the other.
  const bool told = !host && last_script_line_ + 1 >= lines_ && last_script_->step == Step::kScript;
  if (answer.candidates.size() == 1 || told) {
    EndWait(told ? *last_script_ : *answer.candidates.front(), answer);
  } else {
    answers_.push_back(std::move(answer));
    CloseAnswered();
  }
}

// Where as many answers have come as scripts ran, none of these waits any more.
void ConnectionLog::CloseAnswered() {
  const std::vector<Connection*>& candidates = answers_.back().candidates;
  const auto among = [&](const Connection* connection) {
    return std::ranges::find(candidates, connection) != candidates.end();
  };
  const auto answered = std::ranges::count_if(answers_, [&](const Answer& answer) {
    return std::ranges::all_of(answer.candidates, among);
  });
  if (static_cast<std::size_t>(answered) < candidates.size()) return;
  for (Connection* connection : candidates) Move(*connection, Step::kMixed);
}

void ConnectionLog::EndWait(Connection& connection, const Answer& answer) {
  connection.host = answer.host;
  connection.last = answer.place;
  Keep(connection, answer.host ? std::string(kHost) + *answer.host : std::string(kNoHost));
  if (!answer.host) connection.reason = "no-host";
  Move(connection, answer.host ? Step::kLaunched : Step::kEnded);
}

// Gives each connection that is known to have a host its answer, where only one is left for it.
// Returns whether there was any.
bool ConnectionLog::GiveHosts() {
  bool any = false;
  for (Connection& connection : connections_) {
    if (!connection.has_host || connection.step >= Step::kLaunched) continue;
    const auto has = [&](const Answer& answer) {
      return std::ranges::find(answer.candidates, &connection) != answer.candidates.end();
    };
    const auto answer = std::ranges::find_if(answers_, has);
    if (std::ranges::count_if(answers_, has) != 1) continue;
    EndWait(connection, *answer);
    answer->candidates.clear();
    any = true;
  }
  return any;
}

void ConnectionLog::Settle() {
  for (std::size_t i = 0; i < connections_.size(); ++i) {
    connections_[i].unproven = connections_[i].unproven && i >= confirmed_.value_or(0);
  }
  // Takes a connection out of the candidates of all answers but those that `unless` holds for.
  const auto leave = [&](const Connection* connection, const auto& unless) {
    for (Answer& answer : answers_) {
      if (!unless(answer)) std::erase(answer.candidates, connection);
    }
  };
  for (const Connection& connection : connections_) {
    const bool undecided = connection.step == Step::kScript || connection.step == Step::kMixed;
    leave(&connection, [&](const Answer& answer) {
      if (!undecided) return false;
      if (!connection.has_host) return answer.host || !connection.runs_on;
      return answer.host && (!connection.host || *connection.host == *answer.host);
    });
  }
  for (bool changed = true; changed;) {
    changed = GiveHosts();
    for (Answer& answer : answers_) {
      // Equal answers, as many as the connections that they can be of: each of these has one.
      const auto same = std::ranges::count_if(answers_, [&](const Answer& other) {
        return other.host == answer.host && other.candidates == answer.candidates;
      });
      const std::vector<Connection*> all = answer.candidates;
      if (all.empty() || static_cast<std::size_t>(same) != all.size()) continue;
      for (Connection* connection : all) {
        EndWait(*connection, answer);
        leave(connection, [](const Answer&) { return false; });
      }
      changed = true;
    }
  }
  for (const Answer& answer : answers_) {
    for (Connection* connection : answer.candidates) {
      connection->last = answer.place;
      connection->undecided = true;
    }
  }
}

}  // namespace inspect
